// Tests of Time: construction, arithmetic, raw values, local fields in several zones (daylight
// saving included), the fixed text form and its parser, names and pictures through the locale,
// and the calendar arithmetic of the platform layer.
//
// Zones are POSIX TZ strings, so that no zone database is needed. The names and pictures are
// checked in American English (set for this program before ICU is first used) and, in a child
// process, in German.
#include "Infrastructure/QelCore/LocaleName.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Time.h"
#include "Infrastructure/QelCore/Platform/TimePlatform.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using Qel::Core::Elapse;
using Qel::Core::Time;
namespace Platform = Qel::Core::Platform;

namespace {

// Names follow the library's current locale, which the user's environment chose when the library
// started: the tests expect English ones.
class EnglishNames : public ::testing::Environment
{
public:
    void SetUp() override { Qel::Core::System::SetLocale(Qel::Core::LocaleName::USA); }
};
::testing::Environment* const g_pEnglish = ::testing::AddGlobalTestEnvironment(new EnglishNames);

const char* const sUTC = "UTC0";
const char* const sBERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";
const char* const sNEW_YORK = "EST5EDT,M3.2.0,M11.1.0";
const char* const sKATHMANDU = "<+0545>-5:45";
const char* const sLORD_HOWE = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"; // half an hour of daylight saving
const char* const sSAO_PAULO_2018 = "<-03>3<-02>,M11.1.0/0,M2.3.0/0";   // the clocks skip midnight

// Sets the local zone for its lifetime.
class LocalZone
{
public:
    explicit LocalZone(const char* zone)
    {
        if (const char* previous = std::getenv("TZ")) m_Previous = previous;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~LocalZone()
    {
        if (m_Previous)
            ::setenv("TZ", m_Previous->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<std::string> m_Previous;
};

Elapse Ticks(std::int64_t ticks)
{
    return Elapse(ticks, Elapse::TimerTicks);
}

Time RawTime(std::int64_t ticks)
{
    return Time(ticks, Time::eTIME_PLATFORM_DEFAULT);
}

Time Parsed(const std::string& text)
{
    Time time = RawTime(0);
    EXPECT_TRUE(time.ParseString(text)) << text;
    return time;
}

const Elapse eHOUR(1, Elapse::Hours);

// ---------------------------------------------------------------------------------------------
// Constants, raw values and platform tags

TEST(TimeRaw, Constants)
{
    EXPECT_EQ(Time::NSEC_PER_USEC, 1000);
    EXPECT_EQ(Time::USEC_PER_MSEC, 1000);
    EXPECT_EQ(Time::NSEC_PER_MSEC, 1000000);
    EXPECT_EQ(Time::MSEC_PER_SEC, 1000);
    EXPECT_EQ(Time::USEC_PER_SEC, 1000000);
    EXPECT_EQ(Time::NSEC_PER_SEC, 1000000000);
    EXPECT_EQ(Time::SEC_PER_MIN, 60);
    EXPECT_EQ(Time::MIN_PER_HOUR, 60);
    EXPECT_EQ(Time::SEC_PER_HOUR, 3600);
    EXPECT_EQ(Time::HOUR_PER_DAY, 24);
    EXPECT_EQ(Time::MIN_PER_DAY, 1440);
    EXPECT_EQ(Time::SEC_PER_DAY, 86400);
}

TEST(TimeRaw, RawReadings)
{
    EXPECT_EQ(RawTime(123456789).GetRawTimerTicks(), 123456789);
    EXPECT_EQ(RawTime(123456789).GetRawNanoSeconds(), 12345678900);
    EXPECT_EQ(RawTime(123456789).GetRawSeconds(), 12);
    EXPECT_EQ(RawTime(-15000000).GetRawSeconds(), -1);
    // Today's nanoseconds since 1601 exceed 64 bits: they wrap.
    const Time now;
    EXPECT_EQ(now.GetRawNanoSeconds(), static_cast<std::int64_t>(static_cast<std::uint64_t>(now.GetRawTimerTicks()) * 100U));
    EXPECT_EQ(Time(Platform::iTICKS_1601_TO_1970, Time::eTIME_PLATFORM_WINDOWS).GetRawSeconds(), 11644473600);
}

TEST(TimeRaw, PlatformTags)
{
    EXPECT_EQ(Time::GetPlatformTimeInfo(), Time::eTIME_PLATFORM_WINDOWS);
    EXPECT_EQ(Qel::Core::GetTimeTickSize_ns(Time::eTIME_PLATFORM_DEFAULT), 100U);
    EXPECT_EQ(Qel::Core::GetTimeTickSize_ns(Time::eTIME_PLATFORM_WINDOWS), 100U);
    EXPECT_EQ(Qel::Core::GetTimeTickSize_ns(Time::eTIME_PLATFORM_SECONDS), 1000000000U);
    EXPECT_EQ(Qel::Core::GetTimeTickSize_ns(static_cast<Time::EPlatformTimeInfo>(3)), 0U);
    EXPECT_EQ(Qel::Core::ConvertTimerTicksToCurrentPlatform(-7, Time::eTIME_PLATFORM_DEFAULT), -7);
    EXPECT_EQ(Qel::Core::ConvertTimerTicksToCurrentPlatform(7, Time::eTIME_PLATFORM_WINDOWS), 7);
    EXPECT_EQ(Qel::Core::ConvertTimerTicksToCurrentPlatform(7, Time::eTIME_PLATFORM_SECONDS), 70000000);
    EXPECT_EQ(Qel::Core::ConvertTimerTicksToCurrentPlatform(7, static_cast<Time::EPlatformTimeInfo>(3)), 0);
}

// Runs in the zone the program started with, which fixed local midnight of 1970-01-01.
TEST(TimeRaw, ValuesCountFromLocalMidnightOf1970)
{
    const Time origin(0);
    EXPECT_EQ(origin, Time(1, 1, 1970, Elapse(0, Elapse::Seconds)));
    EXPECT_EQ(Time(5) - origin, Ticks(5));
    Time assigned = RawTime(99);
    assigned = 123;
    EXPECT_EQ(assigned, Time(123));

    const std::int64_t aDay = Qel::Core::ConvertTimerTicksToCurrentPlatform(86400, Time::eTIME_PLATFORM_SECONDS);
    EXPECT_EQ(Time(aDay, Time::eTIME_PLATFORM_SECONDS), origin + Elapse(1, Elapse::Days));
    Time time = RawTime(5);
    time.Assign(aDay, Time::eTIME_PLATFORM_SECONDS);
    EXPECT_EQ(time, Time(aDay));
    time.Assign(aDay, Time::eTIME_PLATFORM_WINDOWS);
    EXPECT_EQ(time.GetRawTimerTicks(), aDay);

    QelTest::DebugCapture capture;
    time.Assign(1, static_cast<Time::EPlatformTimeInfo>(3));
    EXPECT_EQ(time.GetRawTimerTicks(), aDay);
    ASSERT_EQ(capture.Texts().size(), 1U);
    EXPECT_NE(capture.Texts()[0].find("Failed Assertion(false)"), std::string::npos);
}

TEST(TimeRaw, EpochIsLocalMidnightOf1601)
{
    {
        LocalZone zone(sUTC);
        EXPECT_EQ(Time::GetEpoch().GetRawTimerTicks(), 0);
        EXPECT_EQ(Time::GetEpoch().ToString(), "1601/01/01 00:00:00.000");
    }
    {
        // East of Greenwich the epoch lies before the tick origin.
        LocalZone zone(sBERLIN);
        EXPECT_EQ(Time::GetEpoch().GetRawTimerTicks(), -36000000000);
        EXPECT_EQ(Time::GetEpoch().ToString(), "1601/01/01 00:00:00.000");
        EXPECT_EQ(Time::GetEpoch().DayName(), "Monday");
    }
    {
        LocalZone zone(sNEW_YORK);
        EXPECT_EQ(Time::GetEpoch().GetRawTimerTicks(), 180000000000);
    }
}

// ---------------------------------------------------------------------------------------------
// Clock and arithmetic

TEST(TimeArithmetic, AddingAndSubtractingSpans)
{
    const Time t(8, 23, 1998, Elapse(2, 33, 17, 123000000));
    const Elapse e(1, 2, 3, 456789);
    EXPECT_EQ(t + e - e, t);
    EXPECT_EQ((t + e) - t, e);
    EXPECT_EQ(t - (t + e), Elapse() - e);

    Time moved = t;
    moved += e;
    EXPECT_EQ(moved, t + e);
    moved -= e;
    moved -= e;
    EXPECT_EQ(moved, t - e);

    EXPECT_EQ(t.Compare(t + e), -1);
    EXPECT_EQ(t.Compare(t), 0);
    EXPECT_EQ((t + e).Compare(t), 1);
    EXPECT_TRUE(t < t + e && t <= t + e && t + e > t && t + e >= t && t != t + e && t == Time(t));
    EXPECT_FALSE(t > t || t < t);
}

TEST(TimeArithmetic, ClockMovesForwardAndDeadlinesCountDown)
{
    const Time earlier;
    QelSleep(Elapse(2, Elapse::MilliSeconds), false);
    const Time later;
    EXPECT_GT(later, earlier);
    EXPECT_EQ(later.Compare(earlier), 1);

    const Time deadline(Elapse(10));
    const Elapse left = deadline.TimeLeft();
    EXPECT_LE(left, Elapse(10));
    EXPECT_GT(left, Elapse(5));

    const Time anHourAgo(Elapse(-1, Elapse::Hours));
    EXPECT_GE(anHourAgo.TimeSince(), eHOUR);
    EXPECT_LT(anHourAgo.TimeSince(), eHOUR + Elapse(5));
    EXPECT_LT(anHourAgo.TimeLeft(), Elapse() - eHOUR + Elapse(1));

    // The clock agrees with the C library's, to the second.
    const std::int64_t seconds = static_cast<std::int64_t>(std::time(nullptr)) + 11644473600;
    EXPECT_LE(std::abs(Time().GetRawSeconds() - seconds), 1);

    EXPECT_EQ(Time(8, 23, Elapse()).Year(), Time().Year());
    EXPECT_EQ(Time(8, 23, Elapse()).Month(), 8);
}

// ---------------------------------------------------------------------------------------------
// Local fields in several zones

class TimeInZone : public ::testing::TestWithParam<const char*>
{
protected:
    LocalZone m_Zone{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Zones, TimeInZone,
                         ::testing::Values(sUTC, sBERLIN, sNEW_YORK, sKATHMANDU, sLORD_HOWE, sSAO_PAULO_2018));

TEST_P(TimeInZone, DatesGiveBackTheirFields)
{
    struct Case
    {
        int month, day, year, hour, minute, second, milli;
    };
    // In and out of daylight saving time in every zone of the list.
    for (const Case& c : {Case{12, 23, 2004, 13, 45, 56, 789}, Case{8, 23, 1998, 2, 33, 17, 123},
                          Case{1, 1, 1601, 0, 0, 0, 0}, Case{2, 29, 2000, 23, 59, 59, 999},
                          Case{12, 31, 30827, 12, 0, 0, 0}}) {
        const Time time(c.month, c.day, c.year, Elapse(c.hour, c.minute, c.second, c.milli * 1000000));
        EXPECT_EQ(time.Year(), c.year);
        EXPECT_EQ(time.Month(), c.month);
        EXPECT_EQ(time.Day(), c.day);
        EXPECT_EQ(time.Hour(), c.hour);
        EXPECT_EQ(time.Minute(), c.minute);
        EXPECT_EQ(time.Second(), c.second);
        EXPECT_EQ(time.MilliSecond(), c.milli);
        EXPECT_EQ(time.MicroSecond(), 0);
    }
}

TEST_P(TimeInZone, TextRoundTrips)
{
    const Time parsed = Parsed("1998/08/23 02:33:17.123");
    EXPECT_EQ(parsed, Time(8, 23, 1998, Elapse(2, 33, 17, 123000000)));
    EXPECT_EQ(parsed.ToString(), "1998/08/23 02:33:17.123");

    // Random instants from 1900 to 2400, to the millisecond. Only a reading that the clocks show
    // twice (when they go back) reads back as its first occurrence.
    std::mt19937_64 generator(19980823);
    const std::int64_t first = Time(1, 1, 1900, Elapse()).GetRawTimerTicks() / 10000;
    const std::int64_t last = Time(1, 1, 2400, Elapse()).GetRawTimerTicks() / 10000;
    for (int i = 0; i < 5000; ++i) {
        const Time time = RawTime((first + static_cast<std::int64_t>(generator() % static_cast<std::uint64_t>(last - first))) * 10000);
        const std::string text = time.ToString();
        const Time back = Parsed(text);
        ASSERT_EQ(back.ToString(), text);
        if (back != time) {
            ASSERT_GT(time - back, Elapse());
            ASSERT_LE(time - back, eHOUR) << text;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Daylight saving time

TEST(TimeDaylightSaving, OffsetsAreElapsedTimeAcrossAChangeOfTheClocks)
{
    LocalZone zone(sBERLIN);
    // 2004-03-28: 02:00 becomes 03:00, so the day has 23 hours.
    EXPECT_EQ(Time(3, 29, 2004, Elapse()) - Time(3, 28, 2004, Elapse()), Elapse(23, Elapse::Hours));
    EXPECT_EQ(Time(3, 28, 2004, Elapse(1, 30, 0, 0)).Hour(), 1);
    const Time afterChange(3, 28, 2004, Elapse(3, 30, 0, 0));
    EXPECT_EQ(afterChange.Hour(), 4);
    EXPECT_EQ(afterChange.Minute(), 30);
    // 2004-10-31: 03:00 becomes 02:00 again, so the day has 25 hours.
    EXPECT_EQ(Time(11, 1, 2004, Elapse()) - Time(10, 31, 2004, Elapse()), Elapse(25, Elapse::Hours));
    EXPECT_EQ(Time(10, 31, 2004, Elapse(3, 30, 0, 0)).ToString(), "2004/10/31 02:30:00.000");
}

TEST(TimeDaylightSaving, SkippedReadingsLandBehindTheGap)
{
    LocalZone zone(sBERLIN);
    const Time skipped = Parsed("2004/03/28 02:30:00.000");
    EXPECT_EQ(skipped.ToString(), "2004/03/28 03:30:00.000");
    EXPECT_EQ(skipped, Parsed("2004/03/28 01:30:00.000") + eHOUR);
    EXPECT_EQ(Parsed("2004/03/28 03:00:00.000") - Parsed("2004/03/28 01:59:59.999"), Elapse(1, Elapse::MilliSeconds));
}

TEST(TimeDaylightSaving, RepeatedReadingsAreTheFirstOccurrence)
{
    LocalZone zone(sBERLIN);
    const Time first = Parsed("2004/10/31 02:30:00.000");
    EXPECT_EQ(first, Time(10, 31, 2004, Elapse(2, 30, 0, 0)));
    // One hour later the clocks show the same reading again.
    EXPECT_EQ((first + eHOUR).ToString(), "2004/10/31 02:30:00.000");
    EXPECT_EQ(Parsed("2004/10/31 03:00:00.000") - first, Elapse(90, Elapse::Minutes));
    EXPECT_EQ(first - Parsed("2004/10/31 01:59:59.000"), Elapse(0, 30, 1, 0));
}

TEST(TimeDaylightSaving, SkippedMidnightStartsTheDayAfterTheGap)
{
    LocalZone zone(sSAO_PAULO_2018);
    const Time midnight(11, 4, 2018, Elapse());
    EXPECT_EQ(midnight.ToString(), "2018/11/04 01:00:00.000");
    EXPECT_EQ(midnight - Time(11, 3, 2018, Elapse()), Elapse(24, Elapse::Hours));
    EXPECT_EQ(Time(11, 5, 2018, Elapse()) - midnight, Elapse(23, Elapse::Hours));
}

TEST(TimeDaylightSaving, HalfHourShift)
{
    LocalZone zone(sLORD_HOWE);
    // 2004-10-03 02:00 becomes 02:30.
    EXPECT_EQ(Time(10, 4, 2004, Elapse()) - Time(10, 3, 2004, Elapse()), Elapse(23 * 60 + 30, Elapse::Minutes));
    EXPECT_EQ(Parsed("2004/10/03 02:15:00").ToString(), "2004/10/03 02:45:00.000");
}

// ---------------------------------------------------------------------------------------------
// Text form

TEST(TimeText, RefusedShapesLeaveTheTimeUnchanged)
{
    const Time original = RawTime(4242);
    for (const char* text : {"1998/0//23 02:33:17.123", "1998/08/23", "1998/08/23  02:33:17", "1998/08 02:33:17",
                             "1998/08/23 02:33", "1998/08/23 02:33:17:00", "1998/08/23\t02:33:17",
                             "1998/08/23 02:33:17 x", ""}) {
        Time time = original;
        EXPECT_FALSE(time.ParseString(text)) << text;
        EXPECT_EQ(time, original) << text;
    }
}

TEST(TimeText, InvalidFieldsRaiseAndLeaveTheTimeUnchanged)
{
    LocalZone zone(sUTC);
    for (const char* text : {"1998/13/01 00:00:00", "1998/00/01 00:00:00", "1998/02/29 00:00:00", "1900/02/29 00:00:00",
                             "1998/04/31 00:00:00", "1998/08/23 24:00:00", "1998/08/23 23:60:00", "1998/08/23 23:59:60",
                             "1998/08/23 23:59:59.1000", "1600/12/31 23:59:59", "30828/01/01 00:00:00",
                             "abc/08/23 00:00:00", "-1998/08/23 00:00:00", "99999999999/08/23 00:00:00"}) {
        QelTest::AlertRecorder recorder;
        Time time = RawTime(4242);
        try {
            time.ParseString(text);
            ADD_FAILURE() << "no error for " << text;
        } catch (const Time::OsTimeApiError& error) {
            EXPECT_EQ(error.GetMessageA(), "Call to operating system time API failed with error:\n Invalid argument");
            EXPECT_EQ(error.GetData(Qel::Core::AlertInfo::sLOG_NAME), "Qel.Core.Time");
            EXPECT_NE(dynamic_cast<const Qel::Core::OSError*>(&error), nullptr);
        }
        EXPECT_EQ(time.GetRawTimerTicks(), 4242) << text;
        EXPECT_EQ(recorder.Count("raised"), 1U) << text;
    }
    EXPECT_THROW(Time(2, 30, 2001, Elapse()), Time::OsTimeApiError);
    EXPECT_THROW(Time(13, 1, Elapse()), Time::OsTimeApiError);
}

TEST(TimeText, LenientReadingsOfPieces)
{
    LocalZone zone(sUTC);
    EXPECT_EQ(Parsed("2000/02/29 23:59:59").ToString(), "2000/02/29 23:59:59.000");
    EXPECT_EQ(Parsed("  1998/8/3 2:3:4.5 ").ToString(), "1998/08/03 02:03:04.005");
    // The milliseconds are a number, not a fraction.
    EXPECT_EQ(Parsed("1998/08/23 02:33:17.5").MilliSecond(), 5);
    // With more than one dot the piece is read as seconds only.
    EXPECT_EQ(Parsed("1998/08/23 02:33:17.123.4").ToString(), "1998/08/23 02:33:17.000");
    EXPECT_EQ(Parsed("1998/08/23 02:33:17x").ToString(), "1998/08/23 02:33:17.000");
    EXPECT_EQ(Parsed("1998/08/23 +02:33:17").ToString(), "1998/08/23 02:33:17.000");
    EXPECT_EQ(Parsed("1998/08/23 02::17").ToString(), "1998/08/23 02:00:17.000");
    EXPECT_EQ(Parsed("30827/12/31 23:59:59.999").Year(), 30827);
}

TEST(TimeText, FixedFormAndStream)
{
    LocalZone zone(sUTC);
    const Time time(12, 23, 2004, Elapse(1, 2, 3, 4000000));
    EXPECT_EQ(time.ToString(), "2004/12/23 01:02:03.004");
    std::ostringstream stream;
    stream << time;
    {
        using namespace Qel::Core;
        stream << ' ' << time;
    }
    EXPECT_EQ(stream.str(), "2004/12/23 01:02:03.004 2004/12/23 01:02:03.004");
}

TEST(TimeText, SubMillisecondFields)
{
    LocalZone zone(sUTC);
    const Time base(8, 23, 1998, Elapse());
    EXPECT_EQ((base + Ticks(5678)).MilliSecond(), 0);
    EXPECT_EQ((base + Ticks(5678)).MicroSecond(), 567);
    EXPECT_EQ((base + Ticks(12345)).MilliSecond(), 1);
    EXPECT_EQ((base + Ticks(12345)).MicroSecond(), 234);
    // Before the tick origin the rest is counted towards the past, like the fields.
    EXPECT_EQ(RawTime(-5678).MicroSecond(), 432);
    EXPECT_EQ(RawTime(-5678).MilliSecond(), 999);
    EXPECT_EQ(RawTime(-5678).ToString(), "1600/12/31 23:59:59.999");
}

// ---------------------------------------------------------------------------------------------
// Names and pictures

TEST(TimeNames, EveryDayOfTheWeekIncludingSunday)
{
    ASSERT_NE(g_pEnglish, nullptr);
    // 1998-08-23 was a Sunday; noon keeps the date the same in every zone.
    const Time sunday(8, 23, 1998, Elapse(12, Elapse::Hours));
    const char* const aNames[7] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
    for (int i = 0; i < 7; ++i) {
        const Time day = sunday + Elapse(i, Elapse::Days);
        EXPECT_EQ(day.DayName(), aNames[i]);
        EXPECT_EQ(day.DayAbbreviation(), std::string(aNames[i], 3));
    }
    EXPECT_EQ(sunday.MonthName(), "August");
    EXPECT_EQ(sunday.MonthAbbreviation(), "Aug");
    EXPECT_EQ(Time(1, 15, 2001, Elapse()).MonthName(), "January");
    EXPECT_EQ(Time(12, 15, 2001, Elapse()).MonthAbbreviation(), "Dec");
}

TEST(TimeNames, DatePictures)
{
    LocalZone zone(sBERLIN);
    const Time time(12, 23, 2004, Elapse(13, 45, 56, 789000000));
    EXPECT_EQ(time.GetLocalizedDate("dddd, d. MMMM yyyy"), "Thursday, 23. December 2004");
    EXPECT_EQ(time.GetLocalizedDate("ddd dd MMM yy"), "Thu 23 Dec 04");
    EXPECT_EQ(time.GetLocalizedDate("d/M/y"), "23/12/4");
    EXPECT_EQ(time.GetLocalizedDate("yyyy'/'MM'/'dd"), "2004/12/23");
    EXPECT_EQ(time.GetLocalizedDate("'Today is' dddd"), "Today is Thursday");
    EXPECT_EQ(time.GetLocalizedDate("'it''s' d"), "it's 23");
    EXPECT_EQ(time.GetLocalizedDate("d''M"), "23'12");
    EXPECT_EQ(time.GetLocalizedDate("gg yyyy"), "AD 2004");
    // Letters that are no date pictures are copied.
    EXPECT_EQ(time.GetLocalizedDate("d x H:m"), "23 x H:m");
    EXPECT_EQ(Time(3, 5, 2009, Elapse()).GetLocalizedDate("d.M.yy y"), "5.3.09 9");
    EXPECT_NE(time.GetLocalizedDate("").find("23"), std::string::npos);
}

TEST(TimeNames, TimePictures)
{
    LocalZone zone(sNEW_YORK);
    const Time afternoon(12, 23, 2004, Elapse(13, 45, 56, 789000000));
    EXPECT_EQ(afternoon.GetLocalizedTime("HH':'mm':'ss"), "13:45:56");
    EXPECT_EQ(afternoon.GetLocalizedTime("hh:mm tt"), "01:45 PM");
    EXPECT_EQ(afternoon.GetLocalizedTime("h t"), "1 P");
    EXPECT_EQ(afternoon.GetLocalizedTime("H 'h' m 'min'"), "13 h 45 min");
    EXPECT_EQ(afternoon.GetLocalizedTime("d M y"), "d M y");
    const Time morning(8, 23, 1998, Elapse(9, 5, 7, 0));
    EXPECT_EQ(morning.GetLocalizedTime("h:mm:s tt"), "9:05:7 AM");
    EXPECT_EQ(morning.GetLocalizedTime("H:m"), "9:5");
    EXPECT_NE(afternoon.GetLocalizedTime("").find("45:56"), std::string::npos);
}

TEST(TimeNames, ManyThreadsShareTheLocaleTexts)
{
    const Time sunday(8, 23, 1998, Elapse(12, Elapse::Hours));
    const Time thursday(12, 23, 2004, Elapse(13, 45, 56, 0));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const bool ok = sunday.DayName() == "Sunday" && thursday.MonthAbbreviation() == "Dec" &&
                                thursday.GetLocalizedDate(i % 2 ? "d MMM" : "dddd") == (i % 2 ? "23 Dec" : "Thursday") &&
                                thursday.GetLocalizedTime(t % 2 ? "HH:mm" : "h t") == (t % 2 ? "13:45" : "1 P");
                if (!ok) ++failures;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}

// The library's current locale decides the names; checked in a fresh process, so that no other
// test's locale is in the way.
TEST(TimeNames, FollowTheLocale)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Qel::Core::System::SetLocale(Qel::Core::LocaleName("de-DE"));
            const Time sunday(8, 23, 1998, Elapse(12, Elapse::Hours));
            const Time thursday(12, 23, 2004, Elapse(12, Elapse::Hours));
            const std::string sDay = sunday.DayName();
            const std::string sMonth = thursday.MonthName();
            const std::string sDate = thursday.GetLocalizedDate("dddd, d. MMMM yyyy");
            std::cerr << sDay << '|' << sMonth << '|' << sDate << std::endl;
            std::exit(sDay == "Sonntag" && sMonth == "Dezember" && sDate == "Donnerstag, 23. Dezember 2004" ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------------------------------------
// Calendar arithmetic of the platform layer

TEST(TimePlatformCalendar, UtcFieldsOfKnownInstants)
{
    Platform::CalendarFields fields = Platform::UtcTicksToUtcFields(0);
    EXPECT_EQ(fields.year, 1601);
    EXPECT_EQ(fields.month, 1);
    EXPECT_EQ(fields.day, 1);
    EXPECT_EQ(fields.dayOfWeek, 1); // a Monday

    fields = Platform::UtcTicksToUtcFields(Platform::iTICKS_1601_TO_1970 - 1);
    EXPECT_EQ(fields.year, 1969);
    EXPECT_EQ(fields.month, 12);
    EXPECT_EQ(fields.day, 31);
    EXPECT_EQ(fields.dayOfWeek, 3);
    EXPECT_EQ(fields.hour, 23);
    EXPECT_EQ(fields.minute, 59);
    EXPECT_EQ(fields.second, 59);
    EXPECT_EQ(fields.milliSecond, 999);

    fields = {};
    fields.year = 2000;
    fields.month = 2;
    fields.day = 29;
    fields.hour = 12;
    EXPECT_EQ(Platform::UtcFieldsToUtcTicks(fields), (946684800LL + 59 * 86400 + 12 * 3600) * 10000000 + Platform::iTICKS_1601_TO_1970);
    EXPECT_EQ(Platform::UtcTicksToUtcFields(Platform::UtcFieldsToUtcTicks(fields)).dayOfWeek, 2); // a Tuesday
}

TEST(TimePlatformCalendar, FieldsRoundTripOverTheWholeTickRange)
{
    std::mt19937_64 generator(16010101);
    for (int i = 0; i < 100000; ++i) {
        const std::int64_t ticks = static_cast<std::int64_t>(generator()) / 10000 * 10000;
        const Platform::CalendarFields fields = Platform::UtcTicksToUtcFields(ticks);
        ASSERT_EQ(Platform::UtcFieldsToUtcTicks(fields), ticks) << ticks;
    }
}

TEST(TimePlatformCalendar, LocalFieldsMatchTheUtcFieldsInUtc)
{
    LocalZone zone(sUTC);
    std::mt19937_64 generator(30827);
    for (int i = 0; i < 10000; ++i) {
        const std::int64_t ticks = static_cast<std::int64_t>(generator() % 9000000000000000000ULL);
        Platform::CalendarFields local;
        std::string error;
        ASSERT_TRUE(Platform::UtcTicksToLocalFields(ticks, local, error)) << error;
        const Platform::CalendarFields utc = Platform::UtcTicksToUtcFields(ticks);
        ASSERT_EQ(local.year, utc.year);
        ASSERT_EQ(local.month, utc.month);
        ASSERT_EQ(local.day, utc.day);
        ASSERT_EQ(local.dayOfWeek, utc.dayOfWeek);
        ASSERT_EQ(local.hour, utc.hour);
        ASSERT_EQ(local.minute, utc.minute);
        ASSERT_EQ(local.second, utc.second);
        ASSERT_EQ(local.milliSecond, utc.milliSecond);
    }
}

} // namespace
