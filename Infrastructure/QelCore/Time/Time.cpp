// Time: construction from the clock and the calendar, local fields, names and pictures through
// ICU, and the fixed text form.
//
// Calendar names and the date and time pictures come from ICU for its default locale (which
// follows LANG and LC_ALL) until the library keeps a locale of its own. ICU never converts time
// zones here: it formats the local fields that the C library computed, placed on a GMT calendar,
// so that ICU's own copy of the zone rules cannot disagree with the system's.
#include "Infrastructure/QelCore/Time.h"

#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/System.h"

#include "Infrastructure/QelCore/Time/TextFields.h"

#include "Infrastructure/QelCore/Platform/TimePlatform.h"

#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/dtfmtsym.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cctype>
#include <limits>
#include <memory>
#include <mutex>
#include <ostream>
#include <string_view>
#include <utility>
#include <vector>

namespace Qel::Core {
namespace {

namespace P = Platform;

const char* const sLOG_NAME = "Qel.Core.Time";

constexpr std::int64_t iTICKS_PER_MILLISECOND = 10000;

// ---- local fields ----

P::CalendarFields LocalFields(std::int64_t ticks)
{
    P::CalendarFields fields;
    std::string error;
    if (!P::UtcTicksToLocalFields(ticks, fields, error)) QEL_RAISE_ERROR(Time::OsTimeApiError(error), sLOG_NAME);
    return fields;
}

// Ticks of local midnight of a date.
std::int64_t LocalMidnight(int year, int month, int day)
{
    P::CalendarFields fields;
    fields.year = year;
    fields.month = month;
    fields.day = day;
    std::int64_t ticks = 0;
    std::string error;
    if (!P::LocalFieldsToUtcTicks(fields, ticks, error)) QEL_RAISE_ERROR(Time::OsTimeApiError(error), sLOG_NAME);
    return ticks;
}

// ---- text ----

using TextFields::IsSpace;
using TextFields::ReadUnsigned32;

char* WriteDecimal(char* out, int value, int width)
{
    return TextFields::WriteSignedDecimal(out, value, width);
}

// A field value read from text, as an int; values beyond any calendar field become -1, which
// the conversion refuses like any other invalid field.
int FieldOf(std::uint32_t value)
{
    return value <= 1000000U ? static_cast<int>(value) : -1;
}

// Cuts `text` at each `delimiter` into at most `N` pieces; returns the number of pieces found,
// which is more than N when the text has too many.
template <std::size_t N>
std::size_t SplitAt(std::string_view text, char delimiter, std::string_view (&pieces)[N])
{
    std::size_t count = 0;
    for (;;) {
        const std::size_t at = text.find(delimiter);
        if (count < N) pieces[count] = text.substr(0, at);
        ++count;
        if (at == std::string_view::npos) return count;
        text.remove_prefix(at + 1);
    }
}

// ---- ICU ----

std::string ToUtf8(const icu::UnicodeString& text)
{
    std::string result;
    text.toUTF8String(result);
    return result;
}

enum class ENameKind
{
    eDAY,
    eDAY_ABBREVIATION,
    eMONTH,
    eMONTH_ABBREVIATION
};

enum class EPictureKind
{
    eDATE,
    eTIME
};

// Builds an ICU pattern from a picture of date or time letters (see Time.h). Literal text is
// gathered and written in one piece, so that two literals never meet. Pictures that ICU lacks
// (the year in two digits without a leading zero, the first character of the AM/PM marker) are
// computed from the fields and written as literals.
class PictureTranslator
{
public:
    PictureTranslator(EPictureKind kind, const P::CalendarFields& fields, const icu::UnicodeString (&amPm)[2])
        : m_Kind(kind), m_Fields(fields), m_AmPm(amPm)
    {
    }

    icu::UnicodeString Translate(const std::string& picture)
    {
        const icu::UnicodeString text = icu::UnicodeString::fromUTF8(picture);
        const int32_t length = text.length();
        int32_t i = 0;
        while (i < length) {
            const char16_t c = text.charAt(i);
            if (c == u'\'') {
                i = QuotedText(text, i);
                continue;
            }
            int32_t run = 1;
            while (i + run < length && text.charAt(i + run) == c) ++run;
            if (!Picture(c, run)) m_Literal.append(text, i, run);
            i += run;
        }
        FlushLiteral();
        return m_Pattern;
    }

private:
    // Copies a quoted text (or "''", one quote) into the literal; returns the index behind it. An
    // unclosed quote runs to the end.
    int32_t QuotedText(const icu::UnicodeString& text, int32_t i)
    {
        const int32_t length = text.length();
        if (i + 1 < length && text.charAt(i + 1) == u'\'') {
            m_Literal.append(u'\'');
            return i + 2;
        }
        for (++i; i < length; ++i) {
            if (text.charAt(i) != u'\'') {
                m_Literal.append(text.charAt(i));
            } else if (i + 1 < length && text.charAt(i + 1) == u'\'') {
                m_Literal.append(u'\'');
                ++i;
            } else {
                return i + 1;
            }
        }
        return length;
    }

