// The XML parser: callbacks and their order, accepted and rejected documents, the input forms,
// state between parses, nesting limits, locks and threads.
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/Thread.h"
#include "Infrastructure/QelCore/XMLParser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <list>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <string>
#include <vector>

using namespace Qel::Core;

namespace {

// Records every callback as one line: "D version|encoding|standalone", "S name", "A name=value"
// (with "{ref}" around reference parts), "E name 0/1", "T text", "C comment", "X cdata".
class Recorder : public XMLParseHandler<XMLStringPolicy<std::string>>
{
public:
    std::vector<std::string> events;

    void StartDocument(const std::string& version, const std::string& encoding, bool standalone)
    {
        events.push_back("D " + version + "|" + encoding + "|" + (standalone ? "1" : "0"));
    }
    void StartTag(const std::string& name) { events.push_back("S " + name); }
    void Attribute(const std::string& name, const XMLAttributeValue<std::string>& value)
    {
        std::string text;
        for (const auto& part : value.GetParts()) text += part.reference ? "{" + part.text + "}" : part.text;
        events.push_back("A " + name + "=" + text);
    }
    void EndTag(const std::string& name, bool empty) { events.push_back("E " + name + (empty ? " 1" : " 0")); }
    void Text(const std::string& text) { events.push_back("T " + text); }
    void Comment(const std::string& text) { events.push_back("C " + text); }
    void CDATA(const std::string& text) override { events.push_back("X " + text); }
};

using Events = std::vector<std::string>;

struct Outcome
{
    bool ok;
    Events events;
};

Outcome ParseText(const std::string& text)
{
    XMLParser<Recorder> parser;
    bool ok = parser.Parse(text);
    return {ok, parser.events};
}

Outcome ParseAsStream(const std::string& text)
{
    XMLParser<Recorder> parser;
    std::istringstream stream(text);
    bool ok = parser.Parse(stream);
    return {ok, parser.events};
}

// Parses from memory and from a stream; both must agree.
Outcome Parse(const std::string& text)
{
    Outcome memory = ParseText(text);
    Outcome stream = ParseAsStream(text);
    EXPECT_EQ(memory.ok, stream.ok) << text;
    EXPECT_EQ(memory.events, stream.events) << text;
    return memory;
}

bool Accepts(const std::string& text)
{
    return Parse(text).ok;
}

std::string Groups(std::size_t depth)
{
    std::string text = "<!DOCTYPE a [<!ELEMENT a ";
    for (std::size_t i = 0; i < depth; ++i) text += "(";
    text += "b";
    for (std::size_t i = 0; i < depth; ++i) text += ")";
    return text + ">]><a/>";
}

std::string Nested(std::size_t depth)
{
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += "<a>";
    for (std::size_t i = 0; i < depth; ++i) text += "</a>";
    return text;
}

} // namespace

TEST(XMLParserCallbacks, ComeInDocumentOrder)
{
    Outcome out = Parse("<?xml version=\"1.0\"?><a x=\"1\">t<!--c--><b/></a>");
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.events, (Events{"D 1.0||0", "S a", "A x=1", "T t", "C c", "S b", "E b 1", "E a 0"}));
}

TEST(XMLParserCallbacks, EmptyElementAndNoDeclaration)
{
    Outcome out = Parse("<a/>");
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.events, (Events{"S a", "E a 1"}));
}

TEST(XMLParserCallbacks, DeclarationFields)
{
    EXPECT_EQ(Parse("<?xml version='1.1' encoding='ISO-8859-1' standalone='yes'?><a/>").events.front(),
              "D 1.1|ISO-8859-1|1");
    EXPECT_EQ(Parse("<?xml version=\"1.0\" standalone=\"no\" ?>\n<a/>\n").events.front(), "D 1.0||0");
}

TEST(XMLParserCallbacks, AttributesInOrderAndEmptyValue)
{
    EXPECT_EQ(Parse("<a b=\"1\" c='2'/>").events, (Events{"S a", "A b=1", "A c=2", "E a 1"}));
    EXPECT_EQ(Parse("<a b=\"1\" c=\"\"/>").events, (Events{"S a", "A b=1", "A c=", "E a 1"}));
    EXPECT_EQ(Parse("<a b = \"1\"\n\tc=\"2\" ></a>").events, (Events{"S a", "A b=1", "A c=2", "E a 0"}));
}

