// Elapse and Time against the C library doing the same work, measured in the same run:
//   - Elapse::ToString against snprintf of the same fields, both into a std::string,
//   - Elapse::ParseString against sscanf of the full form,
//   - Elapse comparison and addition against the same on a plain int64_t,
//   - Time() against clock_gettime(CLOCK_REALTIME) turned into ticks,
//   - Time::ToString against localtime_r + strftime + the milliseconds,
//   - Time::ParseString against sscanf + mktime,
//   - Time::Hour against localtime_r,
//   - Time::DayName (ICU, default locale) against localtime_r + strftime("%A").
// The local zone is a central European one with daylight saving rules, set before the first
// benchmark, so that both sides convert through the same rules (and mktime does not look for
// /etc/localtime on every call, as it does when TZ is unset).
// Names follow BM_<Case>_Qel against BM_<Case>_<Alternative>.
#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Time.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

using Qel::Core::Elapse;
using Qel::Core::Time;

namespace {

constexpr double dMIN_TIME = 0.1;

const bool g_bZoneSet = [] {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    return true;
}();

// ---- Elapse ----

const Elapse eSAMPLE(5, 4, 3, 987654321);

void BM_ElapseToString_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        std::string text = eSAMPLE.ToString();
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_ElapseToString_Qel)->MinTime(dMIN_TIME);

void BM_ElapseToString_Snprintf(benchmark::State& state)
{
    const std::int64_t ticks = eSAMPLE.GetRawTimerTicks();
    for (auto _ : state) {
        const std::int64_t seconds = ticks / 10000000;
        const std::int64_t nanoseconds = (ticks - seconds * 10000000) * 100;
        char buffer[48];
        const int length = std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%03d.%03d.%03d", static_cast<int>(seconds / 3600),
                                         static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60),
                                         static_cast<int>(nanoseconds / 1000000), static_cast<int>(nanoseconds / 1000 % 1000),
                                         static_cast<int>(nanoseconds % 1000));
        std::string text(buffer, static_cast<std::size_t>(length));
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_ElapseToString_Snprintf)->MinTime(dMIN_TIME);

const std::string sELAPSE_TEXT = "05:04:03.987.654.300";

void BM_ElapseParseString_Qel(benchmark::State& state)
{
    Elapse elapse;
    for (auto _ : state) {
        elapse.ParseString(sELAPSE_TEXT);
        benchmark::DoNotOptimize(elapse);
    }
}
BENCHMARK(BM_ElapseParseString_Qel)->MinTime(dMIN_TIME);

void BM_ElapseParseString_Sscanf(benchmark::State& state)
{
    for (auto _ : state) {
        unsigned hours = 0, minutes = 0, seconds = 0, milli = 0, micro = 0, nano = 0;
        std::sscanf(sELAPSE_TEXT.c_str(), "%u:%u:%u.%u.%u.%u", &hours, &minutes, &seconds, &milli, &micro, &nano);
        std::int64_t ticks = ((hours * 60LL + minutes) * 60 + seconds) * 10000000 + (nano + (milli * 1000LL + micro) * 1000) / 100;
        benchmark::DoNotOptimize(ticks);
    }
}
BENCHMARK(BM_ElapseParseString_Sscanf)->MinTime(dMIN_TIME);

