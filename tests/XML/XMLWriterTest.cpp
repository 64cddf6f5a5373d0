// The XML writer: lazy start tags, the tag stack, attributes, escaping, entity references, wide
// text, and the escaping stream filter. Output is checked in the compact style, which adds no
// white space, so that every byte is the writer's.
#include <Infrastructure/QelCore/QelCore.h>
#include <Infrastructure/QelCore/XMLTranscodeFilter.h>

#include "XMLExample.h"

#include <boost/iostreams/filtering_stream.hpp>
#include <gtest/gtest.h>

#include <random>
#include <sstream>

using namespace Qel::Core;

namespace {

class CompactWriter : public testing::Test
{
protected:
    XMLWriter writer{XMLFormatter::CreateCompact()};
    std::ostringstream out;
};

// Gives access to the protected declaration manipulator.
class DeclaringWriter : public XMLWriter
{
public:
    using XMLWriter::StartXMLDocImpl;
    using XMLWriter::XMLWriter;
};

const char* const s_sCompactGolden =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Test><!--A comment--><AnEmptyTag/>"
    "<EmptyTagWithAttribute name=\"value\"/><TagWithAttributes name1=\"value1\" name2=\"value2\">1 &lt; 2"
    "<![CDATA[<CDATA Test>Entity usage: &amp;</CDATA Test>]]></TagWithAttributes>content</Test>";

} // namespace

// ---- the whole sequence ----

TEST_F(CompactWriter, ExampleDocumentIsOneLineWithoutLineEnd)
{
    QelTest::WriteExample(writer, out);
    EXPECT_EQ(out.str(), s_sCompactGolden);
}

TEST_F(CompactWriter, AttributeManipulatorsGiveTheSameDocument)
{
    XMLAttributeMap<std::string> attribute;
    attribute["name"] = "value";
    out << writer.StartXMLDoc() << writer.StartTag("Test") << writer.Comment("A comment", false)
        << writer.Tag("AnEmptyTag") << writer.Tag("EmptyTagWithAttribute", attribute, "")
        << writer.StartTag("TagWithAttributes") << writer.Attribute("name1", "value1")
        << writer.Attribute("name2", "value2") << writer.Text("1 < 2")
        << writer.CDATASection("<CDATA Test>Entity usage: &amp;</CDATA Test>", false) << writer.EndTag()
        << writer.Text("content") << writer.EndAllTags() << writer.EndXMLDoc();
    EXPECT_EQ(out.str(), s_sCompactGolden);
}

// ---- lazy start tags and the tag stack ----

TEST_F(CompactWriter, StartTagStaysPendingUntilSomethingIsWritten)
{
    out << writer.StartTag("a");
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(writer.GetOpenTagCount(), 1u);
    out << writer.StartTag("b");
    EXPECT_EQ(out.str(), "<a>");
    out << writer.Text("");
    EXPECT_EQ(out.str(), "<a><b>");
}

TEST_F(CompactWriter, ElementWithoutContentIsNeverShortForm)
{
    out << writer.StartTag("a") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a></a>");
    out << writer.Tag("b");
    EXPECT_EQ(out.str(), "<a></a><b/>");
}

TEST_F(CompactWriter, TagWithContentIsStartTextEnd)
{
    XMLAttributeMap<std::string> attributes;
    attributes["k"] = "v&w";
    out << writer.StartTag("outer") << writer.Tag("a", attributes, "x < y") << writer.EndTag();
    EXPECT_EQ(out.str(), "<outer><a k=\"v&amp;w\">x &lt; y</a></outer>");
}

TEST_F(CompactWriter, EndTagOnEmptyStackWritesNothing)
{
    out << writer.EndTag() << writer.EndAllTags() << writer.EndXMLDoc();
    EXPECT_EQ(out.str(), "");
    EXPECT_TRUE(out.good());
}

TEST_F(CompactWriter, EndAllTagsClosesInnermostFirst)
{
    out << writer.StartTag("a") << writer.StartTag("b") << writer.StartTag("c") << writer.EndAllTags();
    EXPECT_EQ(out.str(), "<a><b><c></c></b></a>");
    EXPECT_EQ(writer.GetOpenTagCount(), 0u);
}

