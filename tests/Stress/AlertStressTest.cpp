// Stress of the raising path with everything a host may do at once: four threads raise errors
// and warnings; in-place handlers of the error class raise warnings of their own; listeners come
// and go, and while told of an alert build and end a short-lived source and listener; a fifth
// thread forks children that log and exit. Nothing may hang (every wait is bounded, a watchdog
// ends a stuck run), the thread sanitizer must report nothing, and every entry reaches the log.
//
// QEL_STRESS_SECONDS sets how long the raisers run (default 3; 30 for a long run by hand).
#include "tests/Logging/LogTestSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

// The children of a threaded process go on under the thread sanitizer (by default it ends them).
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {
// Set in a forked child. What the parent's other threads had allocated is unreachable in the
// child (those threads do not exist there): the leak check at the child's exit would report it.
std::atomic<bool> g_bForkedChild{false};
} // namespace

extern "C" int __lsan_is_turned_off()
{
    return g_bForkedChild ? 1 : 0;
}

using namespace Qel::Core;

namespace {

QEL_DEFINE_ERROR(StressError, LogicError, eERROR, "stress error %1%", std::string)
QEL_DEFINE_WARNING(StressWarning, Warning, "stress warning %1%", std::string)
QEL_DEFINE_WARNING(HandlerWarning, Warning, "handler warning %1%", std::string)

// The address sanitizer's allocator (GCC 12) takes no care of forks: a child forked while another
// thread allocates may find the sanitizer's own lock taken for good. There the run forks nothing;
// the thread-sanitizer and plain builds fork.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool bFORKS = false;
#else
constexpr bool bFORKS = true;
#endif

int StressSeconds()
{
    const char* value = std::getenv("QEL_STRESS_SECONDS");
    const int seconds = value ? std::atoi(value) : 0;
    return seconds > 0 ? seconds : 3;
}

// Takes every other error in place, after raising a warning of its own from inside the handler.
class RaisingHandler : public ErrorHandler
{
public:
    bool Handle(Error& error) override
    {
        QEL_RAISE_WARNING(HandlerWarning(error.GetMessage()), "Qel.Stress.Handler");
        return (m_iCalls.fetch_add(1) % 2) == 0;
    }
    std::atomic<int> m_iCalls{0};
};

// A listener that, while told of an alert, builds and ends a source with a listener of its own.
class ChurningListener : public AlertListener
{
public:
    // Unlinked before this class's part goes: another thread may be telling it of an alert.
    ~ChurningListener() override { RemoveAllNotificationSources(); }
    void ErrorRaised(Error&) override { Churn(); }
    void WarningRaised(Warning&) override { Churn(); }

private:
    static void Churn()
    {
        NotificationSupport source;
        AlertListener inner;
        source.AddListener(inner);
    }
};

// The texts that follow `prefix` in `text`, up to the next '<' or line end.
std::set<std::string> Ids(const std::string& text, const std::string& prefix)
{
    std::set<std::string> ids;
    for (std::size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at + 1)) {
        const std::size_t begin = at + prefix.size();
        const std::size_t end = text.find_first_of("<\n", begin);
        ids.insert(text.substr(begin, end - begin));
    }
    return ids;
}

// Waits for a child to end, at most `limit`; a child still there is killed and counts as hung.
bool ReapWithin(pid_t child, std::chrono::seconds limit, int& status)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (::waitpid(child, &status, WNOHANG) == child) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return false;
}

} // namespace