void BM_ElapseCompareAdd_Qel(benchmark::State& state)
{
    Elapse sum;
    const Elapse step(3, Elapse::TimerTicks);
    const Elapse limit(1, Elapse::Seconds);
    for (auto _ : state) {
        benchmark::DoNotOptimize(step);
        sum += step;
        if (sum > limit) sum = Elapse();
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_ElapseCompareAdd_Qel)->MinTime(dMIN_TIME);

void BM_ElapseCompareAdd_Integer(benchmark::State& state)
{
    std::int64_t sum = 0;
    const std::int64_t step = 3;
    const std::int64_t limit = 10000000;
    for (auto _ : state) {
        benchmark::DoNotOptimize(step);
        sum += step;
        if (sum > limit) sum = 0;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_ElapseCompareAdd_Integer)->MinTime(dMIN_TIME);

// ---- Time ----

void BM_TimeNow_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        Time now;
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(BM_TimeNow_Qel)->MinTime(dMIN_TIME);

void BM_TimeNow_ClockGettime(benchmark::State& state)
{
    for (auto _ : state) {
        struct timespec now {};
        ::clock_gettime(CLOCK_REALTIME, &now);
        std::int64_t ticks = (now.tv_sec + 11644473600LL) * 10000000 + now.tv_nsec / 100;
        benchmark::DoNotOptimize(ticks);
    }
}
BENCHMARK(BM_TimeNow_ClockGettime)->MinTime(dMIN_TIME);

const Time tSAMPLE(8, 23, 1998, Elapse(2, 33, 17, 123000000));

void BM_TimeToString_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        std::string text = tSAMPLE.ToString();
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_TimeToString_Qel)->MinTime(dMIN_TIME);

void BM_TimeToString_Strftime(benchmark::State& state)
{
    const std::int64_t ticks = tSAMPLE.GetRawTimerTicks();
    for (auto _ : state) {
        const std::time_t seconds = static_cast<std::time_t>(ticks / 10000000 - 11644473600LL);
        struct tm fields {};
        ::localtime_r(&seconds, &fields);
        char buffer[48];
        std::size_t length = std::strftime(buffer, sizeof buffer, "%Y/%m/%d %H:%M:%S", &fields);
        length += static_cast<std::size_t>(
            std::snprintf(buffer + length, sizeof buffer - length, ".%03d", static_cast<int>(ticks % 10000000 / 10000)));
        std::string text(buffer, length);
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_TimeToString_Strftime)->MinTime(dMIN_TIME);

const std::string sTIME_TEXT = "1998/08/23 02:33:17.123";

void BM_TimeParseString_Qel(benchmark::State& state)
{
    Time time;
    for (auto _ : state) {
        time.ParseString(sTIME_TEXT);
        benchmark::DoNotOptimize(time);
    }
}
BENCHMARK(BM_TimeParseString_Qel)->MinTime(dMIN_TIME);

void BM_TimeParseString_SscanfMktime(benchmark::State& state)
{
    for (auto _ : state) {
        struct tm fields {};
        int milli = 0;
        std::sscanf(sTIME_TEXT.c_str(), "%d/%d/%d %d:%d:%d.%d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
                    &fields.tm_hour, &fields.tm_min, &fields.tm_sec, &milli);
        fields.tm_year -= 1900;
        fields.tm_mon -= 1;
        fields.tm_isdst = -1;
        std::int64_t ticks = (static_cast<std::int64_t>(std::mktime(&fields)) + 11644473600LL) * 10000000 + milli * 10000LL;
        benchmark::DoNotOptimize(ticks);
    }
}
BENCHMARK(BM_TimeParseString_SscanfMktime)->MinTime(dMIN_TIME);

void BM_TimeHour_Qel(benchmark::State& state)
{
    for (auto _ : state) benchmark::DoNotOptimize(tSAMPLE.Hour());
}
BENCHMARK(BM_TimeHour_Qel)->MinTime(dMIN_TIME);

void BM_TimeHour_LocalTime(benchmark::State& state)
{
    const std::time_t seconds = static_cast<std::time_t>(tSAMPLE.GetRawTimerTicks() / 10000000 - 11644473600LL);
    for (auto _ : state) {
        struct tm fields {};
        ::localtime_r(&seconds, &fields);
        benchmark::DoNotOptimize(fields.tm_hour);
    }
}
BENCHMARK(BM_TimeHour_LocalTime)->MinTime(dMIN_TIME);

void BM_TimeDayName_Qel(benchmark::State& state)
{
    for (auto _ : state) {
        std::string name = tSAMPLE.DayName();
        benchmark::DoNotOptimize(name.data());
    }
}
BENCHMARK(BM_TimeDayName_Qel)->MinTime(dMIN_TIME);

void BM_TimeDayName_Strftime(benchmark::State& state)
{
    const std::time_t seconds = static_cast<std::time_t>(tSAMPLE.GetRawTimerTicks() / 10000000 - 11644473600LL);
    for (auto _ : state) {
        struct tm fields {};
        ::localtime_r(&seconds, &fields);
        char buffer[64];
        std::string name(buffer, std::strftime(buffer, sizeof buffer, "%A", &fields));
        benchmark::DoNotOptimize(name.data());
    }
}
BENCHMARK(BM_TimeDayName_Strftime)->MinTime(dMIN_TIME);

} // namespace