TEST_F(CompactWriter, StartXMLDocClosesOpenTagsFirst)
{
    out << writer.StartXMLDoc() << writer.StartTag("a") << writer.StartTag("b") << writer.Text("x")
        << writer.StartXMLDoc() << writer.Tag("c");
    EXPECT_EQ(out.str(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a><b>x</b></a>"
                         "<?xml version=\"1.0\" encoding=\"UTF-8\"?><c/>");
}

TEST(XMLWriter, DeclarationWithStandaloneAndWithoutClosingTags)
{
    DeclaringWriter writer(XMLFormatter::CreateCompact());
    std::ostringstream out;
    out << writer.StartTag("a") << writer.Text("t") << writer.StartXMLDocImpl("1.1", "ISO-8859-1", true, false)
        << writer.EndTag();
    EXPECT_EQ(out.str(), "<a>t<?xml version=\"1.1\" encoding=\"ISO-8859-1\" standalone=\"yes\"?></a>");
}

TEST_F(CompactWriter, StyleSheetDoesNotWriteThePendingTag)
{
    out << writer.StartTag("a") << writer.StyleSheet("s.xsl", "text/xsl") << writer.EndTag();
    EXPECT_EQ(out.str(), "<?xml-stylesheet type=\"text/xsl\"\nhref=\"s.xsl\"?><a></a>");
}

TEST_F(CompactWriter, ManipulatorActsOnlyWhenAppliedAndEachTime)
{
    XMLWriter::Manipulator start = writer.StartTag("a");
    XMLWriter::Manipulator text = writer.Text("t");
    XMLWriter::Manipulator end = writer.EndTag();
    EXPECT_EQ(writer.GetOpenTagCount(), 0u);
    out << start << start << text << text << end << end << end;
    EXPECT_EQ(out.str(), "<a><a>tt</a></a>");
}

// ---- attributes ----

TEST_F(CompactWriter, AttributesGoToThePendingTag)
{
    out << writer.StartTag("a") << writer.Attribute("x", "1 < 2") << writer.Attribute("y", "2") << writer.Text("t")
        << writer.Attribute("z", "late") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a x=\"1 &lt; 2\" y=\"2\">t</a>");
}

TEST_F(CompactWriter, AttributeSetTwiceKeepsFirstPlaceAndLastValue)
{
    out << writer.StartTag("a") << writer.Attribute("x", "1") << writer.Attribute("y", "2")
        << writer.Attribute("x", "3") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a x=\"3\" y=\"2\"></a>");
}

TEST_F(CompactWriter, AttributeWithoutOpenTagDoesNothing)
{
    out << writer.Attribute("x", "1") << writer.Tag("a");
    EXPECT_EQ(out.str(), "<a/>");
}

TEST_F(CompactWriter, AttributeValueWithReferencePartIsWrittenAsBuilt)
{
    XMLAttributeValue<std::string> value("a<");
    value.AppendReference("&amp;");
    value.Append("b\"", true);
    out << writer.StartTag("e") << writer.Attribute("v", value) << writer.EndTag();
    EXPECT_EQ(out.str(), "<e v=\"a&lt;&amp;b&quot;\"></e>");
}

// ---- escaping, entity references and unescaped items ----

TEST_F(CompactWriter, TextEscapesTheFiveCharactersWithoutLookingAhead)
{
    out << writer.StartTag("a") << writer.Text("<>&'\" &amp;") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a>&lt;&gt;&amp;&apos;&quot; &amp;amp;</a>");
}

TEST_F(CompactWriter, EntityReferenceIsNormalised)
{
    out << writer.StartTag("a") << writer.EntityReference("lt") << writer.EntityReference("&lt;")
        << writer.EntityReference("#65") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a>&lt;&lt;&#65;</a>");
}

TEST_F(CompactWriter, CommentCDATAAndMarkupAreNotEscaped)
{
    out << writer.StartTag("a") << writer.Comment("a<b&c") << writer.CDATASection("x<&>y")
        << writer.Markup("<m k='1'>&amp;</m>") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a><!--a<b&c--><![CDATA[x<&>y]]><m k='1'>&amp;</m></a>");
}

TEST_F(CompactWriter, ControlCharactersAndInvalidUtf8BecomeVisibleCharacters)
{
    // 0x01 -> U+2401, DEL -> U+2421, a stray byte 0xFF -> its Latin-1 letter U+00FF, a cut sequence
    // 0xC3 -> U+00C3; tab, line feed, carriage return and valid UTF-8 ("é") stay.
    const std::string bad("a\x01" "b\x7F" "c\xFF" "d\t\n\r\xC3\xA9 \xC3", 14);
    const std::string good = "a\xE2\x90\x81" "b\xE2\x90\xA1" "c\xC3\xBF" "d\t\n\r\xC3\xA9 \xC3\x83";
    out << writer.StartTag("a") << writer.Attribute("v", bad) << writer.Text(bad) << writer.EndTag();
    EXPECT_EQ(out.str(), "<a v=\"" + good + "\">" + good + "</a>");
}

// ---- wide and C-string text ----

