// Attribute values and attribute lists of XML tags, and the escaping of text for XML.
//
// Shared by the writer (which prints them) and the parser (which reports them).
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <string>
#include <utility>
#include <vector>

namespace Qel::Core {

// The five characters that text and attribute values may not hold as they stand: "<>&'\"".
template <typename String>
const String& GetSpecialXMLChars();

template <>
QEL_CORE_API const std::string& GetSpecialXMLChars<std::string>();
template <>
QEL_CORE_API const std::wstring& GetSpecialXMLChars<std::wstring>();

// The text made fit to stand as XML character data or inside a quoted attribute value:
// every '<' becomes "&lt;", '>' "&gt;", '&' "&amp;", '\'' "&apos;" and '"' "&quot;"; the text after
// an ampersand is not looked at, so "&amp;" becomes "&amp;amp;".
//
// Narrow text is taken as UTF-8. So that a document stays well-formed whatever a message holds,
// characters that XML does not allow are mapped to visible ones instead of being written as they
// stand: a control character other than tab, line feed and carriage return becomes its symbol from
// the Unicode block "Control Pictures" (0x01 becomes U+2401, DEL U+2421), and a byte that is not
// part of a valid UTF-8 sequence becomes the character of the same number (Latin-1), so that text in
// a single-byte code page keeps its letters. Text with none of these is returned unchanged.
QEL_CORE_API std::string XMLEscape(const std::string& text);
// The same for wide text (UTF-32): the five characters, controls as above; surrogates and
// non-characters become U+FFFD.
QEL_CORE_API std::wstring XMLEscape(const std::wstring& text);

// Wide text (UTF-32) as UTF-8; characters that have no UTF-8 form (surrogates, values above
// U+10FFFF) become U+FFFD. Used wherever the writer accepts wide text.
QEL_CORE_API std::string XMLNarrow(const std::wstring& text);

// The value of one attribute: a list of parts, each a text ready to be written and a flag that
// says it is an entity or character reference ("&name;", "&#65;") rather than plain text.
template <typename String>
class XMLAttributeValue
{
public:
    struct Part
    {
        String text;
        bool reference = false;
    };

    XMLAttributeValue() = default;
    // From plain text: the text is escaped.
    XMLAttributeValue(const String& text) { Append(text, true); }
    XMLAttributeValue(const typename String::value_type* text) { Append(String(text), true); }

    // Adds text: to the last part if that is plain text, otherwise as a new part. With `escape`
    // the text is escaped first (see XMLEscape).
    void Append(const String& text, bool escape)
    {
        if (m_Parts.empty() || m_Parts.back().reference) m_Parts.push_back(Part{String(), false});
        if (escape) m_Parts.back().text += XMLEscape(text);
        else m_Parts.back().text += text;
    }
    // Adds a reference part; the text is kept as it is.
    void AppendReference(const String& text) { m_Parts.push_back(Part{text, true}); }

    void Clear() { m_Parts.clear(); }
    bool IsEmpty() const { return m_Parts.empty(); }
    const std::vector<Part>& GetParts() const { return m_Parts; }

    // The string form: all parts in order.
    String ToString() const
    {
        String result;
        for (const Part& part : m_Parts) result += part.text;
        return result;
    }

    bool operator==(const XMLAttributeValue& other) const { return ToString() == other.ToString(); }
    bool operator!=(const XMLAttributeValue& other) const { return !(*this == other); }

private:
    std::vector<Part> m_Parts;
};

// The attributes of one tag, in the order in which they were first set.
template <typename String>
class XMLAttributeMap
{
public:
    using Value = XMLAttributeValue<String>;
    using Entry = std::pair<String, Value>;
    using const_iterator = typename std::vector<Entry>::const_iterator;

    XMLAttributeMap() { m_Entries.reserve(10); }

    // The value under `name`; a new name is appended with an empty value. Setting a name again
    // replaces its value in place.
    Value& operator[](const String& name)
    {
        for (Entry& entry : m_Entries) {
            if (entry.first == name) return entry.second;
        }
        m_Entries.emplace_back(name, Value());
        return m_Entries.back().second;
    }

    const Value* Find(const String& name) const
    {
        for (const Entry& entry : m_Entries) {
            if (entry.first == name) return &entry.second;
        }
        return nullptr;
    }

    const_iterator begin() const { return m_Entries.begin(); }
    const_iterator end() const { return m_Entries.end(); }
    std::size_t size() const { return m_Entries.size(); }
    bool empty() const { return m_Entries.empty(); }
    void clear() { m_Entries.clear(); }

private:
    std::vector<Entry> m_Entries;
};

} // namespace Qel::Core
