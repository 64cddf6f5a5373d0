// What the system knows about locales, from ICU.
//
// Locale names are BCP 47 tags such as "en-US", "de-AT" or "sr-Latn-RS". A name is valid when ICU
// has data for it (its list of available locales), compared without regard to case, as the
// system's own check does. Every query on a name that is not valid gives an empty text.
#pragma once

#include <functional>
#include <string>

namespace Qel::Core::Platform {

enum class LocaleQuery
{
    Language,          // the language's name for display (in English)
    LanguageCode,      // ISO 639
    LanguageInEnglish, //
    NativeLanguage,    // the language's name in the language itself
    Region,            // the region's name for display (in English)
    RegionCode,        // ISO 3166
    RegionInEnglish,   //
    NativeRegion,      // the region's name in the locale's language
    Parent,            // the parent locale ("de-AT" gives "de", "de" gives "")
    LanguageId,        // the numeric identifier as four hexadecimal digits ("0409"); empty if none
};

bool IsValidLocaleName(const std::string& name);
// The text, as UTF-8; empty for an invalid name or a value the locale does not have.
std::string GetLocaleInfo(const std::string& name, LocaleQuery query);
// The numeric identifier (language in the low 10 bits, sublanguage above); 0 for an invalid
// name, 0x1000 for a valid one that has none.
unsigned long LocaleNameToId(const std::string& name);
// Calls `each` with every available locale name. The locales of one language come together, and
// the one that ICU's likely subtags name for the language ("en" gives "en-US", "de" "de-DE")
// comes first among them, then the language's others in ICU's order.
void EnumerateLocales(const std::function<void(const std::string&)>& each);
// The user's locale from LC_ALL, else LC_MESSAGES, else LANG ("de_DE.UTF-8@euro" gives "de-DE");
// empty for "C", "POSIX" or nothing set.
std::string UserDefaultLocaleName();

} // namespace Qel::Core::Platform
