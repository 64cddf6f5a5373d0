// The element core of the XML writer.
#include "Infrastructure/QelCore/XMLWriter.h"

namespace Qel::Core {
namespace {

const char s_Replacement[] = "\xEF\xBF\xBD"; // U+FFFD in UTF-8

// Length of the valid UTF-8 sequence that starts at `i`, or 0 if it is not valid.
std::size_t Utf8SequenceLength(const std::string& text, std::size_t i)
{
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char lead = byte(i);
    std::size_t length;
    unsigned min;
    unsigned code;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) { length = 2; code = lead & 0x1F; min = 0x80; }
    else if (lead >= 0xE0 && lead <= 0xEF) { length = 3; code = lead & 0x0F; min = 0x800; }
    else if (lead >= 0xF0 && lead <= 0xF4) { length = 4; code = lead & 0x07; min = 0x10000; }
    else return 0;
    if (i + length > text.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        unsigned char next = byte(i + k);
        if ((next & 0xC0) != 0x80) return 0;
        code = (code << 6) | (next & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    // U+FFFE and U+FFFF are not XML characters.
    if (code == 0xFFFE || code == 0xFFFF) return 0;
    return length;
}

} // namespace

XMLWriter::XMLWriter() = default;
XMLWriter::~XMLWriter() = default;

std::string XMLWriter::Escape(const std::string& text)
{
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (std::size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        switch (c) {
        case '<': out += "&lt;"; ++i; continue;
        case '>': out += "&gt;"; ++i; continue;
        case '&': out += "&amp;"; ++i; continue;
        case '"': out += "&quot;"; ++i; continue;
        case '\'': out += "&apos;"; ++i; continue;
        case '\t': case '\n': case '\r': out += static_cast<char>(c); ++i; continue;
        default: break;
        }
        if (c < 0x20 || c == 0x7F) {
            out += s_Replacement;
            ++i;
            continue;
        }
        std::size_t length = Utf8SequenceLength(text, i);
        if (length == 0) {
            out += s_Replacement;
            ++i;
            continue;
        }
        out.append(text, i, length);
        i += length;
    }
    return out;
}

void XMLWriter::StartElement(std::ostream& out, const std::string& name, const std::string& attributeName,
                             const std::string& attributeValue)
{
    out << '<' << name;
    if (!attributeName.empty()) out << ' ' << attributeName << "=\"" << Escape(attributeValue) << '"';
    out << '>';
    m_OpenTags.push_back(name);
}

void XMLWriter::Text(std::ostream& out, const std::string& text)
{
    out << Escape(text);
}

void XMLWriter::EndElement(std::ostream& out)
{
    if (m_OpenTags.empty()) return;
    out << "</" << m_OpenTags.back() << '>';
    m_OpenTags.pop_back();
    if (m_OpenTags.empty()) out << '\n';
}

void XMLWriter::Element(std::ostream& out, const std::string& name, const std::string& text)
{
    StartElement(out, name);
    Text(out, text);
    EndElement(out);
}

} // namespace Qel::Core