    // Writes the ICU form of a run of one letter; false if the letter is no picture here.
    bool Picture(char16_t c, int32_t run)
    {
        if (m_Kind == EPictureKind::eDATE) {
            switch (c) {
            case u'd': return Field(run == 1 ? u"d" : run == 2 ? u"dd" : run == 3 ? u"EEE" : u"EEEE");
            case u'M': return Field(run == 1 ? u"M" : run == 2 ? u"MM" : run == 3 ? u"MMM" : u"MMMM");
            case u'y':
                if (run == 1) {
                    char digits[4];
                    char* end = WriteDecimal(digits, m_Fields.year % 100, 1);
                    m_Literal.append(icu::UnicodeString(digits, static_cast<int32_t>(end - digits), US_INV));
                    return true;
                }
                return Field(run == 2 ? u"yy" : u"yyyy");
            case u'g': return Field(u"G");
            default: return false;
            }
        }
        switch (c) {
        case u'h': return Field(run == 1 ? u"h" : u"hh");
        case u'H': return Field(run == 1 ? u"H" : u"HH");
        case u'm': return Field(run == 1 ? u"m" : u"mm");
        case u's': return Field(run == 1 ? u"s" : u"ss");
        case u't':
            if (run == 1) {
                const icu::UnicodeString& marker = m_AmPm[m_Fields.hour < 12 ? 0 : 1];
                if (!marker.isEmpty()) m_Literal.append(marker.char32At(0));
                return true;
            }
            return Field(u"a");
        default: return false;
        }
    }

    bool Field(const char16_t* pattern)
    {
        FlushLiteral();
        m_Pattern.append(icu::UnicodeString(pattern));
        return true;
    }

    // ICU reads every pair of quotes as one literal quote, inside quoted text or not, and a lone
    // quote as the start or end of quoted text. Quoted text with its quotes doubled is therefore
    // right, unless it holds nothing but quotes: then the pairs alone are written.
    void FlushLiteral()
    {
        if (m_Literal.isEmpty()) return;
        icu::UnicodeString doubled(m_Literal);
        doubled.findAndReplace(icu::UnicodeString(u"'"), icu::UnicodeString(u"''"));
        if (doubled.length() == 2 * m_Literal.length())
            m_Pattern.append(doubled);
        else
            m_Pattern.append(u'\'').append(doubled).append(u'\'');
        m_Literal.remove();
    }

    EPictureKind m_Kind;
    const P::CalendarFields& m_Fields;
    const icu::UnicodeString (&m_AmPm)[2];
    icu::UnicodeString m_Pattern;
    icu::UnicodeString m_Literal;
};

// The calendar texts of ICU's default locale: names and formatters, built once per locale,
// because ICU takes tens of microseconds to build them. One lock serialises the use, since an
// ICU formatter changes its calendar while it formats. A change of the default locale is noticed
// on the next call and starts afresh.
class CalendarTexts
{
public:
    static CalendarTexts& Instance()
    {
        static CalendarTexts s_Texts;
        return s_Texts;
    }

    // A day name (index 0 = Sunday) or month name (index 0 = January); empty if the locale data
    // cannot be had.
    std::string Name(ENameKind kind, int index)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        Refresh();
        const std::vector<std::string>& names = m_aNames[static_cast<int>(kind)];
        return index >= 0 && static_cast<std::size_t>(index) < names.size() ? names[static_cast<std::size_t>(index)]
                                                                           : std::string();
    }

    // The local fields formatted by a picture, or by the locale's default for an empty one; empty
    // on any failure of ICU.
    std::string Format(EPictureKind kind, const P::CalendarFields& fields, const std::string& picture)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        Refresh();
        icu::UnicodeString pattern;
        if (!picture.empty()) pattern = PictureTranslator(kind, fields, m_aAmPm).Translate(picture);
        icu::DateFormat* format = Formatter(kind, pattern);
        if (format == nullptr) return std::string();
        // The local reading as if it were UTC, in milliseconds since 1970, on the GMT calendar.
        const UDate date = static_cast<double>((P::UtcFieldsToUtcTicks(fields) - P::iTICKS_1601_TO_1970) / iTICKS_PER_MILLISECOND);
        icu::UnicodeString text;
        format->format(date, text);
        return ToUtf8(text);
    }

private:
    static constexpr std::size_t iMAX_FORMATS = 16;

