// A non-validating event parser for XML 1.0 documents.
//
// XMLParser<Handler> runs over a byte sequence and calls its handler at the declaration, each start
// tag, attribute, end tag, run of text, comment and CDATA section, in document order. Write a
// handler by deriving from XMLParseHandler<XMLStringPolicy<std::string>> and hiding the callbacks
// you want; the parser calls them on the handler's own type, without virtual dispatch.
//
// What the parser does and does not do:
// - Bytes are characters: the input is not decoded, whatever the declaration's encoding says.
//   Bytes of 0x80 and above pass in text, attribute values, comments and CDATA, and count as
//   letters in names, so that element and attribute names written in UTF-8 are accepted.
// - A DOCTYPE is checked for syntax and forgotten: entities it declares stay unknown. The five
//   predefined entities ("&lt;" "&gt;" "&amp;" "&apos;" "&quot;") are replaced; character
//   references ("&#65;", "&#x41;") are kept as they are written.
// - End tags are not compared with start tags: "<a></b>" parses and reports EndTag("b").
// - Text is reported as one Text call for each run of character data and references between two
//   tags, comments or CDATA sections, as it stands (white space included). An unknown entity in
//   text ends the run and is dropped.
// - Attribute values are reported with their meaning: "x&lt;y" gives the text "x<y". A reference
//   that is not replaced (a character reference, an unknown entity) is kept as a reference part of
//   the value (XMLAttributeValue::Part::reference), so that the value can be written out again
//   with the same meaning.
// - Elements may nest at most XMLParserNestingLimit deep, and the parenthesised groups of a
//   DOCTYPE's element declarations XMLParserGroupNestingLimit deep: deeper input is a parse
//   failure, never a stack overflow, on any thread with a stack of 1 MiB or more.
// - Parse reports a syntax error only by its false result. Callbacks that came before the error
//   stand, so a handler must cope with a partial document. Exceptions thrown by a handler pass
//   through Parse, which leaves the parser ready for the next parse.
// - Each Parse starts afresh: nothing read by one parse (declaration, pending text, attribute)
//   shows in the next.
//
// Input: Parse(std::string) and Parse(PathName) parse from memory (a file is read whole first),
// which is many times faster than the stream form; Parse(std::istream&) reads the stream buffer
// as the data arrives, for input that only a stream can give, and keeps what it has read until
// the parse ends. All forms block only on reading their input.
//
// Threads: a parser object belongs to one thread at a time; any number of parsers may run at once
// on different threads. A handler whose GetParseLock returns a lock holds it for the whole parse.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/XMLAttributes.h"

#include <cstddef>
#include <istream>
#include <iterator>
#include <memory>
#include <streambuf>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Qel::Core {

class Lock;
class PathName;

// The deepest nesting of elements that a document may have.
inline constexpr std::size_t XMLParserNestingLimit = 1024;
// The deepest nesting of parenthesised groups in an element declaration of a DOCTYPE.
inline constexpr std::size_t XMLParserGroupNestingLimit = 64;

// The string type of a parser family, and how a string is made from a range of input characters.
template <typename String>
struct XMLStringPolicy
{
    using StringType = String;
    template <typename Iterator>
    static String MakeString(Iterator first, Iterator last)
    {
        return String(first, last);
    }
};

// The base of parse handlers. Every callback does nothing by default.
template <typename Policy>
class XMLParseHandler
{
public:
    using StringPolicy = Policy;
    using String = typename Policy::StringType;

    virtual ~XMLParseHandler() = default;

    // A CDATA section's content, as it stands.
    virtual void CDATA(const String& text) { (void)text; }
    // A lock to hold for the whole of each parse; none by default.
    virtual std::shared_ptr<Lock> GetParseLock() { return nullptr; }

    // Called statically on the handler's type; hide them in a derived handler.
    void StartDocument(const String& version, const String& encoding, bool standalone)
    {
        (void)version, (void)encoding, (void)standalone;
    }
    void StartTag(const String& name) { (void)name; }
    void Attribute(const String& name, const XMLAttributeValue<String>& value) { (void)name, (void)value; }
    void EndTag(const String& name, bool empty) { (void)name, (void)empty; }
    void Text(const String& text) { (void)text; }
    void Comment(const String& text) { (void)text; }
};

namespace Detail {

// The parser's state and the grammar runs, shared by every XMLParser<Handler>. The grammar calls
// the actions below; they report through the virtual events, which XMLParser<Handler> forwards to
// its handler.
class QEL_CORE_API XMLParserCore
{
public:
    XMLParserCore(const XMLParserCore&) = delete;
    XMLParserCore& operator=(const XMLParserCore&) = delete;

    // Grammar actions.
    void SetVersion(const char* first, const char* last);
    void SetEncoding(const char* first, const char* last);
    void SetStandalone(const char* first, const char* last);
    void StartDocAction();
    void EndDocAction();
    void StartTagAction(const char* first, const char* last);
    void EndEmptyTagAction();
    void EndTagAction(const char* first, const char* last);
    void AttributeNameAction(const char* first, const char* last);
    void AttributeValueTextAction(const char* first, const char* last);
    void AttributeValueRefAction(const char* first, const char* last);
    void AttributeValueAction();
    void AttributeAction();
    void TextAction(const char* first, const char* last);
    void ContentReferenceAction(const char* first, const char* last);
    void CommentAction(const char* first, const char* last);
    void CDataAction(const char* first, const char* last);

protected:
    XMLParserCore();
    virtual ~XMLParserCore();

