// Semaphore counts and waits, and the MultiWait barrier.
#include <Infrastructure/QelCore/QelCore.h>

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace Qel::Core;

TEST(Semaphore, CountsWhatWasPostedAndNotTaken)
{
    Semaphore semaphore(2);
    EXPECT_EQ(semaphore.GetCount(), 2u);
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_EQ(semaphore.GetCount(), 1u);
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_EQ(semaphore.GetCount(), 0u);
    EXPECT_FALSE(semaphore.TryWait());
    EXPECT_EQ(semaphore.GetCount(), 0u);

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.TimedWait(Elapse(100, Elapse::MilliSeconds)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
    EXPECT_EQ(semaphore.GetCount(), 0u);
}

TEST(Semaphore, PostAddsToTheCountAndOverTimeOutsMakeOneTry)
{
    Semaphore semaphore;
    semaphore.Post(3);
    EXPECT_EQ(semaphore.GetCount(), 3u);
    EXPECT_TRUE(semaphore.TimedWait(Elapse(-5, Elapse::MilliSeconds))); // a unit is there: taken
    EXPECT_EQ(semaphore.GetCount(), 2u);
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_TRUE(semaphore.TryWait());
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.TimedWait(Elapse(-5, Elapse::MilliSeconds)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(Semaphore, PostLetsThatManyWaitersPass)
{
    Semaphore semaphore;
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) waiters.emplace_back([&] {
        semaphore.Wait();
        ++passed;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(passed.load(), 0);
    semaphore.Post(3);
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(passed.load(), 3);
    EXPECT_EQ(semaphore.GetCount(), 0u);
}

TEST(Semaphore, PostingNothingFailsTheAssertion)
{
    QelTest::DebugCapture capture;
    Semaphore semaphore;
    semaphore.Post(0);
    ASSERT_EQ(capture.Texts().size(), 1u);
    EXPECT_NE(capture.Texts()[0].find("Failed Assertion(amount > 0)"), std::string::npos);
    EXPECT_EQ(semaphore.GetCount(), 0u);
}

TEST(MultiWait, OneReleaseLetsAllRegisteredWaitersGo)
{
    MultiWait barrier;
    barrier.releaseWaiters(); // nobody waits: nothing is posted
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) waiters.emplace_back([&] {
        EXPECT_TRUE(barrier.wait(nullptr));
        ++passed;
    });
    // A timed waiter that registers now waits in vain when nobody releases.
    Elapse shortWait(20, Elapse::MilliSeconds);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(passed.load(), 0);
    barrier.releaseWaiters();
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(passed.load(), 4);
    // Released earlier with nobody waiting: a later wait blocks.
    EXPECT_FALSE(barrier.wait(&shortWait));
}

TEST(MultiWait, DestructionReleasesTheWaiters)
{
    auto* barrier = new MultiWait;
    std::atomic<int> registered{0};
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) waiters.emplace_back([&] {
        Elapse limit(10, Elapse::Seconds);
        ++registered;
        if (barrier->wait(&limit)) ++passed;
    });
    while (registered.load() < 3) std::this_thread::yield();
    // Time for the waiters to get into the wait; one still on its way in when the object goes
    // would touch freed memory, which is the destroying caller's fault.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    // The waiters are inside wait(): destruction releases them before the members go.
    delete barrier;
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(passed.load(), 3);
}