TEST(XMLParserCallbacks, AttributeValuesCarryTheirMeaning)
{
    EXPECT_EQ(Parse("<a b=\"x&lt;y\"/>").events[1], "A b=x<y");
    EXPECT_EQ(Parse("<a b=\"a>b &amp; 'c'\"/>").events[1], "A b=a>b & 'c'");
    EXPECT_EQ(Parse("<a b='say \"hi\"'/>").events[1], "A b=say \"hi\"");
    // References that are not replaced stay reference parts.
    EXPECT_EQ(Parse("<a b=\"&unknown;\"/>").events[1], "A b={&unknown;}");
    EXPECT_EQ(Parse("<a b=\"x&#65;y&#x42;\"/>").events[1], "A b=x{&#65;}y{&#x42;}");
    // Tabs and line feeds stay as they are.
    EXPECT_EQ(Parse("<a b=\"1\t2\n3\"/>").events[1], "A b=1\t2\n3");
}

TEST(XMLParserCallbacks, AttributeValueStringForm)
{
    struct Values : XMLParseHandler<XMLStringPolicy<std::string>>
    {
        std::vector<XMLAttributeValue<std::string>> values;
        void Attribute(const std::string&, const XMLAttributeValue<std::string>& value) { values.push_back(value); }
    };
    XMLParser<Values> parser;
    ASSERT_TRUE(parser.Parse(std::string("<a b=\"x&lt;y\" c=\"&unknown;\" d=\"\"/>")));
    ASSERT_EQ(parser.values.size(), 3u);
    EXPECT_EQ(parser.values[0].ToString(), "x<y");
    EXPECT_EQ(parser.values[1].ToString(), "&unknown;");
    ASSERT_EQ(parser.values[1].GetParts().size(), 1u);
    EXPECT_TRUE(parser.values[1].GetParts()[0].reference);
    EXPECT_TRUE(parser.values[2].IsEmpty());
}

TEST(XMLParserCallbacks, TextRunsAndReferences)
{
    EXPECT_EQ(Parse("<a>x&lt;y</a>").events, (Events{"S a", "T x<y", "E a 0"}));
    EXPECT_EQ(Parse("<a>x&unknown;y</a>").events, (Events{"S a", "T x", "T y", "E a 0"}));
    EXPECT_EQ(Parse("<a>&#65;</a>").events, (Events{"S a", "T &#65;", "E a 0"}));
    // White space is reported as it stands; CR LF is not changed.
    EXPECT_EQ(Parse("<a>\r\n <b/> </a>").events, (Events{"S a", "T \r\n ", "S b", "E b 1", "T  ", "E a 0"}));
    // A processing instruction does not end a run of text.
    EXPECT_EQ(Parse("<a>x<?php echo 1?>y</a>").events, (Events{"S a", "T xy", "E a 0"}));
    // "]" and "]]" on their own are text.
    EXPECT_EQ(Parse("<a>]] ]&gt;</a>").events, (Events{"S a", "T ]] ]>", "E a 0"}));
}

TEST(XMLParserCallbacks, CDataCommentsAndProcessingInstructions)
{
    EXPECT_EQ(Parse("<a><![CDATA[<b>&amp;]]></a>").events, (Events{"S a", "X <b>&amp;", "E a 0"}));
    EXPECT_EQ(Parse("<a>t<![CDATA[]]>u</a>").events, (Events{"S a", "T t", "X ", "T u", "E a 0"}));
    EXPECT_EQ(Parse("<!--before--><a><!-- in - side --></a><!--after-->").events,
              (Events{"C before", "S a", "C  in - side ", "E a 0", "C after"}));
    EXPECT_EQ(Parse("<?xml-stylesheet type=\"text/xsl\" href=\"a.xsl\"?><a><?pi?></a>").events,
              (Events{"S a", "E a 0"}));
}

TEST(XMLParserCallbacks, NonAsciiBytes)
{
    // UTF-8 names, text and values pass; so do control bytes in text (the parser does not decode).
    EXPECT_EQ(Parse("<gr\xC3\xB6\xC3\x9F" "e w\xC3\xA4rt=\"\xE2\x82\xAC\">\xC3\xA9\x01</gr\xC3\xB6\xC3\x9F" "e>").events,
              (Events{"S gr\xC3\xB6\xC3\x9F" "e", "A w\xC3\xA4rt=\xE2\x82\xAC", "T \xC3\xA9\x01",
                      "E gr\xC3\xB6\xC3\x9F" "e 0"}));
    EXPECT_TRUE(Accepts("<_:a-1.b/>"));
    EXPECT_FALSE(Accepts("<1a/>"));
    EXPECT_FALSE(Accepts("<-a/>"));
}