    // Each returns whether the whole input is one document. The lock is held to the end.
    bool ParseMemory(const char* first, const char* last, std::shared_ptr<Lock> lock);
    bool ParseStream(std::istream& stream, std::shared_ptr<Lock> lock);
    bool ParseFile(const PathName& file, std::shared_ptr<Lock> lock);

    virtual void OnStartDocument(const std::string& version, const std::string& encoding, bool standalone) = 0;
    virtual void OnStartTag(const std::string& name) = 0;
    virtual void OnAttribute(const std::string& name, const XMLAttributeValue<std::string>& value) = 0;
    virtual void OnEndTag(const std::string& name, bool empty) = 0;
    virtual void OnText(const std::string& text) = 0;
    virtual void OnComment(const std::string& text) = 0;
    virtual void OnCDATA(const std::string& text) = 0;

private:
    void BeginParse();
    void FlushText();
    // The replacement of a reference, or false if it has none.
    bool Resolve(const char* first, const char* last, std::string& replacement) const;

    std::string m_AttributeName;
    XMLAttributeValue<std::string> m_AttributeValue;
    bool m_bTextPending = false;
    std::string m_Text;
    bool m_bValueStarted = false;
    std::unordered_map<std::string, std::string> m_Entities;
    std::vector<std::string> m_OpenNames;
    std::size_t m_nOpen = 0; // names in use at the front of m_OpenNames (the rest keep their capacity)
    bool m_bExpandCharRefs = false;
    std::string m_Version;
    std::string m_Encoding;
    bool m_bStandalone = false;
    std::string m_Scratch; // buffer for the names and texts handed to the events
};

// A stream buffer that reads from a pair of input iterators; lets the stream form of the parser
// run over any input range.
template <typename Iterator>
class IteratorStreamBuffer : public std::streambuf
{
public:
    IteratorStreamBuffer(Iterator first, Iterator last) : m_First(std::move(first)), m_Last(std::move(last)) {}

protected:
    int_type underflow() override
    {
        if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
        std::size_t n = 0;
        while (n < sizeof(m_Buffer) && !(m_First == m_Last)) {
            m_Buffer[n++] = static_cast<char>(*m_First);
            ++m_First;
        }
        if (n == 0) return traits_type::eof();
        setg(m_Buffer, m_Buffer, m_Buffer + n);
        return traits_type::to_int_type(m_Buffer[0]);
    }

private:
    Iterator m_First;
    Iterator m_Last;
    char m_Buffer[4096];
};

} // namespace Detail

template <typename Handler>
class XMLParser : public Handler, private Detail::XMLParserCore
{
public:
    using String = typename Handler::String;
    static_assert(std::is_same_v<String, std::string>, "XMLParser reads narrow text");

    template <typename... Args>
    explicit XMLParser(Args&&... args) : Handler(std::forward<Args>(args)...)
    {
    }

    // False if the file does not exist or cannot be read; otherwise the file is read whole and parsed.
    bool Parse(const PathName& file) { return ParseFile(file, this->GetParseLock()); }
    // Reads the stream buffer directly as the data arrives; an unreadable stream is an empty input.
    bool Parse(std::istream& stream) { return ParseStream(stream, this->GetParseLock()); }
    bool Parse(const String& text) { return ParseMemory(text.data(), text.data() + text.size(), this->GetParseLock()); }
    bool Parse(const char* text) { return Parse(String(text)); }
    // Any range of characters: contiguous ranges are parsed in memory, others as a stream.
    template <typename Iterator>
    bool Parse(Iterator first, Iterator last)
    {
        if constexpr (std::contiguous_iterator<Iterator> && sizeof(std::iter_value_t<Iterator>) == 1) {
            const char* begin = first == last ? nullptr : reinterpret_cast<const char*>(std::to_address(first));
            return ParseMemory(begin, begin + (last - first), this->GetParseLock());
        } else {
            Detail::IteratorStreamBuffer<Iterator> buffer(std::move(first), std::move(last));
            std::istream stream(&buffer);
            return ParseStream(stream, this->GetParseLock());
        }
    }

private:
    void OnStartDocument(const std::string& version, const std::string& encoding, bool standalone) override
    {
        Handler::StartDocument(version, encoding, standalone);
    }
    void OnStartTag(const std::string& name) override { Handler::StartTag(name); }
    void OnAttribute(const std::string& name, const XMLAttributeValue<std::string>& value) override
    {
        Handler::Attribute(name, value);
    }
    void OnEndTag(const std::string& name, bool empty) override { Handler::EndTag(name, empty); }
    void OnText(const std::string& text) override { Handler::Text(text); }
    void OnComment(const std::string& text) override { Handler::Comment(text); }
    void OnCDATA(const std::string& text) override { this->CDATA(text); }
};

} // namespace Qel::Core
