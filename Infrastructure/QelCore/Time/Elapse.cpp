// Elapse: conversions, the fixed text form and its parser, the human stream form, and QelSleep.
#include "Infrastructure/QelCore/Elapse.h"

#include "Infrastructure/QelCore/Time/TextFields.h"

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Platform/TimePlatform.h"

#include <cctype>
#include <ostream>
#include <string_view>

namespace Qel::Core {
namespace {

using TextFields::IsSpace;
using TextFields::ReadUnsigned32;
using TextFields::WriteDecimal;

const char* const sLOG_NAME = "Qel.Core.Elapse";

std::string_view TrimmedView(const std::string& text)
{
    std::string_view view(text);
    while (!view.empty() && IsSpace(view.front())) view.remove_prefix(1);
    while (!view.empty() && IsSpace(view.back())) view.remove_suffix(1);
    return view;
}

} // namespace

void Elapse::RaiseInvalidUnits(int units)
{
    QEL_RAISE_ERROR(InvalidParameter("units", units), sLOG_NAME);
}

double Elapse::GetElapsed(TimeUnits units) const
{
    // Nanoseconds, microseconds and milliseconds are computed in integers (wrapping beyond 64
    // bits, as all Elapse arithmetic does), so that they are whole numbers.
    const std::uint64_t nanoseconds = static_cast<std::uint64_t>(m_iTicks) * 100U;
    switch (units) {
    case NanoSeconds: return static_cast<double>(Wrap(nanoseconds));
    case MicroSeconds: return static_cast<double>(Wrap(nanoseconds) / 1000);
    case MilliSeconds: return static_cast<double>(Wrap(nanoseconds) / 1000000);
    case Seconds: return static_cast<double>(m_iTicks) / 10000000.0;
    case Minutes: return static_cast<double>(m_iTicks) / 6e8;
    case Hours: return static_cast<double>(m_iTicks) / 3.6e10;
    case Days: return static_cast<double>(m_iTicks) / 8.64e11;
    case TimerTicks: return static_cast<double>(m_iTicks);
    }
    RaiseInvalidUnits(units);
    return 0.0;
}

std::string Elapse::ToString() const
{
    // The magnitude in unsigned arithmetic, so that the most negative count has one too.
    const std::uint64_t magnitude =
        m_iTicks < 0 ? 0U - static_cast<std::uint64_t>(m_iTicks) : static_cast<std::uint64_t>(m_iTicks);
    const std::uint64_t seconds = magnitude / iTICKS_PER_SECOND;
    const std::uint64_t nanoseconds = (magnitude - seconds * iTICKS_PER_SECOND) * 100U;

    char buffer[48];
    char* out = buffer;
    if (m_iTicks < 0) *out++ = '-';
    out = WriteDecimal(out, seconds / 3600, 2);
    *out++ = ':';
    out = WriteDecimal(out, seconds / 60 % 60, 2);
    *out++ = ':';
    out = WriteDecimal(out, seconds % 60, 2);
    *out++ = '.';
    out = WriteDecimal(out, nanoseconds / 1000000, 3);
    *out++ = '.';
    out = WriteDecimal(out, nanoseconds / 1000 % 1000, 3);
    *out++ = '.';
    out = WriteDecimal(out, nanoseconds % 1000, 3);
    return std::string(buffer, static_cast<std::size_t>(out - buffer));
}

bool Elapse::ParseString(const std::string& text)
{
    std::string_view view = TrimmedView(text);
    const bool bNegative = !view.empty() && view.front() == '-';
    if (bNegative) view.remove_prefix(1);

    // Pieces at ':'; the last one holds seconds and its dotted fractions.
    std::size_t colonPieces = 1;
    for (char c : view) colonPieces += c == ':';
    const std::size_t lastColon = view.rfind(':');
    const std::string_view last = lastColon == std::string_view::npos ? view : view.substr(lastColon + 1);

    std::uint32_t hours = 0;
    std::uint32_t minutes = 0;
    if (colonPieces == 2 || colonPieces == 3) {
        const std::size_t firstColon = view.find(':');
        const std::uint32_t first = ReadUnsigned32(view.substr(0, firstColon));
        if (colonPieces == 2) {
            minutes = first;
        } else {
            hours = first;
            minutes = ReadUnsigned32(view.substr(firstColon + 1, lastColon - firstColon - 1));
        }
    }

    // Seconds, milliseconds, microseconds and nanoseconds from the left; with more than four
    // pieces all of them count as 0.
    std::uint32_t aFields[4] = {0, 0, 0, 0};
    std::size_t dotPieces = 1;
    for (char c : last) dotPieces += c == '.';
    if (dotPieces <= 4) {
        std::string_view rest = last;
        for (std::size_t i = 0; i < dotPieces; ++i) {
            const std::size_t dot = rest.find('.');
            aFields[i] = ReadUnsigned32(rest.substr(0, dot));
            rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
        }
    }

    // Computed in 64 bits; beyond that the count wraps like all Elapse arithmetic.
    const std::uint64_t nanoseconds =
        aFields[3] + (static_cast<std::uint64_t>(aFields[1]) * 1000U + aFields[2]) * 1000U;
    const std::uint64_t wholeSeconds = (static_cast<std::uint64_t>(hours) * 60U + minutes) * 60U + aFields[0];
    const std::uint64_t ticks = nanoseconds / 100U + wholeSeconds * static_cast<std::uint64_t>(iTICKS_PER_SECOND);
    m_iTicks = Wrap(bNegative ? 0U - ticks : ticks);
    return true;
}

} // namespace Qel::Core

