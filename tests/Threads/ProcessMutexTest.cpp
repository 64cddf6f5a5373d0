// The process mutex: names, exclusion between processes (the second process is a fresh run of
// this program forked by the death-test machinery), nesting, time-outs in slices of 100 ms, and the
// warning for an owner that ended without releasing.
#include "Infrastructure/QelCore/ProcessMutex.h"
#include "Infrastructure/QelCore/Platform/NamedMutex.h"
#include "Infrastructure/QelCore/System.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

using namespace Qel::Core;

namespace {

// A name of this test run only, the same in the processes that the death tests start (they
// inherit the environment); the process that chose it removes its shared-memory object.
struct TestLockName
{
    std::string name;
    std::string forward;
    bool owner = false;
    explicit TestLockName(const std::string& what)
    {
        const std::string self = std::to_string(System::GetProcessId());
        const char* run = std::getenv("QEL_TEST_LOCK_RUN");
        if (!run) {
            ::setenv("QEL_TEST_LOCK_RUN", self.c_str(), 1);
            run = std::getenv("QEL_TEST_LOCK_RUN");
        }
        owner = self == run;
        name = "QelTest\\" + what + "." + run;
        forward = name;
        std::replace(forward.begin(), forward.end(), '\\', '/');
        if (owner) Platform::NamedMutex::Remove(forward);
    }
    ~TestLockName()
    {
        if (owner) Platform::NamedMutex::Remove(forward);
    }
};

// In a fresh process: tries the lock with a zero time-out and exits 1 if it got it, 0 if not.
[[noreturn]] void TryInAnotherProcess(const std::string& name)
{
    ProcessMutex mutex(name);
    bool got = mutex.TryLock(Elapse(0, Elapse::Seconds));
    if (got) mutex.Unlock();
    std::_Exit(got ? 1 : 0);
}

} // namespace

TEST(ProcessMutex, NameUsesForwardSlashes)
{
    ProcessMutex mutex("Test\\Backslash\\Replacement");
    EXPECT_EQ(mutex.GetName(), "Test/Backslash/Replacement");
    Platform::NamedMutex::Remove("Test/Backslash/Replacement");
    // Slashes and percent signs are escaped in the system's name; long names are hashed.
    EXPECT_EQ(Platform::NamedMutex::ObjectName("a/b%c"), "/qel.pm.a%2Fb%25c");
    EXPECT_LE(Platform::NamedMutex::ObjectName(std::string(1000, 'x')).size(), 200u);
    EXPECT_NE(Platform::NamedMutex::ObjectName(std::string(1000, 'x')),
              Platform::NamedMutex::ObjectName(std::string(999, 'x')));
}

TEST(ProcessMutex, ExcludesAnotherProcessUntilReleased)
{
    TestLockName lock("Exclusion");
    ProcessMutex mutex(lock.name);
    mutex.Lock();
    mutex.Lock(); // nested: two releases are needed
    EXPECT_EXIT(TryInAnotherProcess(lock.name), ::testing::ExitedWithCode(0), "");
    mutex.Unlock();
    EXPECT_EXIT(TryInAnotherProcess(lock.name), ::testing::ExitedWithCode(0), "");
    mutex.Unlock();
    EXPECT_EXIT(TryInAnotherProcess(lock.name), ::testing::ExitedWithCode(1), "");
}

TEST(ProcessMutex, ZeroTimeOutGivesTrueAtOnceOrFalseAfterOneSlice)
{
    TestLockName lock("Slices");
    ProcessMutex mutex(lock.name);
    EXPECT_TRUE(mutex.TryLock(Elapse(0, Elapse::Seconds)));
    std::thread other([&] {
        ProcessMutex second(lock.name);
        auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(second.TryLock(Elapse(0, Elapse::Seconds)));
        // One slice of 100 ms was waited (no upper bound: machines stall).
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
    });
    other.join();
    mutex.Unlock();
}

TEST(ProcessMutex, LockTimesOutWithLockTimeout)
{
    TestLockName lock("TimeOut");
    ProcessMutex mutex(lock.name);
    mutex.Lock();
    std::thread other([&] {
        ProcessMutex second(lock.name);
        try {
            second.Lock(Elapse(150, Elapse::MilliSeconds));
            ADD_FAILURE() << "no time-out";
        } catch (const LockTimeout& error) {
            EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.ProcessMutex");
            EXPECT_EQ(error.GetMessageA().rfind("Attempt to lock mutex timed out after waiting for ", 0), 0u);
        }
    });
    other.join();
    mutex.Unlock();
}

TEST(ProcessMutex, AnOwnerThreadThatEndedLeavesTheLockWithAWarning)
{
    TestLockName lock("AbandonedThread");
    QelTest::AlertRecorder recorder;
    std::thread owner([&] {
        ProcessMutex mutex(lock.name);
        mutex.Lock(); // never released
    });
    owner.join();
    ProcessMutex mutex(lock.name);
    mutex.Lock(Elapse(5, Elapse::Seconds));
    ASSERT_EQ(recorder.Count("warning"), 1u);
    EXPECT_EQ(recorder.Events()[0].message,
              "Acquired process lock named " + lock.forward + " after lock owner terminated before releasing lock");
    mutex.Unlock();
    // Released: another thread takes it without a warning.
    std::thread next([&] {
        ProcessMutex again(lock.name);
        EXPECT_TRUE(again.TryLock(Elapse(1, Elapse::Seconds)));
        again.Unlock();
    });
    next.join();
    EXPECT_EQ(recorder.Count("warning"), 1u);
}

TEST(ProcessMutex, AnOwnerProcessThatDiedLeavesTheLockWithAWarning)
{
    TestLockName lock("AbandonedProcess");
    EXPECT_EXIT(
        {
            ProcessMutex mutex(lock.name);
            mutex.Lock();
            std::_Exit(3); // dies holding it
        },
        ::testing::ExitedWithCode(3), "");
    QelTest::AlertRecorder recorder;
    ProcessMutex mutex(lock.name);
    EXPECT_TRUE(mutex.TryLock(Elapse(5, Elapse::Seconds)));
    EXPECT_EQ(recorder.Count("warning"), 1u);
    mutex.Unlock();
    EXPECT_EXIT(TryInAnotherProcess(lock.name), ::testing::ExitedWithCode(1), "");
}
