// Locales and their string tables.
//
// A Locale is a set of named string tables for one locale name; each table maps keys to texts. A
// string that a locale does not have is searched in its fallback locale, up the chain of parent
// locales ("de-AT", "de") to the root locale "en-US". Translations come from the file
// "QelStringTables.xml" in a folder named by the locale beside the program ("<program folder>/
// de-DE/QelStringTables.xml"), read when the locale is first acquired:
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <StringTables locale="de-DE" >
//     <StringTable key="_AlertMessageFormats_" >
//       <STR key="Some.Key" >Text</STR>
//     </StringTable>
//   </StringTables>
//
// The file's `locale` attribute decides which locale receives its strings. Texts are trimmed of
// white space; entities are replaced; a key twice keeps its first text. A missing, unreadable or
// malformed file is not reported: the strings read before an error stay, and the locale works
// with what its fallback chain has.
//
// Code that knows an English default looks its text up and, on a miss, enters the default in the
// root locale's table, so that the root collects every text in use; OutputLocaleStrings writes
// the tables out as templates for translators.
//
// Threads: everything here may be used from any thread. Locales live until the library stops.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/LocaleName.h"
#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/ReadersWriterMutex.h"

#include <locale>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Qel::Core {

QEL_DEFINE_ERROR_API(QEL_CORE_API, InvalidLocale, LogicError, AlertInfo::eERROR,
                     "%1% is not a valid locale on this system", std::string)
QEL_DEFINE_WARNING_API(QEL_CORE_API, OpenLocaleStringFileFailed, Warning,
                       "Failed to open file named %1% for %2% locale strings", std::string, std::string)

// Keys to texts; case-sensitive. Guarded by the readers-writer mutex of its locale (none for a
// table made on its own).
class QEL_CORE_API StringTable
{
public:
    explicit StringTable(const ReadersWriterMutex* mutex = nullptr);
    StringTable(const StringTable&) = delete;
    StringTable& operator=(const StringTable&) = delete;

    // True and `text` set if the key is there; otherwise `text` stays as it was.
    bool GetString(const std::string& key, std::string& text) const;
    // Adds the text under the key; a key that is there keeps its text.
    void AddString(const std::string& key, const std::string& text);
    std::size_t Size() const;
    // The strings, sorted by key.
    std::vector<std::pair<std::string, std::string>> GetStrings() const;

private:
    std::unordered_map<std::string, std::string> m_Strings;
    const ReadersWriterMutex* m_pMutex;
};

class QEL_CORE_API Locale
{
public:
    ~Locale();
    Locale(const Locale&) = delete;
    Locale& operator=(const Locale&) = delete;

    // The locale of a name, made and its string file read on first use; null if the name is not
    // valid. Blocks while the file is read.
    static std::shared_ptr<Locale> Acquire(const LocaleName& name);
    // The locale "en-US", which ends every fallback chain; null before the library's start.
    static std::shared_ptr<Locale> GetRoot();

    std::shared_ptr<Locale> GetFallback() const { return m_spFallback; }
    const LocaleName& GetName() const { return m_Name; }
    unsigned long GetID() const { return m_nID; }
    // The C++ locale of the language; the classic locale where the system has none.
    const std::locale& GetStdLocale() const;

    // The table of that name; an empty one is made if there is none.
    std::shared_ptr<StringTable> GetStringTable(const std::string& tableName) const;
    // The text of `key` in `table`, here or along the fallback chain. True if found; otherwise
    // `text` stays as it was.
    template <typename Key>
    bool GetString(const std::string& table, const Key& key, std::string& text) const
    {
        return GetStringImpl(table, std::string(key), text);
    }

    // Reads one string file into the locale its `locale` attribute names. Never raises.
    static void InputLocaleStrings(const std::string& fileName);
    // Writes "<directory>/<locale name>/QelStringTables.xml" for every locale acquired so far,
    // making the folders that are missing.
    static void OutputLocaleStrings(const std::string& directory);
    // Writes this locale's tables that hold strings to the file; writes nothing for a locale
    // without tables. A file that cannot be written raises the warning OpenLocaleStringFileFailed.
    void OutputStrings(const std::string& fileName) const;

    // Adds the name of every locale the system knows.
    static void EnumAvailableLocales(std::set<std::string>& names);
    static void EnumAvailableLocales(std::unordered_set<std::string>& names);

protected:
    bool GetStringImpl(const std::string& table, const std::string& key, std::string& text) const;

private:
    explicit Locale(const LocaleName& name);
    friend class LocaleManager;

    ReadersWriterMutex m_Mutex; // the table map, the C++ locale, and the tables' content
    mutable std::unordered_map<std::string, std::shared_ptr<StringTable>> m_Tables;
    LocaleName m_Name;
    unsigned long m_nID;
    std::shared_ptr<Locale> m_spFallback;
    mutable std::unique_ptr<std::locale> m_pStdLocale;
};

// The manager of locales: a managed global of the library, made at load.
class QEL_CORE_API LocaleManager
{
public:
    LocaleManager();
    ~LocaleManager();
    LocaleManager(const LocaleManager&) = delete;
    LocaleManager& operator=(const LocaleManager&) = delete;

    // The start: the root locale, the tables of the system's locales, and the current locale of
    // System (the root, then the user's locale if it can be acquired).
    void Init();

    // The manager, or null outside its life.
    static LocaleManager* Instance();

private:
    friend class Locale;
    friend class LocaleName;
    friend class LocaleManagerTestAccess;

    // Enters one locale of the enumeration into the tables.
    void AddEnumeratedLocale(const std::string& name);

    ReadersWriterMutex m_Mutex; // the map of locales
    std::unordered_map<std::string, std::shared_ptr<Locale>> m_Locales;
    std::shared_ptr<Locale> m_spRootLocale;
    std::unordered_map<std::string, std::string> m_LanguageCodes;
    std::unordered_map<std::string, std::string> m_RegionCodes;
    std::unordered_map<std::string, std::string> m_DefaultLocales;
    std::unordered_set<std::string> m_AvailableLocales;
};

// The text of `key` in `table` in the current locale of System; false if there is none.
template <typename Key>
bool GetString(const std::string& table, const Key& key, std::string& text);

namespace Detail {
QEL_CORE_API std::shared_ptr<Locale> CurrentLocale();
// The text in the current locale (along its chain); false if there is none.
QEL_CORE_API bool LookupLocaleString(const std::string& table, const std::string& key, std::string& text);
// Enters a default text in the root locale's table, for the translators' templates.
QEL_CORE_API void AddRootLocaleString(const std::string& table, const std::string& key, const std::string& text);
} // namespace Detail

template <typename Key>
bool GetString(const std::string& table, const Key& key, std::string& text)
{
    std::shared_ptr<Locale> locale = Detail::CurrentLocale();
    return locale && locale->GetString(table, key, text);
}

} // namespace Qel::Core
