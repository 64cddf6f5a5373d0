// Tests of the narrow and wide string tools.
#include "Infrastructure/QelCore/StringTools.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace ST = Qel::Core::StringTools;
using Qel::Core::TUnicodeStr;

namespace {

using Strings = std::vector<std::string>;
using WStrings = std::vector<TUnicodeStr>;

std::uint64_t BitsOf(double d)
{
    std::uint64_t n = 0;
    std::memcpy(&n, &d, sizeof n);
    return n;
}

std::uint32_t BitsOf(float f)
{
    std::uint32_t n = 0;
    std::memcpy(&n, &f, sizeof n);
    return n;
}

// ---------------------------------------------------------------------------------------------
// Split and Join

TEST(StringToolsSplitJoin, UNCPathAtBackslashKeepsEmptyParts)
{
    const std::string sPath = R"(\\host\root\dir\subdir\file.ext)";
    Strings vParts;
    EXPECT_EQ(ST::Split(sPath, "\\", vParts), 7);
    EXPECT_EQ(vParts, (Strings{"", "", "host", "root", "dir", "subdir", "file.ext"}));
    EXPECT_EQ(ST::Join(vParts, "\\"), sPath);
}

TEST(StringToolsSplitJoin, MultiCharacterDelimiterIsSearchedAsAWhole)
{
    Strings vParts;
    EXPECT_EQ(ST::Split("1->2- >3->4", "->", vParts), 3);
    EXPECT_EQ(vParts, (Strings{"1", "2- >3", "4"}));
    EXPECT_EQ(ST::Join(vParts, " => "), "1 => 2- >3 => 4");
    EXPECT_EQ(ST::Join(vParts, "->"), "1->2- >3->4");
}

TEST(StringToolsSplitJoin, EmptyPartsAtStartMiddleAndEnd)
{
    Strings vParts;
    EXPECT_EQ(ST::Split(",a,,b,", ",", vParts), 5);
    EXPECT_EQ(vParts, (Strings{"", "a", "", "b", ""}));
    EXPECT_EQ(ST::Split(",", ",", vParts), 2);
    EXPECT_EQ(vParts, (Strings{"", ""}));
    EXPECT_EQ(ST::Split("abab", "ab", vParts), 3);
    EXPECT_EQ(vParts, (Strings{"", "", ""}));
    // Hits do not overlap: "aaa" holds one "aa" and then a lone "a".
    EXPECT_EQ(ST::Split("aaa", "aa", vParts), 2);
    EXPECT_EQ(vParts, (Strings{"", "a"}));
}

TEST(StringToolsSplitJoin, TextWithoutDelimiterGivesOnePart)
{
    Strings vParts{"old", "contents"};
    EXPECT_EQ(ST::Split("no delimiter here", ";", vParts), 1);
    EXPECT_EQ(vParts, (Strings{"no delimiter here"}));
    EXPECT_EQ(ST::Split("", ";", vParts), 1);
    EXPECT_EQ(vParts, (Strings{""}));
    // A delimiter longer than the text is not found either.
    EXPECT_EQ(ST::Split("ab", "abc", vParts), 1);
    EXPECT_EQ(vParts, (Strings{"ab"}));
}

TEST(StringToolsSplitJoin, EmptyDelimiterGivesTheWholeText)
{
    Strings vParts;
    EXPECT_EQ(ST::Split("a,b", "", vParts), 1);
    EXPECT_EQ(vParts, (Strings{"a,b"}));
}

TEST(StringToolsSplitJoin, TextMayLieInTheResultVector)
{
    Strings vParts{"x;y;z"};
    EXPECT_EQ(ST::Split(vParts[0], ";", vParts), 3);
    EXPECT_EQ(vParts, (Strings{"x", "y", "z"}));
    // ... and so may the delimiter, even where the result grows beyond the vector's capacity.
    vParts = Strings{"a long enough text to need memory of its own", "|", "1|2|3|4|5|6|7|8|9"};
    vParts.shrink_to_fit();
    EXPECT_EQ(ST::Split(vParts[2], vParts[1], vParts), 9);
    EXPECT_EQ(vParts, (Strings{"1", "2", "3", "4", "5", "6", "7", "8", "9"}));
    // A vector that held more parts before keeps only the new ones.
    EXPECT_EQ(ST::Split("p;q", ";", vParts), 2);
    EXPECT_EQ(vParts, (Strings{"p", "q"}));
}

TEST(StringToolsSplitJoin, JoinOfNoneOneAndDefaultDelimiter)
{
    EXPECT_EQ(ST::Join(Strings{}, ","), "");
    EXPECT_EQ(ST::Join(Strings{}), "");
    EXPECT_EQ(ST::Join(Strings{"only"}, ","), "only");
    EXPECT_EQ(ST::Join(Strings{"a", "b", "c"}), "abc");
    EXPECT_EQ(ST::Join(Strings{"", ""}, ","), ",");
    EXPECT_EQ(ST::Join(Strings{""}, ","), "");
}

TEST(StringToolsSplitJoin, JoinUndoesSplit)
{
    const Strings vTexts{"", ",", ",,", "a", "a,b", ",a,", "a,,b,,,c"};
    for (const std::string& sText : vTexts) {
        Strings vParts;
        ST::Split(sText, ",", vParts);
        EXPECT_EQ(ST::Join(vParts, ","), sText) << "text: " << sText;
    }
}

TEST(StringToolsSplitJoin, WideTwins)
{
    const TUnicodeStr sPath = LR"(\\host\root\dir\subdir\file.ext)";
    WStrings vParts;
    EXPECT_EQ(ST::Split(sPath, L"\\", vParts), 7);
    EXPECT_EQ(vParts, (WStrings{L"", L"", L"host", L"root", L"dir", L"subdir", L"file.ext"}));
    EXPECT_EQ(ST::Join(vParts, L"\\"), sPath);

    EXPECT_EQ(ST::Split(TUnicodeStr(L"1->2- >3->4"), L"->", vParts), 3);
    EXPECT_EQ(vParts, (WStrings{L"1", L"2- >3", L"4"}));
    EXPECT_EQ(ST::Join(vParts, L" => "), L"1 => 2- >3 => 4");

    // Characters beyond the Basic Multilingual Plane are single wide characters.
    EXPECT_EQ(ST::Split(TUnicodeStr(L"\u00e9\U0001F600\u00e9"), L"\U0001F600", vParts), 2);
    EXPECT_EQ(vParts, (WStrings{L"\u00e9", L"\u00e9"}));
    EXPECT_EQ(ST::Split(TUnicodeStr(), L",", vParts), 1);
    EXPECT_EQ(ST::Join(WStrings{}), L"");
}

TEST(StringToolsSplitJoin, Utf8TextIsSplitByBytes)
{
    // "é" and "ü" in UTF-8 around a multi-byte delimiter "→".
    Strings vParts;
    EXPECT_EQ(ST::Split("\xC3\xA9\xE2\x86\x92\xC3\xBC", "\xE2\x86\x92", vParts), 2);
    EXPECT_EQ(vParts, (Strings{"\xC3\xA9", "\xC3\xBC"}));
}

// ---------------------------------------------------------------------------------------------
// LineBreaks

TEST(StringToolsLineBreaks, EmptyAndShortTextsStayAsTheyAre)
{
    EXPECT_EQ(ST::LineBreaks("", 0), "");
    EXPECT_EQ(ST::LineBreaks("", 20), "");
    EXPECT_EQ(ST::LineBreaks("This line doesn't need breaks", 45), "This line doesn't need breaks");
    // A text exactly as long as the width is not cut.
    EXPECT_EQ(ST::LineBreaks("abc def", 7), "abc def");
    // A huge width never cuts.
    EXPECT_EQ(ST::LineBreaks("abc def", std::numeric_limits<unsigned long long>::max()), "abc def");
}

TEST(StringToolsLineBreaks, BreaksAtTheLastWhiteSpaceWithinTheWidth)
{
    EXPECT_EQ(ST::LineBreaks("This line breaks --><-- there, not!", 20), "This line breaks\n--><-- there, not!");
    EXPECT_EQ(ST::LineBreaks("This line is broken down into two word pairs", 11),
              "This line\nis broken\ndown into\ntwo word\npairs");
}

class StringToolsLineBreaksSeparator : public ::testing::TestWithParam<char>
{
};

TEST_P(StringToolsLineBreaksSeparator, WhiteSpaceAtTheCandidateIsTheCut)
{
    const char c = GetParam();
    const std::string sText = std::string("This line breaks -->") + c + "<-- there!";
    EXPECT_EQ(ST::LineBreaks(sText, 21), "This line breaks -->\n<-- there!");
    EXPECT_EQ(ST::LineBreaks(sText, 21, '|'), "This line breaks -->|<-- there!");
}

INSTANTIATE_TEST_SUITE_P(SpaceTabCrLf, StringToolsLineBreaksSeparator, ::testing::Values(' ', '\t', '\r', '\n'));

TEST(StringToolsLineBreaks, LongWordStaysWholeAndBreaksBehindIt)
{
    EXPECT_EQ(ST::LineBreaks("This_line_breaks_after_it_should since it lacks whitespace", 25),
              "This_line_breaks_after_it_should\nsince it lacks whitespace");
    // A long word at the end of the text: the cut falls at the end, and no break follows.
    EXPECT_EQ(ST::LineBreaks("ab abcdefgh", 3), "ab\nabcdefgh");
    EXPECT_EQ(ST::LineBreaks("abcdefgh", 3), "abcdefgh");
}

struct WordsCase
{
    unsigned long long nWidth;
    std::string sSeparator;
};

class StringToolsLineBreaksWords : public ::testing::TestWithParam<WordsCase>
{
};

TEST_P(StringToolsLineBreaksWords, SmallWidthsGiveOneWordALine)
{
    const WordsCase& c = GetParam();
    const Strings vWords{"This", "line", "is", "broken", "into", "words"};
    EXPECT_EQ(ST::LineBreaks(ST::Join(vWords, c.sSeparator), c.nWidth), "This\nline\nis\nbroken\ninto\nwords");
}

INSTANTIATE_TEST_SUITE_P(Widths012, StringToolsLineBreaksWords,
                         ::testing::Values(WordsCase{0, " "}, WordsCase{1, " "}, WordsCase{2, " "}, WordsCase{0, "\t"},
                                           WordsCase{1, "\t"}, WordsCase{2, "\t"}, WordsCase{0, "\r"},
                                           WordsCase{1, "\r"}, WordsCase{2, "\r"}, WordsCase{0, "\n"},
                                           WordsCase{1, "\n"}, WordsCase{2, "\n"}, WordsCase{0, "\r\n"},
                                           WordsCase{1, " \t "}, WordsCase{2, "\r\n\t  "}));

TEST(StringToolsLineBreaks, WhiteSpaceAloneGivesTheEmptyText)
{
    for (unsigned long long nWidth : {0ULL, 1ULL, 2ULL, 3ULL, 5ULL, 100ULL}) {
        EXPECT_EQ(ST::LineBreaks(" ", nWidth), "") << nWidth;
        EXPECT_EQ(ST::LineBreaks("   \t\r\n  \n", nWidth), "") << nWidth;
    }
}

TEST(StringToolsLineBreaks, LineBreaksOfTheTextCountOnlyAtACut)
{
    // The newline inside the first piece stays; the space at the cut becomes the break.
    EXPECT_EQ(ST::LineBreaks("ab\ncd ef", 5, '|'), "ab\ncd|ef");
    // The run of white space at a cut goes entirely, whatever it consists of.
    EXPECT_EQ(ST::LineBreaks("abc \r\n\t def", 3, '|'), "abc|def");
    // No white space stays at the edge of a line.
    EXPECT_EQ(ST::LineBreaks("abc def  ", 4), "abc\ndef");
    // Leading white space ends up as an empty first line.
    EXPECT_EQ(ST::LineBreaks("  abc def", 3), "\nabc\ndef");
}

TEST(StringToolsLineBreaks, WideTwins)
{
    EXPECT_EQ(ST::LineBreaks(TUnicodeStr(), 5), L"");
    EXPECT_EQ(ST::LineBreaks(TUnicodeStr(L"This line breaks --><-- there, not!"), 20),
              L"This line breaks\n--><-- there, not!");
    EXPECT_EQ(ST::LineBreaks(TUnicodeStr(L"This line breaks -->\t<-- there!"), 21),
              L"This line breaks -->\n<-- there!");
    EXPECT_EQ(ST::LineBreaks(TUnicodeStr(L"This line is broken down into two word pairs"), 11, L'|'),
              L"This line|is broken|down into|two word|pairs");
    EXPECT_EQ(ST::LineBreaks(TUnicodeStr(L"This\rline\nis\tbroken into words"), 0),
              L"This\nline\nis\nbroken\ninto\nwords");
    EXPECT_EQ(ST::LineBreaks(TUnicodeStr(L" \t\r\n "), 1), L"");
}

// ---------------------------------------------------------------------------------------------
// Trimming and case

TEST(StringToolsTrim, WhiteSpaceAloneGivesTheEmptyText)
{
    for (const char* s : {" ", "\t", "\n", "\r", "\v", "\f", " \t\r\n", "\n\n  \t\r \v\f"}) {
        EXPECT_EQ(ST::TrimWS(s), "") << "text with bytes " << std::strlen(s);
        EXPECT_EQ(ST::TrimStart(s), "");
        EXPECT_EQ(ST::TrimEnd(s), "");
    }
    EXPECT_EQ(ST::TrimWS(""), "");
}

TEST(StringToolsTrim, TrimsOnlyTheRequestedEnds)
{
    EXPECT_EQ(ST::TrimWS("NoWhiteSpace"), "NoWhiteSpace");
    EXPECT_EQ(ST::TrimStart("NoWhiteSpace"), "NoWhiteSpace");
    EXPECT_EQ(ST::TrimEnd("NoWhiteSpace"), "NoWhiteSpace");
    EXPECT_EQ(ST::TrimWS(" \t a b \r\n"), "a b");
    EXPECT_EQ(ST::TrimStart(" \t a b \r\n"), "a b \r\n");
    EXPECT_EQ(ST::TrimEnd(" \t a b \r\n"), " \t a b");
}

TEST(StringToolsTrim, BytesAboveAsciiAreNotWhiteSpace)
{
    // UTF-8 of a no-break space and of "é": bytes of 0x80 and above are not white space in the
    // C locale and must not be taken for negative values.
    EXPECT_EQ(ST::TrimWS("\xC2\xA0x\xC3\xA9"), "\xC2\xA0x\xC3\xA9");
    EXPECT_EQ(ST::TrimWS(" \xFF\xA0 "), "\xFF\xA0");
    EXPECT_EQ(ST::TrimWS("\x85\xA0"), "\x85\xA0");
}

TEST(StringToolsTrim, WideTwins)
{
    EXPECT_EQ(ST::TrimWS(TUnicodeStr(L" \t\n\r")), L"");
    EXPECT_EQ(ST::TrimEnd(TUnicodeStr(L" \t\n\r")), L"");
    EXPECT_EQ(ST::TrimWS(TUnicodeStr(L" \t a\u00e9b \r\n")), L"a\u00e9b");
    EXPECT_EQ(ST::TrimStart(TUnicodeStr(L" \t a b \r\n")), L"a b \r\n");
    EXPECT_EQ(ST::TrimEnd(TUnicodeStr(L" \t a b \r\n")), L" \t a b");
    EXPECT_EQ(ST::TrimWS(TUnicodeStr(L"NoWhiteSpace")), L"NoWhiteSpace");
}

TEST(StringToolsCase, OnlyLettersChange)
{
    const std::string sText = "  *gI$n,9  g9G\t45rRrR  ";
    EXPECT_EQ(ST::UpCase(sText), "  *GI$N,9  G9G\t45RRRR  ");
    EXPECT_EQ(ST::DownCase(sText), "  *gi$n,9  g9g\t45rrrr  ");
    EXPECT_EQ(ST::UpCase(""), "");
    // Bytes of UTF-8 sequences are left alone in the C locale.
    EXPECT_EQ(ST::UpCase("\xC3\xA9z"), "\xC3\xA9Z");
    EXPECT_EQ(ST::DownCase("\xC3\x89Z"), "\xC3\x89z");
}

TEST(StringToolsCase, WideTwins)
{
    const TUnicodeStr sText = L"  *gI$n,9  g9G\t45rRrR  ";
    EXPECT_EQ(ST::UpCase(sText), L"  *GI$N,9  G9G\t45RRRR  ");
    EXPECT_EQ(ST::DownCase(sText), L"  *gi$n,9  g9g\t45rrrr  ");
}

// ---------------------------------------------------------------------------------------------
// Real numbers

TEST(StringToolsToDouble, PlainNumbers)
{
    EXPECT_EQ(ST::ToDouble("-.25"), -0.25);
    EXPECT_EQ(ST::ToDouble("1.5e6"), 1.5e6);
    EXPECT_EQ(ST::ToDouble("-1.5e-6"), -1.5e-6);
    EXPECT_EQ(ST::ToDouble("  42"), 42.0);
    EXPECT_EQ(ST::ToDouble("1"), 1.0);
    EXPECT_EQ(ST::ToDouble("-1"), -1.0);
}

TEST(StringToolsToDouble, TextWithoutNumberGivesZero)
{
    EXPECT_EQ(ST::ToDouble(""), 0.0);
    EXPECT_EQ(ST::ToDouble("abc"), 0.0);
    EXPECT_EQ(ST::ToDouble("#INF"), 0.0);
}

TEST(StringToolsToDouble, SpecialFormsAfterOne)
{
    EXPECT_EQ(ST::ToDouble("1.#INF"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(ST::ToDouble("-1.#INF"), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(ST::ToDouble("1#INF"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(BitsOf(ST::ToDouble("1.#QNAN")), 0x7FF8000000000000ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble("-1.#QNAN")), 0x7FF8000000000000ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble("1.#SNAN")), 0x7FF8000000000001ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble("-1.#SNAN")), 0x7FF8000000000001ULL);
    EXPECT_TRUE(std::isnan(ST::ToDouble("1.#QNAN")));
    EXPECT_TRUE(std::isnan(ST::ToDouble("1.#SNAN")));
}

TEST(StringToolsToDouble, OtherTrailingTextIsIgnored)
{
    EXPECT_EQ(ST::ToDouble("1.5xyz"), 1.5);
    EXPECT_EQ(ST::ToDouble("1.#IND"), 1.0);
    EXPECT_EQ(ST::ToDouble("-1.#IND"), -1.0);
    EXPECT_EQ(ST::ToDouble("1.#INFx"), 1.0);
    EXPECT_EQ(ST::ToDouble("1.#inf"), 1.0);
    // The special forms only count after 1 or -1.
    EXPECT_EQ(ST::ToDouble("2.#INF"), 2.0);
    EXPECT_EQ(ST::ToDouble("2.#QNAN"), 2.0);
    EXPECT_EQ(ST::ToDouble("0.5 #SNAN"), 0.5);
    // ... and "nan" only after any other number.
    EXPECT_EQ(ST::ToDouble("1nan"), 1.0);
    EXPECT_EQ(ST::ToDouble("2nanx"), 2.0);
}

TEST(StringToolsToDouble, NanAfterANumberOtherThanOne)
{
    EXPECT_EQ(BitsOf(ST::ToDouble("2nan")), 0x7FF8000000000000ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble("-2.5nan")), 0x7FF8000000000000ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble("0nan")), 0x7FF8000000000000ULL);
}

TEST(StringToolsToDouble, WideTwins)
{
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"-.25")), -0.25);
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"1.5e6")), 1.5e6);
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"-1.5e-6")), -1.5e-6);
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"1.#INF")), std::numeric_limits<double>::infinity());
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"-1.#INF")), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(BitsOf(ST::ToDouble(TUnicodeStr(L"1.#QNAN"))), 0x7FF8000000000000ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble(TUnicodeStr(L"1.#SNAN"))), 0x7FF8000000000001ULL);
    EXPECT_EQ(BitsOf(ST::ToDouble(TUnicodeStr(L"3nan"))), 0x7FF8000000000000ULL);
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"1.5xyz")), 1.5);
    EXPECT_EQ(ST::ToDouble(TUnicodeStr(L"")), 0.0);
}

