// The two output styles: the compact formatter's operations, and the pretty-print layout with its
// line and column rules (80-column limits, attribute wrapping, wrapped comments and CDATA, CDATA
// streams in chunks, a flushed line end at every line).
#include <Infrastructure/QelCore/QelCore.h>

#include "XMLExample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace Qel::Core;

namespace {

using QelTest::WriteExample;

const std::string s_sPrettyGolden = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                    "<Test>\n"
                                    "  <!-- A comment -->\n"
                                    "  <AnEmptyTag/>\n"
                                    "  <EmptyTagWithAttribute name=\"value\" />\n"
                                    "  <TagWithAttributes name1=\"value1\" name2=\"value2\" >\n"
                                    "    1 &lt; 2\n"
                                    "    <![CDATA[<CDATA Test>Entity usage: &amp;</CDATA Test>]]>\n"
                                    "  </TagWithAttributes>\n"
                                    "  content\n"
                                    "</Test>\n";

class Pretty : public testing::Test
{
protected:
    std::shared_ptr<XMLFormatter> m_spFormatter = XMLFormatter::CreatePrettyPrint();
    XMLFormatter& formatter = *m_spFormatter;
    std::ostringstream out;
};

// Counts the flushes of the stream it serves.
class CountingBuffer : public std::stringbuf
{
public:
    int m_iSyncs = 0;

protected:
    int sync() override
    {
        ++m_iSyncs;
        return std::stringbuf::sync();
    }
};

} // namespace

// ---- the formatter base and the compact style ----

TEST(CompactFormatter, WritesEachItemWithoutWhiteSpace)
{
    auto formatter = XMLFormatter::CreateCompact();
    std::ostringstream out;
    XMLAttributeMap<std::string> attributes;
    attributes["a"] = "1";
    formatter->FormatStartDoc(out, "1.0", "UTF-8", true);
    formatter->FormatStyleSheet(out, "h.xsl", "text/xsl");
    formatter->FormatStartTag(out, "r", attributes, false);
    formatter->FormatProcessingInstruction(out, "pi", "data", true);
    formatter->FormatEntityReference(out, "&amp;");
    formatter->FormatText(out, "<x>");
    formatter->FormatTag(out, "e", XMLWriter::NO_ATTRIBUTES, "");
    formatter->FormatTag(out, "f", attributes, "t");
    formatter->FormatComment(out, " c\n d ", false);
    formatter->FormatCDATA(out, std::string(100, 'z'), false);
    std::istringstream markup("<m/>");
    formatter->FormatMarkupStream(out, markup);
    formatter->FormatMarkup(out, "<n/>");
    formatter->FormatEndTag(out, "r");
    EXPECT_EQ(out.str(), "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>"
                         "<?xml-stylesheet type=\"text/xsl\"\nhref=\"h.xsl\"?><r a=\"1\"><?pi data?>&amp;&lt;x&gt;"
                         "<e/><f a=\"1\">t</f><!-- c\n d --><![CDATA[" +
                             std::string(100, 'z') + "]]><m/><n/></r>");
}

TEST(CompactFormatter, EmptyTextStreamLeavesTheOutputGood)
{
    auto formatter = XMLFormatter::CreateCompact();
    std::ostringstream out;
    std::istringstream empty("");
    formatter->FormatTextStream(out, empty);
    std::istringstream text("a&b");
    formatter->FormatTextStream(out, text);
    EXPECT_EQ(out.str(), "a&amp;b");
    EXPECT_TRUE(out.good());
}

// ---- pretty print: whole documents ----

TEST(PrettyPrint, ExampleDocumentHasTheGoldenLayout)
{
    XMLWriter writer(XMLFormatter::CreatePrettyPrint());
    std::ostringstream out;
    WriteExample(writer, out);
    EXPECT_EQ(out.str(), s_sPrettyGolden);
}