TEST(XMLParserCallbacks, EndTagsAreNotMatched)
{
    Outcome out = Parse("<a></b>");
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.events, (Events{"S a", "E b 0"}));
}

TEST(XMLParserDoctype, InternalSubsetIsCheckedAndForgotten)
{
    Outcome out = Parse("<!DOCTYPE a [<!ENTITY e \"v\">]><a>&e;</a>");
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.events, (Events{"S a", "E a 0"}));

    const char* subset = "<?xml version=\"1.0\"?>\n"
                         "<!DOCTYPE doc SYSTEM \"doc.dtd\" [\n"
                         "  <!-- declarations -->\n"
                         "  <!ELEMENT doc (head?, (p | list)*, foot+)>\n"
                         "  <!ELEMENT head (#PCDATA)>\n"
                         "  <!ELEMENT p (#PCDATA | em | b)*>\n"
                         "  <!ELEMENT list ((item, note?) | sep)+>\n"
                         "  <!ELEMENT foot EMPTY>\n"
                         "  <!ELEMENT any ANY>\n"
                         "  <!ATTLIST doc id ID #REQUIRED ref IDREF #IMPLIED refs IDREFS #IMPLIED\n"
                         "            kind (a|b|c) \"a\" n NMTOKEN #FIXED 'x' ns NMTOKENS #IMPLIED\n"
                         "            e ENTITY #IMPLIED es ENTITIES #IMPLIED t CDATA \"&lt;&#65;\"\n"
                         "            f NOTATION (gif | png) #IMPLIED>\n"
                         "  <!ENTITY % pe \"<!ENTITY x 'y'>\">\n"
                         "  %pe;\n"
                         "  <!ENTITY ext SYSTEM \"x.xml\">\n"
                         "  <!ENTITY pic PUBLIC \"-//A//B//EN\" 'pic.gif' NDATA gif>\n"
                         "  <!NOTATION gif PUBLIC \"GIF\">\n"
                         "  <!NOTATION png SYSTEM \"png\">\n"
                         "  <?pi in subset?>\n"
                         "]>\n"
                         "<doc id=\"d\"/>";
    out = Parse(subset);
    EXPECT_TRUE(out.ok);
    EXPECT_EQ(out.events, (Events{"D 1.0||0", "S doc", "A id=d", "E doc 1"}));
}

TEST(XMLParserDoctype, MalformedDeclarationsFail)
{
    EXPECT_FALSE(Accepts("<!DOCTYPE a [<!ELEMENT a (b|c,d)>]><a/>")); // choice and sequence mixed
    EXPECT_FALSE(Accepts("<!DOCTYPE a [<!ELEMENT a>]><a/>"));
    EXPECT_FALSE(Accepts("<!DOCTYPE a [<!ATTLIST a b WORD #IMPLIED>]><a/>"));
    EXPECT_FALSE(Accepts("<!DOCTYPE a [<!ENTITY e v>]><a/>"));
    EXPECT_FALSE(Accepts("<!DOCTYPE a PUBLIC \"{bad}\" \"x\"><a/>"));
    EXPECT_FALSE(Accepts("<!DOCTYPE a><!DOCTYPE a><a/>"));
    EXPECT_FALSE(Accepts("<a/><!DOCTYPE a>"));
}

TEST(XMLParserRejects, MalformedDocuments)
{
    const char* cases[] = {
        "",                          // empty input
        "   ",                       // no element
        "<a>",                       // ends inside an element
        "<a>text",                   //
        "<a",                        //
        "<a b=\"1\"c=\"2\"/>",       // no blank between attributes
        "<a b=\"1\" b/>",            // attribute without value
        "<a b=1/>",                  // unquoted value
        "<a b=\"<\"/>",              // '<' in a value
        "<a b=\"&\"/>",              // bare ampersand in a value
        "<a>&</a>",                  // bare ampersand in text
        "<a>&#;</a>",                // character reference without digits
        "<a>&#x;</a>",               //
        "<a>x]]>y</a>",              // "]]>" in text
        "<a><!--a--b--></a>",        // "--" in a comment
        "<a><!-- x ---></a>",        // comment ending in "-"
        "<a><?xml x?></a>",          // reserved target in content
        "<a><?XmL x?></a>",          //
        "<a><![CDATA[x]]</a>",       // CDATA without end
        "<a/><b/>",                  // second root
        "x<a/>",                     // text before the root
        "<a/>x",                     // text after the root
        " <?xml version=\"1.0\"?><a/>",  // declaration not at the start
        "\xEF\xBB\xBF<a/>",          // byte-order mark
        "<?xml encoding=\"UTF-8\"?><a/>", // declaration without version
        "<?xml version=\"1.0\" standalone=\"maybe\"?><a/>",
        "<?xml version=\"1.0\" encoding=\"8bit\"?><a/>",
        "<a></a >x",                 //
        "<a>\x01<!--\x01--></a>",    // control byte in a comment
        "<a><![CDATA[\x02]]></a>",   // control byte in CDATA
        "< a/>",                     // blank before the name
        "<a/ >",                     //
    };
    for (const char* text : cases) EXPECT_FALSE(Accepts(text)) << "accepted: " << text;
}

