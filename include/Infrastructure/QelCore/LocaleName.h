// Locale names.
//
// A LocaleName holds one locale name in BCP 47 form ("en-US", "de-DE", "sr-Latn-RS") and asks the
// system (ICU's locale data) what it means. Built from one text, a name that the system does not
// know is tried as a language, in English ("German") or as an ISO 639 code ("de"), and becomes
// that language's default locale ("de-DE") when the locale manager knows one; otherwise the text
// is kept as given and the name is not valid. Names made of parts are taken as they are.
//
// Display names ("for display") are given in English. Queries never raise: an invalid name or a
// value the locale does not have gives an empty text. Comparison is exact, case included, so
// "en-us" and "en-US" differ although both are valid.
//
// A LocaleName is a plain value: reading one from several threads is safe. The tables behind
// the resolution and the static look-ups are filled once when the library starts.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <string>

namespace Qel::Core {

class QEL_CORE_API LocaleName
{
public:
    // "en-US", the name of the root locale.
    static const LocaleName USA;

    LocaleName(const std::string& name);
    LocaleName(const char* name);
    LocaleName(const std::string& first, const std::string& second);
    LocaleName(const std::string& first, const std::string& second, const std::string& third);
    LocaleName(const LocaleName&) = default;
    LocaleName& operator=(const LocaleName&) = default;

    bool operator==(const LocaleName& other) const { return m_sName == other.m_sName; }
    bool operator!=(const LocaleName& other) const { return m_sName != other.m_sName; }

    const std::string& ToString() const { return m_sName; }
    operator const std::string&() const { return m_sName; }
    operator const char*() const { return m_sName.c_str(); }

    std::string GetLanguage() const;          // the language's name for display (English)
    std::string GetLanguageCode() const;      // ISO 639
    std::string GetLanguageInEnglish() const; //
    std::string GetNativeLanguage() const;    // the language's name in the language itself
    std::string GetRegion() const;            // the region's name for display (English)
    std::string GetRegionCode() const;        // ISO 3166
    std::string GetRegionInEnglish() const;   //
    std::string GetNativeRegion() const;      // the region's name in the locale's language
    // The parent locale's name ("de-AT" gives "de", "de" gives ""), for the fallback chain.
    std::string GetParent() const;

    bool IsValid() const { return IsValid(m_sName); }
    static bool IsValid(const std::string& name);
    // The numeric locale identifier (language in the low 10 bits, sublanguage above); 0 for an
    // invalid name, 0x1000 for a valid one that has none.
    unsigned long GetLocaleID() const;

    // The ISO code of a language or region given by its English name, as the system names it
    // ("German", "Germany"). True and `code` set if known; otherwise false, `code` untouched.
    static bool GetLanguageCode(const std::string& languageInEnglish, std::string& code);
    static bool GetRegionCode(const std::string& regionInEnglish, std::string& code);

private:
    std::string m_sName;
};

} // namespace Qel::Core
