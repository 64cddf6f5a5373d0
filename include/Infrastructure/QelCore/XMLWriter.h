// Writing XML through stream manipulators.
//
// An XMLWriter keeps the stack of open tags; what it writes goes into any std::ostream as a chain
// of manipulators:
//
//     XMLWriter writer(XMLFormatter::CreateCompact());
//     out << writer.StartXMLDoc() << writer.StartTag("Run") << writer.Attribute("id", "7")
//         << writer.Text("1 < 2") << writer.EndXMLDoc();
//
// The characters and the white space come from the writer's XMLFormatter (compact or pretty
// print). A start tag is lazy: it stays pending on the tag stack until the next item that writes
// arrives, so that attributes can still be added to it. A manipulator does nothing until it is
// applied with operator<<; the writer's state changes at application, in the order of application,
// and applying one manipulator twice applies its effect twice.
//
// Text and attribute values are escaped (see XMLEscape); comments, CDATA sections, markup and
// entity references are written as given. Wide text is written as UTF-8.
//
// A writer and its formatter have no lock: one thread and one output stream at a time.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/XMLAttributes.h"

#include <istream>
#include <list>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>

namespace Qel::Core {

class XMLFormatter;

namespace Detail {

// A text argument of the writer: anything that converts to std::string or std::wstring
// (std::string, std::wstring, string literals, const char*, const wchar_t*). Streams are not.
template <typename T>
concept XMLTextArgument =
    std::is_convertible_v<const T&, std::string> || std::is_convertible_v<const T&, std::wstring>;

// The narrow (UTF-8) form of a text argument; a null pointer gives the empty text.
template <XMLTextArgument T>
std::string XMLNarrowText(const T& text)
{
    if constexpr (std::is_pointer_v<T>) {
        if (text == nullptr) return std::string();
    }
    if constexpr (std::is_convertible_v<const T&, std::string>) return std::string(text);
    else return XMLNarrow(std::wstring(text));
}

} // namespace Detail

class QEL_CORE_API XMLWriter
{
public:
    // A deferred writer operation: the writer it belongs to and what to do. Applied to a stream by
    // operator<<. Manipulators that take a stream hold it by reference, so the stream must outlive
    // the application.
    class QEL_CORE_API Manipulator
    {
    public:
        class QEL_CORE_API Applicator
        {
        public:
            virtual ~Applicator();
            virtual void Apply(std::ostream& os, const Manipulator& manipulator) = 0;
        };

        Manipulator(XMLWriter* writer, std::shared_ptr<Applicator> applicator);
        virtual ~Manipulator();

        virtual void Apply(std::ostream& os) const;
        XMLWriter* GetWriter() const { return m_pWriter; }

    private:
        XMLWriter* m_pWriter;
        std::shared_ptr<Applicator> m_spApplicator;
    };

    // The empty attribute list, the default of every attributes argument.
    static const XMLAttributeMap<std::string>& NO_ATTRIBUTES;

    // A null formatter means a new pretty-print formatter.
    explicit XMLWriter(std::shared_ptr<XMLFormatter> formatter = nullptr);
    XMLWriter(const XMLWriter& other);
    XMLWriter& operator=(const XMLWriter& other);
    // Writes nothing: tags still open stay unclosed in the output.
    virtual ~XMLWriter();

    // Takes `formatter` (a new pretty-print one if null) and forgets all open tags; writes nothing.
    void Reset(std::shared_ptr<XMLFormatter> formatter = nullptr);

    const std::shared_ptr<XMLFormatter>& GetFormatter() const { return m_spFormatter; }
    // Number of tags open or pending.
    std::size_t GetOpenTagCount() const { return m_OpenTags.size(); }

    // Closes all open tags, then writes the declaration: version "1.0", encoding "UTF-8".
    Manipulator StartXMLDoc();
    // Closes all open tags.
    Manipulator EndXMLDoc();

    // The processing instruction xml-stylesheet.
    template <Detail::XMLTextArgument Href, Detail::XMLTextArgument Type>
    Manipulator StyleSheet(const Href& href, const Type& type)
    {
        return StyleSheetImpl(Detail::XMLNarrowText(href), Detail::XMLNarrowText(type));
    }
    Manipulator StyleSheetImpl(const std::string& href, const std::string& type);

    // Opens a tag; it is printed with the next item that writes, so Attribute can still add to it.
    template <Detail::XMLTextArgument Name>
    Manipulator StartTag(const Name& name, const XMLAttributeMap<std::string>& attributes = NO_ATTRIBUTES)
    {
        return StartTagImpl(Detail::XMLNarrowText(name), attributes);
    }
    Manipulator StartTagImpl(const std::string& name, const XMLAttributeMap<std::string>& attributes = NO_ATTRIBUTES);

