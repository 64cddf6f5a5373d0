// Raising and catching a typed error against throwing and catching std::runtime_error.
#include <Infrastructure/QelCore/QelCore.h>

#include <benchmark/benchmark.h>

#include <stdexcept>

namespace {

QEL_DEFINE_ERROR(BenchError, Qel::Core::LogicError, eERROR, "Sample %1% failed", int)

void BM_RaiseCatch_Qel(benchmark::State& state)
{
    int i = 0;
    for (auto _ : state) {
        try {
            QEL_RAISE_ERROR(BenchError(++i), "Qel.Bench");
        } catch (BenchError& error) {
            benchmark::DoNotOptimize(error.GetMessageA().size());
        }
    }
}
BENCHMARK(BM_RaiseCatch_Qel);

void BM_RaiseCatch_Baseline(benchmark::State& state)
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
BENCHMARK(BM_RaiseCatch_Baseline);

// Building the alert alone (format, bag, type name), without raising.
void BM_BuildAlert_Qel(benchmark::State& state)
{
    int i = 0;
    for (auto _ : state) {
        BenchError error(++i);
        benchmark::DoNotOptimize(error.GetMessageA().size());
    }
}
BENCHMARK(BM_BuildAlert_Qel);

void BM_BuildAlert_Baseline(benchmark::State& state)
{
    int i = 0;
    for (auto _ : state) {
        std::runtime_error error("Sample " + std::to_string(++i) + " failed");
        benchmark::DoNotOptimize(error.what());
    }
}
BENCHMARK(BM_BuildAlert_Baseline);

} // namespace
