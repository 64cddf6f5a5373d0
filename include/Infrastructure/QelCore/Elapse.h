// Elapse: the library's one type for durations and time-outs, and QelSleep, its sleep.
//
// An Elapse is a signed count of 100-nanosecond ticks (the tick of Time as well). It converts to
// and from seven other units, has a fixed text form ("hh:mm:ss.mmm.uuu.nnn", read back exactly by
// ParseString) and a shorter form for people, written by operator<<. Every blocking call of the
// library takes an Elapse; the infinite time-out is Elapse::Infinite(), an ordinary value that
// each blocking primitive compares against where that matters.
//
// Arithmetic has no overflow check: sums and products beyond 64 bits wrap around.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <iosfwd>
#include <string>

namespace Qel::Core {

class QEL_CORE_API Elapse
{
public:
    enum TimeUnits
    {
        NanoSeconds = 0,  // 1/100 tick
        MicroSeconds = 1, // 10 ticks
        MilliSeconds = 2, // 10,000 ticks
        Seconds = 3,      // 10,000,000 ticks
        Minutes = 4,      // 600,000,000 ticks
        Hours = 5,        // 36,000,000,000 ticks
        Days = 6,         // 864,000,000,000 ticks
        TimerTicks = 7    // 1 tick
    };

    static constexpr std::int64_t iTICKS_PER_MICROSECOND = 10;
    static constexpr std::int64_t iTICKS_PER_MILLISECOND = 10000;
    static constexpr std::int64_t iTICKS_PER_SECOND = 10000000;
    static constexpr std::int64_t iTICKS_PER_MINUTE = 600000000;
    static constexpr std::int64_t iTICKS_PER_HOUR = 36000000000;
    static constexpr std::int64_t iTICKS_PER_DAY = 864000000000;

    // Same as Assign(value, units): Elapse() is zero, Elapse(5) five seconds.
    constexpr Elapse(std::int64_t value = 0, TimeUnits units = Seconds) : m_iTicks(0) { Assign(value, units); }
    // ((hours * 60 + minutes) * 60 + seconds) seconds and nanoseconds / 100 ticks, truncated
    // towards zero.
    constexpr Elapse(int hours, int minutes, int seconds, int nanoseconds)
        : m_iTicks(Wrap(static_cast<std::uint64_t>((static_cast<std::int64_t>(hours) * 60 + minutes) * 60 + seconds) *
                            static_cast<std::uint64_t>(iTICKS_PER_SECOND) +
                        static_cast<std::uint64_t>(static_cast<std::int64_t>(nanoseconds / 100))))
    {
    }
    constexpr Elapse(const Elapse&) = default;
    constexpr Elapse& operator=(const Elapse&) = default;

    // The infinite time-out of the library: Elapse(0x7fffffff, Seconds).
    static constexpr Elapse Infinite() { return Elapse(0x7fffffff, Seconds); }

    // Sets the duration to `value` in `units`. Nanoseconds round towards positive infinity to
    // whole ticks (1 ns gives 1 tick, -150 ns gives -1); microseconds and milliseconds are turned
    // into nanoseconds first and rounded the same way. An unknown unit raises InvalidParameter
    // ("units") under "Qel.Core.Elapse" and leaves the duration unchanged.
    constexpr void Assign(std::int64_t value, TimeUnits units)
    {
        switch (units) {
        case NanoSeconds: m_iTicks = CeilTicksOfNanoSeconds(static_cast<std::uint64_t>(value)); break;
        case MicroSeconds: m_iTicks = CeilTicksOfNanoSeconds(static_cast<std::uint64_t>(value) * 1000U); break;
        case MilliSeconds: m_iTicks = CeilTicksOfNanoSeconds(static_cast<std::uint64_t>(value) * 1000000U); break;
        case Seconds: m_iTicks = Scale(value, iTICKS_PER_SECOND); break;
        case Minutes: m_iTicks = Scale(value, iTICKS_PER_MINUTE); break;
        case Hours: m_iTicks = Scale(value, iTICKS_PER_HOUR); break;
        case Days: m_iTicks = Scale(value, iTICKS_PER_DAY); break;
        case TimerTicks: m_iTicks = value; break;
        default: RaiseInvalidUnits(units); break;
        }
    }

    // The duration in `units`: nanoseconds exact; microseconds and milliseconds whole numbers,
    // truncated towards zero; seconds, minutes, hours and days with fraction; timer ticks exact.
    // An unknown unit raises InvalidParameter ("units") under "Qel.Core.Elapse".
    double GetElapsed(TimeUnits units) const;
    // The tick count.
    constexpr std::int64_t GetRawTimerTicks() const { return m_iTicks; }

