// Locales, string tables, the locale manager and the reader of string files.
#include "Infrastructure/QelCore/Locale.h"

#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/StringTools.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/XMLFormatter.h"
#include "Infrastructure/QelCore/XMLParser.h"
#include "Infrastructure/QelCore/XMLWriter.h"
#include "Infrastructure/QelCore/Platform/LocaleInfo.h"

#include <algorithm>
#include <atomic>
#include <fstream>

namespace Qel::Core {
namespace {

std::atomic<LocaleManager*> s_pManager{nullptr};

const std::string& RootName()
{
    return Globals::Instance().m_sDefaultLocale;
}

const std::string& StringTableFile()
{
    return Globals::Instance().m_sStringTableFile;
}

std::string FolderPath(std::string path)
{
    if (!path.empty() && path.back() != '/') path += '/';
    return path;
}

// Reads "QelStringTables.xml": StringTables (locale) > StringTable (key) > STR (key) with text.
class LocaleStringParser : public XMLParseHandler<XMLStringPolicy<std::string>>
{
public:
    void StartTag(const std::string& name)
    {
        if (name == "StringTables") {
            m_spLocale.reset();
            m_spTable.reset();
        } else if (name == "StringTable") {
            m_spTable.reset();
            m_nState = eTABLE_BEGUN;
        } else if (name == "STR") {
            m_nState = eSTRING_BEGUN;
        }
    }

    void EndTag(const std::string& name, bool)
    {
        if (name == "StringTables") {
            m_spLocale.reset();
            m_spTable.reset();
        } else if (name == "StringTable") {
            m_spTable.reset();
            m_nState = eAFTER_TABLE;
        } else if (name == "STR") {
            m_nState = eIN_TABLE;
        }
    }

    void Attribute(const std::string& name, const XMLAttributeValue<std::string>& value)
    {
        if (name == "locale") {
            LocaleName localeName(value.ToString());
            m_spLocale = Locale::Acquire(localeName);
            if (!m_spLocale) QEL_RAISE_ERROR(InvalidLocale(localeName.ToString()), "Qel.Core.LocaleStringParser");
        } else if (name == "key") {
            m_sKey = value.ToString();
            if (m_nState == eTABLE_BEGUN) {
                if (m_spLocale) m_spTable = m_spLocale->GetStringTable(m_sKey);
                m_nState = eIN_TABLE;
            } else if (m_nState == eSTRING_BEGUN) {
                m_nState = eSTRING_KEYED;
            }
        }
    }

    void Text(const std::string& text)
    {
        std::string trimmed = StringTools::TrimWS(text);
        if (trimmed.empty() || m_nState != eSTRING_KEYED) return;
        // A key before any table has nowhere to go; its text is dropped.
        if (m_spTable) m_spTable->AddString(m_sKey, trimmed);
        m_nState = eIN_TABLE;
    }

private:
    enum EState
    {
        eBEFORE_TABLES = 0,
        eAFTER_TABLE = 1,
        eTABLE_BEGUN = 2,
        eIN_TABLE = 3,
        eSTRING_BEGUN = 4,
        eSTRING_KEYED = 5,
    };

