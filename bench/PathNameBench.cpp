// Taking a path apart: PathName against std::filesystem::path on the same texts.
#include <Infrastructure/QelCore/QelCore.h>

#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

namespace {

using Qel::Core::PathName;

const std::string kPaths[] = {
    "/usr/lib/x86_64-linux-gnu/libboost_iostreams.so.1.74.0",
    "/var/lib/Korvel/Acquire/Logs/DefaultLog.entries",
    "relative/dir/report.final.xml",
    "/home/operator/.local/share/Korvel/Acquire/",
};

// Branch, leaf and extension of each path, as a caller that takes a path apart asks for them.
void BM_Decompose_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& text : kPaths) {
            PathName path(text);
            benchmark::DoNotOptimize(path.GetBaseAndBranch());
            benchmark::DoNotOptimize(path.GetLeaf());
            benchmark::DoNotOptimize(path.GetExt());
        }
    }
    state.SetItemsProcessed(state.iterations() * std::size(kPaths));
}
BENCHMARK(BM_Decompose_Qel);

void BM_Decompose_StdFs(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& text : kPaths) {
            std::filesystem::path path(text);
            benchmark::DoNotOptimize(path.parent_path());
            benchmark::DoNotOptimize(path.stem());
            benchmark::DoNotOptimize(path.extension());
        }
    }
    state.SetItemsProcessed(state.iterations() * std::size(kPaths));
}
BENCHMARK(BM_Decompose_StdFs);

// The file name with its extension, the most common single question.
void BM_LeafAndExt_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& text : kPaths) {
            PathName path(text);
            benchmark::DoNotOptimize(path.GetLeafAndExt());
        }
    }
    state.SetItemsProcessed(state.iterations() * std::size(kPaths));
}
BENCHMARK(BM_LeafAndExt_Qel);

void BM_LeafAndExt_StdFs(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& text : kPaths) {
            std::filesystem::path path(text);
            benchmark::DoNotOptimize(path.filename());
        }
    }
    state.SetItemsProcessed(state.iterations() * std::size(kPaths));
}
BENCHMARK(BM_LeafAndExt_StdFs);

} // namespace
