// A broadcast to ten listeners against a loop over ten std::functions; raising and catching an
// error through the whole alert path (the manager, its records and a listener).
#include <Infrastructure/QelCore/QelCore.h>

#include <benchmark/benchmark.h>

#include <functional>
#include <stdexcept>
#include <vector>

namespace {

using namespace Qel::Core;

struct Counter : NotificationListener
{
    long long count = 0;
};

struct Tick : Notification
{
    void Notify(NotificationListener& listener) override
    {
        if (auto* counter = dynamic_cast<Counter*>(&listener)) ++counter->count;
    }
};

void BM_BroadcastToTen_Qel(benchmark::State& state)
{
    NotificationSupport source;
    std::vector<Counter> counters(10);
    for (Counter& counter : counters) source.AddListener(counter);
    Tick tick;
    for (auto _ : state) source.Broadcast(tick, true);
    benchmark::DoNotOptimize(counters[9].count);
}
BENCHMARK(BM_BroadcastToTen_Qel);

void BM_BroadcastToTen_StdFunctionLoop(benchmark::State& state)
{
    std::vector<long long> counts(10, 0);
    std::vector<std::function<void()>> functions;
    for (long long& count : counts) functions.emplace_back([&count] { ++count; });
    for (auto _ : state)
        for (auto& function : functions) function();
    benchmark::DoNotOptimize(counts[9]);
}
BENCHMARK(BM_BroadcastToTen_StdFunctionLoop);

QEL_DEFINE_ERROR(AlertPathError, LogicError, eERROR, "Sample %1% failed", int)

struct Listening : AlertListener
{
    long long heard = 0;
    void ErrorRaised(Error&) override { ++heard; }
    ~Listening() override { RemoveAllNotificationSources(); }
};

void BM_RaiseCatchAlertPath_Qel(benchmark::State& state)
{
    Listening listener;
    AlertManager::Instance()->AddAlertListener(listener);
    int i = 0;
    for (auto _ : state) {
        try {
            QEL_RAISE_ERROR(AlertPathError(++i), "Qel.Bench");
        } catch (AlertPathError& error) {
            benchmark::DoNotOptimize(error.GetMessageA().size());
        }
    }
    AlertManager::Instance()->RemoveAlertListener(listener);
}
BENCHMARK(BM_RaiseCatchAlertPath_Qel);

void BM_RaiseCatchAlertPath_StdRuntimeError(benchmark::State& state)
{
    int i = 0;
    for (auto _ : state) {
        try {
            throw std::runtime_error("Sample " + std::to_string(++i) + " failed");
        } catch (std::runtime_error& error) {
            benchmark::DoNotOptimize(error.what());
        }
    }
}
BENCHMARK(BM_RaiseCatchAlertPath_StdRuntimeError);

} // namespace
