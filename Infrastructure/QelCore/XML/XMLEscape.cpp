// Escaping of text for XML, and wide text as UTF-8.
#include "Infrastructure/QelCore/XMLAttributes.h"

#include "Infrastructure/QelCore/Utilities/Immortal.h"

namespace Qel::Core {
namespace {

// Length of the valid UTF-8 sequence of an XML character that starts at `i`, or 0 if the bytes
// there are not one (bad sequence, surrogate, U+FFFE, U+FFFF).
std::size_t Utf8CharLength(const std::string& text, std::size_t i)
{
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char lead = byte(i);
    std::size_t length;
    unsigned min;
    unsigned code;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) { length = 2; code = lead & 0x1Fu; min = 0x80; }
    else if (lead >= 0xE0 && lead <= 0xEF) { length = 3; code = lead & 0x0Fu; min = 0x800; }
    else if (lead >= 0xF0 && lead <= 0xF4) { length = 4; code = lead & 0x07u; min = 0x10000; }
    else return 0;
    if (i + length > text.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        unsigned char next = byte(i + k);
        if ((next & 0xC0) != 0x80) return 0;
        code = (code << 6) | (next & 0x3Fu);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    if (code == 0xFFFE || code == 0xFFFF) return 0;
    return length;
}

void AppendUtf8(std::string& out, char32_t code)
{
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// The entity of one of the five special characters, or null.
const char* EntityOf(char32_t c)
{
    switch (c) {
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '&': return "&amp;";
    case '\'': return "&apos;";
    case '"': return "&quot;";
    default: return nullptr;
    }
}

// The visible stand-in of a control character that XML does not allow, or 0 if `c` is allowed.
char32_t ControlPicture(char32_t c)
{
    if (c == '\t' || c == '\n' || c == '\r') return 0;
    if (c < 0x20) return 0x2400 + c;
    if (c == 0x7F) return 0x2421;
    return 0;
}

bool NeedsWork(unsigned char c)
{
    return c < 0x20 || c >= 0x7F || EntityOf(c) != nullptr;
}

} // namespace

template <>
const std::string& GetSpecialXMLChars<std::string>()
{
    static Utilities::Immortal<std::string> s_Chars("<>&'\"");
    return s_Chars.Get();
}

template <>
const std::wstring& GetSpecialXMLChars<std::wstring>()
{
    static Utilities::Immortal<std::wstring> s_Chars(L"<>&'\"");
    return s_Chars.Get();
}

std::string XMLEscape(const std::string& text)
{
    std::size_t i = 0;
    while (i < text.size() && !NeedsWork(static_cast<unsigned char>(text[i]))) ++i;
    if (i == text.size()) return text;

    std::string out;
    out.reserve(text.size() + text.size() / 8 + 8);
    out.append(text, 0, i);
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            if (const char* entity = EntityOf(c)) out += entity;
            else if (char32_t picture = ControlPicture(c)) AppendUtf8(out, picture);
            else out += static_cast<char>(c);
            ++i;
            continue;
        }
        std::size_t length = Utf8CharLength(text, i);
        if (length == 0) {
            AppendUtf8(out, c); // a stray byte reads as Latin-1
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

std::wstring XMLEscape(const std::wstring& text)
{
    std::wstring out;
    out.reserve(text.size());
    for (wchar_t w : text) {
        char32_t c = static_cast<char32_t>(w);
        if (const char* entity = EntityOf(c)) {
            for (const char* p = entity; *p; ++p) out += static_cast<wchar_t>(*p);
        } else if (char32_t picture = ControlPicture(c)) {
            out += static_cast<wchar_t>(picture);
        } else if ((c >= 0xD800 && c <= 0xDFFF) || c == 0xFFFE || c == 0xFFFF || c > 0x10FFFF) {
            out += static_cast<wchar_t>(0xFFFD);
        } else {
            out += w;
        }
    }
    return out;
}

std::string XMLNarrow(const std::wstring& text)
{
    std::string out;
    out.reserve(text.size());
    for (wchar_t w : text) {
        char32_t c = static_cast<char32_t>(w);
        if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) c = 0xFFFD;
        AppendUtf8(out, c);
    }
    return out;
}

} // namespace Qel::Core