TEST(PrettyPrint, TextStaysBehindAStartTagShorterByOne)
{
    // The start tag ends at column 51: 16 + 3 + 51 + 8 is 78, below 80.
    XMLWriter writer;
    std::ostringstream out;
    WriteExample(writer, out, "TagWithAttribute");
    std::string expected = s_sPrettyGolden;
    const std::string before = "  <TagWithAttributes name1=\"value1\" name2=\"value2\" >\n    1 &lt; 2\n";
    expected.replace(expected.find(before), before.size(),
                     "  <TagWithAttribute name1=\"value1\" name2=\"value2\" >1 &lt; 2\n");
    const std::string end = "</TagWithAttributes>";
    expected.replace(expected.find(end), end.size(), "</TagWithAttribute>");
    EXPECT_EQ(out.str(), expected);
}

TEST(PrettyPrint, TwoDocumentsInARowAreLaidOutAlike)
{
    XMLWriter writer;
    std::ostringstream out;
    WriteExample(writer, out);
    // A document left open is closed by the next declaration.
    out << writer.StartTag("Open") << writer.StartTag("Deeper") << writer.Text("x");
    std::ostringstream second;
    WriteExample(writer, second);
    EXPECT_EQ(second.str().substr(second.str().find("<?xml")), s_sPrettyGolden);
    EXPECT_EQ(out.str().substr(0, s_sPrettyGolden.size()), s_sPrettyGolden);
}

TEST(PrettyPrint, EveryLineEndFlushesTheStream)
{
    CountingBuffer buffer;
    std::ostream out(&buffer);
    XMLWriter writer;
    WriteExample(writer, out);
    std::string text = buffer.str();
    EXPECT_EQ(text, s_sPrettyGolden);
    EXPECT_EQ(buffer.m_iSyncs, std::count(text.begin(), text.end(), '\n'));
}

TEST_F(Pretty, StartDocResetsColumnIndentAndTagRecords)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatText(out, "t");
    formatter.FormatStartDoc(out, "1.0", "UTF-8", true);
    formatter.FormatStartTag(out, "b", XMLWriter::NO_ATTRIBUTES, true);
    // Without tag records an end tag at column 0 stands at the (empty) indent.
    formatter.FormatEndTag(out, "c");
    EXPECT_EQ(out.str(), "<a>t<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<b/>\n</c>\n");
}

// ---- pretty print: start tags and attributes ----

TEST_F(Pretty, AttributesUpToColumn80StayOnTheTagLine)
{
    // "<a" (2) + " x=\"" + 66 characters + "\" " + "y=\"1\" " is exactly 80.
    XMLAttributeMap<std::string> attributes;
    attributes["x"] = std::string(66, 'v');
    attributes["y"] = "1";
    formatter.FormatStartTag(out, "a", attributes, false);
    EXPECT_EQ(out.str(), "<a x=\"" + std::string(66, 'v') + "\" y=\"1\" >");
    // The tag ends at column 81: text goes to the next line.
    formatter.FormatText(out, "t");
    EXPECT_EQ(out.str(), "<a x=\"" + std::string(66, 'v') + "\" y=\"1\" >\n  t");
}

TEST_F(Pretty, AttributesPast80BreakOneALineAlignedUnderTheFirst)
{
    XMLAttributeMap<std::string> attributes;
    attributes["x"] = std::string(67, 'v');
    attributes["y"] = "1";
    attributes["zz"] = "2";
    formatter.FormatStartTag(out, "a", attributes, true);
    EXPECT_EQ(out.str(), "<a x=\"" + std::string(67, 'v') + "\" \n   y=\"1\" \n   zz=\"2\" />\n");
}

