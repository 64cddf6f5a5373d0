// Locale names: resolution through the locale manager's tables, and the system's answers.
#include "Infrastructure/QelCore/LocaleName.h"

#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/Platform/LocaleInfo.h"

namespace Qel::Core {

LocaleName::LocaleName(const std::string& name) : m_sName(name)
{
    if (IsValid()) return;
    LocaleManager* manager = LocaleManager::Instance();
    if (!manager) return;
    // A language, given by its English name or its ISO code, stands for its default locale.
    auto found = manager->m_DefaultLocales.find(name);
    if (found != manager->m_DefaultLocales.end()) {
        m_sName = found->second;
        return;
    }
    auto code = manager->m_LanguageCodes.find(name);
    if (code == manager->m_LanguageCodes.end()) return;
    found = manager->m_DefaultLocales.find(code->second);
    if (found != manager->m_DefaultLocales.end()) m_sName = found->second;
}

LocaleName::LocaleName(const char* name) : LocaleName(std::string(name ? name : "")) {}

LocaleName::LocaleName(const std::string& first, const std::string& second) : m_sName(first + "-" + second) {}

LocaleName::LocaleName(const std::string& first, const std::string& second, const std::string& third)
    : m_sName(first + "-" + second + "-" + third)
{
}

std::string LocaleName::GetLanguage() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::Language);
}

std::string LocaleName::GetLanguageCode() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::LanguageCode);
}

std::string LocaleName::GetLanguageInEnglish() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::LanguageInEnglish);
}

std::string LocaleName::GetNativeLanguage() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::NativeLanguage);
}

std::string LocaleName::GetRegion() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::Region);
}

std::string LocaleName::GetRegionCode() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::RegionCode);
}

std::string LocaleName::GetRegionInEnglish() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::RegionInEnglish);
}

std::string LocaleName::GetNativeRegion() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::NativeRegion);
}

std::string LocaleName::GetParent() const
{
    return Platform::GetLocaleInfo(m_sName, Platform::LocaleQuery::Parent);
}

bool LocaleName::IsValid(const std::string& name)
{
    return Platform::IsValidLocaleName(name);
}

unsigned long LocaleName::GetLocaleID() const
{
    return Platform::LocaleNameToId(m_sName);
}

bool LocaleName::GetLanguageCode(const std::string& languageInEnglish, std::string& code)
{
    LocaleManager* manager = LocaleManager::Instance();
    if (!manager) return false;
    auto found = manager->m_LanguageCodes.find(languageInEnglish);
    if (found == manager->m_LanguageCodes.end()) return false;
    code = found->second;
    return true;
}

bool LocaleName::GetRegionCode(const std::string& regionInEnglish, std::string& code)
{
    LocaleManager* manager = LocaleManager::Instance();
    if (!manager) return false;
    auto found = manager->m_RegionCodes.find(regionInEnglish);
    if (found == manager->m_RegionCodes.end()) return false;
    code = found->second;
    return true;
}

} // namespace Qel::Core
