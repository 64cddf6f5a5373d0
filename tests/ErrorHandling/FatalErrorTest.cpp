// Fatal error reports inside one process: the report folder and its settings, the names and time
// stamps of reports, their content, the fallback folder and the failures on the way. The process's
// own death is the host tests' business (tests/hosts/fatal_host.sh); here OnFatalError is reached
// through a subclass of the manager and the stamp's clock is set by the test.
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/ErrorHandling/FatalError.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <vector>

using namespace Qel::Core;

namespace {

QEL_DEFINE_ERROR(ReactorFault, LogicError, eERROR, "reactor %1% failed", int)

// Reaches the manager's protected fatal path on the process's one manager.
struct FatalAccess : AlertManager
{
    static void Report(Error& error) { (AlertManager::Instance()->*(&FatalAccess::OnFatalError))(error); }
};

std::int64_t s_iFakeNow = 1700000000; // 2023-11-14 22:13:20 UTC
std::int64_t FakeClock()
{
    return s_iFakeNow;
}

// The stamp that the library must make for the instant: the local time of the machine's zone.
std::string ExpectedStamp(std::int64_t seconds)
{
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    localtime_r(&time, &fields);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d__%H-%M-%S__", &fields);
    return text;
}

std::set<std::string> FilesIn(const std::string& folder)
{
    std::set<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') names.insert(entry->d_name);
        closedir(dir);
    }
    return names;
}

// Hears warnings (text and logger) and fatal errors (type and report path).
struct FatalListener : AlertListener
{
    FatalListener() { AlertManager::Instance()->AddAlertListener(*this); }
    ~FatalListener() override { RemoveAllNotificationSources(); }
    void WarningRaised(Warning& warning) override
    {
        warnings.push_back({warning.GetMessageA(), warning.GetData(AlertInfo::sLOG_NAME)});
    }
    void ErrorHandled(Error&) override { ++handled; }
    void UncaughtFatalError(Error& error, const std::string& reportPath) override
    {
        fatal.push_back({error.GetData(AlertInfo::sTYPE_NAME), reportPath});
    }
    std::vector<std::pair<std::string, std::string>> warnings;
    std::vector<std::pair<std::string, std::string>> fatal;
    int handled = 0;
};

class FatalErrorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/qel-fatal-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_sFolder = std::string(pattern) + "/";
        m_sSavedPath = Manager().GetFatalErrorBasePath();
        FatalErrors::ResetCounts();
        m_pSavedClock = FatalErrors::SetClock(&FakeClock);
        s_iFakeNow = 1700000000;
        ASSERT_TRUE(Manager().SetFatalErrorBasePath(m_sFolder));
        m_spLog = std::make_unique<QelTest::LogCapture>();
    }
    void TearDown() override
    {
        m_spLog.reset();
        LogManager::Instance()->SetBufferingMode(true);
        FatalErrors::SetClock(m_pSavedClock);
        FatalErrors::ResetCounts();
        Manager().SetFatalErrorBasePath(m_sSavedPath);
        (void)!std::system(("rm -rf '" + m_sFolder + "'").c_str());
    }
    static AlertManager& Manager() { return *AlertManager::Instance(); }
    // Raises the error and hands the caught one to the fatal path.
    static void RaiseAndReport(int reactor)
    {
        try {
            QEL_RAISE_ERROR(ReactorFault(reactor), "Qel.Test.Fatal");
        } catch (Error& error) {
            FatalAccess::Report(error);
        }
    }

    std::string m_sFolder;
    std::string m_sSavedPath;
    FatalErrors::Clock m_pSavedClock = nullptr;
    std::unique_ptr<QelTest::LogCapture> m_spLog;
};

} // namespace

TEST(FatalErrorSettings, StateAtLoad)
{
    EXPECT_EQ(AlertManager::Instance()->GetDumpPolicy(), eDUMP_REFERENCED_MEMORY);
    EXPECT_EQ(AlertManager::GetMaxFatalErrorReports(), 1);
    // No SystemInfo.ini lies beside the test program: the folder under the common data path.
    PathName expected(System::GetCommonDataPath());
    expected.AddBranch("Errors");
    EXPECT_EQ(AlertManager::Instance()->GetFatalErrorBasePath(), static_cast<const std::string&>(expected));
    EXPECT_EQ(AlertManager::Instance()->GetFatalErrorBasePath().back(), '/');
}