TEST_F(Pretty, WrappedAttributesAlignBehindAnIndentedTag)
{
    XMLAttributeMap<std::string> attributes;
    attributes["first"] = std::string(40, 'f');
    attributes["second"] = std::string(30, 's');
    formatter.FormatStartTag(out, "outer", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatStartTag(out, "tag", attributes, false);
    formatter.FormatText(out, "t");
    formatter.FormatEndTag(out, "tag");
    // The indented "<tag" ends at column 6; the names stand at column 7.
    EXPECT_EQ(out.str(), "<outer>\n  <tag first=\"" + std::string(40, 'f') + "\" \n       second=\"" +
                             std::string(30, 's') + "\" >t</tag>\n");
}

// ---- pretty print: text ----

TEST_F(Pretty, ShortTextClosesOnTheLineOfItsStartTag)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatText(out, "text");
    formatter.FormatEndTag(out, "a");
    EXPECT_EQ(out.str(), "<a>text</a>\n");
}

TEST_F(Pretty, TextIsMeasuredEscaped)
{
    // "<a>" ends at column 3. Unescaped, 1 + 3 + 3 + 70 would be 77 and fit; escaped it is 81, so
    // the text goes to a line of its own.
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatText(out, std::string(69, 'x') + "&");
    formatter.FormatEndTag(out, "a");
    EXPECT_EQ(out.str(), "<a>\n  " + std::string(69, 'x') + "&amp;\n</a>\n");
}

TEST_F(Pretty, TextReachingColumn80IsFollowedByALineBreak)
{
    formatter.FormatText(out, std::string(79, 'x'));
    formatter.FormatText(out, "y");
    formatter.FormatText(out, "z");
    EXPECT_EQ(out.str(), std::string(79, 'x') + "y\nz");
}

TEST_F(Pretty, TextWithLineFeedsBecomesTrimmedIndentedLines)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatText(out, "  one\n\t two <  \nthree");
    formatter.FormatEndTag(out, "a");
    EXPECT_EQ(out.str(), "<a>\n  one\n  two &lt;\n  three\n</a>\n");
}

TEST_F(Pretty, EntityReferenceStandsLikeTextButUnescaped)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatEntityReference(out, "&amp;");
    formatter.FormatText(out, "&");
    formatter.FormatEndTag(out, "a");
    EXPECT_EQ(out.str(), "<a>&amp;&amp;</a>\n");
}

TEST_F(Pretty, TextStreamStartsBehindAnEmptyLine)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    std::istringstream text("  x<y \n z");
    formatter.FormatTextStream(out, text);
    formatter.FormatEndTag(out, "a");
    EXPECT_EQ(out.str(), "<a>\n\n  x&lt;y\n  z\n</a>\n");
}

// ---- pretty print: end tags ----

TEST_F(Pretty, MoreEndTagsThanStartTagsKeepTheLeftMargin)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatEndTag(out, "a");
    formatter.FormatEndTag(out, "b");
    formatter.FormatEndTag(out, "c");
    formatter.FormatStartTag(out, "d", XMLWriter::NO_ATTRIBUTES, true);
    EXPECT_EQ(out.str(), "<a></a>\n</b>\n</c>\n<d/>\n");
}

TEST_F(Pretty, EndTagWithoutAnyStartTagStandsAtTheIndent)
{
    formatter.FormatText(out, "t");
    formatter.FormatEndTag(out, "x");
    formatter.FormatEndTag(out, "y");
    EXPECT_EQ(out.str(), "t</x>\n</y>\n");
}

// ---- pretty print: comments and processing instructions ----

TEST_F(Pretty, CommentWithLineFeedsIsBrokenIntoTrimmedLines)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatComment(out, " one \n   two", false);
    formatter.FormatEndTag(out, "a");
    EXPECT_EQ(out.str(), "<a>\n  <!-- \n    one\n    two\n   -->\n</a>\n");
}

TEST_F(Pretty, CommentKeepsLineFeedsWhenFormatIsPreserved)
{
    formatter.FormatComment(out, " one \n two", true);
    EXPECT_EQ(out.str(), "<!--  one \n two -->\n");
}

