// Locks against their standard counterparts: uncontended, contended hand-off, shared reading.
#include <Infrastructure/QelCore/QelCore.h>

#include <benchmark/benchmark.h>

#include <mutex>
#include <shared_mutex>

namespace {

using namespace Qel::Core;

Mutex g_QelMutex;
std::mutex g_StdMutex;
std::recursive_timed_mutex g_StdRecursiveTimedMutex;
ReadersWriterMutex g_QelRW;
std::shared_mutex g_StdShared;
long long g_iShared = 0;

void BM_MutexUncontended_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        g_QelMutex.Lock();
        benchmark::DoNotOptimize(++g_iShared);
        g_QelMutex.Unlock();
    }
}
BENCHMARK(BM_MutexUncontended_Qel);

void BM_MutexUncontended_StdMutex(benchmark::State& state)
{
    for (auto _ : state) {
        g_StdMutex.lock();
        benchmark::DoNotOptimize(++g_iShared);
        g_StdMutex.unlock();
    }
}
BENCHMARK(BM_MutexUncontended_StdMutex);

void BM_MutexUncontended_StdRecursiveTimedMutex(benchmark::State& state)
{
    for (auto _ : state) {
        g_StdRecursiveTimedMutex.lock();
        benchmark::DoNotOptimize(++g_iShared);
        g_StdRecursiveTimedMutex.unlock();
    }
}
BENCHMARK(BM_MutexUncontended_StdRecursiveTimedMutex);

// Two threads hand one lock back and forth: time per acquisition, both threads together.
void BM_MutexContended_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        g_QelMutex.Lock();
        benchmark::DoNotOptimize(++g_iShared);
        g_QelMutex.Unlock();
    }
}
BENCHMARK(BM_MutexContended_Qel)->Threads(2)->UseRealTime();

void BM_MutexContended_StdMutex(benchmark::State& state)
{
    for (auto _ : state) {
        g_StdMutex.lock();
        benchmark::DoNotOptimize(++g_iShared);
        g_StdMutex.unlock();
    }
}
BENCHMARK(BM_MutexContended_StdMutex)->Threads(2)->UseRealTime();

void BM_ReaderLock_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        ReaderLock read(g_QelRW);
        benchmark::DoNotOptimize(g_iShared);
    }
}
BENCHMARK(BM_ReaderLock_Qel)->Threads(1)->Threads(2)->UseRealTime();

void BM_ReaderLock_StdSharedMutex(benchmark::State& state)
{
    for (auto _ : state) {
        std::shared_lock<std::shared_mutex> read(g_StdShared);
        benchmark::DoNotOptimize(g_iShared);
    }
}
BENCHMARK(BM_ReaderLock_StdSharedMutex)->Threads(1)->Threads(2)->UseRealTime();

} // namespace