TEST(FatalErrorSettings, DumpPolicyAndMaxReportsAreKept)
{
    AlertManager& manager = *AlertManager::Instance();
    for (EDumpPolicy policy : {eDUMP_MINIMAL, eDUMP_PRIVATE_MEMORY, eDUMP_FULL_MEMORY, eDUMP_REFERENCED_MEMORY}) {
        manager.SetDumpPolicy(policy);
        EXPECT_EQ(manager.GetDumpPolicy(), policy);
    }
    for (int count : {0, 3, -1, 1}) {
        AlertManager::SetMaxFatalErrorReports(count);
        EXPECT_EQ(AlertManager::GetMaxFatalErrorReports(), count);
    }
}

TEST(FatalErrorSettings, ErrorPathFromSettingsFile)
{
    char pattern[] = "/tmp/qel-fatal-ini-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    std::string file = std::string(pattern) + "/SystemInfo.ini";
    struct Case
    {
        const char* text;
        std::string expected;
    };
    const Case cases[] = {
        {"[default]\nErrorPath=/srv/all\n", "/srv/all"},
        {"[default]\nErrorPath=/srv/all\n[Acquire]\nErrorPath=/srv/acquire/\n", "/srv/acquire/"},
        {"[Acquire]\nErrorPath=/srv/acquire\n[default]\nErrorPath=/srv/all\n", "/srv/acquire"},
        // An empty value counts as none, in either section.
        {"[default]\nErrorPath=/srv/all\n[Acquire]\nErrorPath=\n", "/srv/all"},
        {"[default]\nErrorPath=\n[Acquire]\nErrorPath=\"\"\n", ""},
        {"[Other]\nErrorPath=/srv/other\n", ""},
        {"[ACQUIRE]\n errorpath = \"/srv/quoted dir\" \r\n", "/srv/quoted dir"},
        {"[default]\nErrorPath=$(CommonDataPath)Reports\n", System::GetCommonDataPath() + "Reports"},
        {"[Acquire]\nErrorPath=$(userdatapath)Reports/\n", System::GetUserDataPath() + "Reports/"},
        // A macro counts only at the start of the value.
        {"[default]\nErrorPath=/x/$(CommonDataPath)\n", "/x/$(CommonDataPath)"},
    };
    for (const Case& c : cases) {
        QelTest::WriteFile(file, c.text);
        EXPECT_EQ(FatalErrors::ErrorPathFromSettings(file, "Acquire"), c.expected) << c.text;
    }
    EXPECT_EQ(FatalErrors::ErrorPathFromSettings(std::string(pattern) + "/missing.ini", "Acquire"), "");
    (void)!std::system(("rm -rf '" + std::string(pattern) + "'").c_str());
}

TEST_F(FatalErrorTest, SetFatalErrorBasePath)
{
    struct Case
    {
        const char* path;
        const char* stored;
    };
    const Case valid[] = {
        {"C:\\temp\\test\\", "C:\\temp\\test\\"}, // ends in a separator: unchanged
        {"C:\\temp\\test", "C:\\temp\\test\\"},   // the path's own separator is appended
        {"/srv/r", "/srv/r/"},
        {"/srv/r/", "/srv/r/"},
        {"/srv\\mixed", "/srv\\mixed/"},          // the first separator of the text is its own
        {"reports", "reports/"},
        {"C:|||junk|||temp\\test", "C:|||junk|||temp\\test\\"}, // behind a drive nothing is checked
    };
    for (const Case& c : valid) {
        EXPECT_TRUE(Manager().SetFatalErrorBasePath(c.path)) << c.path;
        EXPECT_EQ(Manager().GetFatalErrorBasePath(), c.stored) << c.path;
    }

    ASSERT_TRUE(Manager().SetFatalErrorBasePath("/srv/kept/"));
    FatalListener listener;
    for (const char* invalid : {"/tmp/junk|||temp/test", "C:\\temp\\ju|nk\\test", "/srv//double"}) {
        EXPECT_FALSE(Manager().SetFatalErrorBasePath(invalid)) << invalid;
        EXPECT_EQ(Manager().GetFatalErrorBasePath(), "/srv/kept/") << invalid;
        ASSERT_FALSE(listener.warnings.empty()) << invalid;
        EXPECT_EQ(listener.warnings.back().first,
                  std::string("Attempted to set an invalid fatal error base path of:\n") + invalid);
        EXPECT_EQ(listener.warnings.back().second, "Qel.Core.AlertManager.SetFatalErrorBasePath");
    }
    EXPECT_EQ(listener.warnings.size(), 3u);
}

