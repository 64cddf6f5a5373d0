// Bounded queues and thread pools: limits and time-outs on both ends, watermark reports, release,
// ordering, a stress run, and pools that run each callback once and stop cleanly.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <set>
#include <thread>

#include <pthread.h>

using namespace Qel::Core;

namespace {

// Item types of their own, so that the name counters start at 0 here.
struct NamedItemA
{
    int value = 0;
};
struct NamedItemB
{
    int value = 0;
};

int CountOf(const std::string& text, const std::string& part)
{
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

} // namespace

// ---- names, limits and reports ----

TEST(Queue, EmptyNamesAreNumberedPerItemType)
{
    Queue<NamedItemA> a0, a1;
    Queue<NamedItemB> b0;
    Queue<NamedItemA> named("Samples");
    EXPECT_EQ(a0.GetName(), "Queue #0");
    EXPECT_EQ(a1.GetName(), "Queue #1");
    EXPECT_EQ(b0.GetName(), "Queue #0");
    EXPECT_EQ(named.GetName(), "Samples");
}

TEST(Queue, HardLimitRefusesTheNextItemAndReportsOnce)
{
    Queue<int> queue("Limited");
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3000; ++i) ASSERT_TRUE(queue.Enqueue(i));
    EXPECT_FALSE(queue.Enqueue(3000));
    EXPECT_FALSE(queue.Enqueue(3001));
    std::string reports = testing::internal::GetCapturedStderr();
    EXPECT_EQ(queue.GetCount(), 3000u);
    EXPECT_EQ(CountOf(reports, "reached hard limit"), 1);
    // 1000, 1100, ..., 2900 and the limit.
    EXPECT_EQ(CountOf(reports, "new high watermark"), 20);
    std::regex limit("\\d\\d:\\d\\d:\\d\\d - ThreadTests / Limited\n {11}high watermark \\(3000 items\\) reached hard "
                     "limit \\(3000 items\\)\n\n\n");
    EXPECT_TRUE(std::regex_search(reports, limit)) << reports;
    std::regex first("\\d\\d:\\d\\d:\\d\\d - ThreadTests / Limited\n {11}new high watermark \\(1000 items\\)\n\n");
    EXPECT_TRUE(std::regex_search(reports, first)) << reports;
}

TEST(Queue, WatermarksAreReportedPerStepAndNeverFall)
{
    Queue<int> queue("Marks");
    testing::internal::CaptureStderr();
    for (int i = 0; i < 999; ++i) queue.Enqueue(i);
    std::string nothing = testing::internal::GetCapturedStderr();
    EXPECT_EQ(nothing, "");

    testing::internal::CaptureStderr();
    queue.Enqueue(999); // 1000 items
    int item;
    for (int i = 0; i < 10; ++i) queue.TryDequeue(item);
    for (int i = 0; i < 10; ++i) queue.Enqueue(i); // back to 1000: not new
    for (int i = 0; i < 99; ++i) queue.Enqueue(i); // 1099: not a step yet
    std::string reports = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(reports, "new high watermark (1000 items)"), 1);
    EXPECT_EQ(CountOf(reports, "high watermark"), 1);

    testing::internal::CaptureStderr();
    queue.Enqueue(0); // 1100
    reports = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(reports, "new high watermark (1100 items)"), 1);
    EXPECT_EQ(queue.GetHighWatermark(), 1100u);
}

