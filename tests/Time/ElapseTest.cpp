// Tests of Elapse: units and rounding, construction, arithmetic and comparison, the fixed text
// form and its parser, the human stream form, and QelSleep.
#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Platform/TimePlatform.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>

using Qel::Core::Elapse;

namespace {

// A value of eight bytes, copied freely; the seconds and tick forms are compile-time constants.
static_assert(sizeof(Elapse) == 8 && std::is_trivially_copyable_v<Elapse>);
static_assert(Elapse(2, Elapse::Seconds) + Elapse(5, Elapse::TimerTicks) > Elapse(2));

std::string Streamed(const Elapse& elapse)
{
    std::ostringstream stream;
    stream << elapse;
    return stream.str();
}

Elapse Parsed(const std::string& text)
{
    Elapse elapse(777, Elapse::TimerTicks);
    EXPECT_TRUE(elapse.ParseString(text)) << text;
    return elapse;
}

Elapse Ticks(std::int64_t ticks)
{
    return Elapse(ticks, Elapse::TimerTicks);
}

const Elapse::TimeUnits eBAD_UNITS = static_cast<Elapse::TimeUnits>(9);

// ---------------------------------------------------------------------------------------------
// Units

TEST(ElapseUnits, ZeroReadsZeroInEveryUnitAndDefaultUnitIsSeconds)
{
    const Elapse zero;
    for (int units = Elapse::NanoSeconds; units <= Elapse::TimerTicks; ++units)
        EXPECT_EQ(zero.GetElapsed(static_cast<Elapse::TimeUnits>(units)), 0.0) << units;
    EXPECT_EQ(Elapse(5).GetElapsed(Elapse::Seconds), 5.0);
    EXPECT_EQ(Elapse(5), Elapse(5, Elapse::Seconds));
    EXPECT_EQ(Elapse(5).GetRawTimerTicks(), 50000000);
}

TEST(ElapseUnits, ReadsTheSameSpanInEachUnit)
{
    Elapse elapse;
    elapse.Assign(4222, Elapse::MilliSeconds);
    EXPECT_EQ(elapse.GetElapsed(Elapse::MilliSeconds), 4222.0);
    EXPECT_DOUBLE_EQ(elapse.GetElapsed(Elapse::Seconds), 4.222);
    EXPECT_EQ(elapse.GetElapsed(Elapse::MicroSeconds), 4222000.0);
    EXPECT_EQ(elapse.GetElapsed(Elapse::NanoSeconds), 4222000000.0);
    EXPECT_EQ(elapse.GetElapsed(Elapse::TimerTicks), 42220000.0);

    elapse.Assign(4222, Elapse::MicroSeconds);
    EXPECT_EQ(elapse.GetElapsed(Elapse::NanoSeconds), 4222000.0);

    elapse.Assign(4222, Elapse::Seconds);
    EXPECT_DOUBLE_EQ(elapse.GetElapsed(Elapse::Minutes), 4222.0 / 60);
    EXPECT_DOUBLE_EQ(elapse.GetElapsed(Elapse::Hours), 4222.0 / 3600);
    EXPECT_DOUBLE_EQ(elapse.GetElapsed(Elapse::Days), 4222.0 / 86400);

    EXPECT_EQ(Elapse(3, Elapse::Minutes).GetRawTimerTicks(), 1800000000);
    EXPECT_EQ(Elapse(3, Elapse::Hours).GetRawTimerTicks(), 108000000000);
    EXPECT_EQ(Elapse(3, Elapse::Days).GetRawTimerTicks(), 2592000000000);
    EXPECT_EQ(Elapse(-3, Elapse::TimerTicks).GetRawTimerTicks(), -3);
}

TEST(ElapseUnits, SubTickValuesRoundTowardsPositiveInfinity)
{
    EXPECT_EQ(Elapse(1, Elapse::NanoSeconds).GetRawTimerTicks(), 1);
    EXPECT_EQ(Elapse(100, Elapse::NanoSeconds).GetRawTimerTicks(), 1);
    EXPECT_EQ(Elapse(101, Elapse::NanoSeconds).GetRawTimerTicks(), 2);
    EXPECT_EQ(Elapse(-50, Elapse::NanoSeconds).GetRawTimerTicks(), 0);
    EXPECT_EQ(Elapse(-100, Elapse::NanoSeconds).GetRawTimerTicks(), -1);
    EXPECT_EQ(Elapse(-150, Elapse::NanoSeconds).GetRawTimerTicks(), -1);
    EXPECT_EQ(Elapse(-250, Elapse::NanoSeconds).GetRawTimerTicks(), -2);
    EXPECT_EQ(Elapse(7, Elapse::MicroSeconds).GetRawTimerTicks(), 70);
    EXPECT_EQ(Elapse(-7, Elapse::MilliSeconds).GetRawTimerTicks(), -70000);
}

TEST(ElapseUnits, WholeMicroAndMilliSecondsTruncateTowardsZero)
{
    EXPECT_EQ(Ticks(19).GetElapsed(Elapse::MicroSeconds), 1.0);
    EXPECT_EQ(Ticks(-19).GetElapsed(Elapse::MicroSeconds), -1.0);
    EXPECT_EQ(Ticks(19999).GetElapsed(Elapse::MilliSeconds), 1.0);
    EXPECT_EQ(Ticks(-19999).GetElapsed(Elapse::MilliSeconds), -1.0);
    EXPECT_DOUBLE_EQ(Ticks(15000000).GetElapsed(Elapse::Seconds), 1.5);
}

TEST(ElapseUnits, UnknownUnitRaisesAndKeepsTheValue)
{
    QelTest::AlertRecorder recorder;
    Elapse elapse(42, Elapse::TimerTicks);
    try {
        elapse.Assign(5, eBAD_UNITS);
        FAIL() << "no error raised";
    } catch (const Qel::Core::InvalidParameter& error) {
        EXPECT_EQ(error.GetMessageA(), "Invalid Parameter: units = 9");
        EXPECT_EQ(error.GetData(Qel::Core::AlertInfo::sLOG_NAME), "Qel.Core.Elapse");
    }
    EXPECT_EQ(elapse.GetRawTimerTicks(), 42);
    EXPECT_THROW(elapse.GetElapsed(eBAD_UNITS), Qel::Core::InvalidParameter);
    EXPECT_THROW(Elapse(1, eBAD_UNITS), Qel::Core::InvalidParameter);
    EXPECT_EQ(recorder.Count("raised"), 3U);
}

TEST(ElapseUnits, InfiniteIsTheLargestThirtyTwoBitCountOfSeconds)
{
    static_assert(Elapse::Infinite() == Elapse(0x7fffffff, Elapse::Seconds));
    EXPECT_EQ(Elapse::Infinite().GetRawTimerTicks(), 21474836470000000);
    EXPECT_EQ(Elapse::Infinite().GetElapsed(Elapse::MilliSeconds), 2147483647000.0);
}

// ---------------------------------------------------------------------------------------------
// Construction, arithmetic and comparison

TEST(ElapseArithmetic, FieldConstructorTruncatesNanoseconds)
{
    EXPECT_EQ(Elapse(1, 2, 3, 4).GetRawTimerTicks(), 3723LL * 10000000);
    EXPECT_EQ(Elapse(0, 0, 0, 199).GetRawTimerTicks(), 1);
    EXPECT_EQ(Elapse(0, 0, 0, -199).GetRawTimerTicks(), -1);
    EXPECT_EQ(Elapse(0, 0, 1, 500000000), Elapse(1500, Elapse::MilliSeconds));
    EXPECT_EQ(Elapse(-1, 0, 0, 0), Elapse(-1, Elapse::Hours));
    EXPECT_EQ(Elapse(1000000, 0, 0, 0), Elapse(1000000, Elapse::Hours));
}

TEST(ElapseArithmetic, CopiesAssignmentsAndComparisons)
{
    const Elapse original(1, 2, 3, 4);
    const Elapse copy(original);
    Elapse assigned;
    assigned = original;
    EXPECT_EQ(copy, original);
    EXPECT_EQ(assigned, original);

    const Elapse& self = original;
    EXPECT_TRUE(original == self);
    EXPECT_FALSE(original != self);
    EXPECT_TRUE(original <= self);
    EXPECT_TRUE(original >= self);
    EXPECT_FALSE(original < self);
    EXPECT_FALSE(original > self);

    const Elapse smaller(1, 2, 2, 999999900);
    const Elapse larger(1, 2, 3, 100);
    EXPECT_TRUE(smaller < original && original < larger);
    EXPECT_TRUE(smaller <= original && original <= larger);
    EXPECT_TRUE(larger > original && original > smaller);
    EXPECT_TRUE(larger >= original && original >= smaller);
    EXPECT_TRUE(smaller != original && larger != original);
    EXPECT_FALSE(original < smaller || larger < original);
    EXPECT_TRUE(Ticks(-1) < Ticks(0));
}

TEST(ElapseArithmetic, SumsAndDifferencesChangeOnlyTheLeftSide)
{
    EXPECT_EQ(Elapse(0, 0, 1, 0) + Elapse(0, 0, 2, 0), Elapse(0, 0, 3, 0));
    EXPECT_EQ(Elapse(0, 0, 1, 0) - Elapse(0, 0, 2, 0), Elapse(-1));

    Elapse left(10);
    const Elapse right(4);
    left += right;
    EXPECT_EQ(left, Elapse(14));
    EXPECT_EQ(right, Elapse(4));
    left -= right;
    left -= right;
    EXPECT_EQ(left, Elapse(6));
    EXPECT_EQ(right, Elapse(4));
}

TEST(ElapseArithmetic, OverflowWrapsAround)
{
    const Elapse largest = Ticks(std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ((largest + Ticks(1)).GetRawTimerTicks(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ((Ticks(std::numeric_limits<std::int64_t>::min()) - Ticks(1)), largest);
    // 2^62 / 10^7 seconds times 10^7 ticks exceeds 64 bits.
    EXPECT_EQ(Elapse(std::int64_t{1} << 62, Elapse::Seconds).GetRawTimerTicks(),
              static_cast<std::int64_t>((std::uint64_t{1} << 62) * 10000000U));
}

// ---------------------------------------------------------------------------------------------
// Text form

TEST(ElapseText, FixedFormFields)
{
    EXPECT_EQ(Ticks(1).ToString(), "00:00:00.000.000.100");
    EXPECT_EQ(Elapse().ToString(), "00:00:00.000.000.000");
    EXPECT_EQ(Elapse(1).ToString(), "00:00:01.000.000.000");
    EXPECT_EQ(Elapse(5, 4, 3, 987654321).ToString(), "05:04:03.987.654.300");
    EXPECT_EQ(Elapse(-5, -4, -3, -987654321).ToString(), "-05:04:03.987.654.300");
    EXPECT_EQ(Ticks(-1).ToString(), "-00:00:00.000.000.100");
    // Hours are not reduced to days.
    EXPECT_EQ(Elapse(3, Elapse::Days).ToString(), "72:00:00.000.000.000");
    EXPECT_EQ(Elapse::Infinite().ToString(), "596523:14:07.000.000.000");
}

TEST(ElapseText, ParsesShortForms)
{
    EXPECT_EQ(Parsed("12"), Elapse(12));
    EXPECT_EQ(Parsed("1:30"), Elapse(90));
    EXPECT_EQ(Parsed("1:00:00.500"), Elapse(1, Elapse::Hours) + Elapse(500, Elapse::MilliSeconds));
    EXPECT_EQ(Parsed("  -1:30 \t"), Elapse(-90));
    EXPECT_EQ(Parsed("0.0.0.150"), Ticks(1));
    EXPECT_EQ(Parsed("0.1.2"), Elapse(1002, Elapse::MicroSeconds));
    EXPECT_EQ(Parsed(""), Elapse());
}

TEST(ElapseText, MalformedTextGivesWhatItsPiecesGive)
{
    EXPECT_EQ(Parsed("abc"), Elapse());
    EXPECT_EQ(Parsed("1:x:5"), Elapse(3605));
    EXPECT_EQ(Parsed("7seconds"), Elapse(7));
    // More than four dotted pieces: all of them count as 0.
    EXPECT_EQ(Parsed("1:2.3.4.5.6"), Elapse(60));
    // More than three colon pieces: hours and minutes count as 0.
    EXPECT_EQ(Parsed("1:2:3:4"), Elapse(4));
    // Pieces are 32-bit numbers: beyond that they stick at the largest one.
    EXPECT_EQ(Parsed("99999999999"), Elapse(4294967295LL));
}

TEST(ElapseText, RoundTripsToTheTick)
{
    const Elapse aValues[] = {Elapse(5, 4, 3, 987654321), Elapse(-5, -4, -3, -987654321), Ticks(1), Ticks(-1),
                              Elapse(), Elapse::Infinite(), Ticks(std::numeric_limits<std::int64_t>::max()),
                              Ticks(std::numeric_limits<std::int64_t>::min())};
    for (const Elapse& value : aValues) EXPECT_EQ(Parsed(value.ToString()), value) << value.ToString();

    std::mt19937_64 generator(20240611);
    for (int i = 0; i < 20000; ++i) {
        // Spans from ticks to millennia, of both signs.
        const int bits = static_cast<int>(generator() % 63);
        const std::int64_t magnitude = static_cast<std::int64_t>(generator() >> (63 - bits));
        const Elapse value = Ticks(generator() % 2 ? -magnitude : magnitude);
        const std::string text = value.ToString();
        ASSERT_EQ(Parsed(text), value) << text;
    }
}

TEST(ElapseText, StreamFormBySize)
{
    EXPECT_EQ(Streamed(Elapse(86400)), "24:0:0");
    EXPECT_EQ(Streamed(Elapse(90)), "1:30");
    EXPECT_EQ(Streamed(Elapse(60)), "1:0");
    EXPECT_EQ(Streamed(Elapse(3723)), "1:2:3");
    // Neither field is padded nor always present, so a day and a second read "1:0:1".
    EXPECT_EQ(Streamed(Elapse(86401)), "1:0:1");
    EXPECT_EQ(Streamed(Elapse(90061)), "1:1:1:1");
    // A day field without an hour field when the rest is not above one hour.
    EXPECT_EQ(Streamed(Elapse(90000)), "1:60:0");
    EXPECT_EQ(Streamed(Elapse::Infinite()), "24855:3:14:7");
    EXPECT_EQ(Streamed(Elapse(1500, Elapse::MilliSeconds)), "1.5 seconds");
    EXPECT_EQ(Streamed(Elapse(1)), "1 seconds");
    EXPECT_EQ(Streamed(Elapse(2500, Elapse::MicroSeconds)), "2.5 milliseconds");
    // Exactly one millisecond is not above 10^6 nanoseconds.
    EXPECT_EQ(Streamed(Elapse(1, Elapse::MilliSeconds)), "1000 microseconds");
    EXPECT_EQ(Streamed(Elapse(1500, Elapse::NanoSeconds)), "1.5 microseconds");
    EXPECT_EQ(Streamed(Ticks(10)), "1000 nanoseconds");
    EXPECT_EQ(Streamed(Elapse()), "0 nanoseconds");
    // Negative durations always land in nanoseconds.
    EXPECT_EQ(Streamed(Elapse(-1)), "-1e+09 nanoseconds");
}

TEST(ElapseText, StreamOperatorIsFoundInsideTheLibraryNamespace)
{
    std::ostringstream stream;
    {
        using namespace Qel::Core;
        stream << Elapse(90) << ' ' << Elapse::Infinite();
    }
    EXPECT_EQ(stream.str(), "1:30 24855:3:14:7");
}

// ---------------------------------------------------------------------------------------------
// Sleeping

double MilliSecondsOf(void (*action)())
{
    const std::int64_t start = Qel::Core::Platform::MonotonicNanoSeconds();
    action();
    return static_cast<double>(Qel::Core::Platform::MonotonicNanoSeconds() - start) / 1e6;
}

TEST(ElapseSleep, SleepsAtLeastTheDuration)
{
    EXPECT_GE(MilliSecondsOf([] { QelSleep(Elapse(20, Elapse::MilliSeconds), false); }), 20.0);
    EXPECT_GE(MilliSecondsOf([] { QelSleep(20, Elapse::MilliSeconds, true); }), 20.0);
    EXPECT_GE(MilliSecondsOf([] { QelSleep(200000, Elapse::TimerTicks, false); }), 20.0);
}

TEST(ElapseSleep, ZeroYieldsOrReturnsAtOnce)
{
    // Generous bounds: they only catch a sleep that should not have happened.
    EXPECT_LT(MilliSecondsOf([] { QelSleep(0, Elapse::Seconds, false); }), 500.0);
    EXPECT_LT(MilliSecondsOf([] { QelSleep(-5, Elapse::Seconds, false); }), 500.0);
    EXPECT_LT(MilliSecondsOf([] { QelSleep(Elapse(0), false); }), 500.0);
    EXPECT_LT(MilliSecondsOf([] { QelSleep(Elapse(-5), false); }), 500.0);
    EXPECT_LT(MilliSecondsOf([] { QelSleep(Elapse(999, Elapse::MicroSeconds), false); }), 500.0);
    EXPECT_LT(MilliSecondsOf([] { QelSleep(999999, Elapse::NanoSeconds, false); }), 500.0);
}

TEST(ElapseSleep, ProductsBeyondThirtyTwoBitsFailAnAssertion)
{
    QelTest::DebugCapture capture;
    // 4,294,968 s is 4,294,968,000 ms: cut to 32 bits, 704 ms are slept.
    const double slept = MilliSecondsOf([] { QelSleep(4294968, Elapse::Seconds, false); });
    EXPECT_GE(slept, 704.0);
    EXPECT_LT(slept, 5000.0);
    // An unknown unit does not sleep.
    EXPECT_LT(MilliSecondsOf([] { QelSleep(100000, eBAD_UNITS, false); }), 500.0);
    const auto texts = capture.Texts();
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_NE(texts[0].find("Failed Assertion(uval <= 4294967U)"), std::string::npos) << texts[0];
    EXPECT_NE(texts[1].find("Failed Assertion(false)"), std::string::npos) << texts[1];
}

} // namespace