    std::shared_ptr<Locale> m_spLocale;
    std::shared_ptr<StringTable> m_spTable;
    std::string m_sKey;
    EState m_nState = eBEFORE_TABLES;
};

} // namespace

// ---- StringTable ----

StringTable::StringTable(const ReadersWriterMutex* mutex) : m_pMutex(mutex) {}

bool StringTable::GetString(const std::string& key, std::string& text) const
{
    ReaderLock read;
    if (m_pMutex) read.Reset(*m_pMutex);
    auto found = m_Strings.find(key);
    if (found == m_Strings.end()) return false;
    text = found->second;
    return true;
}

void StringTable::AddString(const std::string& key, const std::string& text)
{
    WriterLock write;
    if (m_pMutex) write.Reset(*m_pMutex);
    m_Strings.emplace(key, text); // a key that is there keeps its text
}

std::size_t StringTable::Size() const
{
    ReaderLock read;
    if (m_pMutex) read.Reset(*m_pMutex);
    return m_Strings.size();
}

std::vector<std::pair<std::string, std::string>> StringTable::GetStrings() const
{
    std::vector<std::pair<std::string, std::string>> strings;
    {
        ReaderLock read;
        if (m_pMutex) read.Reset(*m_pMutex);
        strings.assign(m_Strings.begin(), m_Strings.end());
    }
    std::sort(strings.begin(), strings.end());
    return strings;
}

// ---- Locale ----

Locale::Locale(const LocaleName& name) : m_Name(name), m_nID(name.GetLocaleID())
{
    if (name.ToString() == RootName()) return; // the root has no fallback
    std::string parent = name.GetParent();
    if (!parent.empty() && LocaleName::IsValid(parent) && parent != name.ToString())
        m_spFallback = Acquire(LocaleName(parent));
    if (!m_spFallback) m_spFallback = GetRoot();
}

Locale::~Locale() = default;

std::shared_ptr<Locale> Locale::Acquire(const LocaleName& name)
{
    if (!name.IsValid()) return nullptr;
    LocaleManager* manager = LocaleManager::Instance();
    if (!manager) return nullptr;
    {
        ReaderLock read(manager->m_Mutex);
        auto found = manager->m_Locales.find(name.ToString());
        if (found != manager->m_Locales.end()) return found->second;
    }
    // Built outside the manager's lock: the constructor acquires the fallback.
    std::shared_ptr<Locale> locale(new Locale(name));
    {
        WriterLock write(manager->m_Mutex);
        auto [entry, added] = manager->m_Locales.emplace(name.ToString(), locale);
        if (!added) return entry->second; // another thread was first
    }
    if (name.ToString() == RootName()) return locale;
    PathName file(FolderPath(System::GetProcessPath()) + name.ToString() + "/" + StringTableFile(), UNIX);
    if (file.Exists()) InputLocaleStrings(file);
    return locale;
}

std::shared_ptr<Locale> Locale::GetRoot()
{
    LocaleManager* manager = LocaleManager::Instance();
    return manager ? manager->m_spRootLocale : nullptr;
}

const std::locale& Locale::GetStdLocale() const
{
    {
        ReaderLock read(m_Mutex);
        if (m_pStdLocale) return *m_pStdLocale;
    }
    WriterLock write(m_Mutex);
    if (!m_pStdLocale) {
        try {
            m_pStdLocale = std::make_unique<std::locale>(m_Name.GetLanguageInEnglish());
        } catch (const std::exception&) {
            m_pStdLocale = std::make_unique<std::locale>(std::locale::classic());
        }
    }
    return *m_pStdLocale;
}

std::shared_ptr<StringTable> Locale::GetStringTable(const std::string& tableName) const
{
    ReaderLock read(m_Mutex);
    auto found = m_Tables.find(tableName);
    if (found != m_Tables.end()) return found->second;
    WriterLock write(m_Mutex); // this mutex lets a reader become a writer
    auto& table = m_Tables[tableName];
    if (!table) table = std::make_shared<StringTable>(&m_Mutex);
    return table;
}

bool Locale::GetStringImpl(const std::string& table, const std::string& key, std::string& text) const
{
    // This locale's lock is held only for its own step, none while the fallback is asked.
    if (GetStringTable(table)->GetString(key, text)) return true;
    return m_spFallback ? m_spFallback->GetStringImpl(table, key, text) : false;
}

void Locale::InputLocaleStrings(const std::string& fileName)
{
    try {
        PathName file(fileName, UNIX);
        if (!file.Exists()) return;
        XMLParser<LocaleStringParser> parser;
        (void)parser.Parse(file); // strings read before an error stay
    } catch (...) {
        // A bad file never stops the start of a locale.
    }
}

void Locale::OutputStrings(const std::string& fileName) const
{
    std::vector<std::pair<std::string, std::shared_ptr<StringTable>>> tables;
    {
        ReaderLock read(m_Mutex);
        if (m_Tables.empty()) return;
        tables.assign(m_Tables.begin(), m_Tables.end());
    }
    std::sort(tables.begin(), tables.end(),
              [](const auto& left, const auto& right) { return left.first < right.first; });
    std::ofstream out(fileName, std::ios::binary | std::ios::trunc);
    if (!out) {
        QEL_RAISE_WARNING(OpenLocaleStringFileFailed(fileName, m_Name.ToString()), "Qel.Core.Locale");
        return;
    }
    XMLWriter writer(XMLFormatter::CreatePrettyPrint());
    out << writer.StartXMLDoc() << writer.StartTag("StringTables") << writer.Attribute("locale", m_Name.ToString());
    for (const auto& [name, table] : tables) {
        std::vector<std::pair<std::string, std::string>> strings = table->GetStrings();
        if (strings.empty()) continue;
        out << writer.StartTag("StringTable") << writer.Attribute("key", name);
        for (const auto& [key, text] : strings)
            out << writer.StartTag("STR") << writer.Attribute("key", key) << writer.Text(text) << writer.EndTag();
        out << writer.EndTag();
    }
    out << writer.EndAllTags() << writer.EndXMLDoc();
}

void Locale::OutputLocaleStrings(const std::string& directory)
{
    LocaleManager* manager = LocaleManager::Instance();
    if (!manager) return;
    const std::string folder = FolderPath(directory);
    PathName(folder, UNIX).CreateBranch();
    std::vector<std::shared_ptr<Locale>> locales;
    {
        ReaderLock read(manager->m_Mutex);
        for (const auto& entry : manager->m_Locales) locales.push_back(entry.second);
    }
    for (const auto& locale : locales) {
        const std::string branch = folder + locale->GetName().ToString() + "/";
        PathName(branch, UNIX).CreateBranch();
        locale->OutputStrings(branch + StringTableFile());
    }
}

void Locale::EnumAvailableLocales(std::set<std::string>& names)
{
    if (LocaleManager* manager = LocaleManager::Instance())
        names.insert(manager->m_AvailableLocales.begin(), manager->m_AvailableLocales.end());
}

void Locale::EnumAvailableLocales(std::unordered_set<std::string>& names)
{
    if (LocaleManager* manager = LocaleManager::Instance())
        names.insert(manager->m_AvailableLocales.begin(), manager->m_AvailableLocales.end());
}

// ---- LocaleManager ----

LocaleManager::LocaleManager()
{
    s_pManager.store(this, std::memory_order_release);
}

LocaleManager::~LocaleManager()
{
    LocaleManager* self = this;
    s_pManager.compare_exchange_strong(self, nullptr);
}

LocaleManager* LocaleManager::Instance()
{
    return s_pManager.load(std::memory_order_acquire);
}

void LocaleManager::Init()
{
    m_spRootLocale = Locale::Acquire(LocaleName(RootName()));
    QEL_ASSERT((m_spRootLocale != nullptr));
    Platform::EnumerateLocales([this](const std::string& name) { AddEnumeratedLocale(name); });
    if (m_spRootLocale) System::SetLocale(m_spRootLocale);
    std::string user = Platform::UserDefaultLocaleName();
    if (!user.empty()) {
        if (std::shared_ptr<Locale> locale = Locale::Acquire(LocaleName(user))) System::SetLocale(locale);
    }
}

void LocaleManager::AddEnumeratedLocale(const std::string& name)
{
    m_AvailableLocales.insert(name);
    // The code of a language is kept only in the round in which its English name is first seen.
    std::string firstCode;
    std::string language = Platform::GetLocaleInfo(name, Platform::LocaleQuery::LanguageInEnglish);
    if (!language.empty() && !m_LanguageCodes.count(language)) {
        std::string code = Platform::GetLocaleInfo(name, Platform::LocaleQuery::LanguageCode);
        if (!code.empty()) {
            m_LanguageCodes[language] = code;
            firstCode = code;
        }
    }
    std::string region = Platform::GetLocaleInfo(name, Platform::LocaleQuery::RegionInEnglish);
    if (!region.empty() && !m_RegionCodes.count(region)) {
        std::string code = Platform::GetLocaleInfo(name, Platform::LocaleQuery::RegionCode);
        if (!code.empty()) m_RegionCodes[region] = code;
    }
    // The default sublanguage (1) of a language makes the locale the language's default.
    std::string id = Platform::GetLocaleInfo(name, Platform::LocaleQuery::LanguageId);
    if (id.empty() || firstCode.empty()) return;
    unsigned long value = std::stoul(id, nullptr, 16);
    if (((value & 0xFFFF) >> 10) == 1) m_DefaultLocales[firstCode] = name;
}

std::shared_ptr<Locale> Detail::CurrentLocale()
{
    return System::GetLocale();
}

bool Detail::LookupLocaleString(const std::string& table, const std::string& key, std::string& text)
{
    std::shared_ptr<Locale> locale = System::GetLocale();
    return locale && locale->GetString(table, key, text);
}

void Detail::AddRootLocaleString(const std::string& table, const std::string& key, const std::string& text)
{
    if (std::shared_ptr<Locale> root = Locale::GetRoot()) root->GetStringTable(table)->AddString(key, text);
}

} // namespace Qel::Core
