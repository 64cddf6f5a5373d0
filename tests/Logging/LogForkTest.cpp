// A process that forks without exec: the child logs into the parent's log files and leaves
// promptly, through exit or ShutdownQelCore, whatever the parent's threads held at the fork.
//
// Children of a threaded process are outside what the thread sanitizer follows: this program runs
// in the other builds only.
#include "tests/Logging/LogTestSupport.h"

#include <cstdlib>
#include <stdexcept>

#include <unistd.h>

using namespace Qel::Core;
using namespace LogTest;

QEL_DEFINE_WARNING(ForkTestWarning, Warning, "fork test warning %1%", std::string)
QEL_DEFINE_ERROR(ForkTestError, LogicError, eERROR, "fork test error %1%", std::string)

namespace {
bool g_bForkedChild = false;
} // namespace

#if defined(__SANITIZE_ADDRESS__)
// What the parent's other threads held through their stacks cannot be reached in a forked child
// (their stacks are not scanned there): the leak check at a child's exit would report it.
extern "C" int __lsan_is_turned_off()
{
    return g_bForkedChild ? 1 : 0;
}
#endif

namespace {

class LogFork : public ManagerFolderFixture
{
protected:
    // How many of the entries "<tag> entry 1" .. "<tag> entry <count>" the entries file (with
    // the archive that a rollover made) holds exactly once.
    int EntriesInFile(const std::string& tag, int count)
    {
        std::string text = ReadFile(m_Folder / sDEFAULT_LOG_ARCHIVE) + ReadFile(EntriesFile());
        int found = 0;
        for (int i = 1; i <= count; ++i)
            found += CountOf(text, "<Message>" + tag + " entry " + std::to_string(i) + "</Message>") == 1;
        return found;
    }
};

void LogEntries(const std::string& tag, int count)
{
    std::shared_ptr<Logger> logger = Manager().GetLogger("LogTest.Fork");
    for (int i = 1; i <= count; ++i) logger->WriteLog(QelLogInformational, "%s entry %d", tag.c_str(), i);
}

enum class Ending { Exit, Shutdown };

// The child's whole life: log, then leave the way given.
int ChildLogsAndLeaves(const std::string& tag, int count, Ending ending)
{
    g_bForkedChild = true;
    LogEntries(tag, count);
    if (ending == Ending::Shutdown) {
        ShutdownQelCore();
        if (LogManager::Instance() != nullptr) return 9;
    }
    std::exit(0);
}

} // namespace

TEST_F(LogFork, AChildLogsEveryEntryAndLeavesThroughExitOrShutdown)
{
    for (Ending ending : {Ending::Exit, Ending::Shutdown}) {
        const char* way = ending == Ending::Exit ? "exit" : "shutdown";
        std::string tag = Unique(std::string("child ") + way + " ");
        std::string result = QelTest::RunInChild([&] { return ChildLogsAndLeaves(tag, 50, ending); }, 20);
        EXPECT_EQ(result, "exit 0") << way << " (signal 14: the child hung)";
        EXPECT_EQ(EntriesInFile(tag, 50), 50) << way;
    }
    // The parent's own worker goes on.
    std::string tag = Unique("parent after the children ");
    LogEntries(tag, 1);
    EXPECT_TRUE(WaitForFile(tag + " entry 1</Message>"));
}

TEST_F(LogFork, LocksThatTheParentsWorkerHeldAtTheForkDoNotHoldUpTheChild)
{
    // The parent's worker sits in a handler at the fork: it holds the service's and the
    // handlers' locks as a reader. In the child the handler refuses (throws), so the service
    // unregisters it, which needs the handlers' lock as a writer, and the entries go to the file.
    struct Blocking : IQelLogHandler
    {
        pid_t parent = ::getpid();
        std::string hold = Unique("held by the handler ");
        Gate entered, release;
        void OnLogTreeChange() override {}
        void WriteLog(const QelLogEntry& entry) override
        {
            if (::getpid() != parent) throw std::runtime_error("not in the child");
            if (entry.m_Message.find(hold) == std::string::npos) return;
            entered.Open();
            release.Wait(std::chrono::seconds(30));
        }
    } blocking;
    std::string tag = Unique("child of a blocked worker ");
    std::string result;
    {
        ScopedHandler registered(blocking);
        LogEntries(blocking.hold, 1);
        ASSERT_TRUE(blocking.entered.Wait(std::chrono::seconds(20)));
        result = QelTest::RunInChild([&] { return ChildLogsAndLeaves(tag, 20, Ending::Exit); }, 20);
        blocking.release.Open();
    }
    EXPECT_EQ(result, "exit 0") << "(signal 14: the child hung)";
    EXPECT_EQ(EntriesInFile(tag, 20), 20);
}