TEST_F(Pretty, LongCommentGoesToALineOfItsOwn)
{
    // 5 + 72 + 4 is 81.
    formatter.FormatComment(out, std::string(72, 'c'), false);
    EXPECT_EQ(out.str(), "<!-- \n  " + std::string(72, 'c') + "\n -->\n");
    std::ostringstream fits;
    formatter.FormatComment(fits, std::string(71, 'c'), false);
    EXPECT_EQ(fits.str(), "<!-- " + std::string(71, 'c') + " -->\n");
}

TEST_F(Pretty, EmptyCommentAndStyleSheet)
{
    formatter.FormatComment(out, "", false);
    formatter.FormatStyleSheet(out, "s.xsl", "text/xsl");
    EXPECT_EQ(out.str(), "<!--  -->\n<?xml-stylesheet \n  type=\"text/xsl\"\n  href=\"s.xsl\"\n?>\n");
}

// ---- pretty print: CDATA ----

TEST_F(Pretty, CDATAOf68StaysOnOneLineAnd69IsWrapped)
{
    formatter.FormatCDATA(out, std::string(68, 'd'), false);
    EXPECT_EQ(out.str(), "<![CDATA[" + std::string(68, 'd') + "]]>\n");
    std::ostringstream wrapped;
    formatter.FormatCDATA(wrapped, std::string(69, 'd'), false);
    EXPECT_EQ(wrapped.str(), "<![CDATA[\n  " + std::string(69, 'd') + "\n]]>\n");
}

TEST_F(Pretty, CDATALimitCountsTheIndent)
{
    formatter.FormatStartTag(out, "a", XMLWriter::NO_ATTRIBUTES, false);
    formatter.FormatCDATA(out, std::string(66, 'd'), false);
    formatter.FormatCDATA(out, std::string(67, 'e'), false);
    EXPECT_EQ(out.str(), "<a>\n  <![CDATA[" + std::string(66, 'd') + "]]>\n\n  <![CDATA[\n    " +
                             std::string(67, 'e') + "\n  ]]>\n");
}

TEST_F(Pretty, LongPreservedCDATAIsSetApartByEmptyLines)
{
    const std::string text = std::string(60, 'p') + "\n  " + std::string(10, 'q');
    formatter.FormatCDATA(out, text, true);
    EXPECT_EQ(out.str(), "\n\n<![CDATA[" + text + "]]>\n\n");
}

TEST_F(Pretty, CDATAStreamIsCutInto76CharacterLinesWithoutWhiteSpace)
{
    // 200 characters, 180 of them letters.
    std::string input;
    for (int i = 0; i < 200; ++i) input += i % 10 == 9 ? ' ' : static_cast<char>('a' + i % 26);
    input[49] = '\n';
    input[99] = '\t';
    std::string letters;
    for (char c : input)
        if (!std::isspace(static_cast<unsigned char>(c))) letters += c;
    ASSERT_EQ(letters.size(), 180u);
    std::istringstream stream(input);
    formatter.FormatCDATAStream(out, stream, false);
    EXPECT_EQ(out.str(), "\n\n<![CDATA[\n  " + letters.substr(0, 76) + "\n  " + letters.substr(76, 76) + "\n  " +
                             letters.substr(152) + "\n]]>\n\n");
}

TEST_F(Pretty, CDATAStreamOfExactChunksHasNoRemainderLine)
{
    std::istringstream stream(std::string(76, 'k') + " \n" + std::string(76, 'm'));
    formatter.FormatCDATAStream(out, stream, false);
    EXPECT_EQ(out.str(), "\n\n<![CDATA[\n  " + std::string(76, 'k') + "\n  " + std::string(76, 'm') + "\n]]>\n\n");
}

TEST_F(Pretty, CDATAStreamCountsUtf8CharactersAndNeverCutsOne)
{
    // 75 letters and "é" (two bytes) make the first 76 characters; "b" starts the next line.
    std::istringstream stream(std::string(75, 'a') + "\xC3\xA9" "b");
    formatter.FormatCDATAStream(out, stream, false);
    EXPECT_EQ(out.str(), "\n\n<![CDATA[\n  " + std::string(75, 'a') + "\xC3\xA9\n  b\n]]>\n\n");
}