TEST_F(FatalErrorTest, OneStampNumbersTheReportsNoneThreeFour)
{
    FatalListener listener;
    for (int reactor = 1; reactor <= 3; ++reactor) RaiseAndReport(reactor);
    std::string stamp = ExpectedStamp(s_iFakeNow);
    EXPECT_EQ(FilesIn(m_sFolder), (std::set<std::string>{stamp + "ErrorInfo.xml", stamp + "ErrorInfo3.xml",
                                                          stamp + "ErrorInfo4.xml"}));
    // Each report holds its own error.
    EXPECT_NE(QelTest::ReadFile(m_sFolder + stamp + "ErrorInfo3.xml").find("<Message>reactor 2 failed</Message>"),
              std::string::npos);
    // The listeners hear the folder and the stamp, not the file.
    ASSERT_EQ(listener.fatal.size(), 3u);
    for (const auto& [typeName, path] : listener.fatal) {
        EXPECT_EQ(typeName, TypeName(typeid(ReactorFault)));
        EXPECT_EQ(path, m_sFolder + stamp);
    }
    EXPECT_TRUE(listener.warnings.empty());
}

TEST_F(FatalErrorTest, NewStampOnlyAfterMoreThanTenSeconds)
{
    const std::int64_t start = s_iFakeNow;
    struct Step
    {
        std::int64_t offset;
        std::int64_t stampedAt;
    };
    // Each stamp is made from the time when it was made; 10 s later it still holds.
    const Step steps[] = {{0, 0}, {5, 0}, {10, 0}, {11, 11}, {21, 11}, {22, 22}, {40, 40}};
    for (const Step& step : steps) {
        s_iFakeNow = start + step.offset;
        std::string path;
        EXPECT_TRUE(AlertManager::BuildFatalErrorPath(path));
        EXPECT_EQ(path, m_sFolder + ExpectedStamp(start + step.stampedAt)) << step.offset;
        EXPECT_EQ(FatalErrors::CurrentStamp(), ExpectedStamp(start + step.stampedAt));
    }
}

TEST_F(FatalErrorTest, StampIsLocalTime)
{
    // A zone without daylight saving and with a half-hour offset tells local time from UTC.
    const char* savedZone = std::getenv("TZ");
    std::string saved = savedZone != nullptr ? savedZone : "";
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    std::string path;
    s_iFakeNow = 1700000000; // 22:13:20 UTC, 03:43:20 the next day in Kolkata
    AlertManager::BuildFatalErrorPath(path);
    if (savedZone != nullptr) setenv("TZ", saved.c_str(), 1);
    else unsetenv("TZ");
    tzset();
    EXPECT_EQ(FatalErrors::CurrentStamp(), "2023-11-15__03-43-20__");
}

