// The monitor: locking, signal and broadcast without lost wake-ups, timed waits.
#include <Infrastructure/QelCore/QelCore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace Qel::Core;

TEST(Condition, SignalWithNobodyWaitingIsDropped)
{
    Condition condition(true);
    condition.Signal();
    Lock guard(condition);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(condition.TimedWait(Elapse(100, Elapse::MilliSeconds)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
    // The lock is held again after the time-out: another thread cannot take it.
    std::thread other([&] { EXPECT_FALSE(condition.TryLock()); });
    other.join();
}

TEST(Condition, ZeroTimedWaitReleasesForAnInstantAndReturnsWithTheLock)
{
    Condition condition;
    condition.Lock();
    EXPECT_FALSE(condition.TimedWait(Elapse(0, Elapse::Seconds)));
    std::thread other([&] { EXPECT_FALSE(condition.TryLock()); });
    other.join();
    condition.Unlock();
}

TEST(Condition, LockingIsReentrantAndTimedLockTimesOut)
{
    Condition condition;
    condition.Lock();
    condition.Lock();
    std::thread other([&] {
        EXPECT_FALSE(condition.TryLock());
        try {
            condition.Lock(Elapse(50, Elapse::MilliSeconds));
            ADD_FAILURE() << "no time-out";
        } catch (LockTimeout& timeout) {
            EXPECT_EQ(timeout.GetData(AlertInfo::sLOG_NAME), "Qel.Core.Condition");
        }
    });
    other.join();
    condition.Unlock();
    std::thread still([&] { EXPECT_FALSE(condition.TryLock()); });
    still.join();
    condition.Unlock();
    std::thread free([&] {
        EXPECT_TRUE(condition.TryLock());
        condition.Unlock();
    });
    free.join();
}

TEST(Condition, OneSignalWakesEveryWaiter)
{
    Condition condition;
    int generation = 0;
    std::atomic<int> waiting{0};
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            Lock guard(condition);
            ++waiting;
            while (generation == 0) condition.Wait();
            ++woken;
        });
    }
    while (waiting.load() < 4) std::this_thread::yield();
    {
        Lock guard(condition);
        generation = 1;
        condition.Signal();
    }
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(woken.load(), 4);
}

TEST(Condition, ProducerConsumerLosesNoWakeUp)
{
    Condition condition;
    int items = 0;
    int consumed = 0;
    constexpr int kItems = 20000;
    std::thread consumer([&] {
        Lock guard(condition);
        while (consumed < kItems) {
            while (items == 0) condition.Wait();
            --items;
            ++consumed;
        }
    });
    for (int i = 0; i < kItems; ++i) {
        Lock guard(condition);
        ++items;
        condition.Notify();
    }
    consumer.join();
    EXPECT_EQ(consumed, kItems);
    EXPECT_EQ(items, 0);
}

TEST(Condition, TimedWaitIsWokenBeforeItsTimeOut)
{
    Condition condition;
    bool ready = false;
    std::thread waiter([&] {
        Lock guard(condition);
        auto start = std::chrono::steady_clock::now();
        while (!ready) ASSERT_TRUE(condition.TimedWait(Elapse(10, Elapse::Seconds)));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    {
        Lock guard(condition);
        ready = true;
        condition.Broadcast();
    }
    waiter.join();
}

TEST(Condition, TimedOutWaiterNeverSwallowsAnotherWaitersWakeUp)
{
    // One thread keeps timing out on the condition while another waits for a predicate that is
    // set and signalled: the signal must always reach the second.
    for (int round = 0; round < 100; ++round) {
        Condition condition;
        bool ready = false;
        std::atomic<bool> stop{false};
        std::thread timingOut([&] {
            Lock guard(condition);
            while (!stop.load()) (void)condition.TimedWait(Elapse(1, Elapse::MilliSeconds));
        });
        std::atomic<bool> waiting{false};
        std::thread waiter([&] {
            Lock guard(condition);
            waiting = true;
            while (!ready) ASSERT_TRUE(condition.TimedWait(Elapse(10, Elapse::Seconds)));
        });
        while (!waiting.load()) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        {
            Lock guard(condition);
            ready = true;
            condition.Signal();
        }
        waiter.join();
        stop = true;
        timingOut.join();
    }
}

TEST(Condition, TimeOutsThatAreOverMakeOneTry)
{
    Condition condition;
    Lock guard(condition);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(condition.TimedWait(Elapse(-5, Elapse::MilliSeconds)));
    EXPECT_FALSE(condition.TimedWait(Elapse(-1, Elapse::Days)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}
