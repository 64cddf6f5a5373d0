// The platform side of time (see TimePlatform.h for the porting decisions).
#include "Infrastructure/QelCore/Platform/TimePlatform.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <sched.h>

namespace Qel::Core::Platform {
namespace {

// localtime_r takes a lock of the C library that fork does not give back: a thread of the parent
// inside it at the fork would leave every later call in the child stuck (logging stamps each
// entry). So the library's calls pass one at a time through a gate that a fork waits for: no
// thread of the library is inside the C library's zone code while a fork copies the process.
std::mutex g_TimeZoneGate;

void BeforeFork()
{
    g_TimeZoneGate.lock();
}

void AfterForkInParent()
{
    g_TimeZoneGate.unlock();
}

void AfterForkInChild()
{
    g_TimeZoneGate.unlock();
}

[[maybe_unused]] const bool s_bForkHandlersInstalled =
    (::pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild), true);

struct tm* LocalTime(const std::time_t* instant, struct tm* local)
{
    std::lock_guard<std::mutex> gate(g_TimeZoneGate);
    return ::localtime_r(instant, local);
}

constexpr std::int64_t iSECONDS_PER_DAY = 86400;
constexpr std::int64_t iTICKS_PER_DAY = iSECONDS_PER_DAY * iTICKS_PER_SECOND;
constexpr std::int64_t iTICKS_PER_MILLISECOND = 10000;
// Days from 1601-01-01 to 1970-01-01 and seconds of the same span.
constexpr std::int64_t iDAYS_1601_TO_1970 = 134774;
constexpr std::int64_t iSECONDS_1601_TO_1970 = iDAYS_1601_TO_1970 * iSECONDS_PER_DAY;

// Division and remainder rounded towards minus infinity, so that instants before an origin
// belong to the day (second, millisecond) that they lie in.
constexpr std::int64_t FloorDiv(std::int64_t value, std::int64_t divisor)
{
    std::int64_t quotient = value / divisor;
    return (value % divisor != 0 && value < 0) ? quotient - 1 : quotient;
}

constexpr std::int64_t FloorMod(std::int64_t value, std::int64_t divisor)
{
    std::int64_t rest = value % divisor;
    return rest < 0 ? rest + divisor : rest;
}

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar (eras of 400 years, with
// the year starting in March so that the leap day comes last).
constexpr std::int64_t DaysFromCivil(std::int64_t year, int month, int day)
{
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = FloorDiv(year, 400);
    const std::int64_t yearOfEra = year - era * 400;
    const std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

// The date of a day count since 1970-01-01; the inverse of DaysFromCivil.
constexpr void CivilFromDays(std::int64_t days, std::int64_t& year, int& month, int& day)
{
    days += 719468;
    const std::int64_t era = FloorDiv(days, 146097);
    const std::int64_t dayOfEra = days - era * 146097;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
    day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
}

static_assert(DaysFromCivil(1970, 1, 1) == 0);
static_assert(DaysFromCivil(1601, 1, 1) == -iDAYS_1601_TO_1970);
static_assert(DaysFromCivil(2000, 3, 1) == 11017);

constexpr bool IsLeapYear(int year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr int DaysInMonth(int year, int month)
{
    constexpr int aDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : aDays[month - 1];
}

} // namespace

std::int64_t UtcTicksNow()
{
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return (static_cast<std::int64_t>(now.tv_sec) + iSECONDS_1601_TO_1970) * iTICKS_PER_SECOND + now.tv_nsec / 100;
}

std::int64_t MonotonicNanoSeconds()
{
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

CalendarFields UtcTicksToUtcFields(std::int64_t ticks)
{
    // Counted from 1601 so that no step overflows, whatever the tick count.
    const std::int64_t days = FloorDiv(ticks, iTICKS_PER_DAY);
    const std::int64_t ticksOfDay = ticks - days * iTICKS_PER_DAY;
    CalendarFields fields;
    std::int64_t year = 0;
    CivilFromDays(days - iDAYS_1601_TO_1970, year, fields.month, fields.day);
    fields.year = static_cast<int>(year);
    // 1601-01-01 was a Monday.
    fields.dayOfWeek = static_cast<int>(FloorMod(days + 1, 7));
    const std::int64_t seconds = ticksOfDay / iTICKS_PER_SECOND;
    fields.hour = static_cast<int>(seconds / 3600);
    fields.minute = static_cast<int>(seconds / 60 % 60);
    fields.second = static_cast<int>(seconds % 60);
    fields.milliSecond = static_cast<int>(ticksOfDay % iTICKS_PER_SECOND / iTICKS_PER_MILLISECOND);
    return fields;
}

std::int64_t UtcFieldsToUtcTicks(const CalendarFields& fields)
{
    const std::int64_t days = DaysFromCivil(fields.year, fields.month, fields.day) + iDAYS_1601_TO_1970;
    const std::int64_t seconds = (fields.hour * 60LL + fields.minute) * 60 + fields.second;
    return days * iTICKS_PER_DAY + seconds * iTICKS_PER_SECOND + fields.milliSecond * iTICKS_PER_MILLISECOND;
}

bool ValidCalendarFields(const CalendarFields& fields)
{
    return fields.year >= 1601 && fields.year <= 30827 && fields.month >= 1 && fields.month <= 12 &&
           fields.day >= 1 && fields.day <= DaysInMonth(fields.year, fields.month) && fields.hour >= 0 &&
           fields.hour <= 23 && fields.minute >= 0 && fields.minute <= 59 && fields.second >= 0 &&
           fields.second <= 59 && fields.milliSecond >= 0 && fields.milliSecond <= 999;
}

bool UtcOffsetAt(std::int64_t unixSeconds, std::int64_t& offset)
{
    const std::time_t instant = static_cast<std::time_t>(unixSeconds);
    struct tm local {};
    if (LocalTime(&instant, &local) == nullptr) return false;
    offset = local.tm_gmtoff;
    return true;
}

bool UtcTicksToLocalFields(std::int64_t ticks, CalendarFields& fields, std::string& error)
{
    const std::time_t instant = static_cast<std::time_t>(FloorDiv(ticks, iTICKS_PER_SECOND) - iSECONDS_1601_TO_1970);
    struct tm local {};
    errno = 0;
    if (LocalTime(&instant, &local) == nullptr) {
        error = SystemErrorText(errno != 0 ? errno : EOVERFLOW);
        return false;
    }
    fields.year = local.tm_year + 1900;
    fields.month = local.tm_mon + 1;
    fields.day = local.tm_mday;
    fields.dayOfWeek = local.tm_wday;
    fields.hour = local.tm_hour;
    fields.minute = local.tm_min;
    fields.second = local.tm_sec;
    fields.milliSecond = static_cast<int>(FloorMod(ticks, iTICKS_PER_SECOND) / iTICKS_PER_MILLISECOND);
    return true;
}

bool LocalFieldsToUtcTicks(const CalendarFields& fields, std::int64_t& ticks, std::string& error)
{
    if (!ValidCalendarFields(fields)) {
        error = SystemErrorText(EINVAL);
        return false;
    }
    // The wall-clock reading as seconds since 1970, as if local time were UTC.
    const std::int64_t wall = DaysFromCivil(fields.year, fields.month, fields.day) * iSECONDS_PER_DAY +
                              (fields.hour * 60LL + fields.minute) * 60 + fields.second;

    // The offsets a day before and a day after the reading lie on either side of the instant
    // sought (offsets stay within +-15 hours), and zones never change twice within a day: so
    // the instant is the reading less one of these two offsets.
    std::int64_t offsetBefore = 0;
    std::int64_t offsetAfter = 0;
    std::int64_t result = 0;
    if (!UtcOffsetAt(wall - iSECONDS_PER_DAY, offsetBefore) || !UtcOffsetAt(wall + iSECONDS_PER_DAY, offsetAfter)) {
        error = SystemErrorText(EOVERFLOW);
        return false;
    }
    if (offsetBefore == offsetAfter) {
        result = wall - offsetBefore;
    } else {
        // A change of the clocks near the reading. A candidate is right if the offset at the
        // candidate instant gives the reading back.
        const std::int64_t early = wall - offsetBefore;
        const std::int64_t late = wall - offsetAfter;
        std::int64_t offsetEarly = 0;
        std::int64_t offsetLate = 0;
        const bool bEarlyFits = UtcOffsetAt(early, offsetEarly) && offsetEarly == offsetBefore;
        const bool bLateFits = UtcOffsetAt(late, offsetLate) && offsetLate == offsetAfter;
        if (bEarlyFits && bLateFits)
            result = early < late ? early : late; // read twice (fall back): the first occurrence
        else if (bLateFits)
            result = late;
        else
            result = early; // in the fitting case, or skipped (spring forward): the offset before
    }
    ticks = (result + iSECONDS_1601_TO_1970) * iTICKS_PER_SECOND + fields.milliSecond * iTICKS_PER_MILLISECOND;
    return true;
}

void SleepMilliSeconds(std::uint64_t milliSeconds)
{
    if (milliSeconds == 0) {
        ::sched_yield();
        return;
    }
    // An absolute deadline on the monotonic clock: signals neither shorten the sleep nor make it
    // drift, and setting the wall clock does not move it.
    struct timespec deadline {};
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    const std::uint64_t maxSeconds = static_cast<std::uint64_t>(INT64_MAX / 2);
    const std::uint64_t seconds = milliSeconds / 1000 < maxSeconds ? milliSeconds / 1000 : maxSeconds;
    deadline.tv_sec += static_cast<std::time_t>(seconds);
    deadline.tv_nsec += static_cast<long>(milliSeconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_nsec -= 1000000000L;
        ++deadline.tv_sec;
    }
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

std::string SystemErrorText(int code)
{
    char buffer[256];
    // The GNU strerror_r returns the text, which need not lie in the buffer.
    const char* text = ::strerror_r(code, buffer, sizeof buffer);
    return text != nullptr ? std::string(text) : std::string();
}

} // namespace Qel::Core::Platform