TEST_F(CompactWriter, WideTextComesOutAsUtf8)
{
    out << writer.StartTag(L"w\u00E9") << writer.Text(L"\u00E9\u20AC\U0001F600<") << writer.Tag(L"t", XMLWriter::NO_ATTRIBUTES, L"x")
        << writer.Comment(L"\u00FC") << writer.CDATASection(std::wstring(L"\u03A9")) << writer.EndTag();
    EXPECT_EQ(out.str(), "<w\xC3\xA9>\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80&lt;<t>x</t><!--\xC3\xBC-->"
                         "<![CDATA[\xCE\xA9]]></w\xC3\xA9>");
}

TEST_F(CompactWriter, WideAsciiEqualsNarrowAndNullCStringIsEmpty)
{
    std::ostringstream narrow;
    XMLWriter other(XMLFormatter::CreateCompact());
    const char* none = nullptr;
    out << writer.StartTag(std::wstring(L"a")) << writer.Text(L"x & y") << writer.Text(none) << writer.EndTag();
    narrow << other.StartTag(std::string("a")) << other.Text("x & y") << other.EndTag();
    EXPECT_EQ(out.str(), narrow.str());
}

// ---- streams ----

TEST_F(CompactWriter, TextStreamIsEscapedLikeText)
{
    std::istringstream text("1 < 2 & \"q\"\nline\x01");
    out << writer.StartTag("a") << writer.Text(text) << writer.EndTag();
    EXPECT_EQ(out.str(), "<a>1 &lt; 2 &amp; &quot;q&quot;\nline\xE2\x90\x81</a>");
}

TEST_F(CompactWriter, CDATAStreamsAreWrittenWhole)
{
    std::istringstream narrow("a <b>\n c");
    std::wistringstream wide(L"\u00E9 x");
    std::istringstream empty("");
    out << writer.StartTag("a") << writer.CDATASection(narrow) << writer.CDATASection(wide, true)
        << writer.CDATASection(empty) << writer.EndTag();
    EXPECT_EQ(out.str(), "<a><![CDATA[a <b>\n c]]><![CDATA[\xC3\xA9 x]]><![CDATA[]]></a>");
    EXPECT_FALSE(out.fail());
}

// ---- copy and reset ----

TEST(XMLWriter, CopySharesFormatterAndCopiesTagStack)
{
    XMLWriter writer(XMLFormatter::CreateCompact());
    std::ostringstream out;
    out << writer.StartTag("a") << writer.StartTag("b");
    XMLWriter copy(writer);
    EXPECT_EQ(copy.GetFormatter(), writer.GetFormatter());
    std::ostringstream copied;
    copied << copy.EndAllTags();
    EXPECT_EQ(copied.str(), "<b></b></a>");
    EXPECT_EQ(writer.GetOpenTagCount(), 2u);
    out << writer.EndTag();
    EXPECT_EQ(out.str(), "<a><b></b>");

    XMLWriter assigned;
    assigned = writer;
    std::ostringstream assignedOut;
    assignedOut << assigned.EndAllTags();
    EXPECT_EQ(assignedOut.str(), "</a>");
}

TEST(XMLWriter, ResetForgetsOpenTagsWithoutWriting)
{
    auto compact = XMLFormatter::CreateCompact();
    XMLWriter writer(compact);
    std::ostringstream out;
    out << writer.StartTag("a") << writer.Text("t");
    writer.Reset(compact);
    EXPECT_EQ(writer.GetOpenTagCount(), 0u);
    EXPECT_EQ(writer.GetFormatter(), compact);
    out << writer.EndTag() << writer.Tag("b");
    EXPECT_EQ(out.str(), "<a>t<b/>");

    writer.Reset();
    EXPECT_NE(writer.GetFormatter(), compact);
    std::ostringstream pretty;
    pretty << writer.StartTag("a") << writer.Tag("b") << writer.EndTag();
    EXPECT_EQ(pretty.str(), "<a>\n  <b/>\n</a>\n");
}

TEST(XMLWriter, DefaultWriterPrettyPrints)
{
    XMLWriter writer;
    std::ostringstream out;
    out << writer.StartTag("a") << writer.Tag("b", XMLWriter::NO_ATTRIBUTES, "t") << writer.EndTag();
    EXPECT_EQ(out.str(), "<a>\n  <b>t</b>\n</a>\n");
}

// ---- the escaping filter ----

namespace {

// A source that delivers its text and answers "would block" (a read of 0) at the given positions,
// once each.
class StutteringSource
{
public:
    using char_type = char;
    using category = boost::iostreams::source_tag;