TEST(XMLParserRejects, CallbacksBeforeTheErrorStand)
{
    Outcome out = Parse("<a/><b/>");
    EXPECT_FALSE(out.ok);
    EXPECT_EQ(out.events, (Events{"S a", "E a 1"}));

    out = Parse("x<a/>");
    EXPECT_FALSE(out.ok);
    EXPECT_TRUE(out.events.empty());
}

TEST(XMLParserInput, StreamsFilesAndIteratorRanges)
{
    const std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r><i n=\"1\">one</i><i n=\"2\"/></r>\n";
    const Events expected = ParseText(text).events;
    ASSERT_EQ(expected.size(), 10u);

    std::string path = ::testing::TempDir() + "qel_parser_input.xml";
    {
        std::ofstream out(path, std::ios::binary);
        out << text;
    }
    XMLParser<Recorder> fromFile;
    EXPECT_TRUE(fromFile.Parse(PathName(path, UNIX)));
    EXPECT_EQ(fromFile.events, expected);
    std::remove(path.c_str());

    XMLParser<Recorder> missing;
    EXPECT_FALSE(missing.Parse(PathName(path, UNIX)));
    EXPECT_TRUE(missing.events.empty());

    XMLParser<Recorder> fromPointers;
    EXPECT_TRUE(fromPointers.Parse(text.data(), text.data() + text.size()));
    EXPECT_EQ(fromPointers.events, expected);

    std::list<char> chars(text.begin(), text.end()); // not contiguous: read as a stream
    XMLParser<Recorder> fromList;
    EXPECT_TRUE(fromList.Parse(chars.begin(), chars.end()));
    EXPECT_EQ(fromList.events, expected);

    std::istringstream stream(text);
    XMLParser<Recorder> fromStreamIterators;
    EXPECT_TRUE(fromStreamIterators.Parse(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()));
    EXPECT_EQ(fromStreamIterators.events, expected);

    std::istream unreadable(nullptr);
    XMLParser<Recorder> fromNothing;
    EXPECT_FALSE(fromNothing.Parse(unreadable));
}

TEST(XMLParserState, NothingLeaksFromOneParseIntoTheNext)
{
    XMLParser<Recorder> parser;
    ASSERT_TRUE(parser.Parse(std::string("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?><a/>")));
    parser.events.clear();
    ASSERT_TRUE(parser.Parse(std::string("<?xml version=\"1.1\"?><a/>")));
    EXPECT_EQ(parser.events.front(), "D 1.1||0");

    // A failed parse leaves text pending; the next parse does not report it.
    parser.events.clear();
    EXPECT_FALSE(parser.Parse(std::string("<a>pending")));
    EXPECT_EQ(parser.events, (Events{"S a"}));
    parser.events.clear();
    ASSERT_TRUE(parser.Parse(std::string("<b><c/></b>")));
    EXPECT_EQ(parser.events, (Events{"S b", "S c", "E c 1", "E b 0"}));

    // Neither does a half-read attribute value.
    parser.events.clear();
    EXPECT_FALSE(parser.Parse(std::string("<a x=\"half")));
    parser.events.clear();
    ASSERT_TRUE(parser.Parse(std::string("<a y=\"\"/>")));
    EXPECT_EQ(parser.events, (Events{"S a", "A y=", "E a 1"}));
}

TEST(XMLParserState, HandlerExceptionsPassThroughAndTheParserGoesOn)
{
    struct Thrower : Recorder
    {
        bool armed = true;
        void StartTag(const std::string& name)
        {
            if (armed && name == "boom") throw std::runtime_error("handler");
            Recorder::StartTag(name);
        }
    };
    XMLParser<Thrower> parser;
    EXPECT_THROW(parser.Parse(std::string("<a>text<boom/></a>")), std::runtime_error);
    parser.events.clear();
    parser.armed = false;
    EXPECT_TRUE(parser.Parse(std::string("<boom/>")));
    EXPECT_EQ(parser.events, (Events{"S boom", "E boom 1"}));
}