using Qel::Core::Elapse;

std::ostream& operator<<(std::ostream& stream, const Elapse& elapse)
{
    const std::int64_t ticks = elapse.GetRawTimerTicks();
    if (ticks >= Elapse::iTICKS_PER_MINUTE) {
        std::int64_t seconds = ticks / Elapse::iTICKS_PER_SECOND;
        if (seconds > 86400) {
            stream << seconds / 86400 << ':';
            seconds %= 86400;
        }
        if (seconds > 3600) {
            stream << seconds / 3600 << ':';
            seconds %= 3600;
        }
        stream << seconds / 60 << ':' << seconds % 60;
    } else if (ticks >= Elapse::iTICKS_PER_SECOND) {
        stream << elapse.GetElapsed(Elapse::Seconds) << " seconds";
    } else {
        const double nanoseconds = elapse.GetElapsed(Elapse::NanoSeconds);
        if (nanoseconds > 1e6)
            stream << nanoseconds / 1e6 << " milliseconds";
        else if (nanoseconds > 1000)
            stream << nanoseconds / 1000 << " microseconds";
        else
            stream << nanoseconds << " nanoseconds";
    }
    return stream;
}

void QelSleep(const Elapse& duration, bool /*alertable*/)
{
    // Whole milliseconds, truncated. The full count is slept: a duration beyond 32 bits of
    // milliseconds (49.7 days) is not cut down, so the infinite time-out sleeps as long as it says.
    const std::int64_t milliSeconds = duration.GetRawTimerTicks() / Elapse::iTICKS_PER_MILLISECOND;
    if (milliSeconds <= 0) return;
    Qel::Core::Platform::SleepMilliSeconds(static_cast<std::uint64_t>(milliSeconds));
}

void QelSleep(int value, Elapse::TimeUnits units, bool /*alertable*/)
{
    const unsigned int uval = value < 0 ? 0U : static_cast<unsigned int>(value);
    std::uint32_t milliSeconds = 0;
    // Each bound is the largest value whose product fits 32 bits; past it the product wraps.
    switch (units) {
    case Elapse::NanoSeconds: milliSeconds = uval / 1000000U; break;
    case Elapse::MicroSeconds: milliSeconds = uval / 1000U; break;
    case Elapse::MilliSeconds: milliSeconds = uval; break;
    case Elapse::Seconds:
        QEL_ASSERT(uval <= 4294967U);
        milliSeconds = uval * 1000U;
        break;
    case Elapse::Minutes:
        QEL_ASSERT(uval <= 71582U);
        milliSeconds = uval * 60000U;
        break;
    case Elapse::Hours:
        QEL_ASSERT(uval <= 1193U);
        milliSeconds = uval * 3600000U;
        break;
    case Elapse::Days:
        QEL_ASSERT(uval <= 49U);
        milliSeconds = uval * 86400000U;
        break;
    case Elapse::TimerTicks: milliSeconds = static_cast<std::uint32_t>(uval * 100ULL / 1000000U); break;
    default: QEL_ASSERT(false); return;
    }
    Qel::Core::Platform::SleepMilliSeconds(milliSeconds);
}