TEST_F(FatalErrorTest, ReportContent)
{
    Manager().AddFatalErrorInfo("Station", "Bench <4>");
    Manager().AddFatalErrorInfo("Operator", "Ada");
    Manager().AddFatalErrorInfo("Operator", "Grace"); // overwrites
    RaiseAndReport(7);
    std::string report = QelTest::ReadFile(m_sFolder + ExpectedStamp(s_iFakeNow) + "ErrorInfo.xml");
    EXPECT_EQ(report.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", 0), 0u) << report;
    std::size_t error = report.find("<Error>");
    ASSERT_NE(error, std::string::npos) << report;
    EXPECT_LT(report.find("<Station>Bench &lt;4&gt;</Station>"), error) << report;
    EXPECT_LT(report.find("<Operator>Grace</Operator>"), error) << report;
    EXPECT_EQ(report.find("Ada"), std::string::npos);
    for (const std::string& part :
         {std::string("<Circumstance>Fatal unhandled error</Circumstance>"),
          "<TypeName>" + TypeName(typeid(ReactorFault)) + "</TypeName>", std::string("<Message>reactor 7 failed</Message>"),
          std::string("<LogName>Qel.Test.Fatal</LogName>"), std::string("<UnwindStack>")})
        EXPECT_NE(report.find(part), std::string::npos) << part << "\n" << report;
    EXPECT_LT(report.find("<Circumstance>"), report.find("<Message>"));
}

TEST_F(FatalErrorTest, ReportedErrorIsNotAnnouncedAsHandledAndLogIsDirect)
{
    FatalListener listener;
    RaiseAndReport(1);
    // The caught error held the raised status; as the fatal error its end is not announced.
    EXPECT_EQ(listener.handled, 0);
    EXPECT_FALSE(LogManager::Instance()->GetBufferingMode());
    // With buffering off the entry is in the log when the call returns.
    EXPECT_TRUE(m_spLog->Holds("<Circumstance>Uncaught Fatal Error</Circumstance>"));

    // The same error without the fatal path is announced.
    try {
        QEL_RAISE_ERROR(ReactorFault(2), "Qel.Test.Fatal");
    } catch (Error&) {
    }
    EXPECT_EQ(listener.handled, 1);
}

TEST_F(FatalErrorTest, MissingFolderFallsBackToTheCurrentFolder)
{
    std::string missing = m_sFolder + "missing/deeper/";
    ASSERT_TRUE(Manager().SetFatalErrorBasePath(missing));
    std::string path = "ignored";
    EXPECT_FALSE(AlertManager::BuildFatalErrorPath(path));
    EXPECT_EQ(path, missing + ExpectedStamp(s_iFakeNow));

    std::string current = m_sFolder + "current";
    ASSERT_EQ(mkdir(current.c_str(), 0777), 0);
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(current.c_str()), 0);
    FatalListener listener;
    RaiseAndReport(3);
    ASSERT_EQ(chdir(saved), 0);

    std::string stamp = ExpectedStamp(s_iFakeNow);
    EXPECT_EQ(FilesIn(current), std::set<std::string>{stamp + "ErrorInfo.xml"});
    EXPECT_EQ(FilesIn(m_sFolder), (std::set<std::string>{"current"})) << "no folder is made";
    ASSERT_EQ(listener.warnings.size(), 1u);
    EXPECT_EQ(listener.warnings[0].first, "Storing fatal error information in fallback path of\n" + current + "/");
    EXPECT_EQ(listener.warnings[0].second, "Qel.Core.AlertManager.OnFatalError");
    ASSERT_EQ(listener.fatal.size(), 1u);
    EXPECT_EQ(listener.fatal[0].second, current + "/" + stamp);
    // A drive path has no meaning here: it falls back too.
    ASSERT_TRUE(Manager().SetFatalErrorBasePath("C:\\temp\\test\\"));
    EXPECT_FALSE(AlertManager::BuildFatalErrorPath(path));
}

TEST_F(FatalErrorTest, FileThatCannotBeOpenedIsReportedAndListenersStillHear)
{
    std::string stamp = ExpectedStamp(s_iFakeNow);
    // A folder in the way of the report's name.
    std::string blocked = m_sFolder + stamp + "ErrorInfo.xml";
    ASSERT_EQ(mkdir(blocked.c_str(), 0777), 0);
    FatalListener listener;
    RaiseAndReport(4);
    ASSERT_EQ(listener.warnings.size(), 1u);
    EXPECT_EQ(listener.warnings[0].first, "Failed to open file to generate the XML error report named:\n" + blocked);
    EXPECT_EQ(listener.warnings[0].second, "Qel.Core.AlertInfo.OnFatalError");
    ASSERT_EQ(listener.fatal.size(), 1u);
    EXPECT_EQ(listener.fatal[0].second, m_sFolder + stamp);
    // The name was taken all the same: the next report is number 3.
    RaiseAndReport(5);
    EXPECT_EQ(FilesIn(m_sFolder), (std::set<std::string>{stamp + "ErrorInfo.xml", stamp + "ErrorInfo3.xml"}));
}