    // "hh:mm:ss.mmm.uuu.nnn", each field at least two or three digits wide; the hours are not
    // reduced to days. A negative duration has a leading '-' and all fields are magnitudes. The
    // last field is always a multiple of 100.
    std::string ToString() const;
    // Reads what ToString writes and shorter forms of it: "12" is 12 seconds, "1:30" 90 seconds,
    // "1:00:00.500" one hour and 500 milliseconds, and at most four dotted pieces (seconds,
    // milliseconds, microseconds, nanoseconds) after the last colon. A piece that is no number
    // counts as 0. Always true: a malformed text gives what its pieces give.
    bool ParseString(const std::string& text);

    constexpr Elapse operator+(const Elapse& other) const { return FromTicks(Add(m_iTicks, other.m_iTicks)); }
    constexpr Elapse operator-(const Elapse& other) const { return FromTicks(Sub(m_iTicks, other.m_iTicks)); }
    constexpr Elapse& operator+=(const Elapse& other)
    {
        m_iTicks = Add(m_iTicks, other.m_iTicks);
        return *this;
    }
    constexpr Elapse& operator-=(const Elapse& other)
    {
        m_iTicks = Sub(m_iTicks, other.m_iTicks);
        return *this;
    }

    constexpr bool operator==(const Elapse& other) const { return Compare(other) == 0; }
    constexpr bool operator!=(const Elapse& other) const { return Compare(other) != 0; }
    constexpr bool operator<(const Elapse& other) const { return Compare(other) < 0; }
    constexpr bool operator<=(const Elapse& other) const { return Compare(other) <= 0; }
    constexpr bool operator>(const Elapse& other) const { return Compare(other) > 0; }
    constexpr bool operator>=(const Elapse& other) const { return Compare(other) >= 0; }

private:
    // -1, 0 or 1 as the tick count is smaller than, equal to or larger than the other's.
    constexpr int Compare(const Elapse& other) const
    {
        return m_iTicks < other.m_iTicks ? -1 : (m_iTicks > other.m_iTicks ? 1 : 0);
    }

    static constexpr Elapse FromTicks(std::int64_t ticks) { return Elapse(ticks, TimerTicks); }
    // Two's complement arithmetic: results beyond 64 bits wrap around instead of being undefined.
    static constexpr std::int64_t Wrap(std::uint64_t bits) { return static_cast<std::int64_t>(bits); }
    static constexpr std::int64_t Add(std::int64_t a, std::int64_t b)
    {
        return Wrap(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
    }
    static constexpr std::int64_t Sub(std::int64_t a, std::int64_t b)
    {
        return Wrap(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
    }
    static constexpr std::int64_t Scale(std::int64_t value, std::int64_t factor)
    {
        return Wrap(static_cast<std::uint64_t>(value) * static_cast<std::uint64_t>(factor));
    }
    // Nanoseconds (as wrapped 64-bit bits) to ticks, rounded towards positive infinity.
    static constexpr std::int64_t CeilTicksOfNanoSeconds(std::uint64_t bits)
    {
        const std::int64_t nanoseconds = Wrap(bits);
        const std::int64_t ticks = nanoseconds / 100;
        return nanoseconds % 100 > 0 ? ticks + 1 : ticks;
    }
    // Raises InvalidParameter for an unknown unit (returns only where raising does not throw).
    static void RaiseInvalidUnits(int units);

    std::int64_t m_iTicks;
};

} // namespace Qel::Core

// The human form: from one minute up the whole seconds as "[d:][h:]m:s", unpadded (90 seconds
// print as "1:30", a day as "24:0:0"); from one second up "<seconds> seconds"; below that, and for
// negative durations, "<n> milliseconds", "<n> microseconds" or "<n> nanoseconds". Numbers follow
// the stream's own format settings.
QEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Qel::Core::Elapse& elapse);

// Sleeps for the duration, truncated to whole milliseconds. A duration below one millisecond,
// zero or negative returns at once without giving up the processor. `alertable` has no meaning on
// Linux (there are no asynchronous procedure calls to end a sleep early) and is ignored.
QEL_CORE_API void QelSleep(const Qel::Core::Elapse& duration, bool alertable = false);
// Sleeps `value` `units`, taken as whole milliseconds (a negative value counts as 0). Zero gives
// up the rest of the time slice. The product must fit 32 bits of milliseconds (at most 4,294,967
// seconds, 71,582 minutes, 1,193 hours or 49 days); a larger value fails an assertion and sleeps
// the product cut to 32 bits. An unknown unit fails the assertion "false" and does not sleep.
QEL_CORE_API void QelSleep(int value, Qel::Core::Elapse::TimeUnits units, bool alertable = false);

namespace Qel::Core {
// Code inside this namespace finds the global operator by argument-dependent lookup too, even
// where a nearer operator<< hides the global one.
using ::operator<<;
} // namespace Qel::Core
