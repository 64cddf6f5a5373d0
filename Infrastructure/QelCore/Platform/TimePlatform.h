// The platform side of time: the wall clock, the monotonic clock, local calendar conversions in
// the machine's time zone and sleeping.
//
// Porting decisions taken here:
// - The wall clock is CLOCK_REALTIME, read as 100-nanosecond ticks since 1601-01-01 00:00:00 UTC,
//   the tick and origin the library's Time keeps everywhere (so values exchanged with programs on
//   other systems keep their meaning).
// - The monotonic clock is CLOCK_MONOTONIC in nanoseconds. Time-outs and counters use it; it never
//   jumps when the wall clock is set.
// - Local time is the C library's: localtime_r with the zone of TZ (or /etc/localtime when TZ is
//   unset; UTC when neither exists). The zone is read once by the C library; a program that changes
//   TZ at run time calls tzset() afterwards. The library's calls of localtime_r go one at a time
//   through a gate that a fork waits for, so that the child of a fork never finds the C library's
//   zone lock taken by a thread of the parent (fork does not give that lock back). Historic offsets (local mean time before a zone's first
//   rule) are taken as the zone database gives them.
// - UTC calendar arithmetic is our own, proleptic Gregorian, over the whole 64-bit tick range, so
//   instants before 1601 (negative ticks) convert like any other; they arise for local midnight of
//   1601-01-01 east of Greenwich.
// - Local calendar fields are checked before they are converted: year 1601 to 30827, month 1 to
//   12, a day that the month has, hour 0 to 23, minute and second 0 to 59, millisecond 0 to 999.
//   Anything else is refused (the C library would silently carry a month 13 into the next year).
// - A local time that a change of the clocks skips (spring forward) is read with the offset in
//   force before the change, so it lands behind the gap by the gap's length: 02:30 on the morning
//   the clocks go from 02:00 to 03:00 is 03:30 daylight time. A local time that occurs twice (fall
//   back) is read as the first occurrence, still in daylight time. Both rules are deterministic and
//   do not depend on what the C library's mktime guesses from earlier calls.
// - Sleeping 0 milliseconds gives up the rest of the time slice (sched_yield). Any other sleep is a
//   relative clock_nanosleep on CLOCK_MONOTONIC, resumed with the time left after a signal, so it
//   lasts at least as long as asked. Windows' alertable sleep ends early for an asynchronous
//   procedure call; Linux has no such calls, so there is no alertable flag here.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <string>

namespace Qel::Core::Platform {

// Ticks of 100 ns from 1601-01-01 00:00:00 UTC to 1970-01-01 00:00:00 UTC.
inline constexpr std::int64_t iTICKS_1601_TO_1970 = 116444736000000000LL;
inline constexpr std::int64_t iTICKS_PER_SECOND = 10000000LL;

// A calendar date and time of day, to the millisecond. `dayOfWeek` is 0 for Sunday to 6 for
// Saturday; it is an output only and ignored by the conversions that take fields.
struct CalendarFields
{
    int year = 0;
    int month = 0; // 1 to 12
    int day = 0;   // 1 to 31
    int dayOfWeek = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int milliSecond = 0;
};

// The current time in ticks of 100 ns since 1601-01-01 00:00:00 UTC.
std::int64_t UtcTicksNow();

// The monotonic clock in nanoseconds from an arbitrary origin.
QEL_CORE_API std::int64_t MonotonicNanoSeconds();

// The UTC calendar fields of a tick count; always succeeds. Milliseconds are truncated (towards the
// past for negative ticks).
QEL_CORE_API CalendarFields UtcTicksToUtcFields(std::int64_t ticks);

// The tick count of UTC fields, which must be valid (see ValidCalendarFields).
QEL_CORE_API std::int64_t UtcFieldsToUtcTicks(const CalendarFields& fields);

// Whether the fields are a real calendar date and time of day within the years 1601 to 30827.
bool ValidCalendarFields(const CalendarFields& fields);

// The local calendar fields of a tick count in the machine's zone. False, with the system's
// error text in `error`, if the C library cannot convert the instant.
QEL_CORE_API bool UtcTicksToLocalFields(std::int64_t ticks, CalendarFields& fields, std::string& error);

// The tick count of local calendar fields in the machine's zone, by the rules above. False, with
// the system's error text in `error`, for fields that are not a valid date and time of day or an
// instant that the C library cannot convert; `ticks` is then unchanged.
bool LocalFieldsToUtcTicks(const CalendarFields& fields, std::int64_t& ticks, std::string& error);

// The offset of local time from UTC in seconds at an instant given in seconds since 1970 UTC
// (positive east of Greenwich); false if the C library cannot convert the instant.
bool UtcOffsetAt(std::int64_t unixSeconds, std::int64_t& offset);

// Sleeps the number of milliseconds; 0 yields the processor to other ready threads.
void SleepMilliSeconds(std::uint64_t milliSeconds);

// The system's text for an errno value.
std::string SystemErrorText(int code);

} // namespace Qel::Core::Platform