    struct CachedFormat
    {
        EPictureKind kind;
        icu::UnicodeString pattern; // empty for the locale's default
        std::unique_ptr<icu::DateFormat> format;
    };

    // The library's current locale (System::GetLocale), or ICU's default before there is one.
    static icu::Locale CurrentLocale()
    {
        if (std::shared_ptr<Locale> locale = System::GetLocale()) {
            UErrorCode status = U_ZERO_ERROR;
            icu::Locale named = icu::Locale::forLanguageTag(locale->GetName().ToString(), status);
            if (U_SUCCESS(status) && !named.isBogus()) return named;
        }
        return icu::Locale::getDefault();
    }

    // Loads the names of the current locale if it is not the one loaded.
    void Refresh()
    {
        const icu::Locale current = CurrentLocale();
        if (m_bLoaded && m_sLocale == current.getName()) return;
        m_bLoaded = true;
        m_sLocale = current.getName();
        m_Locale = current;
        m_Formats.clear();
        for (std::vector<std::string>& names : m_aNames) names.clear();
        m_aAmPm[0].remove();
        m_aAmPm[1].remove();

        // The names of the Gregorian calendar, in the stand-alone form a name takes on its own.
        icu::Locale gregorian(current);
        UErrorCode status = U_ZERO_ERROR;
        gregorian.setKeywordValue("calendar", "gregorian", status);
        status = U_ZERO_ERROR;
        icu::DateFormatSymbols symbols(gregorian, status);
        if (U_FAILURE(status)) return;
        using Symbols = icu::DateFormatSymbols;
        const struct
        {
            ENameKind kind;
            Symbols::DtWidthType width;
        } aLists[] = {{ENameKind::eDAY, Symbols::WIDE},
                      {ENameKind::eDAY_ABBREVIATION, Symbols::ABBREVIATED},
                      {ENameKind::eMONTH, Symbols::WIDE},
                      {ENameKind::eMONTH_ABBREVIATION, Symbols::ABBREVIATED}};
        for (const auto& list : aLists) {
            const bool bDays = list.kind == ENameKind::eDAY || list.kind == ENameKind::eDAY_ABBREVIATION;
            int32_t count = 0;
            const icu::UnicodeString* names = bDays ? symbols.getWeekdays(count, Symbols::STANDALONE, list.width)
                                                    : symbols.getMonths(count, Symbols::STANDALONE, list.width);
            // ICU counts the days from 1 = Sunday; index 0 is empty.
            for (int32_t i = bDays ? 1 : 0; names != nullptr && i < count; ++i)
                m_aNames[static_cast<int>(list.kind)].push_back(ToUtf8(names[i]));
        }
        int32_t count = 0;
        const icu::UnicodeString* markers = symbols.getAmPmStrings(count);
        for (int32_t i = 0; markers != nullptr && i < count && i < 2; ++i) m_aAmPm[i] = markers[i];
    }

    // The formatter of a pattern, the most recently used first; null if ICU refuses it.
    icu::DateFormat* Formatter(EPictureKind kind, const icu::UnicodeString& pattern)
    {
        for (std::size_t i = 0; i < m_Formats.size(); ++i) {
            if (m_Formats[i].kind == kind && m_Formats[i].pattern == pattern) {
                if (i != 0) std::swap(m_Formats[i], m_Formats[0]);
                return m_Formats[0].format.get();
            }
        }
        std::unique_ptr<icu::DateFormat> format = CreateFormat(kind, pattern);
        if (format == nullptr) return nullptr;
        if (m_Formats.size() >= iMAX_FORMATS) m_Formats.pop_back();
        m_Formats.insert(m_Formats.begin(), CachedFormat{kind, pattern, std::move(format)});
        return m_Formats.front().format.get();
    }

