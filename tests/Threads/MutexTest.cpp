// Mutex, Lock and TempSet: reentrancy, time-outs, destruction under waiters, the main thread.
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace Qel::Core;
using Clock = std::chrono::steady_clock;

namespace {

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Names the test's thread the main thread for the life of a scope.
struct MainThreadScope
{
    MainThreadScope() { SetMainThread(); }
    ~MainThreadScope() { SetMainThreadId(0); }
};

} // namespace

TEST(Mutex, OwnerNestsAndMustUnlockAsOftenAsItLocked)
{
    Mutex mutex;
    EXPECT_FALSE(mutex.IsLocked());
    mutex.Lock();
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_TRUE(mutex.LockedByCurrentThread());
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(mutex.IsLocked()) << i;
        mutex.Unlock();
    }
    EXPECT_FALSE(mutex.IsLocked());
    EXPECT_FALSE(mutex.LockedByCurrentThread());
}

TEST(Mutex, OtherThreadsTryFailOrTimeOut)
{
    Mutex mutex;
    mutex.Lock();
    std::thread other([&] {
        EXPECT_FALSE(mutex.TryLock());
        EXPECT_FALSE(mutex.LockedByCurrentThread());
        auto start = Clock::now();
        EXPECT_FALSE(mutex.TryLock(Elapse(200, Elapse::MilliSeconds)));
        EXPECT_GE(SecondsSince(start), 0.19);
        start = Clock::now();
        try {
            mutex.Lock(Elapse(200, Elapse::MilliSeconds));
            ADD_FAILURE() << "no time-out";
        } catch (LockTimeout& timeout) {
            EXPECT_GE(SecondsSince(start), 0.19);
            EXPECT_EQ(timeout.GetMessageA(), "Attempt to lock mutex timed out after waiting for 00:00:00.200.000.000");
            EXPECT_EQ(timeout.GetData(AlertInfo::sLOG_NAME), "Qel.Core.Mutex");
        }
    });
    other.join();
    EXPECT_EQ(mutex.IsLocked(), true);
    mutex.Unlock();
}

TEST(Mutex, BlockedLockGetsTheMutexWhenReleased)
{
    Mutex mutex;
    mutex.Lock();
    std::atomic<bool> got{false};
    std::thread other([&] {
        mutex.Lock();
        got = true;
        mutex.Unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(got.load());
    mutex.Unlock();
    other.join();
    EXPECT_TRUE(got.load());
}

TEST(Mutex, UnlockWithoutLockFailsTheAssertion)
{
    QelTest::DebugCapture capture;
    Mutex mutex;
    mutex.Unlock();
    ASSERT_EQ(capture.Texts().size(), 1u);
    EXPECT_NE(capture.Texts()[0].find("): Failed Assertion(0 <= --m_LockCount)"), std::string::npos);
    EXPECT_FALSE(mutex.IsLocked());
    EXPECT_TRUE(mutex.TryLock()); // still usable
    mutex.Unlock();
}

TEST(Mutex, DestroyedWhileOthersWaitTellsThemSo)
{
    auto* mutex = new Mutex;
    mutex->Lock();
    std::atomic<int> destroyedSeen{0};
    std::atomic<int> started{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&, i] {
            ++started;
            try {
                if (i == 0) mutex->Lock(); // untimed
                else if (i == 1) mutex->Lock(Elapse(30, Elapse::Seconds));
                else (void)mutex->TryLock(Elapse(30, Elapse::Seconds));
                ADD_FAILURE() << "acquired a destroyed mutex";
            } catch (MutexDestroyedBeforeLockAcquired& error) {
                EXPECT_EQ(error.GetMessageA(), "A mutex object was destroyed before its lock could be acquired");
                ++destroyedSeen;
            }
        });
    }
    while (started.load() < 3) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(400)); // time to get into their waits
    // Destroyed by its holder: the destructor takes the lock again (it is reentrant), marks the
    // mutex destroyed and lets the waiters go before the memory goes.
    delete mutex;
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(destroyedSeen.load(), 3);
}

TEST(LockGuard, ReleasesOnScopeExitAndResetKeepsAHeldMutex)
{
    Mutex first;
    Mutex second;
    try {
        Lock guard(first);
        EXPECT_TRUE(first.IsLocked());
        throw std::runtime_error("passing");
    } catch (std::runtime_error&) {
    }
    EXPECT_FALSE(first.IsLocked());
    {
        Lock guard(first);
        guard.Reset(first); // the same: neither unlocked nor locked again
        EXPECT_TRUE(first.IsLocked());
        guard.Reset(second);
        EXPECT_FALSE(first.IsLocked());
        EXPECT_TRUE(second.IsLocked());
        guard.Release();
        guard.Release();
        EXPECT_FALSE(second.IsLocked());
    }
    EXPECT_FALSE(second.IsLocked());
}

TEST(LockGuard, TimedOutGuardHoldsNothing)
{
    Mutex mutex;
    mutex.Lock();
    std::thread other([&] { EXPECT_THROW(Lock guard(mutex, Elapse(50, Elapse::MilliSeconds)), LockTimeout); });
    other.join();
    mutex.Unlock();
    EXPECT_FALSE(mutex.IsLocked());
}

TEST(TempSet, RestoresTheValueAlsoWhenAnExceptionPasses)
{
    bool flag = false;
    try {
        TempSet<bool> set(flag, true);
        EXPECT_TRUE(flag);
        throw 1;
    } catch (int) {
    }
    EXPECT_FALSE(flag);
}

