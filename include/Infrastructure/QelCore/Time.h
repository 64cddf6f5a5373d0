// Time: the library's instant.
//
// A Time is a signed count of 100-nanosecond ticks (the tick of Elapse) since 1601-01-01 00:00:00
// UTC. Nothing calendrical is stored: the calendar fields, names and texts are derived on demand
// in the machine's local time zone, each accessor converting again. The text form
// "1998/08/23 02:33:17.123" is the same in every locale and is read back by ParseString.
//
// A deadline is Time(timeout); TimeLeft() then tells how much of it remains.
//
// Local time follows the C library's zone (TZ, else /etc/localtime). A local reading that a change
// of the clocks skips is taken with the offset in force before the change, so it lands behind the
// gap (02:30 on the morning the clocks jump from 02:00 to 03:00 is 03:30); a reading that occurs
// twice when the clocks go back is the first occurrence, still in daylight time.
#pragma once

#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <iosfwd>
#include <string>

namespace Qel::Core {

class QEL_CORE_API Time
{
public:
    // A call to the platform's time conversions failed; the parameter is the system's error text.
    QEL_DEFINE_ERROR_API(QEL_CORE_API, OsTimeApiError, OSError, eERROR,
                         "Call to operating system time API failed with error:\n %1%", std::string)

    static constexpr int NSEC_PER_USEC = 1000;
    static constexpr int USEC_PER_MSEC = 1000;
    static constexpr int NSEC_PER_MSEC = 1000000;
    static constexpr int MSEC_PER_SEC = 1000;
    static constexpr int USEC_PER_SEC = 1000000;
    static constexpr int NSEC_PER_SEC = 1000000000;
    static constexpr int SEC_PER_MIN = 60;
    static constexpr int MIN_PER_HOUR = 60;
    static constexpr int SEC_PER_HOUR = 3600;
    static constexpr int HOUR_PER_DAY = 24;
    static constexpr int MIN_PER_DAY = 1440;
    static constexpr int SEC_PER_DAY = 86400;

    // How raw tick values of some platform are to be read.
    enum EPlatformTimeInfo
    {
        eTIME_PLATFORM_DEFAULT = 0, // 100-ns ticks since 1601-01-01 UTC
        eTIME_PLATFORM_WINDOWS = 1, // the same; what GetPlatformTimeInfo() tells
        eTIME_PLATFORM_SECONDS = 2  // seconds since 1970-01-01 00:00:00 local time
    };

    // Now.
    Time();
    // Now plus `offset`: a deadline.
    Time(const Elapse& offset);
    // Local midnight of the day in the current local year, plus `offset`.
    Time(int month, int day, const Elapse& offset);
    // Local midnight of the date (month, day, year: in this order), plus `offset`. A date that is
    // not in the calendar, or a year outside 1601 to 30827, raises OsTimeApiError.
    Time(int month, int day, int year, const Elapse& offset);
    // `value` ticks after local midnight of 1970-01-01 (no scaling: Time(5) is 500 ns after it).
    Time(std::int64_t value);
    // Same as Assign(value, info).
    Time(std::int64_t value, EPlatformTimeInfo info);
    Time(const Time&) = default;
    Time& operator=(const Time&) = default;
    // As Time(value).
    Time& operator=(std::int64_t value);

    // For eTIME_PLATFORM_DEFAULT and eTIME_PLATFORM_WINDOWS the tick count becomes `value`; for
    // eTIME_PLATFORM_SECONDS the value is taken as by Time(value) (convert seconds first with
    // ConvertTimerTicksToCurrentPlatform). Any other value fails an assertion and changes nothing.
    void Assign(std::int64_t value, EPlatformTimeInfo info);

    // Tick arithmetic wraps around beyond 64 bits, as Elapse's does.
    Time operator+(const Elapse& offset) const { return Time(Add(m_iTicks, offset.GetRawTimerTicks()), RawTicks{}); }
    Time operator-(const Elapse& offset) const { return Time(Sub(m_iTicks, offset.GetRawTimerTicks()), RawTicks{}); }
    Time& operator+=(const Elapse& offset)
    {
        m_iTicks = Add(m_iTicks, offset.GetRawTimerTicks());
        return *this;
    }
    Time& operator-=(const Elapse& offset)
    {
        m_iTicks = Sub(m_iTicks, offset.GetRawTimerTicks());
        return *this;
    }
    // The span from `other` to this instant.
    Elapse operator-(const Time& other) const { return Elapse(Sub(m_iTicks, other.m_iTicks), Elapse::TimerTicks); }