TEST_F(Pretty, PreservedCDATAStreamKeepsItsLines)
{
    std::istringstream stream("first  \n  second");
    formatter.FormatCDATAStream(out, stream, true);
    EXPECT_EQ(out.str(), "\n\n<![CDATA[first  \n  second\n]]>\n\n");
}

TEST_F(Pretty, WideCDATAStreamComesOutAsUtf8)
{
    std::wistringstream chunked(std::wstring(38, L'\u00E9') + L" \t" + std::wstring(40, L'\u20AC'));
    formatter.FormatWideCDATAStream(out, chunked, false);
    std::string e, euro;
    for (int i = 0; i < 38; ++i) e += "\xC3\xA9";
    for (int i = 0; i < 38; ++i) euro += "\xE2\x82\xAC";
    EXPECT_EQ(out.str(), "\n\n<![CDATA[\n  " + e + euro + "\n  \xE2\x82\xAC\xE2\x82\xAC\n]]>\n\n");

    std::ostringstream preserved;
    std::wistringstream lines(L"\u00FC\nx");
    formatter.FormatWideCDATAStream(preserved, lines, true);
    EXPECT_EQ(preserved.str(), "\n\n<![CDATA[\xC3\xBC\nx\n]]>\n\n");
}

// Markup is laid out anew by parsing it; enabled once the parser is in.
TEST(PrettyPrint, MarkupIsLaidOutAnew)
{
    XMLWriter compactWriter(XMLFormatter::CreateCompact());
    std::ostringstream compact;
    WriteExample(compactWriter, compact);
    XMLWriter writer;
    std::ostringstream out;
    out << writer.Markup(compact.str());
    EXPECT_EQ(out.str(), s_sPrettyGolden);
}

TEST(PrettyPrint, MarkupKeepsTheMeaningOfAttributeValuesAndText)
{
    XMLWriter writer;
    std::ostringstream out;
    out << writer.Markup("<a x=\"1 &gt; 0 &amp; &quot;q&quot;\" y='&#65;&unknown;' z=\"it's\">"
                         "  1 &lt; 2 <b/>\n  </a>");
    EXPECT_EQ(out.str(), "<a x=\"1 &gt; 0 &amp; &quot;q&quot;\" y=\"&#65;&unknown;\" z=\"it&apos;s\" >\n"
                         "  1 &lt; 2\n"
                         "  <b/>\n"
                         "</a>\n");
}

TEST(PrettyPrint, MalformedMarkupKeepsWhatCameBeforeTheError)
{
    XMLWriter writer;
    std::ostringstream out;
    out << writer.StartTag("r") << writer.Markup("<a><b>text</b><c") << writer.EndTag();
    EXPECT_EQ(out.str(), "<r>\n"
                         "  <a>\n"
                         "    <b>text</b>\n"
                         "  </r>\n"); // the formatter still counts <a> as open
}

TEST(PrettyPrint, MarkupFromAStreamMatchesMarkupFromText)
{
    const std::string markup = "<?xml version=\"1.0\"?><doc><!--c--><p k=\"v\">x</p><![CDATA[d]]></doc>";
    XMLWriter first;
    std::ostringstream fromText;
    fromText << first.Markup(markup);
    std::istringstream in(markup);
    std::ostringstream fromStream;
    XMLFormatter::CreatePrettyPrint()->FormatMarkupStream(fromStream, in);
    EXPECT_EQ(fromText.str(), fromStream.str());
    EXPECT_EQ(fromText.str(), "<?xml version=\"1.0\" encoding=\"\"?>\n"
                              "<doc>\n"
                              "  <!-- c -->\n"
                              "  <p k=\"v\" >x</p>\n"
                              "\n" // CDATA starts on a fresh line at the indent, also behind a line end
                              "  <![CDATA[d]]>\n"
                              "</doc>\n");
}
