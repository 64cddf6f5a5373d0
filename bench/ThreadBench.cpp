// Queues and threads against their usual alternatives: throughput of 2 producers and 2
// consumers through Queue<T>, a std::mutex + std::deque + std::condition_variable queue and
// moodycamel's BlockingConcurrentQueue; latency from starting a thread to its first instruction
// for Thread and std::thread.
#include <Infrastructure/QelCore/QelCore.h>

#include <benchmark/benchmark.h>
#include <concurrentqueue/blockingconcurrentqueue.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace Qel::Core;
using Clock = std::chrono::steady_clock;

constexpr int kItems = 200000; // per iteration, all producers together
constexpr int kProducers = 2;
constexpr int kConsumers = 2;

// The plain queue that most code would write.
class StdQueue
{
public:
    void Push(int item)
    {
        {
            std::lock_guard<std::mutex> guard(m_Mutex);
            m_Items.push_back(item);
        }
        m_Ready.notify_one();
    }
    int Pop()
    {
        std::unique_lock<std::mutex> guard(m_Mutex);
        m_Ready.wait(guard, [this] { return !m_Items.empty(); });
        int item = m_Items.front();
        m_Items.pop_front();
        return item;
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Ready;
    std::deque<int> m_Items;
};

// Runs producers and consumers over `push` and `pop`; every consumer takes its share.
template <typename Push, typename Pop>
void PassItems(Push push, Pop pop)
{
    std::vector<std::thread> threads;
    std::atomic<long long> sum{0};
    for (int c = 0; c < kConsumers; ++c)
        threads.emplace_back([&] {
            long long local = 0;
            for (int i = 0; i < kItems / kConsumers; ++i) local += pop();
            sum += local;
        });
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < kItems / kProducers; ++i) push(i);
        });
    for (auto& thread : threads) thread.join();
    benchmark::DoNotOptimize(sum.load());
}

void BM_QueueThroughput2x2_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        Queue<int> queue("bench", nullptr, kItems + 1, 100, kItems + 1);
        PassItems([&](int item) { queue.Enqueue(item); },
                  [&] {
                      int item = 0;
                      queue.Dequeue(item);
                      return item;
                  });
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_QueueThroughput2x2_Qel)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_QueueThroughput2x2_StdMutexDeque(benchmark::State& state)
{
    for (auto _ : state) {
        StdQueue queue;
        PassItems([&](int item) { queue.Push(item); }, [&] { return queue.Pop(); });
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_QueueThroughput2x2_StdMutexDeque)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_QueueThroughput2x2_Moodycamel(benchmark::State& state)
{
    for (auto _ : state) {
        moodycamel::BlockingConcurrentQueue<int> queue;
        PassItems([&](int item) { queue.enqueue(item); },
                  [&] {
                      int item = 0;
                      queue.wait_dequeue(item);
                      return item;
                  });
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_QueueThroughput2x2_Moodycamel)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- start-to-run latency ----
// From the call that starts a thread to the first instruction of its work. The caller waits for
// that instruction before it joins, so that neither join nor wait is inside the measured span.

class StampTask : public Task
{
public:
    int Run(TaskDirective&) override
    {
        m_Ran = Clock::now();
        m_Stamped.store(true, std::memory_order_release);
        return 0;
    }
    Clock::time_point m_Ran;
    std::atomic<bool> m_Stamped{false};
};

void BM_ThreadStartLatency_Qel(benchmark::State& state)
{
    auto thread = Thread::Create("bench");
    auto task = std::make_shared<StampTask>();
    for (auto _ : state) {
        task->m_Stamped = false;
        Clock::time_point begin = Clock::now();
        thread->Start(task);
        while (!task->m_Stamped.load(std::memory_order_acquire)) std::this_thread::yield();
        state.SetIterationTime(std::chrono::duration<double>(task->m_Ran - begin).count());
        thread->WaitFor(nullptr);
    }
}
BENCHMARK(BM_ThreadStartLatency_Qel)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_ThreadStartLatency_StdThread(benchmark::State& state)
{
    for (auto _ : state) {
        Clock::time_point ran;
        std::atomic<bool> stamped{false};
        Clock::time_point begin = Clock::now();
        std::thread thread([&] {
            ran = Clock::now();
            stamped.store(true, std::memory_order_release);
        });
        while (!stamped.load(std::memory_order_acquire)) std::this_thread::yield();
        state.SetIterationTime(std::chrono::duration<double>(ran - begin).count());
        thread.join();
    }
}
BENCHMARK(BM_ThreadStartLatency_StdThread)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
