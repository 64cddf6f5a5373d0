// Locales and string tables: acquisition, the fallback chain, look-ups, string files in and out,
// the wording of alerts, and look-ups while the locale changes.
#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/XMLParser.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

using namespace Qel::Core;

namespace {

using QelTest::ReadFile;
using QelTest::WriteFile;

QEL_DEFINE_ERROR(WordedTestError, LogicError, AlertInfo::eERROR, "Default wording of %1%", std::string)
QEL_DEFINE_WARNING(CollectedTestWarning, Warning, "A warning about %1%", std::string)

std::string TempPath(const std::string& name)
{
    return ::testing::TempDir() + "qel_locale_" + std::to_string(System::GetProcessId()) + "_" + name;
}

std::string Lookup(const std::shared_ptr<Locale>& locale, const std::string& table, const std::string& key)
{
    std::string text = "<none>";
    locale->GetString(table, key, text);
    return text;
}

// Restores the current locale at the end of a test.
struct KeepLocale
{
    std::shared_ptr<Locale> saved = System::GetLocale();
    ~KeepLocale() { System::SetLocale(saved); }
};

} // namespace

TEST(Locale, AcquireGivesOneObjectPerNameAndNullForInvalidNames)
{
    auto first = Locale::Acquire(LocaleName("de-DE"));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(Locale::Acquire(LocaleName("de-DE")), first);
    EXPECT_EQ(Locale::Acquire(LocaleName("German")), first); // resolved to the same name
    EXPECT_EQ(first->GetName().ToString(), "de-DE");
    EXPECT_EQ(first->GetID(), 0x0407u);
    EXPECT_EQ(Locale::Acquire(LocaleName("no-such-name")), nullptr);
}

TEST(Locale, EveryChainEndsInTheRoot)
{
    auto root = Locale::GetRoot();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->GetName(), LocaleName::USA);
    EXPECT_EQ(root->GetFallback(), nullptr);
    auto austria = Locale::Acquire(LocaleName("de-AT"));
    ASSERT_NE(austria, nullptr);
    ASSERT_NE(austria->GetFallback(), nullptr);
    EXPECT_EQ(austria->GetFallback()->GetName().ToString(), "de");
    EXPECT_EQ(austria->GetFallback()->GetFallback(), root);
    for (const char* name : {"fr-CA", "ja-JP", "sr-Latn-RS", "en-GB", "en"}) {
        auto locale = Locale::Acquire(LocaleName(name));
        ASSERT_NE(locale, nullptr) << name;
        int steps = 0;
        while (locale->GetFallback() && steps < 10) {
            locale = locale->GetFallback();
            ++steps;
        }
        EXPECT_EQ(locale, root) << name;
    }
}

TEST(Locale, LookupsFallBackAlongTheChain)
{
    auto root = Locale::GetRoot();
    auto austria = Locale::Acquire(LocaleName("de-AT"));
    auto german = Locale::Acquire(LocaleName("de"));
    root->GetStringTable("Chain")->AddString("OnlyRoot", "root text");
    root->GetStringTable("Chain")->AddString("Both", "root both");
    german->GetStringTable("Chain")->AddString("Both", "deutsch both");
    german->GetStringTable("Chain")->AddString("Both", "second text is ignored");
    EXPECT_EQ(Lookup(austria, "Chain", "OnlyRoot"), "root text");
    EXPECT_EQ(Lookup(austria, "Chain", "Both"), "deutsch both");
    EXPECT_EQ(Lookup(root, "Chain", "Both"), "root both");
    EXPECT_EQ(Lookup(austria, "Chain", "both"), "<none>"); // keys are case-sensitive
    // A table nobody filled: not found, and an empty table stays behind.
    EXPECT_EQ(Lookup(austria, "NobodyFilledThis", "Key"), "<none>");
    EXPECT_EQ(austria->GetStringTable("NobodyFilledThis")->Size(), 0u);
    // The free look-up asks the current locale.
    KeepLocale keep;
    System::SetLocale(austria);
    std::string text;
    EXPECT_TRUE(GetString("Chain", "Both", text));
    EXPECT_EQ(text, "deutsch both");
    EXPECT_TRUE(GetString("Chain", std::string("OnlyRoot"), text));
    EXPECT_EQ(text, "root text");
}

TEST(Locale, StandardLocaleFallsBackToClassic)
{
    const std::locale& locale = Locale::GetRoot()->GetStdLocale();
    EXPECT_EQ(locale.name(), std::locale::classic().name());
    EXPECT_EQ(&Locale::GetRoot()->GetStdLocale(), &locale); // made once
}