TEST(Queue, ItemsComeOutInOrderAndClearDisposesOfTheRest)
{
    std::vector<int> disposed;
    Queue<int> queue("Ordered", [&](int& item) { disposed.push_back(item); });
    for (int i = 0; i < 5; ++i) queue.Enqueue(i);
    int item = -1;
    ASSERT_TRUE(queue.TryDequeue(item));
    EXPECT_EQ(item, 0);
    ASSERT_TRUE(queue.Dequeue(item));
    EXPECT_EQ(item, 1);
    queue.Clear();
    EXPECT_EQ(disposed, (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(queue.GetCount(), 0u);
    EXPECT_FALSE(queue.TryDequeue(item));
}

// ---- time-outs on both ends ----

TEST(Queue, TimedDequeueOnAnEmptyQueueTimesOut)
{
    Queue<int> queue("Empty");
    int item = 0;
    EXPECT_FALSE(queue.TimedDequeue(item, Elapse(30, Elapse::MilliSeconds)));
    EXPECT_FALSE(queue.TimedDequeue(item, Elapse(0, Elapse::Seconds)));
    queue.Enqueue(8);
    EXPECT_TRUE(queue.TimedDequeue(item, Elapse(0, Elapse::Seconds)));
    EXPECT_EQ(item, 8);
}

TEST(Queue, TimedEnqueueOnAFullQueueTimesOutOrGetsRoom)
{
    Queue<int> queue("Small", nullptr, 1000, 100, 2);
    EXPECT_TRUE(queue.TimedEnqueue(1, Elapse(0, Elapse::Seconds)));
    EXPECT_TRUE(queue.Enqueue(2));
    EXPECT_FALSE(queue.Enqueue(3));
    EXPECT_FALSE(queue.TimedEnqueue(3, Elapse(30, Elapse::MilliSeconds)));
    EXPECT_FALSE(queue.TimedEnqueue(3, Elapse(0, Elapse::Seconds)));
    EXPECT_EQ(queue.GetCount(), 2u);

    std::thread consumer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        int item;
        queue.Dequeue(item);
    });
    EXPECT_TRUE(queue.TimedEnqueue(3, Elapse(10, Elapse::Seconds))); // room comes while it waits
    consumer.join();
    int item;
    std::vector<int> rest;
    while (queue.TryDequeue(item)) rest.push_back(item);
    EXPECT_EQ(rest, (std::vector<int>{2, 3}));
}

// ---- release ----

TEST(Queue, ReleaseLetsEveryBlockedConsumerThrough)
{
    Queue<int> queue("Released");
    std::atomic<int> returnedFalse{0};
    std::vector<std::thread> consumers;
    for (int i = 0; i < 3; ++i)
        consumers.emplace_back([&] {
            int item;
            if (!queue.Dequeue(item)) ++returnedFalse;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(returnedFalse.load(), 0); // they block
    queue.SetReleased(true);
    for (auto& consumer : consumers) consumer.join();
    EXPECT_EQ(returnedFalse.load(), 3);
    int item;
    EXPECT_FALSE(queue.Dequeue(item)); // and every later call
    EXPECT_FALSE(queue.Dequeue(item));
}

TEST(Queue, AReleasedQueueGivesOutItsItemsFirst)
{
    Queue<int> queue("Draining");
    queue.Enqueue(1);
    queue.Enqueue(2);
    queue.SetReleased(true);
    int item;
    ASSERT_TRUE(queue.Dequeue(item));
    EXPECT_EQ(item, 1);
    ASSERT_TRUE(queue.Dequeue(item));
    EXPECT_EQ(item, 2);
    EXPECT_FALSE(queue.Dequeue(item));
}

// ---- many threads ----

TEST(Queue, ManyProducersOneConsumerKeepEachProducersOrder)
{
    Queue<std::pair<int, int>> queue("Ordering", nullptr, 1000000, 100, 1000000);
    constexpr int kProducers = 4, kItems = 20000;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < kItems; ++i) ASSERT_TRUE(queue.Enqueue({p, i}));
        });
    std::vector<int> next(kProducers, 0);
    bool inOrder = true;
    for (int n = 0; n < kProducers * kItems; ++n) {
        std::pair<int, int> item;
        ASSERT_TRUE(queue.Dequeue(item));
        inOrder &= item.second == next[item.first]++;
    }
    for (auto& producer : producers) producer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(next, std::vector<int>(kProducers, kItems));
}

