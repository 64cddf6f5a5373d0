// The default log file: the document, the layout of one entry, escaping, rollover at
// the limit, the identity check after another writer's rollover, the folder, failures and the
// cross-process lock's time limit.
#include "tests/Logging/LogTestSupport.h"

#include "Infrastructure/QelCore/Platform/NamedMutex.h"
#include "Infrastructure/QelCore/XMLParser.h"

#include <regex>
#include <thread>

using namespace Qel::Core;
using namespace LogTest;

namespace {

const std::string kSEPARATOR = "<!-- ========================================================================  -->\n";

DefaultLogEntriesFile::FolderSource In(const std::string& folder)
{
    return [folder] { return folder; };
}

// The entry wrapped in a document, for xmllint.
std::string AsDocument(const std::string& entries)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Log>\n" + entries + "</Log>\n";
}

} // namespace

// ---- one entry ----

TEST(DefaultLogEntry, GoldenTextOfAPlainEntry)
{
    QelLogEntry entry = MakeEntry("hello", QelLogWarning, "Qel.Core.Test");
    std::string text = FormatDefaultLogEntry(entry);
    EXPECT_EQ(WithoutTimeStamps(text), "<LogEntry Severity=\"Warning\" >\n"
                                       "  <TimeStamp>T</TimeStamp>\n"
                                       "  <LogName>Qel.Core.Test</LogName>\n"
                                       "  <Message>hello</Message>\n"
                                       "</LogEntry>\n"
                                       "\n" +
                                           kSEPARATOR + "\n");
    EXPECT_NE(text.find("<TimeStamp>" + entry.m_TimeStamp.ToString() + "</TimeStamp>"), std::string::npos);
    EXPECT_TRUE(std::regex_search(text, std::regex("<TimeStamp>\\d{4}/\\d{2}/\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}</TimeStamp>")));
    EXPECT_STREQ(sDEFAULT_LOG_SEPARATOR, kSEPARATOR.c_str());
    EXPECT_EQ(kSEPARATOR.size(), 83u);
}

TEST(DefaultLogEntry, SeverityTexts)
{
    const char* const texts[] = {"Alarm", "Error", "Warning", "Debug", "Informational", "Verbose"};
    for (int severity = 1; severity <= 6; ++severity) {
        EXPECT_STREQ(LogSeverityText(severity), texts[severity - 1]);
        std::string text = FormatDefaultLogEntry(MakeEntry("m", static_cast<QelLogSeverityEnum>(severity)));
        EXPECT_EQ(text.rfind(std::string("<LogEntry Severity=\"") + texts[severity - 1] + "\" >\n", 0), 0u) << text;
    }
}

TEST(DefaultLogEntry, ASeverityOutsideOneToSixHasNoAttribute)
{
    for (int severity : {0, 7, -1, 100}) {
        EXPECT_STREQ(LogSeverityText(severity), "");
        std::string text = FormatDefaultLogEntry(MakeEntry("odd", static_cast<QelLogSeverityEnum>(severity), "A.B"));
        EXPECT_EQ(WithoutTimeStamps(text), "<LogEntry>\n"
                                           "  <TimeStamp>T</TimeStamp>\n"
                                           "  <LogName>A.B</LogName>\n"
                                           "  <Message>odd</Message>\n"
                                           "</LogEntry>\n"
                                           "\n" +
                                               kSEPARATOR + "\n")
            << severity;
    }
}

TEST(DefaultLogEntry, APlainMessageIsEscaped)
{
    std::string text = FormatDefaultLogEntry(MakeEntry("1 < 2 & 3 > 'q' \"d\"", QelLogError, "A&B<C"));
    EXPECT_NE(text.find("  <LogName>A&amp;B&lt;C</LogName>\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  <Message>1 &lt; 2 &amp; 3 &gt; &apos;q&apos; &quot;d&quot;</Message>\n"), std::string::npos)
        << text;
}

TEST(DefaultLogEntry, AnXmlMessageIsWrittenUnchangedWithoutAMessageTag)
{
    const std::string fragment = "<Extra a=\"1\">x &amp; y &lt; z</Extra>";
    const std::string expected = "<LogEntry Severity=\"Error\" >\n"
                                 "  <TimeStamp>T</TimeStamp>\n"
                                 "  <LogName>Qel.Core.Test</LogName>\n" +
                                 fragment + "\n</LogEntry>\n\n" + kSEPARATOR + "\n";
    std::string text = FormatDefaultLogEntry(MakeEntry(fragment, QelLogError, "Qel.Core.Test", "xml"));
    EXPECT_EQ(WithoutTimeStamps(text), expected);
    EXPECT_EQ(text.find("<Message>"), std::string::npos);
    // A fragment that ends its own line (as an alert's XML does) gets no second line end.
    text = FormatDefaultLogEntry(MakeEntry(fragment + "\n", QelLogError, "Qel.Core.Test", "xml"));
    EXPECT_EQ(WithoutTimeStamps(text), expected);
}