    std::unique_ptr<icu::DateFormat> CreateFormat(EPictureKind kind, const icu::UnicodeString& pattern) const
    {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::DateFormat> format;
        if (pattern.isEmpty()) {
            format.reset(kind == EPictureKind::eDATE ? icu::DateFormat::createDateInstance(icu::DateFormat::kShort, m_Locale)
                                                     : icu::DateFormat::createTimeInstance(icu::DateFormat::kMedium, m_Locale));
        } else {
            format = std::make_unique<icu::SimpleDateFormat>(pattern, m_Locale, status);
        }
        if (format == nullptr || U_FAILURE(status)) return nullptr;
        // The locale's calendar on GMT, purely Gregorian (no Julian dates before 1582, like the
        // C library's calendar).
        std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(icu::TimeZone::getGMT()->clone(), m_Locale, status));
        if (calendar == nullptr || U_FAILURE(status)) return nullptr;
        if (auto* gregorian = dynamic_cast<icu::GregorianCalendar*>(calendar.get()))
            gregorian->setGregorianChange(-std::numeric_limits<double>::max(), status);
        format->adoptCalendar(calendar.release());
        return format;
    }

    std::mutex m_Mutex;
    bool m_bLoaded = false;
    std::string m_sLocale;
    icu::Locale m_Locale;
    std::vector<std::string> m_aNames[4];
    icu::UnicodeString m_aAmPm[2];
    std::vector<CachedFormat> m_Formats;
};

} // namespace

// Local midnight of 1970-01-01 is needed by Time(int64) from the start: it is built right after
// the library's key strings (so that even an error while building it could be raised), before
// the process-wide services and before any object of a host.
const Time Time::s_TimeTEpoch __attribute__((init_priority(104)))(1, 1, 1970, Elapse(0, Elapse::Seconds));

Time::Time() : m_iTicks(P::UtcTicksNow()) {}

Time::Time(const Elapse& offset) : m_iTicks(Add(P::UtcTicksNow(), offset.GetRawTimerTicks())) {}

Time::Time(int month, int day, const Elapse& offset) : m_iTicks(0)
{
    m_iTicks = Add(LocalMidnight(LocalFields(P::UtcTicksNow()).year, month, day), offset.GetRawTimerTicks());
}

Time::Time(int month, int day, int year, const Elapse& offset) : m_iTicks(0)
{
    m_iTicks = Add(LocalMidnight(year, month, day), offset.GetRawTimerTicks());
}

Time::Time(std::int64_t value) : m_iTicks(Add(value, s_TimeTEpoch.m_iTicks)) {}

Time::Time(std::int64_t value, EPlatformTimeInfo info) : m_iTicks(0)
{
    Assign(value, info);
}

Time& Time::operator=(std::int64_t value)
{
    m_iTicks = Add(value, s_TimeTEpoch.m_iTicks);
    return *this;
}

void Time::Assign(std::int64_t value, EPlatformTimeInfo info)
{
    switch (info) {
    case eTIME_PLATFORM_DEFAULT:
    case eTIME_PLATFORM_WINDOWS: m_iTicks = value; break;
    case eTIME_PLATFORM_SECONDS: m_iTicks = Add(value, s_TimeTEpoch.m_iTicks); break;
    default: QEL_ASSERT(false); break;
    }
}

Elapse Time::TimeLeft() const
{
    return *this - Time();
}

Elapse Time::TimeSince() const
{
    return Time() - *this;
}

Time Time::GetEpoch()
{
    return Time(1, 1, 1601, Elapse(0, Elapse::Seconds));
}

int Time::Year() const
{
    return LocalFields(m_iTicks).year;
}

int Time::Month() const
{
    return LocalFields(m_iTicks).month;
}

int Time::Day() const
{
    return LocalFields(m_iTicks).day;
}

int Time::Hour() const
{
    return LocalFields(m_iTicks).hour;
}

int Time::Minute() const
{
    return LocalFields(m_iTicks).minute;
}

int Time::Second() const
{
    return LocalFields(m_iTicks).second;
}

int Time::MilliSecond() const
{
    return LocalFields(m_iTicks).milliSecond;
}

int Time::MicroSecond() const
{
    // The ticks below the whole millisecond (towards the past for instants before the origin),
    // in microseconds.
    std::int64_t rest = m_iTicks % iTICKS_PER_MILLISECOND;
    if (rest < 0) rest += iTICKS_PER_MILLISECOND;
    return static_cast<int>(rest * 100 / 1000);
}

std::string Time::DayName() const
{
    return CalendarTexts::Instance().Name(ENameKind::eDAY, LocalFields(m_iTicks).dayOfWeek);
}

std::string Time::DayAbbreviation() const
{
    return CalendarTexts::Instance().Name(ENameKind::eDAY_ABBREVIATION, LocalFields(m_iTicks).dayOfWeek);
}