TEST(Queue, StressFourProducersFourConsumersAMillionItemsThroughSixtyFour)
{
    constexpr int kProducers = 4, kConsumers = 4, kTotal = 1000000, kPerProducer = kTotal / kProducers;
    Queue<int> queue("Stress", nullptr, 1000, 100, 64);
    std::vector<std::atomic<unsigned char>> seen(kTotal);
    std::atomic<int> received{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < kConsumers; ++c)
        threads.emplace_back([&] {
            int item;
            while (queue.Dequeue(item)) {
                seen[item].fetch_add(1, std::memory_order_relaxed);
                received.fetch_add(1, std::memory_order_relaxed);
            }
        });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = p * kPerProducer; i < (p + 1) * kPerProducer; ++i)
                ASSERT_TRUE(queue.TimedEnqueue(i, Elapse(60, Elapse::Seconds)));
        });
    for (auto& producer : producers) producer.join();
    while (received.load() < kTotal) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    queue.SetReleased(true);
    for (auto& consumer : threads) consumer.join();
    EXPECT_EQ(received.load(), kTotal);
    int wrong = 0;
    for (auto& count : seen) wrong += count.load() != 1;
    EXPECT_EQ(wrong, 0); // every item arrived exactly once
    EXPECT_LE(queue.GetHighWatermark(), 64u);
}

// ---- thread pools ----

namespace {

class Collect : public CallbackArg<int>
{
public:
    void operator()(int value) override
    {
        std::string name;
        System::GetCurrentThreadName(name);
        std::lock_guard<std::mutex> guard(m_Mutex);
        values.push_back(value);
        threadNames.insert(name);
    }
    std::mutex m_Mutex;
    std::vector<int> values;
    std::set<std::string> threadNames;
};

} // namespace