TEST(LocaleStrings, FilesAreReadIntoTheLocaleTheyName)
{
    const std::string path = TempPath("read.xml");
    WriteFile(path, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<StringTables locale=\"fr-FR\" >\n"
                    "  <STR key=\"Orphan\" >no table yet</STR>\n"
                    "  <StringTable key=\"Read\" >\n"
                    "    <STR key=\"Trimmed\" >\n      padded text  \n    </STR>\n"
                    "    <STR key=\"Blank\" >   \n  </STR>\n"
                    "    <STR key=\"Entities\" >a &lt; b &amp; c</STR>\n"
                    "    <STR key=\"Twice\" >first</STR>\n"
                    "    <STR key=\"Twice\" >second</STR>\n"
                    "    <STR key=\"CData\" ><![CDATA[not text]]></STR>\n"
                    "    <STR key=\"Utf8\" >\xC3\xA9t\xC3\xA9</STR>\n"
                    "  </StringTable>\n"
                    "</StringTables>\n");
    Locale::InputLocaleStrings(path);
    auto french = Locale::Acquire(LocaleName("fr-FR"));
    EXPECT_EQ(Lookup(french, "Read", "Trimmed"), "padded text");
    EXPECT_EQ(Lookup(french, "Read", "Blank"), "<none>");
    EXPECT_EQ(Lookup(french, "Read", "Entities"), "a < b & c");
    EXPECT_EQ(Lookup(french, "Read", "Twice"), "first");
    EXPECT_EQ(Lookup(french, "Read", "CData"), "<none>");
    EXPECT_EQ(Lookup(french, "Read", "Utf8"), "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(Lookup(french, "Read", "Orphan"), "<none>");
    std::remove(path.c_str());
}

TEST(LocaleStrings, BadFilesKeepWhatCameBeforeAndNeverRaise)
{
    const std::string truncated = TempPath("truncated.xml");
    WriteFile(truncated, "<StringTables locale=\"it-IT\"><StringTable key=\"Cut\"><STR key=\"A\">kept</STR>"
                         "<STR key=\"B\">lost");
    EXPECT_NO_THROW(Locale::InputLocaleStrings(truncated));
    auto italian = Locale::Acquire(LocaleName("it-IT"));
    EXPECT_EQ(Lookup(italian, "Cut", "A"), "kept");
    EXPECT_EQ(Lookup(italian, "Cut", "B"), "<none>");

    // An invalid locale raises InvalidLocale inside the reader, which drops it.
    QelTest::AlertRecorder recorder;
    const std::string invalid = TempPath("invalid.xml");
    WriteFile(invalid, "<StringTables locale=\"xx-YY\"><StringTable key=\"T\"><STR key=\"K\">v</STR>"
                       "</StringTable></StringTables>");
    EXPECT_NO_THROW(Locale::InputLocaleStrings(invalid));
    ASSERT_EQ(recorder.Count("raised"), 1u);
    EXPECT_EQ(recorder.Events()[0].message, "xx-YY is not a valid locale on this system");

    EXPECT_NO_THROW(Locale::InputLocaleStrings(TempPath("missing.xml")));
    EXPECT_NO_THROW(Locale::InputLocaleStrings(""));
    std::remove(truncated.c_str());
    std::remove(invalid.c_str());
}

TEST(LocaleStrings, OutputWritesTheTablesThatHoldStrings)
{
    auto locale = Locale::Acquire(LocaleName("nl-NL"));
    ASSERT_NE(locale, nullptr);
    const std::string empty = TempPath("empty.xml");
    locale->OutputStrings(empty); // no tables: no file
    EXPECT_FALSE(std::filesystem::exists(empty));

    locale->GetStringTable("Unused"); // an empty table is skipped
    locale->GetStringTable("Words")->AddString("Less", "a < b");
    locale->GetStringTable("Words")->AddString("Apple", "Appel");
    locale->GetStringTable("Alpha")->AddString("Key", "Text");
    const std::string path = TempPath("out.xml");
    locale->OutputStrings(path);
    EXPECT_EQ(ReadFile(path), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                              "<StringTables locale=\"nl-NL\" >\n"
                              "  <StringTable key=\"Alpha\" >\n"
                              "    <STR key=\"Key\" >Text</STR>\n"
                              "  </StringTable>\n"
                              "  <StringTable key=\"Words\" >\n"
                              "    <STR key=\"Apple\" >Appel</STR>\n"
                              "    <STR key=\"Less\" >a &lt; b</STR>\n"
                              "  </StringTable>\n"
                              "</StringTables>\n");
    // Read back into another locale by changing only the locale attribute.
    std::string text = ReadFile(path);
    text.replace(text.find("nl-NL"), 5, "sv-SE");
    WriteFile(path, text);
    Locale::InputLocaleStrings(path);
    EXPECT_EQ(Lookup(Locale::Acquire(LocaleName("sv-SE")), "Words", "Less"), "a < b");
    std::remove(path.c_str());
}

TEST(LocaleStrings, UnwritableFileRaisesTheWarning)
{
    QelTest::AlertRecorder recorder;
    auto locale = Locale::Acquire(LocaleName("pl-PL"));
    locale->GetStringTable("T")->AddString("K", "v");
    const std::string path = TempPath("no-such-folder/out.xml");
    locale->OutputStrings(path);
    ASSERT_EQ(recorder.Count("warning"), 1u);
    EXPECT_EQ(recorder.Events()[0].message, "Failed to open file named " + path + " for pl-PL locale strings");
}

TEST(LocaleStrings, OutputLocaleStringsWritesAFolderPerLocale)
{
    auto locale = Locale::Acquire(LocaleName("da-DK"));
    locale->GetStringTable("T")->AddString("K", "v");
    CollectedTestWarning warning("used"); // its default wording goes to the root's tables
    const std::string folder = TempPath("tables");
    Locale::OutputLocaleStrings(folder);
    const std::string file = folder + "/da-DK/QelStringTables.xml";
    EXPECT_TRUE(std::filesystem::exists(file));
    struct Count : XMLParseHandler<XMLStringPolicy<std::string>>
    {
        int strings = 0;
        void StartTag(const std::string& name) { strings += name == "STR"; }
    };
    XMLParser<Count> parser;
    EXPECT_TRUE(parser.Parse(PathName(file, UNIX)));
    EXPECT_EQ(parser.strings, 1);
    // The root collects the default wording of the alerts used so far.
    EXPECT_TRUE(std::filesystem::exists(folder + "/en-US/QelStringTables.xml"));
    std::filesystem::remove_all(folder);
}

TEST(LocaleAlerts, ALocaleWithItsOwnWordingGivesTheDisplayMessage)
{
    KeepLocale keep;
    const std::string typeName = TypeName(typeid(WordedTestError));
    auto german = Locale::Acquire(LocaleName("de-DE"));
    german->GetStringTable(typeName)->AddString(AlertInfo::sDISPLAY_FORMAT, "Deutsche Fassung von %1%");
    ASSERT_TRUE(System::SetLocale(LocaleName("de-DE")));
    WordedTestError error("x");
    EXPECT_EQ(error.GetMessageA(), "Default wording of x");
    EXPECT_EQ(error.GetDisplayMessage(), "Deutsche Fassung von x");
    System::SetLocale(Locale::GetRoot());
    WordedTestError english("y");
    EXPECT_EQ(english.GetDisplayMessage(), "Default wording of y");
}

TEST(LocaleAlerts, DefaultWordingIsCollectedInTheRoot)
{
    CollectedTestWarning warning("z");
    const std::string typeName = TypeName(typeid(CollectedTestWarning));
    auto root = Locale::GetRoot();
    EXPECT_EQ(Lookup(root, typeName, AlertInfo::sDISPLAY_FORMAT), "A warning about %1%");
    EXPECT_EQ(Lookup(root, AlertInfo::sALERT_MESSAGE_FORMATS, typeName), "A warning about %1%");
    const std::string path = TempPath("root.xml");
    root->OutputStrings(path);
    EXPECT_NE(ReadFile(path).find("<STR key=\"DisplayFormat\" >A warning about %1%</STR>"), std::string::npos);
    std::remove(path.c_str());
}

TEST(LocaleAlerts, SetLocaleWithAnInvalidNameRaisesInvalidLocale)
{
    KeepLocale keep;
    auto before = System::GetLocale();
    try {
        System::SetLocale(LocaleName("no-such-name"));
        FAIL() << "no error";
    } catch (const InvalidLocale& error) {
        EXPECT_EQ(error.GetMessageA(), "no-such-name is not a valid locale on this system");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.System.SetLocale");
    }
    EXPECT_EQ(System::GetLocale(), before);
}

TEST(LocaleThreads, LookupsWhileTheLocaleChanges)
{
    KeepLocale keep;
    auto root = Locale::GetRoot();
    std::vector<std::shared_ptr<Locale>> locales;
    for (const char* name : {"de-DE", "fr-FR", "es-ES", "it-IT"}) {
        auto locale = Locale::Acquire(LocaleName(name));
        locale->GetStringTable("Threads")->AddString("Name", name);
        locales.push_back(locale);
    }
    root->GetStringTable("Threads")->AddString("Root", "root");
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&, r] {
            int i = 0;
            while (!stop.load()) {
                std::string name;
                std::string rootText;
                if (!GetString("Threads", "Root", rootText) || rootText != "root") ++wrong;
                if (GetString("Threads", "Name", name) && name.size() != 5) ++wrong;
                // New tables and strings while others read.
                Locale::GetRoot()->GetStringTable("Threads" + std::to_string(r))->AddString(std::to_string(i++), "x");
            }
        });
    }
    std::thread switcher([&] {
        for (int i = 0; i < 400; ++i) System::SetLocale(locales[i % locales.size()]);
        stop = true;
    });
    switcher.join();
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(wrong.load(), 0);
}