TEST(DefaultLogEntry, LongAndMultiLineMessagesAreLaidOut)
{
    std::string line(100, 'x');
    EXPECT_NE(FormatDefaultLogEntry(MakeEntry(line)).find("  <Message>\n    " + line + "\n  </Message>\n</LogEntry>\n"),
              std::string::npos);
    EXPECT_NE(FormatDefaultLogEntry(MakeEntry("one\n  two  \nthree"))
                  .find("  <Message>\n    one\n    two\n    three\n  </Message>\n"),
              std::string::npos);
}

TEST(DefaultLogEntry, ControlCharactersAndInvalidUtf8KeepTheEntryWellFormed)
{
    if (!HaveXmlLint()) GTEST_SKIP() << "xmllint is not installed";
    std::string bad;
    for (int c = 1; c < 0x20; ++c) bad += static_cast<char>(c);
    bad += "\x7f | \xff\xfe | \xc3 | \xe2\x82 | \xed\xa0\x80 | \xf8\x88\x80\x80\x80 | \xc0\xaf | ok \xc3\xa9 \xe2\x82\xac";
    std::string entries;
    entries += FormatDefaultLogEntry(MakeEntry(bad, QelLogError, "Qel.Core.Test"));
    entries += FormatDefaultLogEntry(MakeEntry("short " + bad.substr(0, 5), QelLogError, std::string("Log\x01Name\xff")));
    entries += FormatDefaultLogEntry(MakeEntry(std::string(90, 'l') + "\n" + bad + "\n" + bad, QelLogWarning));
    std::string report;
    EXPECT_TRUE(WellFormed(AsDocument(entries), &report)) << report << entries;
    // Valid UTF-8 passes as it is.
    EXPECT_NE(entries.find("ok \xc3\xa9 \xe2\x82\xac"), std::string::npos);
}

TEST(DefaultLogEntry, AnEntryParsesBackWithTheLibrarysParser)
{
    struct Collector : XMLParseHandler<XMLStringPolicy<std::string>>
    {
        std::vector<std::string> tags;
        std::string text;
        void StartTag(const std::string& name) { tags.push_back(name); }
        void Text(const std::string& chunk) { text += chunk; }
    };
    XMLParser<Collector> parser;
    std::string entry = FormatDefaultLogEntry(MakeEntry("a < b & c", QelLogWarning, "P.Q"));
    ASSERT_TRUE(parser.Parse(AsDocument(entry)));
    EXPECT_EQ(parser.tags, (std::vector<std::string>{"Log", "LogEntry", "TimeStamp", "LogName", "Message"}));
    EXPECT_NE(parser.text.find("a < b & c"), std::string::npos);
}

// ---- the files ----

namespace {

class FileTest : public ::testing::Test
{
protected:
    FileTest() : m_Service(In(m_Folder.Path())) {}
    std::string Entries() const { return m_Folder / sDEFAULT_LOG_ENTRIES; }
    std::string Archive() const { return m_Folder / sDEFAULT_LOG_ARCHIVE; }
    std::string Document() const { return m_Folder / sDEFAULT_LOG_DOCUMENT; }

    TempDir m_Folder;
    DefaultLogService m_Service;
};

} // namespace