    // -1, 0 or 1 as this instant is before, equal to or after `other`.
    int Compare(const Time& other) const { return m_iTicks < other.m_iTicks ? -1 : (m_iTicks > other.m_iTicks ? 1 : 0); }
    bool operator==(const Time& other) const { return Compare(other) == 0; }
    bool operator!=(const Time& other) const { return Compare(other) != 0; }
    bool operator<(const Time& other) const { return Compare(other) < 0; }
    bool operator<=(const Time& other) const { return Compare(other) <= 0; }
    bool operator>(const Time& other) const { return Compare(other) > 0; }
    bool operator>=(const Time& other) const { return Compare(other) >= 0; }

    // This instant less now: what remains of a deadline (negative once it has passed).
    Elapse TimeLeft() const;
    // Now less this instant.
    Elapse TimeSince() const;

    std::int64_t GetRawTimerTicks() const { return m_iTicks; }
    // Ticks * 100 (wrapping around: the nanoseconds since 1601 exceed 64 bits after 1893).
    std::int64_t GetRawNanoSeconds() const
    {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(m_iTicks) * 100U);
    }
    // Ticks / 10,000,000, truncated towards zero.
    std::int64_t GetRawSeconds() const { return m_iTicks / 10000000; }

    // Local midnight of 1601-01-01 (before the tick origin, so negative, east of Greenwich).
    static Time GetEpoch();
    // eTIME_PLATFORM_WINDOWS: the ticks of this library have that meaning on every platform.
    static EPlatformTimeInfo GetPlatformTimeInfo() { return eTIME_PLATFORM_WINDOWS; }

    // Local calendar fields. Month is 1 to 12; MicroSecond() is the microseconds within the
    // current millisecond, 0 to 999.
    int Year() const;
    int Month() const;
    int Day() const;
    int Hour() const;
    int Minute() const;
    int Second() const;
    int MilliSecond() const;
    int MicroSecond() const;

    // Names of the local day and month in the default locale, UTF-8; empty if the locale data
    // cannot be had.
    std::string DayName() const;
    std::string DayAbbreviation() const;
    std::string MonthName() const;
    std::string MonthAbbreviation() const;

    // The local date or time of day through a picture in the default locale, UTF-8; an empty
    // picture is the locale's default (short date; time with seconds). Picture letters:
    //   date: d, dd (day), ddd, dddd (day name, abbreviated and full), M, MM (month), MMM, MMMM
    //         (month name), y (year in two digits without leading zero), yy (two digits),
    //         yyyy (full year), g, gg (era);
    //   time: h, hh (12-hour clock), H, HH (24-hour clock), m, mm (minutes), s, ss (seconds),
    //         t (first character of the AM/PM marker), tt (AM/PM marker).
    // Text in single quotes is copied ('' is one quote), as is every other character. The result
    // is empty if the locale data cannot be had.
    std::string GetLocalizedDate(const std::string& format) const;
    std::string GetLocalizedTime(const std::string& format) const;

    // "yyyy/MM/dd HH:mm:ss.mmm" in local time, independent of the locale.
    std::string ToString() const;
    // Reads "year/month/day hour:minute:second[.milliseconds]" in local time. A text that is not
    // two pieces separated by one blank, three pieces at '/' and three pieces at ':' gives false
    // and leaves the time unchanged; fields that are no date or time of day (month 13, hour 24)
    // raise OsTimeApiError. Pieces are read as numbers up to the first other character.
    bool ParseString(const std::string& text);

private:
    struct RawTicks
    {
    };
    Time(std::int64_t ticks, RawTicks) : m_iTicks(ticks) {}
    static std::int64_t Add(std::int64_t a, std::int64_t b)
    {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
    }
    static std::int64_t Sub(std::int64_t a, std::int64_t b)
    {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
    }

    // Local midnight of 1970-01-01 in UTC ticks, computed once at start-up.
    static const Time s_TimeTEpoch;

    std::int64_t m_iTicks;
};

// Size of one raw tick of the platform in nanoseconds: 100 for eTIME_PLATFORM_DEFAULT and
// eTIME_PLATFORM_WINDOWS, 1,000,000,000 for eTIME_PLATFORM_SECONDS, 0 for anything else.
QEL_CORE_API unsigned int GetTimeTickSize_ns(Time::EPlatformTimeInfo info);
// Raw ticks of the platform as ticks of this library: unchanged for the 100-ns platforms, seconds
// times 10,000,000, and 0 for an unknown platform.
QEL_CORE_API std::int64_t ConvertTimerTicksToCurrentPlatform(std::int64_t ticks, Time::EPlatformTimeInfo info);

} // namespace Qel::Core

// Writes ToString().
QEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Qel::Core::Time& time);

namespace Qel::Core {
using ::operator<<;
} // namespace Qel::Core
