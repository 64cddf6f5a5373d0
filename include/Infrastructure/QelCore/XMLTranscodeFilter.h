// Escaping of XML text on a stream: a Boost.Iostreams input filter.
//
// Put in front of a text source, it delivers the same characters as XMLEscape gives for the whole
// text: the five special characters become their entities, control characters their visible
// stand-ins, and (for narrow text) bytes that are not valid UTF-8 their Latin-1 letters.
//
//     boost::iostreams::filtering_istream in;
//     in.push(XMLTranscodeFilter<std::string>());
//     in.push(source);
//
// A replacement that doesn't fit into one read goes on in the next. End of stream and the
// would-block result of the source pass through.
#pragma once

#include "Infrastructure/QelCore/XMLAttributes.h"

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/char_traits.hpp>
#include <boost/iostreams/operations.hpp>

#include <ios>
#include <string>

namespace Qel::Core {

template <typename String>
class XMLTranscodeFilter
{
public:
    using char_type = typename String::value_type;
    struct category : boost::iostreams::input_filter_tag, boost::iostreams::multichar_tag
    {};
    using traits_type = boost::iostreams::char_traits<char_type>;
    using int_type = typename traits_type::int_type;

    // The next character, end of stream (traits_type::eof()) or traits_type::would_block().
    template <typename Source>
    int_type get(Source& source)
    {
        if (m_iIndex >= 0) {
            char_type c = m_sReplacement[static_cast<std::size_t>(m_iIndex)];
            if (static_cast<std::size_t>(++m_iIndex) == m_sReplacement.size()) m_iIndex = -1;
            return traits_type::to_int_type(c);
        }
        for (;;) {
            int_type next = NextInput(source);
            if (traits_type::would_block(next)) return next;
            if (traits_type::is_eof(next)) {
                // A UTF-8 sequence cut short by the end: its bytes are escaped as they stand.
                if (!m_sUnit.empty()) return Deliver();
                return next;
            }
            char_type c = traits_type::to_char_type(next);
            if constexpr (sizeof(char_type) == 1) {
                unsigned char byte = static_cast<unsigned char>(c);
                if (!m_sUnit.empty()) {
                    if ((byte & 0xC0) != 0x80) {
                        // Not a continuation byte: the sequence so far is done, this byte comes next.
                        m_iPushedBack = next;
                        return Deliver();
                    }
                    m_sUnit += c;
                    if (m_sUnit.size() == m_nUnitLength) return Deliver();
                    continue;
                }
                if (byte >= 0x20 && byte < 0x7F && !IsSpecial(byte)) return next;
                if (byte == '\t' || byte == '\n' || byte == '\r') return next;
                m_sUnit += c;
                m_nUnitLength = SequenceLength(byte);
                if (m_nUnitLength == 1) return Deliver();
            } else {
                auto code = static_cast<unsigned long>(traits_type::to_int_type(c));
                if (code >= 0x20 && code < 0x7F && !IsSpecial(code)) return next;
                if (code == '\t' || code == '\n' || code == '\r') return next;
                if (code >= 0xA0 && code < 0xD800) return next;
                m_sUnit += c;
                return Deliver();
            }
        }
    }

    // Fills `buffer` until it is full, the source would block or ends. The count of characters
    // delivered, or -1 at the end of the stream when none was.
    template <typename Source>
    std::streamsize read(Source& source, char_type* buffer, std::streamsize count)
    {
        std::streamsize done = 0;
        while (done < count) {
            int_type c = get(source);
            if (traits_type::is_eof(c)) return done > 0 ? done : -1;
            if (traits_type::would_block(c)) return done;
            buffer[done++] = traits_type::to_char_type(c);
        }
        return done;
    }

private:
    static bool IsSpecial(unsigned long c)
    {
        return c == '<' || c == '>' || c == '&' || c == '\'' || c == '"';
    }

    // Number of bytes of the UTF-8 sequence that `lead` starts; 1 for a byte that starts none.
    static std::size_t SequenceLength(unsigned char lead)
    {
        if (lead >= 0xC2 && lead <= 0xDF) return 2;
        if (lead >= 0xE0 && lead <= 0xEF) return 3;
        if (lead >= 0xF0 && lead <= 0xF4) return 4;
        return 1;
    }

    template <typename Source>
    int_type NextInput(Source& source)
    {
        if (HasPushedBack()) {
            int_type c = m_iPushedBack;
            m_iPushedBack = traits_type::would_block();
            return c;
        }
        return boost::iostreams::get(source);
    }
    bool HasPushedBack() const { return !traits_type::would_block(m_iPushedBack); }

    // Escapes the collected unit and delivers its first character.
    int_type Deliver()
    {
        m_sReplacement = XMLEscape(m_sUnit);
        m_sUnit.clear();
        m_iIndex = m_sReplacement.size() > 1 ? 1 : -1;
        return traits_type::to_int_type(m_sReplacement[0]);
    }

    String m_sReplacement;  // the escaped form being delivered
    long m_iIndex = -1;     // next character of m_sReplacement, -1 when none is pending
    String m_sUnit;         // input collected for one character: one byte or a UTF-8 sequence
    std::size_t m_nUnitLength = 0;
    int_type m_iPushedBack = traits_type::would_block(); // input read ahead, or would_block for none
};

} // namespace Qel::Core