TEST_F(FileTest, TheFirstEntryMakesTheDocumentAndTheEntriesFile)
{
    EXPECT_FALSE(FileExists(Document()));
    m_Service.WriteLog(MakeEntry("first"));
    EXPECT_EQ(ReadFile(Document()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                    "\n"
                                    "<!DOCTYPE Log [<!ENTITY entries SYSTEM \"DefaultLog.entries\">]>\n"
                                    "\n"
                                    "<Log>\n"
                                    "  &entries;\n"
                                    "</Log>\n");
    EXPECT_EQ(WithoutTimeStamps(ReadFile(Entries())), WithoutTimeStamps(FormatDefaultLogEntry(MakeEntry("first"))));
    EXPECT_EQ(CountOf(ReadFile(Entries()), "<LogEntry"), 1u);
    if (HaveXmlLint()) {
        EXPECT_EQ(XPath(Document(), "count(/Log/LogEntry)"), "1");
        EXPECT_EQ(XPath(Document(), "string(/Log/LogEntry/Message)"), "first");
    }
    EXPECT_FALSE(FileExists(Archive()));
}

TEST_F(FileTest, ADocumentInPlaceIsLeftAlone)
{
    WriteFile(Document(), "written by another process\n");
    m_Service.WriteLog(MakeEntry("entry"));
    EXPECT_EQ(ReadFile(Document()), "written by another process\n");
    EXPECT_EQ(CountOf(ReadFile(Entries()), "<LogEntry"), 1u);

    // A second service on the folder (another process) appends to the same file.
    DefaultLogService second(In(m_Folder.Path()));
    second.WriteLog(MakeEntry("from the second"));
    m_Service.WriteLog(MakeEntry("from the first"));
    std::string text = ReadFile(Entries());
    EXPECT_EQ(CountOf(text, "<LogEntry"), 3u);
    EXPECT_LT(text.find("from the second"), text.find("from the first"));
}

TEST_F(FileTest, AFolderThatIsMissingIsMade)
{
    std::string deep = m_Folder / "a/b/c/";
    DefaultLogService service(In(deep));
    service.WriteLog(MakeEntry("deep"));
    EXPECT_NE(ReadFile(deep + sDEFAULT_LOG_ENTRIES).find("deep"), std::string::npos);
    EXPECT_TRUE(FileExists(deep + sDEFAULT_LOG_DOCUMENT));
}

TEST_F(FileTest, AFileThatCannotBeOpenedSendsTheEntryToStandardError)
{
    WriteFile(m_Folder / "plainfile", "x");
    std::string impossible = m_Folder / "plainfile/sub/";
    DefaultLogEntriesFile file(In(impossible));
    EXPECT_FALSE(file.Open());
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(file.Write("text"));

    DefaultLogService service(In(impossible));
    ::testing::internal::CaptureStderr();
    service.WriteLog(MakeEntry("to standard error"));
    std::string errors = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(errors.find("to standard error"), std::string::npos);
    EXPECT_NE(errors.find("<LogEntry Severity=\"Informational\" >"), std::string::npos);
    Platform::NamedMutex::Remove(impossible + sDEFAULT_LOG_ENTRIES); // the lock was made all the same
}

TEST_F(FileTest, CloseAndWriteAgain)
{
    DefaultLogEntriesFile file(In(m_Folder.Path()));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(file.GetFolder(), m_Folder.Path());
    ASSERT_TRUE(file.Write("one\n"));
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(file.GetPathName().ToFileSystemPath(), Entries());
    file.Close();
    EXPECT_FALSE(file.IsOpen());
    file.Close();
    ASSERT_TRUE(file.Write("two\n"));
    EXPECT_EQ(ReadFile(Entries()), "one\ntwo\n");
}

// ---- rollover ----

TEST_F(FileTest, RolloverExactlyAtTheLimit)
{
    RolloverLimit limit(100);
    DefaultLogEntriesFile file(In(m_Folder.Path()));
    const std::string first(60, 'a');
    const std::string second(40, 'b');
    ASSERT_TRUE(file.Write(first));
    ASSERT_TRUE(file.Write(second));
    // Exactly the limit: no rollover.
    EXPECT_EQ(FileSize(Entries()), 100u);
    EXPECT_FALSE(FileExists(Archive()));

    // The entry that takes it above is written first, and is the last in the archive.
    ASSERT_TRUE(file.Write("c"));
    EXPECT_EQ(ReadFile(Archive()), first + second + "c");
    EXPECT_TRUE(FileExists(Entries()));
    EXPECT_EQ(FileSize(Entries()), 0u);

    // The next entry starts the new file.
    ASSERT_TRUE(file.Write("d"));
    EXPECT_EQ(ReadFile(Entries()), "d");

    // A second rollover replaces the archive.
    const std::string big(150, 'e');
    ASSERT_TRUE(file.Write(big));
    EXPECT_EQ(ReadFile(Archive()), "d" + big);
    EXPECT_EQ(FileSize(Entries()), 0u);
    ASSERT_TRUE(file.Write("f"));
    EXPECT_EQ(ReadFile(Entries()), "f");
}

TEST_F(FileTest, RolloverThroughTheServiceKeepsWholeEntries)
{
    std::string one = FormatDefaultLogEntry(MakeEntry("entry 1")); // every entry below has its length
    RolloverLimit limit(3 * one.size());
    for (int i = 1; i <= 4; ++i) m_Service.WriteLog(MakeEntry("entry " + std::to_string(i)));
    // Three entries are exactly the limit; the fourth takes the file above it.
    std::string archive = ReadFile(Archive());
    EXPECT_EQ(CountOf(archive, "<LogEntry"), 4u);
    EXPECT_NE(archive.find("entry 4"), std::string::npos);
    EXPECT_EQ(FileSize(Entries()), 0u);
    m_Service.WriteLog(MakeEntry("entry 5"));
    std::string entries = ReadFile(Entries());
    EXPECT_EQ(CountOf(entries, "<LogEntry"), 1u);
    EXPECT_NE(entries.find("entry 5"), std::string::npos);
    if (HaveXmlLint()) {
        EXPECT_EQ(XPath(Document(), "count(/Log/LogEntry)"), "1");
        std::string shell = m_Folder / "archive.xml";
        WriteFile(shell, "<!DOCTYPE Log [<!ENTITY e SYSTEM \"DefaultLog.archive\">]><Log>&e;</Log>\n");
        EXPECT_EQ(XPath(shell, "count(/Log/LogEntry)"), "4");
        EXPECT_EQ(XPath(shell, "string(/Log/LogEntry[4]/Message)"), "entry 4");
    }
}

TEST_F(FileTest, AWriterFollowsTheFileAfterAnotherWritersRollover)
{
    RolloverLimit limit(100);
    // Two writers, each with its own descriptor, as two processes have.
    DefaultLogEntriesFile a(In(m_Folder.Path()));
    DefaultLogEntriesFile b(In(m_Folder.Path()));
    ASSERT_TRUE(a.Write("a1\n"));
    ASSERT_TRUE(b.Write(std::string(120, 'b') + "\n")); // b rolls over: the file a has open is renamed
    EXPECT_EQ(ReadFile(Archive()), "a1\n" + std::string(120, 'b') + "\n");
    EXPECT_EQ(FileSize(Entries()), 0u);

    ASSERT_TRUE(a.Write("a2\n"));
    EXPECT_EQ(ReadFile(Entries()), "a2\n"); // in the new file, not in the archive
    EXPECT_EQ(ReadFile(Archive()).find("a2"), std::string::npos);
    ASSERT_TRUE(b.Write("b2\n"));
    EXPECT_EQ(ReadFile(Entries()), "a2\nb2\n");

    // The file removed behind the writers' backs: within 64 entries each notices and makes a new
    // one (the entries before that went into the removed file).
    std::remove(Entries().c_str());
    for (int i = 3; i < 3 + 64; ++i) ASSERT_TRUE(a.Write("a" + std::to_string(i) + "\n"));
    ASSERT_TRUE(b.Write("b3\n"));
    std::string fresh = ReadFile(Entries());
    ASSERT_GE(fresh.size(), 7u) << fresh;
    EXPECT_EQ(fresh.substr(fresh.size() - 7), "a66\nb3\n");
}

TEST_F(FileTest, WritersOfOneFileShareItsLengthForTheRollover)
{
    // Two writers take turns; neither asks the file for its length each time, yet the rollover
    // comes with the entry that takes the file above the limit, whoever writes it.
    RolloverLimit limit(1000);
    DefaultLogEntriesFile a(In(m_Folder.Path()));
    DefaultLogEntriesFile b(In(m_Folder.Path()));
    std::string expected;
    const std::string entry(99, 'x');
    for (int i = 0; i < 10; ++i) {
        DefaultLogEntriesFile& writer = i % 2 == 0 ? a : b;
        ASSERT_TRUE(writer.Write(entry + "\n"));
    }
    EXPECT_EQ(FileSize(Entries()), 1000u); // exactly the limit: no rollover
    ASSERT_TRUE(b.Write("y\n"));          // above it: into the archive, then a new file
    EXPECT_EQ(FileSize(Archive()), 1002u);
    EXPECT_EQ(FileSize(Entries()), 0u);
    ASSERT_TRUE(a.Write("z\n"));
    EXPECT_EQ(ReadFile(Entries()), "z\n");
}

// ---- the cross-process lock ----

TEST_F(FileTest, AWriterGoesOnWithoutTheLockAfterTheTimeLimit)
{
    unsigned old = LogFileMutex::GetTimeLimit();
    EXPECT_EQ(old, 10000u);
    LogFileMutex::SetTimeLimit(200);
    DefaultLogEntriesFile file(In(m_Folder.Path()));
    ASSERT_TRUE(file.Open());
    // Another holder of the lock of that file, stuck until the write is done.
    auto other = std::make_shared<LogFileMutex>(file.GetPathName().ToFileSystemPath());
    Gate acquired;
    Gate release;
    std::atomic<bool> holding{false};
    std::thread holder([&] {
        LogFileMutexGuard guard(other);
        holding = guard.IsLocked();
        acquired.Open();
        release.Wait(std::chrono::seconds(60));
    });
    ASSERT_TRUE(acquired.Wait(std::chrono::seconds(30)));
    EXPECT_TRUE(holding.load());
    bool written = file.Write("written anyway\n"); // while the other still holds the lock
    release.Open();
    holder.join();
    LogFileMutex::SetTimeLimit(old);
    EXPECT_TRUE(written);
    EXPECT_EQ(ReadFile(Entries()), "written anyway\n");
    EXPECT_TRUE(file.Write("free again\n"));
    EXPECT_EQ(ReadFile(Entries()), "written anyway\nfree again\n");
}
