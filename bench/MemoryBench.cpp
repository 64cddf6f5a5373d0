// Object pools against the heap: one object at a time, a batch, and two threads sharing one pool.
#include <Infrastructure/QelCore/QelCore.h>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using namespace Qel::Core;

struct Payload
{
    char bytes[64];
};

// One object created and destroyed, again and again.
void BM_PoolAllocFree_Qel(benchmark::State& state)
{
    ObjectPool<Payload> pool;
    for (auto _ : state) {
        Payload* payload = pool.New();
        benchmark::DoNotOptimize(payload);
        pool.Delete(payload);
    }
}
BENCHMARK(BM_PoolAllocFree_Qel);

void BM_PoolAllocFree_NewDelete(benchmark::State& state)
{
    for (auto _ : state) {
        Payload* payload = new Payload;
        benchmark::DoNotOptimize(payload);
        delete payload;
    }
}
BENCHMARK(BM_PoolAllocFree_NewDelete);

// 200 objects created, then destroyed: time per object.
constexpr int kBatch = 200;

void BM_PoolBatch_Qel(benchmark::State& state)
{
    ObjectPool<Payload> pool;
    std::vector<Payload*> held(kBatch);
    for (auto _ : state) {
        for (Payload*& payload : held) payload = pool.New();
        benchmark::DoNotOptimize(held.data());
        for (Payload* payload : held) pool.Delete(payload);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_PoolBatch_Qel);

void BM_PoolBatch_NewDelete(benchmark::State& state)
{
    std::vector<Payload*> held(kBatch);
    for (auto _ : state) {
        for (Payload*& payload : held) payload = new Payload;
        benchmark::DoNotOptimize(held.data());
        for (Payload* payload : held) delete payload;
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_PoolBatch_NewDelete);

// Two threads on one pool (the heap has per-thread caches; the pool has one lock).
ObjectPool<Payload> g_SharedPool;

void BM_PoolTwoThreads_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        Payload* payload = g_SharedPool.New();
        benchmark::DoNotOptimize(payload);
        g_SharedPool.Delete(payload);
    }
}
BENCHMARK(BM_PoolTwoThreads_Qel)->Threads(2)->UseRealTime();

void BM_PoolTwoThreads_NewDelete(benchmark::State& state)
{
    for (auto _ : state) {
        Payload* payload = new Payload;
        benchmark::DoNotOptimize(payload);
        delete payload;
    }
}
BENCHMARK(BM_PoolTwoThreads_NewDelete)->Threads(2)->UseRealTime();

} // namespace