std::string Time::MonthName() const
{
    return CalendarTexts::Instance().Name(ENameKind::eMONTH, LocalFields(m_iTicks).month - 1);
}

std::string Time::MonthAbbreviation() const
{
    return CalendarTexts::Instance().Name(ENameKind::eMONTH_ABBREVIATION, LocalFields(m_iTicks).month - 1);
}

std::string Time::GetLocalizedDate(const std::string& format) const
{
    return CalendarTexts::Instance().Format(EPictureKind::eDATE, LocalFields(m_iTicks), format);
}

std::string Time::GetLocalizedTime(const std::string& format) const
{
    return CalendarTexts::Instance().Format(EPictureKind::eTIME, LocalFields(m_iTicks), format);
}

std::string Time::ToString() const
{
    const P::CalendarFields fields = LocalFields(m_iTicks);
    char buffer[48];
    char* out = WriteDecimal(buffer, fields.year, 4);
    *out++ = '/';
    out = WriteDecimal(out, fields.month, 2);
    *out++ = '/';
    out = WriteDecimal(out, fields.day, 2);
    *out++ = ' ';
    out = WriteDecimal(out, fields.hour, 2);
    *out++ = ':';
    out = WriteDecimal(out, fields.minute, 2);
    *out++ = ':';
    out = WriteDecimal(out, fields.second, 2);
    *out++ = '.';
    out = WriteDecimal(out, fields.milliSecond, 3);
    return std::string(buffer, static_cast<std::size_t>(out - buffer));
}

bool Time::ParseString(const std::string& text)
{
    std::string_view view(text);
    while (!view.empty() && IsSpace(view.front())) view.remove_prefix(1);
    while (!view.empty() && IsSpace(view.back())) view.remove_suffix(1);

    // Date and time of day, separated by exactly one blank; empty pieces count as pieces.
    std::string_view aHalves[2];
    if (SplitAt(view, ' ', aHalves) != 2) return false;
    std::string_view aDate[3];
    std::string_view aTimeOfDay[3];
    if (SplitAt(aHalves[0], '/', aDate) != 3 || SplitAt(aHalves[1], ':', aTimeOfDay) != 3) return false;

    P::CalendarFields fields;
    fields.year = FieldOf(ReadUnsigned32(aDate[0]));
    fields.month = FieldOf(ReadUnsigned32(aDate[1]));
    fields.day = FieldOf(ReadUnsigned32(aDate[2]));
    fields.hour = FieldOf(ReadUnsigned32(aTimeOfDay[0]));
    fields.minute = FieldOf(ReadUnsigned32(aTimeOfDay[1]));
    // Seconds and milliseconds with exactly one dot; otherwise the piece is read as seconds
    // (up to its first non-digit) and the milliseconds are 0.
    std::string_view aSeconds[2];
    if (SplitAt(aTimeOfDay[2], '.', aSeconds) == 2) {
        fields.second = FieldOf(ReadUnsigned32(aSeconds[0]));
        fields.milliSecond = FieldOf(ReadUnsigned32(aSeconds[1]));
    } else {
        fields.second = FieldOf(ReadUnsigned32(aTimeOfDay[2]));
    }

    std::int64_t ticks = 0;
    std::string error;
    if (!P::LocalFieldsToUtcTicks(fields, ticks, error)) {
        QEL_RAISE_ERROR(OsTimeApiError(error), sLOG_NAME);
        return false;
    }
    m_iTicks = ticks;
    return true;
}

unsigned int GetTimeTickSize_ns(Time::EPlatformTimeInfo info)
{
    switch (info) {
    case Time::eTIME_PLATFORM_DEFAULT:
    case Time::eTIME_PLATFORM_WINDOWS: return 100;
    case Time::eTIME_PLATFORM_SECONDS: return 1000000000;
    }
    return 0;
}

std::int64_t ConvertTimerTicksToCurrentPlatform(std::int64_t ticks, Time::EPlatformTimeInfo info)
{
    if (info == Time::eTIME_PLATFORM_DEFAULT || info == Time::eTIME_PLATFORM_WINDOWS) return ticks;
    const std::int64_t factor = GetTimeTickSize_ns(info) / GetTimeTickSize_ns(Time::eTIME_PLATFORM_DEFAULT);
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(ticks) * static_cast<std::uint64_t>(factor));
}

} // namespace Qel::Core

std::ostream& operator<<(std::ostream& stream, const Qel::Core::Time& time)
{
    return stream << time.ToString();
}