TEST(AlertStress, RaisersHandlersListenersAndForkedLoggersTogether)
{
    LogTest::TempDir folder;
    LogManager* manager = LogManager::Instance();
    ASSERT_NE(manager, nullptr);
    manager->SetLogPath(folder.Path());
    // One file for the whole run: no rollover moves entries out of sight.
    DefaultLogEntriesFile::SetRolloverLimit(std::uint64_t(1) << 40);

    // A stuck run fails instead of hanging the suite.
    std::atomic<bool> bDone{false};
    std::thread watchdog([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(StressSeconds() + 120);
        while (!bDone && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (!bDone) {
            std::fprintf(stderr, "AlertStress: no progress, the run hangs\n");
            std::_Exit(3);
        }
    });

    auto handler = std::make_shared<RaisingHandler>();
    const std::string errorType = TypeName(typeid(StressError));
    AlertManager::Instance()->AddErrorHandler(errorType, handler);

    const auto stop = std::chrono::steady_clock::now() + std::chrono::seconds(StressSeconds());
    std::atomic<int> iThrown{0};
    std::atomic<int> iHandled{0};
    std::vector<std::thread> threads;
    std::vector<std::vector<std::string>> raised(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; std::chrono::steady_clock::now() < stop; ++n) {
                const std::string id = "t" + std::to_string(t) + "n" + std::to_string(n);
                raised[t].push_back(id);
                bool bThrown = false;
                try {
                    QEL_RAISE_HANDLEABLE_ERROR(StressError(id), "Qel.Stress");
                } catch (StressError&) {
                    bThrown = true;
                }
                ++(bThrown ? iThrown : iHandled);
                QEL_RAISE_WARNING(StressWarning(id), "Qel.Stress");
                // The log worker keeps up: the queue never fills and drops nothing.
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });
    }
    // Listeners come and go, each for a moment.
    threads.emplace_back([&] {
        while (std::chrono::steady_clock::now() < stop) {
            ChurningListener listener;
            AlertManager::Instance()->AddAlertListener(listener);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    // Children forked in the middle of it all log and leave.
    std::vector<pid_t> children;
    int iHung = 0;
    int iFailed = 0;
    std::string failedStatuses;
    threads.emplace_back([&] {
        for (int c = 0; bFORKS && std::chrono::steady_clock::now() < stop; ++c) {
            const pid_t child = ::fork();
            if (child == 0) {
                g_bForkedChild = true;
                auto logger = LogManager::Instance()->GetLogger("Qel.Stress.Child");
                for (int k = 0; k < 5; ++k)
                    logger->WriteLog(QelLogInformational, "child entry c" + std::to_string(c) + "k" + std::to_string(k));
                // Alternately through the library's shutdown and straight through exit.
                if (c % 2 == 0) ShutdownQelCore();
                std::exit(0);
            }
            if (child < 0) continue;
            children.push_back(child);
            int status = 0;
            if (!ReapWithin(child, std::chrono::seconds(30), status)) ++iHung;
            else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                ++iFailed;
                failedStatuses += " " + std::to_string(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    for (auto& thread : threads) thread.join();
    AlertManager::Instance()->RemoveErrorHandler(errorType, handler);

    EXPECT_EQ(iHung, 0) << "forked children that did not end";
    EXPECT_EQ(iFailed, 0) << "forked children that did not exit with 0; wait statuses:" << failedStatuses;
    EXPECT_GT(iThrown.load(), 0);
    EXPECT_GT(iHandled.load(), 0);
    EXPECT_EQ(children.empty(), !bFORKS);

    // Every raised error, every warning (those of the handler too) and every child's entry.
    std::set<std::string> ids;
    for (const auto& list : raised) ids.insert(list.begin(), list.end());
    std::set<std::string> childIds;
    for (std::size_t c = 0; c < children.size(); ++c)
        for (int k = 0; k < 5; ++k) childIds.insert("c" + std::to_string(c) + "k" + std::to_string(k));
    const std::string entries = folder / "DefaultLog.entries";
    std::string text;
    const bool bAll = LogTest::Eventually(
        [&] {
            text = LogTest::ReadFile(entries);
            return Ids(text, "stress error ") == ids && Ids(text, "stress warning ") == ids &&
                   Ids(text, "handler warning stress error ") == ids && Ids(text, "child entry ") == childIds;
        },
        std::chrono::seconds(60));
    EXPECT_TRUE(bAll) << "raised " << ids.size() << ", errors logged " << Ids(text, "stress error ").size()
                      << ", warnings logged " << Ids(text, "stress warning ").size() << ", handler warnings logged "
                      << Ids(text, "handler warning stress error ").size() << ", child entries "
                      << Ids(text, "child entry ").size() << " of " << childIds.size();
    bDone = true;
    watchdog.join();
}
