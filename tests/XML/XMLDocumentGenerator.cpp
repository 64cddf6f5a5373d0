// Writes XML documents through the writer, in the compact and the pretty-print style, into the
// folder given as the only argument, for an outside check of well-formedness (xmllint).
//
// The documents: the writer's example document, an alert, and ~200 random trees from a fixed seed
// that mix the five special characters, control characters, bytes that are not UTF-8, wide text,
// entity references, comments, CDATA sections and streams, nested tags, long attribute lists,
// multi-line text and style sheets. Each tree is written once per style.
#include <Infrastructure/QelCore/QelCore.h>

#include "XMLExample.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>

using namespace Qel::Core;

namespace {

class TreeWriter
{
public:
    TreeWriter(XMLWriter& writer, std::ostream& out, unsigned seed) : m_Writer(writer), m_Out(out), m_Random(seed) {}

    void Document()
    {
        m_Out << m_Writer.StartXMLDoc();
        if (Chance(4)) m_Out << m_Writer.StyleSheet(Name() + ".xsl", "text/xsl");
        if (Chance(3)) m_Out << m_Writer.Comment(CommentText(), Chance(2));
        Element(0);
        if (Chance(3)) m_Out << m_Writer.Comment(CommentText(), Chance(2));
        m_Out << m_Writer.EndXMLDoc();
    }

private:
    unsigned Next(unsigned bound) { return static_cast<unsigned>(m_Random() % bound); }
    bool Chance(unsigned oneIn) { return Next(oneIn) == 0; }

    std::string Name()
    {
        static const std::string first = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
        static const std::string rest = first + "0123456789.-";
        std::string name(1, first[Next(first.size())]);
        unsigned length = Next(Chance(5) ? 30 : 8);
        for (unsigned i = 0; i < length; ++i) name += rest[Next(rest.size())];
        return name;
    }

    // Text for escaped places: anything at all, bytes that are not UTF-8 and controls included.
    std::string AnyText(unsigned maxLength)
    {
        static const char* const pieces[] = {"<", ">", "&", "'", "\"", "&amp;", "\x01", "\x1F", "\x7F", "\x0B",
                                             "\t", "\n", "\r", " ", "  ", "\xFF", "\xC3", "\xE2\x82", "\x80",
                                             "\xED\xA0\x80", "\xEF\xBF\xBE", "\xC3\xA9", "\xE2\x82\xAC",
                                             "\xF0\x9F\x98\x80", "]]>", "--", "?>", "word", "x", "0"};
        std::string text;
        unsigned length = Next(maxLength + 1);
        for (unsigned i = 0; i < length; ++i) text += pieces[Next(sizeof pieces / sizeof pieces[0])];
        if (Chance(7)) text += std::string(1, '\0') + "nul";
        return text;
    }

    // Text for comments and CDATA, which are written as given: XML characters only, no '-' or ']'.
    std::string PlainText(unsigned maxLength)
    {
        static const char* const pieces[] = {"<", ">", "&", "'", "\"", "\t", "\n", " ", "   ", "\xC3\xA9",
                                             "\xE2\x82\xAC", "word", "x", "Base64+/=", "0123456789"};
        std::string text;
        unsigned length = Next(maxLength + 1);
        for (unsigned i = 0; i < length; ++i) text += pieces[Next(sizeof pieces / sizeof pieces[0])];
        return text;
    }
    std::string CommentText() { return PlainText(Chance(3) ? 60 : 10); }

    std::wstring WideText()
    {
        static const wchar_t pieces[] = {L'<', L'&', L'"', L'\x01', L'\xD800', L'\xFFFE', L'\x110000', L'\u00E9',
                                         L'\u20AC', L'\U0001F600', L'a', L' ', L'\n'};
        std::wstring text;
        unsigned length = Next(20);
        for (unsigned i = 0; i < length; ++i) text += pieces[Next(sizeof pieces / sizeof pieces[0])];
        return text;
    }

    XMLAttributeMap<std::string> Attributes()
    {
        XMLAttributeMap<std::string> attributes;
        unsigned count = Chance(4) ? Next(10) : Next(3);
        for (unsigned i = 0; i < count; ++i) {
            XMLAttributeValue<std::string> value(AnyText(Chance(3) ? 30 : 5));
            if (Chance(4)) value.AppendReference("&quot;");
            attributes[Name()] = value;
        }
        return attributes;
    }