TEST(StringToolsToFloat, NumbersAndSpecialForms)
{
    EXPECT_EQ(ST::ToFloat("-.25"), -0.25f);
    EXPECT_EQ(ST::ToFloat("1.5e6"), 1.5e6f);
    EXPECT_EQ(ST::ToFloat("0.1"), static_cast<float>(0.1));
    EXPECT_EQ(ST::ToFloat("1.5xyz"), 1.5f);
    EXPECT_EQ(ST::ToFloat(""), 0.0f);
    EXPECT_EQ(ST::ToFloat("1.#INF"), std::numeric_limits<float>::infinity());
    EXPECT_EQ(ST::ToFloat("-1.#INF"), -std::numeric_limits<float>::infinity());
    EXPECT_EQ(BitsOf(ST::ToFloat("1.#QNAN")), 0x7FC00000U);
    EXPECT_EQ(BitsOf(ST::ToFloat("1.#SNAN")), 0x7FC00001U);
    EXPECT_EQ(BitsOf(ST::ToFloat("-1.#SNAN")), 0x7FC00001U);
    EXPECT_EQ(BitsOf(ST::ToFloat("7nan")), 0x7FC00000U);
    EXPECT_EQ(ST::ToFloat("1.#IND"), 1.0f);
}

TEST(StringToolsToFloat, WideTwins)
{
    EXPECT_EQ(ST::ToFloat(TUnicodeStr(L"-1.5e-6")), static_cast<float>(-1.5e-6));
    EXPECT_EQ(ST::ToFloat(TUnicodeStr(L"1.#INF")), std::numeric_limits<float>::infinity());
    EXPECT_EQ(BitsOf(ST::ToFloat(TUnicodeStr(L"1.#QNAN"))), 0x7FC00000U);
    EXPECT_EQ(BitsOf(ST::ToFloat(TUnicodeStr(L"1.#SNAN"))), 0x7FC00001U);
    EXPECT_EQ(BitsOf(ST::ToFloat(TUnicodeStr(L"0.5nan"))), 0x7FC00000U);
}

