// Benchmarks of the string tools and of callbacks against well-known equivalents, measured in the
// same run so that the ratios can be read directly:
//   - Split at "," against boost::algorithm::split (is_any_of) and iter_split (first_finder); Split
//     is measured both with a result vector used again (its strings keep their buffers) and with a
//     new vector in each call,
//   - Split at "->" against boost::algorithm::iter_split with first_finder,
//   - Join against boost::algorithm::join,
//   - TrimWS against boost::algorithm::trim_copy,
//   - a call through Callback& against a call through std::function.
// Names follow BM_<Case>_Qel against BM_<Case>_<Alternative>, so that the pairs can be matched.
// Each benchmark runs for a short minimum time so that the whole file stays well under 20 s.
#include "Infrastructure/QelCore/Callback.h"
#include "Infrastructure/QelCore/StringTools.h"

#include <benchmark/benchmark.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/finder.hpp>
#include <boost/algorithm/string/iter_find.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/range/iterator_range.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ST = Qel::Core::StringTools;

namespace {

constexpr double dMIN_TIME = 0.2;

// A CSV line of about 1 KB: 100 fields of 1 to 19 characters, a few of them empty.
std::string MakeCsvLine(const std::string& sDelimiter)
{
    std::string sLine;
    for (int i = 0; i < 100; ++i) {
        if (i != 0) sLine += sDelimiter;
        if (i % 17 != 0) sLine.append(static_cast<std::size_t>(1 + (i * 7) % 19), static_cast<char>('a' + i % 26));
    }
    return sLine;
}

const std::string& CsvComma()
{
    static const std::string s = MakeCsvLine(",");
    return s;
}

const std::string& CsvArrow()
{
    static const std::string s = MakeCsvLine("->");
    return s;
}

// ---- Split at a single character ----

void BM_Split_Comma_Qel(benchmark::State& state)
{
    std::vector<std::string> vParts;
    for (auto _ : state) {
        ST::Split(CsvComma(), ",", vParts);
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvComma().size()));
}
BENCHMARK(BM_Split_Comma_Qel)->MinTime(dMIN_TIME);

// The same with a new vector in each call, so that nothing of the previous result is reused.
void BM_Split_CommaNewVector_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<std::string> vParts;
        ST::Split(CsvComma(), ",", vParts);
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvComma().size()));
}
BENCHMARK(BM_Split_CommaNewVector_Qel)->MinTime(dMIN_TIME);

void BM_Split_Comma_BoostSplit(benchmark::State& state)
{
    std::vector<std::string> vParts;
    for (auto _ : state) {
        boost::algorithm::split(vParts, CsvComma(), boost::algorithm::is_any_of(","));
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvComma().size()));
}
BENCHMARK(BM_Split_Comma_BoostSplit)->MinTime(dMIN_TIME);

void BM_Split_Comma_BoostIterSplit(benchmark::State& state)
{
    std::vector<std::string> vParts;
    for (auto _ : state) {
        boost::algorithm::iter_split(vParts, CsvComma(), boost::algorithm::first_finder(","));
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvComma().size()));
}
BENCHMARK(BM_Split_Comma_BoostIterSplit)->MinTime(dMIN_TIME);

void BM_Split_CommaNewVector_BoostIterSplit(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<std::string> vParts;
        boost::algorithm::iter_split(vParts, CsvComma(), boost::algorithm::first_finder(","));
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvComma().size()));
}
BENCHMARK(BM_Split_CommaNewVector_BoostIterSplit)->MinTime(dMIN_TIME);

// ---- Split at a text delimiter ----

void BM_Split_Arrow_Qel(benchmark::State& state)
{
    std::vector<std::string> vParts;
    for (auto _ : state) {
        ST::Split(CsvArrow(), "->", vParts);
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvArrow().size()));
}
BENCHMARK(BM_Split_Arrow_Qel)->MinTime(dMIN_TIME);

void BM_Split_Arrow_BoostIterSplit(benchmark::State& state)
{
    std::vector<std::string> vParts;
    for (auto _ : state) {
        boost::algorithm::iter_split(vParts, CsvArrow(), boost::algorithm::first_finder("->"));
        benchmark::DoNotOptimize(vParts.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * CsvArrow().size()));
}
BENCHMARK(BM_Split_Arrow_BoostIterSplit)->MinTime(dMIN_TIME);

// ---- Join ----

const std::vector<std::string>& CsvParts()
{
    static const std::vector<std::string> v = [] {
        std::vector<std::string> vParts;
        ST::Split(CsvComma(), ",", vParts);
        return vParts;
    }();
    return v;
}

void BM_Join_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        std::string s = ST::Join(CsvParts(), ", ");
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_Join_Qel)->MinTime(dMIN_TIME);

void BM_Join_Boost(benchmark::State& state)
{
    for (auto _ : state) {
        std::string s = boost::algorithm::join(CsvParts(), ", ");
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_Join_Boost)->MinTime(dMIN_TIME);

// ---- TrimWS ----

const std::string& PaddedText()
{
    static const std::string s = " \t  a text of some forty characters, padded \r\n  ";
    return s;
}

void BM_TrimWS_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        std::string s = ST::TrimWS(PaddedText());
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_TrimWS_Qel)->MinTime(dMIN_TIME);

void BM_TrimWS_Boost(benchmark::State& state)
{
    // The classic locale's white space matches what isspace says in the C locale.
    for (auto _ : state) {
        std::string s = boost::algorithm::trim_copy(PaddedText());
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_TrimWS_Boost)->MinTime(dMIN_TIME);

// ---- callbacks ----

int g_nCalls = 0;

__attribute__((noinline)) void CountCall()
{
    ++g_nCalls;
}

void BM_Call_Qel(benchmark::State& state)
{
    std::shared_ptr<Qel::Core::Callback> spCallback = std::make_shared<Qel::Core::GlobalCallback>(&CountCall);
    Qel::Core::Callback* pCallback = spCallback.get();
    for (auto _ : state) {
        // Hide the dynamic type from the optimizer, so that the call stays virtual.
        benchmark::DoNotOptimize(pCallback);
        (*pCallback)();
    }
    benchmark::DoNotOptimize(g_nCalls);
}
BENCHMARK(BM_Call_Qel)->MinTime(dMIN_TIME);

void BM_Call_StdFunction(benchmark::State& state)
{
    std::function<void()> function(&CountCall);
    std::function<void()>* pFunction = &function;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pFunction);
        (*pFunction)();
    }
    benchmark::DoNotOptimize(g_nCalls);
}
BENCHMARK(BM_Call_StdFunction)->MinTime(dMIN_TIME);

} // namespace
