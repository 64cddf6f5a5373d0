// Benchmarks of PathName's decomposition against std::filesystem::path, measured in the same run:
//   - Decompose: base, branch, leaf and extension of a few realistic paths (PathName's GetBase,
//     GetBranch, GetLeaf, GetExt against root_name, parent_path, stem and extension),
//   - LeafAndExt: the file name (GetLeafAndExt against filename), of a built object and, in
//     LeafAndExtFromText, from the text, the building of the object included.
// Both sides get Linux paths that they read alike; each object is built once, outside the loop,
// so that only the queries are measured. PathName scans its text for each query and returns new
// strings; std::filesystem::path parses on demand as well and returns new paths.
// Names follow BM_<Case>_Qel against BM_<Case>_StdFs.
#include "Infrastructure/QelCore/PathName.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr double dMIN_TIME = 0.2;

const std::vector<std::string>& Paths()
{
    static const std::vector<std::string> v = {
        "/usr/lib/x86_64-linux-gnu/libc.so.6",
        "/home/operator/.local/share/Korvel/qel-demo/settings.ini",
        "relative/dir/measurement-0042.csv",
        "archive.tar.gz",
        "/var/lib/Korvel/calibration/",
    };
    return v;
}

void BM_Decompose_Qel(benchmark::State& state)
{
    std::vector<Qel::Core::PathName> vPaths(Paths().begin(), Paths().end());
    for (auto _ : state) {
        for (const Qel::Core::PathName& path : vPaths) {
            std::string sBase = path.GetBase();
            std::string sBranch = path.GetBranch();
            std::string sLeaf = path.GetLeaf();
            std::string sExt = path.GetExt();
            benchmark::DoNotOptimize(sBase.data());
            benchmark::DoNotOptimize(sBranch.data());
            benchmark::DoNotOptimize(sLeaf.data());
            benchmark::DoNotOptimize(sExt.data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * vPaths.size()));
}
BENCHMARK(BM_Decompose_Qel)->MinTime(dMIN_TIME);

void BM_Decompose_StdFs(benchmark::State& state)
{
    std::vector<std::filesystem::path> vPaths(Paths().begin(), Paths().end());
    for (auto _ : state) {
        for (const std::filesystem::path& path : vPaths) {
            std::filesystem::path base = path.root_name();
            std::filesystem::path branch = path.parent_path();
            std::filesystem::path leaf = path.stem();
            std::filesystem::path ext = path.extension();
            benchmark::DoNotOptimize(base.native().data());
            benchmark::DoNotOptimize(branch.native().data());
            benchmark::DoNotOptimize(leaf.native().data());
            benchmark::DoNotOptimize(ext.native().data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * vPaths.size()));
}
BENCHMARK(BM_Decompose_StdFs)->MinTime(dMIN_TIME);

void BM_LeafAndExt_Qel(benchmark::State& state)
{
    std::vector<Qel::Core::PathName> vPaths(Paths().begin(), Paths().end());
    for (auto _ : state) {
        for (const Qel::Core::PathName& path : vPaths) {
            std::string sName = path.GetLeafAndExt();
            benchmark::DoNotOptimize(sName.data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * vPaths.size()));
}
BENCHMARK(BM_LeafAndExt_Qel)->MinTime(dMIN_TIME);

void BM_LeafAndExt_StdFs(benchmark::State& state)
{
    std::vector<std::filesystem::path> vPaths(Paths().begin(), Paths().end());
    for (auto _ : state) {
        for (const std::filesystem::path& path : vPaths) {
            std::filesystem::path name = path.filename();
            benchmark::DoNotOptimize(name.native().data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * vPaths.size()));
}
BENCHMARK(BM_LeafAndExt_StdFs)->MinTime(dMIN_TIME);

// The same from the text: the object is built in the loop. libstdc++'s path splits its text into
// components when it is built, so that its queries above only copy a component; PathName keeps
// the text alone and scans it for each query.
void BM_LeafAndExtFromText_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& sPath : Paths()) {
            std::string sName = Qel::Core::PathName(sPath).GetLeafAndExt();
            benchmark::DoNotOptimize(sName.data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * Paths().size()));
}
BENCHMARK(BM_LeafAndExtFromText_Qel)->MinTime(dMIN_TIME);

void BM_LeafAndExtFromText_StdFs(benchmark::State& state)
{
    for (auto _ : state) {
        for (const std::string& sPath : Paths()) {
            std::filesystem::path name = std::filesystem::path(sPath).filename();
            benchmark::DoNotOptimize(name.native().data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * Paths().size()));
}
BENCHMARK(BM_LeafAndExtFromText_StdFs)->MinTime(dMIN_TIME);

} // namespace