// ---------------------------------------------------------------------------------------------
// Whole numbers

TEST(StringToolsWholeNumbers, ByteInEveryRadix)
{
    EXPECT_EQ(ST::ToByte("165"), 165);
    EXPECT_EQ(ST::ToByte("0xA5"), 165);
    EXPECT_EQ(ST::ToByte("0xa5"), 165);
    EXPECT_EQ(ST::ToByte("0XA5"), 165);
    EXPECT_EQ(ST::ToByte("0245"), 165);
    EXPECT_EQ(ST::ToByte("10100101", 2), 165);
    EXPECT_EQ(ST::ToByte("a5", 16), 165);
    EXPECT_EQ(ST::ToByte("0245", 10), 245);
}

TEST(StringToolsWholeNumbers, UnsignedShortAndInt)
{
    EXPECT_EQ(ST::ToUnsignedShort("65535"), 65535);
    EXPECT_EQ(ST::ToUnsignedShort("0xffff"), 65535);
    EXPECT_EQ(ST::ToUnsignedShort("0177777"), 65535);
    EXPECT_EQ(ST::ToUnsignedShort(std::string(16, '1'), 2), 65535);

    EXPECT_EQ(ST::ToUnsignedInt("4294967295"), 4294967295U);
    EXPECT_EQ(ST::ToUnsignedInt("0xffffffff"), 4294967295U);
    EXPECT_EQ(ST::ToUnsignedInt("037777777777"), 4294967295U);
    EXPECT_EQ(ST::ToUnsignedInt(std::string(32, '1'), 2), 4294967295U);

    EXPECT_EQ(ST::ToUnsignedLong("18446744073709551615"), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(ST::ToUnsignedLong("0x123456789"), 0x123456789UL);
}

TEST(StringToolsWholeNumbers, ResultsAreCutDownToTheirWidth)
{
    // strtoul reads 64 bits on Linux; the narrower results keep the low bits.
    EXPECT_EQ(ST::ToByte("256"), 0);
    EXPECT_EQ(ST::ToByte("0x1FF"), 255);
    EXPECT_EQ(ST::ToByte("-1"), 255);
    EXPECT_EQ(ST::ToUnsignedShort("65536"), 0);
    EXPECT_EQ(ST::ToUnsignedInt("4294967296"), 0U);
    EXPECT_EQ(ST::ToUnsignedInt("-1"), 4294967295U);
    // Beyond 64 bits strtoul gives its largest value.
    EXPECT_EQ(ST::ToUnsignedLong("99999999999999999999"), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(ST::ToShort("32768"), -32768);
    EXPECT_EQ(ST::ToShort("65537"), 1);
}

TEST(StringToolsWholeNumbers, SignedDecimal)
{
    EXPECT_EQ(ST::ToShort("-32768"), -32768);
    EXPECT_EQ(ST::ToShort("32767"), 32767);
    EXPECT_EQ(ST::ToInt("-2147483648"), std::numeric_limits<int>::min());
    EXPECT_EQ(ST::ToInt("2147483647"), 2147483647);
    EXPECT_EQ(ST::ToLong("-9223372036854775808"), std::numeric_limits<long>::min());
    EXPECT_EQ(ST::ToLong("9223372036854775807"), std::numeric_limits<long>::max());
    // Decimal only: no prefix is read.
    EXPECT_EQ(ST::ToInt("0x10"), 0);
    EXPECT_EQ(ST::ToInt("010"), 10);
}

TEST(StringToolsWholeNumbers, BadTextGivesWhatTheCFunctionGives)
{
    EXPECT_EQ(ST::ToByte(""), 0);
    EXPECT_EQ(ST::ToUnsignedInt("xyz"), 0U);
    EXPECT_EQ(ST::ToUnsignedInt("12abc"), 12U);
    EXPECT_EQ(ST::ToUnsignedInt(" 42"), 42U);
    EXPECT_EQ(ST::ToByte("2", 2), 0);
    EXPECT_EQ(ST::ToInt(""), 0);
    EXPECT_EQ(ST::ToInt("abc"), 0);
    EXPECT_EQ(ST::ToInt(" -17 apples"), -17);
    EXPECT_EQ(ST::ToShort("x"), 0);
    EXPECT_EQ(ST::ToLong("+5"), 5L);
}

TEST(StringToolsWholeNumbers, WideTwins)
{
    EXPECT_EQ(ST::ToByte(TUnicodeStr(L"165")), 165);
    EXPECT_EQ(ST::ToByte(TUnicodeStr(L"0xA5")), 165);
    EXPECT_EQ(ST::ToByte(TUnicodeStr(L"0245")), 165);
    EXPECT_EQ(ST::ToByte(TUnicodeStr(L"10100101"), 2), 165);
    EXPECT_EQ(ST::ToByte(TUnicodeStr(L"256")), 0);
    EXPECT_EQ(ST::ToUnsignedShort(TUnicodeStr(L"0177777")), 65535);
    EXPECT_EQ(ST::ToUnsignedShort(TUnicodeStr(16, L'1'), 2), 65535);
    EXPECT_EQ(ST::ToUnsignedInt(TUnicodeStr(L"0xffffffff")), 4294967295U);
    EXPECT_EQ(ST::ToUnsignedInt(TUnicodeStr(32, L'1'), 2), 4294967295U);
    EXPECT_EQ(ST::ToUnsignedLong(TUnicodeStr(L"18446744073709551615")), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(ST::ToShort(TUnicodeStr(L"-32768")), -32768);
    EXPECT_EQ(ST::ToShort(TUnicodeStr(L"32768")), -32768);
    EXPECT_EQ(ST::ToInt(TUnicodeStr(L"-2147483648")), std::numeric_limits<int>::min());
    EXPECT_EQ(ST::ToInt(TUnicodeStr(L"2147483647")), 2147483647);
    EXPECT_EQ(ST::ToLong(TUnicodeStr(L"-9223372036854775808")), std::numeric_limits<long>::min());
    EXPECT_EQ(ST::ToInt(TUnicodeStr(L"abc")), 0);
}

// ---------------------------------------------------------------------------------------------
// ToBool

TEST(StringToolsToBool, TrueForOneTAndTrueInAnyCase)
{
    for (const char* s : {"1", "t", "T", "true", "True", "TRUE", "tRuE"}) EXPECT_TRUE(ST::ToBool(s)) << s;
    for (const char* s : {"0", "false", "", "yes", "on", "2", " true", "true ", "tr", "10"})
        EXPECT_FALSE(ST::ToBool(s)) << s;
}

TEST(StringToolsToBool, WideTwins)
{
    for (const wchar_t* s : {L"1", L"t", L"T", L"true", L"True", L"TRUE"}) EXPECT_TRUE(ST::ToBool(TUnicodeStr(s)));
    for (const wchar_t* s : {L"0", L"false", L"", L"yes"}) EXPECT_FALSE(ST::ToBool(TUnicodeStr(s)));
}

// ---------------------------------------------------------------------------------------------
// Escape and UnEscape

TEST(StringToolsEscape, BackslashAndDelimiterGetABackslash)
{
    const std::string sOriginal = R"(Today's date is 4\1, weather will be warm and sunny)";
    std::string sText = sOriginal;
    ST::Escape(sText, ',');
    EXPECT_EQ(sText, R"(Today's date is 4\\1\, weather will be warm and sunny)");
    ST::UnEscape(sText, ',');
    EXPECT_EQ(sText, sOriginal);
}

TEST(StringToolsEscape, TextWithoutSpecialCharactersIsUnchanged)
{
    const std::string sOriginal = "Plain text; with other signs: 1/2 \"quoted\"";
    std::string sText = sOriginal;
    ST::Escape(sText, ',');
    EXPECT_EQ(sText, sOriginal);
    ST::UnEscape(sText, ',');
    EXPECT_EQ(sText, sOriginal);
    std::string sEmpty;
    ST::Escape(sEmpty, ',');
    EXPECT_EQ(sEmpty, "");
}

TEST(StringToolsEscape, OtherDelimiters)
{
    std::string sText = R"(a;b,c\d)";
    ST::Escape(sText, ';');
    EXPECT_EQ(sText, R"(a\;b,c\\d)");
    std::string sBackslashes = R"(\\)";
    ST::Escape(sBackslashes, '\\');
    EXPECT_EQ(sBackslashes, R"(\\\\)");
}

TEST(StringToolsUnEscape, EachBackslashIsRemovedAndTheNextKept)
{
    auto unEscape = [](std::string s, char cDelimiter = ',') {
        ST::UnEscape(s, cDelimiter);
        return s;
    };
    EXPECT_EQ(unEscape(R"(\\)"), R"(\)");
    EXPECT_EQ(unEscape(R"(\\\\)"), R"(\\)");
    EXPECT_EQ(unEscape(R"(\n)"), "n");
    EXPECT_EQ(unEscape(R"(a\)"), "a");
    EXPECT_EQ(unEscape(R"(\)"), "");
    EXPECT_EQ(unEscape(R"(\\\,)"), R"(\,)");
    EXPECT_EQ(unEscape(R"(\\\)"), R"(\)");
    // The delimiter plays no part.
    EXPECT_EQ(unEscape(R"(a\;b\,c,d)", ','), "a;b,c,d");
    EXPECT_EQ(unEscape(R"(a\;b\,c,d)", ';'), "a;b,c,d");
}

// ---------------------------------------------------------------------------------------------
// Array2Str and Str2Array

TEST(StringToolsArrays, SimpleList)
{
    Strings vItems{"stale"};
    ST::Str2Array("Some simple,stuff,5,startup.ini", ',', vItems);
    EXPECT_EQ(vItems, (Strings{"Some simple", "stuff", "5", "startup.ini"}));
    std::string sText = "stale";
    ST::Array2Str(vItems, ',', sText);
    EXPECT_EQ(sText, "Some simple,stuff,5,startup.ini");
}

TEST(StringToolsArrays, BackslashesBeforeADelimiterAreCounted)
{
    Strings vItems;
    ST::Str2Array(R"(a\\,)", ',', vItems);
    EXPECT_EQ(vItems, (Strings{R"(a\)", ""}));
    ST::Str2Array(R"(a\\\,)", ',', vItems);
    EXPECT_EQ(vItems, (Strings{R"(a\,)"}));
    ST::Str2Array(R"(a\,b,c)", ',', vItems);
    EXPECT_EQ(vItems, (Strings{"a,b", "c"}));
    ST::Str2Array(R"(\\\\,\,)", ',', vItems);
    EXPECT_EQ(vItems, (Strings{R"(\\)", ","}));
}

TEST(StringToolsArrays, EmptyItemsAndEmptyText)
{
    Strings vItems{"stale"};
    ST::Str2Array("", ',', vItems);
    EXPECT_TRUE(vItems.empty());
    ST::Str2Array(",", ',', vItems);
    EXPECT_EQ(vItems, (Strings{"", ""}));
    ST::Str2Array(",x,", ',', vItems);
    EXPECT_EQ(vItems, (Strings{"", "x", ""}));

    std::string sText = "stale";
    ST::Array2Str(Strings{}, ',', sText);
    EXPECT_EQ(sText, "");
    ST::Array2Str(Strings{"", "x", ""}, ',', sText);
    EXPECT_EQ(sText, ",x,");
    ST::Array2Str(Strings{"a,b", R"(c\)", ""}, ',', sText);
    EXPECT_EQ(sText, R"(a\,b,c\\,)");
}

TEST(StringToolsArrays, Str2ArrayUndoesArray2Str)
{
    const std::vector<Strings> vLists{
        {},
        {"", ""},
        {"a"},
        {"a", "b"},
        {",", "\\", "\\,", ",\\"},
        {"", "x", ""},
        {R"(ends with \)", R"(\\)", "plain"},
        {"\xC3\xA9t\xC3\xA9", "caf\xC3\xA9,cr\xC3\xA8me"},
    };
    for (char cDelimiter : {',', ';', '|'}) {
        for (const Strings& vList : vLists) {
            std::string sText;
            ST::Array2Str(vList, cDelimiter, sText);
            Strings vBack;
            ST::Str2Array(sText, cDelimiter, vBack);
            EXPECT_EQ(vBack, vList) << "text: " << sText;
        }
    }
}

TEST(StringToolsArrays, SingleEmptyItemComesBackAsNoItems)
{
    std::string sText = "stale";
    ST::Array2Str(Strings{""}, ',', sText);
    EXPECT_EQ(sText, "");
    Strings vBack{"stale"};
    ST::Str2Array(sText, ',', vBack);
    EXPECT_TRUE(vBack.empty());
}

} // namespace
