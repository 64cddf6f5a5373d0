// Prints the canonical event stream of QelCore's XML parser for each file given, for comparison
// with a reference parser (sax_events.py) by corpus_check.py.
//
//   xml_events FILE...      (a single "-" reads the file names from standard input, one a line)
//
// For each file:
//   == FILE
//   S name              a start tag
//   A name=value        an attribute, its value with the meaning XML gives it (see Canonical)
//   E name              an end tag (an empty element gives S and E, as in SAX)
//   OK | REJECTED       the result of Parse
// Text, comments, CDATA and the declaration are not printed: the reference comparison is about the
// structure and the attribute values. Within a value a backslash, tab, line feed and carriage
// return are written as \\, \t, \n and \r so that every event is one line.
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/XMLParser.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

using Qel::Core::XMLAttributeValue;

// Appends the code point as UTF-8.
void AppendUtf8(std::string& out, std::uint32_t c)
{
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The replacement of one reference "&...;" (the five predefined entities and character
// references), or false if it is none of them (an entity that only a DTD could declare).
bool DecodeReference(const std::string& ref, std::string& out)
{
    if (ref == "&lt;") out += '<';
    else if (ref == "&gt;") out += '>';
    else if (ref == "&amp;") out += '&';
    else if (ref == "&apos;") out += '\'';
    else if (ref == "&quot;") out += '"';
    else if (ref.size() > 3 && ref[1] == '#') {
        bool hex = ref[2] == 'x';
        std::string digits = ref.substr(hex ? 3 : 2, ref.size() - (hex ? 4 : 3));
        if (digits.empty()) return false;
        char* end = nullptr;
        unsigned long code = std::strtoul(digits.c_str(), &end, hex ? 16 : 10);
        if (*end != '\0' || code > 0x10FFFF) return false;
        AppendUtf8(out, static_cast<std::uint32_t>(code));
    } else {
        return false;
    }
    return true;
}

// Decodes every reference in the text; one that is not known stays as it is written.
std::string DecodeReferences(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == '&') {
            std::size_t semi = text.find(';', i);
            if (semi != std::string::npos && DecodeReference(text.substr(i, semi + 1 - i), out)) {
                i = semi + 1;
                continue;
            }
        }
        out += text[i++];
    }
    return out;
}

// What XML does to the white space written literally in an attribute value and the parser leaves
// alone: a CR LF pair is one line end, and every line end and tab becomes a blank.
std::string NormaliseWhiteSpace(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
        out += (c == '\t' || c == '\n' || c == '\r') ? ' ' : c;
    }
    return out;
}

// The value's meaning: plain parts are stored escaped (with their literal white space), reference
// parts hold the reference as written.
std::string Canonical(const XMLAttributeValue<std::string>& value)
{
    std::string out;
    for (const auto& part : value.GetParts()) {
        if (part.reference) {
            std::string decoded;
            out += DecodeReference(part.text, decoded) ? decoded : part.text;
        } else {
            out += DecodeReferences(NormaliseWhiteSpace(part.text));
        }
    }
    return out;
}

void AppendQuoted(std::string& out, const std::string& text)
{
    for (char c : text) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default: out += c;
        }
    }
}

class EventPrinter : public Qel::Core::XMLParseHandler<Qel::Core::XMLStringPolicy<std::string>>
{
public:
    std::string m_Events;

    void StartTag(const std::string& name)
    {
        m_Events += "S ";
        AppendQuoted(m_Events, name);
        m_Events += '\n';
    }
    void Attribute(const std::string& name, const XMLAttributeValue<std::string>& value)
    {
        m_Events += "A ";
        AppendQuoted(m_Events, name);
        m_Events += '=';
        AppendQuoted(m_Events, Canonical(value));
        m_Events += '\n';
    }
    void EndTag(const std::string& name, bool /*empty*/)
    {
        m_Events += "E ";
        AppendQuoted(m_Events, name);
        m_Events += '\n';
    }
};

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> files;
    if (argc == 2 && std::string(argv[1]) == "-") {
        for (std::string line; std::getline(std::cin, line);) {
            if (!line.empty()) files.push_back(line);
        }
    } else {
        files.assign(argv + 1, argv + argc);
    }
    if (files.empty()) {
        std::fprintf(stderr, "usage: xml_events FILE... | xml_events - < LIST\n");
        return 2;
    }
    Qel::Core::XMLParser<EventPrinter> parser;
    for (const std::string& file : files) {
        parser.m_Events.clear();
        bool ok = parser.Parse(Qel::Core::PathName(file, Qel::Core::UNIX));
        std::cout << "== " << file << '\n' << parser.m_Events << (ok ? "OK" : "REJECTED") << '\n';
    }
    std::cout.flush();
    return std::cout ? 0 : 1;
}