    void Element(unsigned depth)
    {
        std::string name = Name();
        m_Out << m_Writer.StartTag(name, Attributes());
        unsigned extra = Next(3);
        for (unsigned i = 0; i < extra; ++i) m_Out << m_Writer.Attribute(Name(), AnyText(8));
        unsigned items = Next(depth < 5 ? 7 : 3);
        for (unsigned i = 0; i < items; ++i) Item(depth);
        // Sometimes the closing is left to EndXMLDoc.
        if (depth > 0 || Chance(2)) m_Out << m_Writer.EndTag();
    }

    void Item(unsigned depth)
    {
        switch (Next(depth < 5 ? 13 : 11)) {
        case 0: m_Out << m_Writer.Text(AnyText(Chance(3) ? 120 : 10)); break;
        case 1: m_Out << m_Writer.Text(WideText()); break;
        case 2: {
            std::istringstream text(AnyText(40));
            m_Out << m_Writer.Text(text);
            break;
        }
        case 3: {
            static const char* const references[] = {"lt", "gt", "amp", "&apos;", "quot", "#65", "&#x263A;"};
            m_Out << m_Writer.EntityReference(references[Next(7)]);
            break;
        }
        case 4: m_Out << m_Writer.Comment(CommentText(), Chance(2)); break;
        case 5: m_Out << m_Writer.CDATASection(PlainText(Chance(2) ? 100 : 15), Chance(2)); break;
        case 6: {
            std::istringstream data(PlainText(200));
            m_Out << m_Writer.CDATASection(data, Chance(2));
            break;
        }
        case 7: {
            std::wistringstream data(L"\u00E9\u20AC abc\n" + std::wstring(Next(200), L'w'));
            m_Out << m_Writer.CDATASection(data, Chance(2));
            break;
        }
        case 8: m_Out << m_Writer.Tag(Name(), Attributes(), Chance(2) ? AnyText(20) : std::string()); break;
        case 9: m_Out << m_Writer.Attribute(Name(), AnyText(5)); break;
        case 10: {
            const std::string name = "m" + Name();
            m_Out << m_Writer.Markup("<" + name + " a=\"1 &lt; 2\">t &amp; u</" + name + ">");
            break;
        }
        default: Element(depth + 1); break;
        }
    }

    XMLWriter& m_Writer;
    std::ostream& m_Out;
    std::mt19937 m_Random;
};

bool WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) std::cerr << "cannot write " << path << "\n";
    return static_cast<bool>(file);
}

std::string ExampleDocument(XMLWriter& writer)
{
    std::ostringstream out;
    QelTest::WriteExample(writer, out);
    return out.str();
}

std::string AlertDocument(XMLWriter& writer)
{
    StringMap data{{"Message", "a < b & \"c\"\x01\xFF"}, {"Circumstances", std::string(200, 'm') + "\nline two"}};
    CodeContext context("file.cpp", 12, "Function", "void Function(int)", "today");
    context.SetVariable("x", "1 > 0 & '\x02'");
    AlertInfo alert(data, {context}, {context, context});
    std::ostringstream out;
    out << writer.StartXMLDoc();
    alert.ToXML(writer, out, "Generated for the well-formedness check");
    out << writer.EndXMLDoc();
    return out.str();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: XMLDocumentGenerator <folder>\n";
        return 2;
    }
    const std::string folder = std::string(argv[1]) + "/";
    // Documents of an earlier run must not be checked again.
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.path().extension() == ".xml") std::filesystem::remove(entry.path(), error);
    }
    int written = 0;
    for (const char* style : {"compact", "pretty"}) {
        const bool pretty = std::string(style) == "pretty";
        auto formatter = [&] { return pretty ? XMLFormatter::CreatePrettyPrint() : XMLFormatter::CreateCompact(); };
        XMLWriter writer(formatter());
        if (!WriteFile(folder + "example-" + style + ".xml", ExampleDocument(writer))) return 1;
        if (!WriteFile(folder + "alert-" + style + ".xml", AlertDocument(writer))) return 1;
        written += 2;
        for (unsigned tree = 0; tree < 200; ++tree) {
            // One writer for many documents in a row, as a log does.
            std::ostringstream out;
            TreeWriter(writer, out, 1000 + tree).Document();
            char name[64];
            std::snprintf(name, sizeof name, "tree-%03u-%s.xml", tree, style);
            if (!WriteFile(folder + name, out.str())) return 1;
            ++written;
        }
    }
    std::cout << written << " documents written to " << folder << "\n";
    return 0;
}