TEST(ThreadPool, RunsEachCallbackOnceOnItsNamedThreads)
{
    auto collect = std::make_shared<Collect>();
    {
        ThreadPool<int> pool("MyThreads", 3);
        ASSERT_EQ(pool.GetThreads().size(), 3u);
        EXPECT_EQ(pool.GetThreads()[0]->GetName(), "MyThreads_0");
        EXPECT_EQ(pool.GetThreads()[2]->GetName(), "MyThreads_2");
        pool.Start();
        for (int i = 0; i < 4; ++i) ASSERT_TRUE(pool.Enqueue(collect, i));
        EXPECT_TRUE(pool.WaitUntilIdle(Elapse(10, Elapse::Seconds)));
        EXPECT_EQ(pool.GetPending(), 0);
    }
    std::sort(collect->values.begin(), collect->values.end());
    EXPECT_EQ(collect->values, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_LE(collect->threadNames.size(), 3u);
    for (const std::string& name : collect->threadNames) EXPECT_EQ(name.rfind("MyThreads_", 0), 0u) << name;
}

TEST(ThreadPool, DestroyingThePoolDoesNotRunWaitingCallbacks)
{
    std::atomic<bool> release{false};
    std::atomic<int> ran{0};
    struct Blocker : CallbackArg<int>
    {
        Blocker(std::atomic<bool>& release, std::atomic<int>& ran) : m_Release(release), m_Ran(ran) {}
        void operator()(int) override
        {
            ++m_Ran;
            while (!m_Release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::atomic<bool>& m_Release;
        std::atomic<int>& m_Ran;
    };
    auto blocker = std::make_shared<Blocker>(release, ran);
    std::thread releaser;
    {
        ThreadPool<int> pool("Busy", 1);
        pool.Start();
        ASSERT_TRUE(pool.Enqueue(blocker, 0));
        while (ran.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(pool.Enqueue(blocker, i)); // these wait
        releaser = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            release = true;
        });
    } // the destructor waits for the running callback and drops the rest
    releaser.join();
    EXPECT_EQ(ran.load(), 1);
}

TEST(ThreadPool, AFailingCallbackCountsAsDone)
{
    struct Failing : CallbackArg<int>
    {
        void operator()(int value) override
        {
            if (value % 2 == 0) throw std::runtime_error("even");
            ++odd;
        }
        std::atomic<int> odd{0};
    };
    auto failing = std::make_shared<Failing>();
    ThreadPool<int> pool("Failing", 2);
    pool.Start();
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(pool.Enqueue(failing, i));
    EXPECT_TRUE(pool.WaitUntilIdle(Elapse(10, Elapse::Seconds)));
    EXPECT_EQ(failing->odd.load(), 5);
}

TEST(ThreadPool, FourThreadsRunAHundredThousandTasksAndStopPromptly)
{
    struct Count : CallbackArg<int>
    {
        void operator()(int value) override { sum.fetch_add(value, std::memory_order_relaxed); }
        std::atomic<long long> sum{0};
    };
    auto count = std::make_shared<Count>();
    auto pool = std::make_unique<ThreadPool<int>>("Pool", 4);
    pool->Start();
    constexpr int kTasks = 100000;
    for (int i = 1; i <= kTasks; ++i) ASSERT_TRUE(pool->Enqueue(count, i, Elapse(60, Elapse::Seconds)));
    EXPECT_TRUE(pool->WaitUntilIdle(Elapse(120, Elapse::Seconds)));
    EXPECT_EQ(count->sum.load(), static_cast<long long>(kTasks) * (kTasks + 1) / 2);
    auto begin = std::chrono::steady_clock::now();
    pool.reset();
    auto shutdown = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    RecordProperty("ShutdownMilliseconds", static_cast<int>(shutdown.count()));
    std::printf("pool shutdown took %lld ms\n", static_cast<long long>(shutdown.count()));
}

TEST(ThreadPool, StartingTwiceAssertsAndTheSecondCallReturns)
{
    QelTest::Watchdog watchdog(std::chrono::seconds(60), "ThreadPool::Start twice");
    QelTest::DebugCapture debug;
    auto collect = std::make_shared<Collect>();
    ThreadPool<int> pool("Twice", 2);
    pool.Start();
    pool.Start();
    int asserted = 0;
    for (const std::string& text : debug.Texts())
        asserted += text.find("Failed Assertion(IsState(eTHREAD_NOT_RUNNING))") != std::string::npos;
    EXPECT_EQ(asserted, 2); // once per thread of the pool
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(pool.Enqueue(collect, i));
    EXPECT_TRUE(pool.WaitUntilIdle(Elapse(10, Elapse::Seconds)));
    EXPECT_EQ(collect->values.size(), 10u);
}

TEST(ThreadPool, ACallbackThatEndsItsThreadCountsAsDoneAndThePoolGoesOn)
{
    QelTest::Watchdog watchdog(std::chrono::seconds(60), "pthread_exit in a pool callback");
    struct Exiting : CallbackArg<int>
    {
        void operator()(int) override { ::pthread_exit(nullptr); }
    };
    auto collect = std::make_shared<Collect>();
    ThreadPool<int> pool("Exits", 2);
    pool.Start();
    ASSERT_TRUE(pool.Enqueue(std::make_shared<Exiting>(), 0));
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(pool.Enqueue(collect, i));
    EXPECT_TRUE(pool.WaitUntilIdle(Elapse(10, Elapse::Seconds)));
    EXPECT_EQ(pool.GetPending(), 0);
    EXPECT_EQ(collect->values.size(), 10u);
    // The item counts as done on the thread's way out, just before the thread's end is recorded.
    auto ended = [&] {
        int count = 0;
        for (const auto& thread : pool.GetThreads()) count += thread->IsState(Thread::eTHREAD_ERROR);
        return count;
    };
    EXPECT_TRUE(QelTest::Eventually([&] { return ended() == 1; }));
    EXPECT_EQ(ended(), 1);
    for (const auto& thread : pool.GetThreads()) {
        if (!thread->IsState(Thread::eTHREAD_ERROR)) continue;
        ASSERT_NE(thread->GetLastError(), nullptr);
        EXPECT_NE(dynamic_cast<Thread::OSThreadTermination*>(thread->GetLastError().get()), nullptr);
    }
}
