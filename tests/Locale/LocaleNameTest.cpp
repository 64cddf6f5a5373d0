// Locale names: equality, parts, the system's answers, resolution of languages, and the tables
// that the locale manager builds at the library's start.
#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/LocaleName.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <unordered_set>

using namespace Qel::Core;

TEST(LocaleName, EqualityIsExactAndPartsAreJoinedUnchecked)
{
    EXPECT_EQ(LocaleName("en-US"), LocaleName::USA);
    EXPECT_EQ(LocaleName("en", "US"), LocaleName::USA);
    EXPECT_EQ(LocaleName::USA.ToString(), "en-US");
    EXPECT_EQ(LocaleName("a", "b", "c").ToString(), "a-b-c");
    EXPECT_FALSE(LocaleName("a", "b", "c").IsValid());
    // Case counts for equality, not for validity.
    EXPECT_NE(LocaleName("en-us"), LocaleName("en-US"));
    EXPECT_TRUE(LocaleName("en-us").IsValid());
    const LocaleName name("de-AT");
    EXPECT_EQ(std::string(static_cast<const char*>(name)), name.ToString());
    EXPECT_EQ(static_cast<const std::string&>(name), "de-AT");
}

TEST(LocaleName, SystemAnswers)
{
    EXPECT_EQ(LocaleName::USA.GetLanguageCode(), "en");
    EXPECT_EQ(LocaleName::USA.GetRegionCode(), "US");
    EXPECT_EQ(LocaleName::USA.GetLanguageInEnglish(), "English");
    EXPECT_EQ(LocaleName::USA.GetRegionInEnglish(), "United States");
    EXPECT_EQ(LocaleName::USA.GetLocaleID(), 0x0409u);
    const LocaleName austria("de-AT");
    EXPECT_EQ(austria.GetLanguage(), "German");
    EXPECT_EQ(austria.GetNativeLanguage(), "Deutsch");
    EXPECT_EQ(austria.GetRegion(), "Austria");
    EXPECT_EQ(austria.GetNativeRegion(), "\xC3\x96sterreich");
    EXPECT_EQ(austria.GetLocaleID(), 0x0C07u);
    EXPECT_EQ(austria.GetParent(), "de");
    EXPECT_EQ(LocaleName("de").GetParent(), "");
    EXPECT_EQ(LocaleName("de").GetRegion(), ""); // a neutral locale has no region
    EXPECT_EQ(LocaleName("fr-FR").GetNativeLanguage(), "fran\xC3\xA7" "ais");
}

TEST(LocaleName, UnknownNamesAreKeptAndAnswerNothing)
{
    const LocaleName unknown("no-such-name");
    EXPECT_FALSE(unknown.IsValid());
    EXPECT_EQ(unknown.ToString(), "no-such-name");
    EXPECT_EQ(unknown.GetLanguage(), "");
    EXPECT_EQ(unknown.GetLanguageCode(), "");
    EXPECT_EQ(unknown.GetRegionInEnglish(), "");
    EXPECT_EQ(unknown.GetParent(), "");
    EXPECT_EQ(unknown.GetLocaleID(), 0u);
    EXPECT_FALSE(LocaleName("").IsValid());
    EXPECT_FALSE(LocaleName("xx-YY").IsValid()); // well-formed, but no data
    EXPECT_FALSE(LocaleName("en_US").IsValid()); // the system's names use '-'
}

TEST(LocaleName, LanguagesResolveToTheirDefaultLocale)
{
    // Each language's likely region comes first in the enumeration, so it is the default.
    EXPECT_EQ(LocaleName("English").ToString(), "en-US");
    EXPECT_EQ(LocaleName("German").ToString(), "de-DE");
    EXPECT_EQ(LocaleName("French").ToString(), "fr-FR");
    EXPECT_EQ(LocaleName("Portuguese").ToString(), "pt-BR");
    EXPECT_EQ(LocaleName("Japanese").ToString(), "ja-JP");
    // A valid name is kept as it is, also a neutral one.
    EXPECT_EQ(LocaleName("de").ToString(), "de");
    EXPECT_EQ(LocaleName("Klingonese").ToString(), "Klingonese");
    EXPECT_FALSE(LocaleName("Klingonese").IsValid());
}

TEST(LocaleName, NamesWhoseScriptIsImpliedAreValidAsGiven)
{
    struct Case
    {
        const char* pszName;
        const char* pszLanguageCode;
        const char* pszRegionCode;
        const char* pszRegion;
    };
    for (const Case& c : {Case{"zh-CN", "zh", "CN", "China"}, Case{"zh-TW", "zh", "TW", "Taiwan"},
                          Case{"zh-HK", "zh", "HK", "Hong Kong SAR China"}, Case{"pa-IN", "pa", "IN", "India"},
                          Case{"zh-Hans-CN", "zh", "CN", "China"}}) {
        const LocaleName name(c.pszName);
        SCOPED_TRACE(c.pszName);
        EXPECT_TRUE(name.IsValid());
        EXPECT_EQ(name.ToString(), c.pszName); // kept as the user wrote it
        EXPECT_EQ(name.GetLanguageCode(), c.pszLanguageCode);
        EXPECT_EQ(name.GetRegionCode(), c.pszRegionCode);
        EXPECT_EQ(name.GetRegionInEnglish(), c.pszRegion);
    }
    EXPECT_EQ(LocaleName("zh-CN").GetLocaleID(), 0x0804u);
    // Likely subtags fill in a script only: a region or a language they would add is no match.
    for (const char* pszName : {"und-CN", "zh-Latn-CN", "de-CN", "zh-XX"}) {
        EXPECT_FALSE(LocaleName(pszName).IsValid()) << pszName;
    }
}

TEST(LocaleName, CodesByEnglishName)
{
    std::string code = "untouched";
    EXPECT_TRUE(LocaleName::GetLanguageCode("English", code));
    EXPECT_EQ(code, "en");
    EXPECT_TRUE(LocaleName::GetRegionCode("Germany", code));
    EXPECT_EQ(code, "DE");
    code = "untouched";
    EXPECT_FALSE(LocaleName::GetLanguageCode("Klingonese", code));
    EXPECT_FALSE(LocaleName::GetRegionCode("Atlantis", code));
    EXPECT_EQ(code, "untouched");
}

TEST(LocaleName, AvailableLocalesAreEnumerated)
{
    std::set<std::string> names;
    Locale::EnumAvailableLocales(names);
    EXPECT_GT(names.size(), 500u);
    EXPECT_TRUE(names.count("en-US"));
    EXPECT_TRUE(names.count("de-AT"));
    EXPECT_TRUE(names.count("sr-Latn-RS"));
    // Names as users write them: the implied script is left out.
    for (const char* pszName : {"zh-CN", "zh-TW", "zh-HK", "pa-IN", "sr-RS"}) EXPECT_TRUE(names.count(pszName)) << pszName;
    for (const char* pszName : {"zh-Hans-CN", "zh-Hant-TW", "pa-Guru-IN"}) EXPECT_FALSE(names.count(pszName)) << pszName;
    std::unordered_set<std::string> unordered;
    Locale::EnumAvailableLocales(unordered);
    EXPECT_EQ(unordered.size(), names.size());
    for (const std::string& name : names) EXPECT_TRUE(LocaleName::IsValid(name)) << name;
}