    StutteringSource(std::string text, std::vector<std::size_t> stalls)
        : m_sText(std::move(text)), m_Stalls(std::move(stalls))
    {
    }
    std::streamsize read(char* s, std::streamsize n)
    {
        if (m_iNext < m_Stalls.size() && m_Stalls[m_iNext] == m_iPos) {
            ++m_iNext;
            return 0;
        }
        if (m_iPos == m_sText.size()) return -1;
        std::streamsize count = 0;
        while (count < n && m_iPos < m_sText.size()) s[count++] = m_sText[m_iPos++];
        return count;
    }

private:
    std::string m_sText;
    std::vector<std::size_t> m_Stalls;
    std::size_t m_iPos = 0;
    std::size_t m_iNext = 0;
};

std::string Filtered(const std::string& text)
{
    std::istringstream source(text);
    boost::iostreams::filtering_istream in;
    in.push(XMLTranscodeFilter<std::string>());
    in.push(source);
    std::ostringstream out;
    char c;
    while (in.get(c)) out.put(c);
    return out.str();
}

} // namespace

TEST(XMLTranscodeFilter, GivesTheBytesOfStringEscaping)
{
    const std::string samples[] = {"",
                                   "plain",
                                   "<>&'\"",
                                   "&amp;",
                                   std::string("ctl\x01\x1F\x7F", 6),
                                   "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80",
                                   "bad \xFF\xFE \xC3",
                                   "\xC3<",
                                   "\xE2\x82",
                                   "\xED\xA0\x80 surrogate",
                                   "\xEF\xBF\xBE nonchar",
                                   "\xF4\x90\x80\x80 beyond",
                                   "\xE0\x80\x80 overlong",
                                   std::string("\x00z", 2)};
    for (const std::string& sample : samples) EXPECT_EQ(Filtered(sample), XMLEscape(sample)) << sample;

    // Random byte strings, biased to the interesting bytes.
    std::mt19937 random(20240611);
    const std::string pool = std::string("<>&'\"\t\n\r\x01\x7F\x80\xBF\xC3\xA9\xE2\x82\xAC\xF0\x9F\xED\xFF", 22) + "ab ";
    for (int round = 0; round < 500; ++round) {
        std::string text;
        std::size_t length = random() % 40;
        for (std::size_t i = 0; i < length; ++i) text += pool[random() % pool.size()];
        ASSERT_EQ(Filtered(text), XMLEscape(text)) << testing::PrintToString(text);
    }
}

TEST(XMLTranscodeFilter, ReplacementSpansReadsAndWouldBlockPassesThrough)
{
    XMLTranscodeFilter<std::string> filter;
    StutteringSource source("a<b\xC3\xA9", {2, 4});
    char buffer[8];
    // "a" and the "&" of "&lt;" fill the buffer of 2.
    ASSERT_EQ(filter.read(source, buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "a&");
    ASSERT_EQ(filter.read(source, buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "lt");
    EXPECT_EQ(filter.read(source, buffer, 1), 1);
    EXPECT_EQ(buffer[0], ';');
    // The source stalls before "b": nothing now, but not the end.
    EXPECT_EQ(filter.read(source, buffer, 8), 0);
    // "b", then the stall in the middle of the two bytes of "é".
    EXPECT_EQ(filter.read(source, buffer, 8), 1);
    EXPECT_EQ(buffer[0], 'b');
    ASSERT_EQ(filter.read(source, buffer, 8), 2);
    EXPECT_EQ(std::string(buffer, 2), "\xC3\xA9");
    EXPECT_EQ(filter.read(source, buffer, 8), -1);
}

TEST(XMLTranscodeFilter, EndGivesCountFirstThenMinusOne)
{
    XMLTranscodeFilter<std::string> filter;
    StutteringSource source("&", {});
    char buffer[16];
    ASSERT_EQ(filter.read(source, buffer, 16), 5);
    EXPECT_EQ(std::string(buffer, 5), "&amp;");
    EXPECT_EQ(filter.read(source, buffer, 16), -1);
}

TEST(XMLTranscodeFilter, WideTextIsEscapedLikeWideStrings)
{
    const std::wstring text = L"x<\u00E9>&\x01\"'\u20AC";
    std::wistringstream source(text);
    boost::iostreams::filtering_wistream in;
    in.push(XMLTranscodeFilter<std::wstring>());
    in.push(source);
    std::wstring result{std::istreambuf_iterator<wchar_t>(in), std::istreambuf_iterator<wchar_t>()};
    EXPECT_EQ(result, XMLEscape(text));
    EXPECT_EQ(result, L"x&lt;\u00E9&gt;&amp;\u2401&quot;&apos;\u20AC");
}