    // Closes the innermost tag (as start and end tag, never in the short empty form); nothing if
    // no tag is open.
    Manipulator EndTag();
    Manipulator EndAllTags();

    // A whole element in one step: the short empty form if `content` is empty, else start tag,
    // escaped content and end tag. The tag stack isn't touched.
    template <Detail::XMLTextArgument Name, Detail::XMLTextArgument Content = std::string>
    Manipulator Tag(const Name& name, const XMLAttributeMap<std::string>& attributes = NO_ATTRIBUTES,
                    const Content& content = Content())
    {
        return TagManipulator(Detail::XMLNarrowText(name), attributes, Detail::XMLNarrowText(content));
    }
    Manipulator TagManipulator(const std::string& name,
                               const XMLAttributeMap<std::string>& attributes = NO_ATTRIBUTES,
                               const std::string& content = std::string());

    // Sets an attribute of the innermost open tag. On a tag already printed the value is kept but
    // never written; with no open tag nothing happens. A plain text value is escaped.
    template <Detail::XMLTextArgument Name>
    Manipulator Attribute(const Name& name, const XMLAttributeValue<std::string>& value)
    {
        return AttributeManipulator(Detail::XMLNarrowText(name), value);
    }
    Manipulator AttributeManipulator(const std::string& name, const XMLAttributeValue<std::string>& value);

    // Escaped text.
    template <Detail::XMLTextArgument T>
    Manipulator Text(const T& text)
    {
        return TextImpl(Detail::XMLNarrowText(text));
    }
    // The whole content of `text`, escaped.
    Manipulator Text(std::istream& text);

    // "&name;": a text that starts with '&' is taken as the whole reference, any other as its name.
    template <Detail::XMLTextArgument T>
    Manipulator EntityReference(const T& reference)
    {
        return EntityReferenceImpl(Detail::XMLNarrowText(reference));
    }
    Manipulator EntityReferenceImpl(const std::string& reference);

    // Text that is already XML, written without escaping (a pretty-print formatter lays it out anew).
    template <Detail::XMLTextArgument T>
    Manipulator Markup(const T& markup)
    {
        return MarkupImpl(Detail::XMLNarrowText(markup));
    }
    Manipulator MarkupImpl(const std::string& markup);

    // A comment; the text is not escaped and must not hold "--".
    template <Detail::XMLTextArgument T>
    Manipulator Comment(const T& text, bool preserveFormat = false)
    {
        return CommentImpl(Detail::XMLNarrowText(text), preserveFormat);
    }
    Manipulator CommentImpl(const std::string& text, bool preserveFormat = false);

    // A CDATA section; the text is not escaped and must not hold "]]>".
    template <Detail::XMLTextArgument T>
    Manipulator CDATASection(const T& text, bool preserveFormat = false)
    {
        return CDATASectionImpl(Detail::XMLNarrowText(text), preserveFormat);
    }
    // The whole content of a stream as a CDATA section, meant for long data such as Base64.
    Manipulator CDATASection(std::istream& text, bool preserveFormat = false);
    Manipulator CDATASection(std::wistream& text, bool preserveFormat = false);

protected:
    Manipulator StartXMLDocImpl(const std::string& version, const std::string& encoding, bool standalone,
                                bool endOpenTags);
    Manipulator TextImpl(const std::string& text);
    Manipulator CDATASectionImpl(const std::string& text, bool preserveFormat = false);

private:
    // One open or pending tag.
    struct TagRecord
    {
        bool m_bWritten = false;
        std::string m_sName;
        XMLAttributeMap<std::string> m_Attributes;
    };

    class ApplyStartDoc;
    class ApplyStyleSheet;
    class ApplyStartTag;
    class ApplyEndTag;
    class ApplyEndAllTags;
    class ApplyText;
    class ApplyEntityReference;
    class ApplyTextStream;
    class ApplyMarkup;
    class ApplyTag;
    class ApplyAttribute;
    class ApplyComment;
    class ApplyCDATA;
    template <typename Stream>
    class ApplyCDATAStream;

    // Prints the innermost tag if its start tag is still pending.
    void WritePendingTag(std::ostream& os);
    // Prints the innermost tag's end tag (and its start tag if pending) and pops it.
    void CloseTag(std::ostream& os);

    std::shared_ptr<XMLFormatter> m_spFormatter;
    std::list<TagRecord> m_OpenTags; // innermost first
};

// Applies a writer manipulator to the stream.
QEL_CORE_API std::ostream& operator<<(std::ostream& os, const XMLWriter::Manipulator& manipulator);

} // namespace Qel::Core