TEST(XMLParserLimits, NestingUpToTheLimitPassesDeeperFails)
{
    EXPECT_TRUE(ParseText(Nested(XMLParserNestingLimit)).ok);
    EXPECT_FALSE(ParseText(Nested(XMLParserNestingLimit + 1)).ok);
    EXPECT_FALSE(ParseAsStream(Nested(XMLParserNestingLimit + 1)).ok);
    // An element one level too deep fails before its start tag is reported, empty or not.
    std::string open;
    for (std::size_t i = 0; i < XMLParserNestingLimit; ++i) open += "<a>";
    for (const char* deepest : {"<b/>", "<b x=\"1\">"}) {
        Outcome out = ParseText(open + deepest);
        EXPECT_FALSE(out.ok);
        EXPECT_EQ(out.events.size(), XMLParserNestingLimit);
        EXPECT_EQ(out.events.back(), "S a");
    }
    // Nested groups in an element declaration have a limit of their own. Each group is read once,
    // not once for each of the choice and sequence forms (which would take 2^64 steps here).
    EXPECT_TRUE(ParseText(Groups(XMLParserGroupNestingLimit)).ok);
    EXPECT_FALSE(ParseText(Groups(XMLParserGroupNestingLimit + 1)).ok);
    std::string deep = "<!DOCTYPE a [<!ELEMENT a " + std::string(100000, '(') + ">]><a/>";
    EXPECT_FALSE(ParseText(deep).ok);
}

TEST(XMLParserLimits, DeepInputEndsTheParseNotTheStackOfASmallThread)
{
    // Threads made by the library have 1 MiB stacks.
    struct DeepParse : Task
    {
        int Run(TaskDirective&) override
        {
            XMLParser<Recorder> memory;
            XMLParser<Recorder> stream;
            std::string text(200000, '<');
            std::istringstream in(Nested(XMLParserNestingLimit));
            std::istringstream groups(Groups(XMLParserGroupNestingLimit));
            bool limitPasses = stream.Parse(in) && stream.Parse(groups);
            bool deepFails = !memory.Parse(Nested(100000)) && !memory.Parse(text);
            return limitPasses && deepFails ? 1 : 0;
        }
    };
    auto thread = Thread::Create("XMLDeepParse");
    ASSERT_TRUE(thread->Start(std::make_shared<DeepParse>(), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_EQ(thread->GetResult(), 1);
}

TEST(XMLParserThreads, TheParseLockIsHeldForTheWholeParse)
{
    static Mutex s_ParseMutex;
    struct Locked : XMLParseHandler<XMLStringPolicy<std::string>>
    {
        bool heldInside = false;
        std::shared_ptr<Lock> GetParseLock() override { return std::make_shared<Lock>(s_ParseMutex); }
        void StartTag(const std::string&)
        {
            std::atomic<bool> free{true};
            std::thread other([&] { free = s_ParseMutex.TryLock(); if (free) s_ParseMutex.Unlock(); });
            other.join();
            heldInside = !free;
        }
    };
    XMLParser<Locked> parser;
    EXPECT_TRUE(parser.Parse(std::string("<a/>")));
    EXPECT_TRUE(parser.heldInside);
    EXPECT_TRUE(s_ParseMutex.TryLock()); // released after the parse
    s_ParseMutex.Unlock();
}

TEST(XMLParserThreads, ParsersOnSeveralThreadsShareNoState)
{
    std::vector<std::string> documents;
    for (int d = 0; d < 4; ++d) {
        std::string text = "<?xml version=\"1.0\"?><doc n=\"" + std::to_string(d) + "\">";
        for (int i = 0; i < 200; ++i) {
            text += "<item id=\"" + std::to_string(d * 1000 + i) + "\" v=\"x&lt;" + std::to_string(i) + "\">t" +
                std::to_string(i) + "&amp;<!--c" + std::to_string(d) + "--><![CDATA[" + std::to_string(d) +
                "]]></item>";
        }
        text += "</doc>";
        documents.push_back(text);
    }
    std::vector<Events> expected;
    for (const std::string& text : documents) expected.push_back(ParseText(text).events);

    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round) {
                int d = (t + round) % 4;
                Outcome out = round % 2 ? ParseText(documents[d]) : ParseAsStream(documents[d]);
                if (!out.ok || out.events != expected[d]) ++mismatches;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}