TEST(MainThread, NothingIsMainUntilNamed)
{
    EXPECT_EQ(GetMainThreadId(), 0u);
    EXPECT_FALSE(IsMainThread());
    EXPECT_EQ(GetMaxReentrancy(), 100);
    {
        MainThreadScope main;
        EXPECT_TRUE(IsMainThread());
        std::thread other([] { EXPECT_FALSE(IsMainThread()); });
        other.join();
    }
    EXPECT_FALSE(IsMainThread());
}

TEST(MainThread, WaitingMainThreadYieldsItsLocksToWorkers)
{
    MainThreadScope main;
    Mutex held;   // the main thread holds it while it waits for `wanted`
    Mutex wanted; // a worker holds it until it got `held`
    held.Lock();
    std::atomic<bool> workerHasWanted{false};
    std::atomic<bool> workerGotHeld{false};
    std::thread worker([&] {
        wanted.Lock();
        workerHasWanted = true;
        held.Lock(); // possible only while the main thread yields
        workerGotHeld = true;
        held.Unlock();
        wanted.Unlock();
    });
    while (!workerHasWanted.load()) std::this_thread::yield();
    wanted.Lock(Elapse(10, Elapse::Seconds)); // would deadlock without the yield
    EXPECT_TRUE(workerGotHeld.load());
    EXPECT_TRUE(held.LockedByCurrentThread());
    wanted.Unlock();
    held.Unlock();
    worker.join();
    EXPECT_FALSE(held.IsLocked());
}

TEST(MainThread, BorrowsTheLockOfAWorkerWaitingOnDispatch)
{
    MainThreadScope main;
    Mutex mutex;
    std::atomic<int> phase{0};
    std::thread worker([&] {
        mutex.Lock();
        QelTest::Dispatcher::Begin(); // hands work to the main thread and waits for it
        phase = 1;
        while (phase.load() != 2) std::this_thread::yield();
        QelTest::Dispatcher::End();
        EXPECT_TRUE(mutex.LockedByCurrentThread());
        mutex.Unlock();
        phase = 3;
    });
    while (phase.load() != 1) std::this_thread::yield();
    // The main thread's Lock returns at once on loan; the worker keeps its hold.
    mutex.Lock(Elapse(5, Elapse::Seconds));
    EXPECT_TRUE(mutex.IsLocked());
    mutex.Unlock();
    EXPECT_TRUE(mutex.IsLocked()); // the count is back where it was: the worker's hold
    phase = 2;
    while (phase.load() != 3) std::this_thread::yield();
    worker.join();
    EXPECT_FALSE(mutex.IsLocked());
}

TEST(MainThread, NestedTriesThroughMessageHandlersStopAtTheLimit)
{
    // Each try of the main thread pumps messages while it waits; a handler that tries the same
    // mutex again nests one level deeper. The 100th try nests, the 101st raises.
    MainThreadScope main;
    Mutex mutex;
    std::atomic<bool> release{false};
    std::thread holder([&] {
        mutex.Lock();
        while (!release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        mutex.Unlock();
    });
    while (!mutex.IsLocked()) std::this_thread::yield();
    int depth = 0;
    int raisedAt = 0;
    auto previous = System::SetMessagePump(QelTest::MakePump([&](int) {
        if (raisedAt != 0) return;
        ++depth;
        try {
            (void)mutex.TryLock(Elapse(0, Elapse::Seconds));
        } catch (ExceededMaxReentrancy& error) {
            if (raisedAt == 0) raisedAt = depth;
            EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.Mutex.TryLock");
        }
        --depth;
    }));
    EXPECT_FALSE(mutex.TryLock(Elapse(0, Elapse::Seconds)));
    System::SetMessagePump(previous);
    EXPECT_EQ(raisedAt, 100); // the outer try and 99 handlers nested; the 100th handler's try is the 101st
    release = true;
    holder.join();
    EXPECT_FALSE(mutex.IsLocked());
}

TEST(MainThread, ConditionAndSemaphoreWaitsNestThroughHandlersToTheLimit)
{
    MainThreadScope main;
    Semaphore semaphore;
    int depth = 0;
    int raisedAt = 0;
    std::string logger;
    auto previous = System::SetMessagePump(QelTest::MakePump([&](int) {
        if (raisedAt != 0) return;
        ++depth;
        try {
            (void)semaphore.TimedWait(Elapse(1, Elapse::Seconds));
        } catch (ExceededMaxReentrancy& error) {
            if (raisedAt == 0) raisedAt = depth;
            logger = error.GetData(AlertInfo::sLOG_NAME);
        }
        --depth;
    }));
    EXPECT_FALSE(semaphore.TimedWait(Elapse(1, Elapse::Seconds)));
    EXPECT_EQ(raisedAt, 100); // the outer wait and 99 handlers nested; the 100th handler's wait raised
    EXPECT_EQ(logger, "Qel.Core.Semaphore.TimedWait");

    // The main thread's condition wait gives up the lock while it polls: a worker gets it.
    Condition condition;
    System::SetMessagePump(previous);
    condition.Lock();
    std::atomic<bool> workerHadLock{false};
    std::thread worker([&] {
        condition.Lock();
        workerHadLock = true;
        condition.Signal();
        condition.Unlock();
    });
    while (!workerHadLock.load()) (void)condition.TimedWait(Elapse(50, Elapse::MilliSeconds));
    condition.Unlock();
    worker.join();
}