TEST_F(LogFork, TheAlertSourceLockHeldByAListenerAtTheForkDoesNotHoldUpTheChild)
{
    // A thread of the parent sits in an alert listener at the fork: it holds the lock of the
    // alert source. The child raises an error (the broadcast needs that lock) and logs.
    struct Blocking : AlertListener
    {
        std::string hold = Unique("held by the listener ");
        Gate entered, release;
        void WarningRaised(Warning& warning) override
        {
            if (warning.GetMessageA().find(hold) == std::string::npos) return;
            entered.Open();
            release.Wait(std::chrono::seconds(30));
        }
    } blocking;
    AlertManager::Instance()->AddAlertListener(blocking);
    std::thread raiser([&] { QEL_RAISE_WARNING(ForkTestWarning(blocking.hold), "LogTest.Fork"); });
    ASSERT_TRUE(blocking.entered.Wait(std::chrono::seconds(20)));
    std::string tag = Unique("child of a held alert source ");
    std::string result = QelTest::RunInChild(
        [&] {
            g_bForkedChild = true;
            try {
                QEL_RAISE_ERROR(ForkTestError(tag), "LogTest.Fork");
            } catch (ForkTestError&) {
            }
            return ChildLogsAndLeaves(tag, 5, Ending::Exit);
        },
        20);
    blocking.release.Open();
    raiser.join();
    blocking.RemoveAllNotificationSources();
    EXPECT_EQ(result, "exit 0") << "(signal 14: the child hung)";
    EXPECT_GE(CountOf(ReadFile(EntriesFile()), "fork test error " + tag), 1u) << "the child's error, raised and logged";
    EXPECT_EQ(EntriesInFile(tag, 5), 5);
}

TEST_F(LogFork, ChildrenForkedWhileOtherThreadsLogGetEveryEntryOut)
{
#if defined(__SANITIZE_ADDRESS__)
    // The address sanitizer's allocator (GCC 12) takes no care of forks: a child forked while
    // another thread allocates may find the sanitizer's own lock taken for good.
    GTEST_SKIP() << "a fork while other threads allocate is not safe under the address sanitizer";
#endif
    RolloverLimit noRollover(std::uint64_t(1) << 40);
    // Two threads log all the time (the worker, the queue and the file are busy at each fork),
    // with short pauses, so that the file does not fill up with them.
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 2; ++t)
        loggers.emplace_back([&stop, t] {
            std::shared_ptr<Logger> logger = Manager().GetLogger("LogTest.Fork.Busy" + std::to_string(t));
            for (int i = 0; !stop.load(); ++i) {
                logger->WriteLog(QelLogInformational, "busy %d", i);
                if (i % 8 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    std::vector<std::string> results, tags;
    for (int child = 0; child < 20; ++child) {
        tags.push_back(Unique("child of a busy parent "));
        results.push_back(QelTest::RunInChild([&] { return ChildLogsAndLeaves(tags.back(), 5, Ending::Exit); }, 20));
    }
    stop = true;
    for (std::thread& logger : loggers) logger.join();
    for (std::size_t child = 0; child < results.size(); ++child) {
        EXPECT_EQ(results[child], "exit 0") << "child " << child << " (signal 14: it hung)";
        EXPECT_EQ(EntriesInFile(tags[child], 5), 5) << "child " << child;
    }
}
