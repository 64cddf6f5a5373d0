// The XML writer: manipulators, the lazy start tag and the stack of open tags.
#include "Infrastructure/QelCore/XMLWriter.h"

#include "Infrastructure/QelCore/Utilities/Immortal.h"
#include "Infrastructure/QelCore/XMLFormatter.h"

#include <utility>

namespace Qel::Core {
namespace {

// The empty attribute list, never destroyed: alerts raised while the library unloads still write
// XML with the default attributes argument. Its reserved room is handed back at once (a moved-from
// vector holds no buffer), so that nothing stays on the heap after the library is unloaded.
struct NoAttributes
{
    NoAttributes()
    {
        XMLAttributeMap<std::string> sink(std::move(m_Map.m_Object));
    }
    Utilities::Immortal<XMLAttributeMap<std::string>> m_Map;
};
NoAttributes s_NoAttributes;

} // namespace

const XMLAttributeMap<std::string>& XMLWriter::NO_ATTRIBUTES = s_NoAttributes.m_Map.m_Object;

// ---- manipulators ----

XMLWriter::Manipulator::Applicator::~Applicator() = default;

XMLWriter::Manipulator::Manipulator(XMLWriter* writer, std::shared_ptr<Applicator> applicator)
    : m_pWriter(writer), m_spApplicator(std::move(applicator))
{
}

XMLWriter::Manipulator::~Manipulator() = default;

void XMLWriter::Manipulator::Apply(std::ostream& os) const
{
    if (m_spApplicator) m_spApplicator->Apply(os, *this);
}

std::ostream& operator<<(std::ostream& os, const XMLWriter::Manipulator& manipulator)
{
    manipulator.Apply(os);
    return os;
}

// ---- the applicators, one per kind of item ----

class XMLWriter::ApplyStartDoc : public Manipulator::Applicator
{
public:
    ApplyStartDoc(const std::string& version, const std::string& encoding, bool standalone, bool endOpenTags)
        : m_sVersion(version), m_sEncoding(encoding), m_bStandalone(standalone), m_bEndOpenTags(endOpenTags)
    {
    }
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        if (m_bEndOpenTags) {
            while (!writer.m_OpenTags.empty()) writer.CloseTag(os);
        }
        writer.m_spFormatter->FormatStartDoc(os, m_sVersion, m_sEncoding, m_bStandalone);
    }

private:
    std::string m_sVersion;
    std::string m_sEncoding;
    bool m_bStandalone;
    bool m_bEndOpenTags;
};

class XMLWriter::ApplyStyleSheet : public Manipulator::Applicator
{
public:
    ApplyStyleSheet(const std::string& href, const std::string& type) : m_sHref(href), m_sType(type) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        manipulator.GetWriter()->m_spFormatter->FormatStyleSheet(os, m_sHref, m_sType);
    }

private:
    std::string m_sHref;
    std::string m_sType;
};

class XMLWriter::ApplyStartTag : public Manipulator::Applicator
{
public:
    ApplyStartTag(const std::string& name, const XMLAttributeMap<std::string>& attributes)
        : m_sName(name), m_Attributes(attributes)
    {
    }
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_OpenTags.push_front(TagRecord{false, m_sName, m_Attributes});
    }

private:
    std::string m_sName;
    XMLAttributeMap<std::string> m_Attributes;
};

class XMLWriter::ApplyEndTag : public Manipulator::Applicator
{
public:
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        if (!writer.m_OpenTags.empty()) writer.CloseTag(os);
    }
};

class XMLWriter::ApplyEndAllTags : public Manipulator::Applicator
{
public:
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        while (!writer.m_OpenTags.empty()) writer.CloseTag(os);
    }
};

class XMLWriter::ApplyText : public Manipulator::Applicator
{
public:
    explicit ApplyText(const std::string& text) : m_sText(text) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatText(os, m_sText);
    }

private:
    std::string m_sText;
};

class XMLWriter::ApplyEntityReference : public Manipulator::Applicator
{
public:
    // "lt" and "&lt;" both stand for "&lt;".
    explicit ApplyEntityReference(const std::string& reference)
        : m_sReference(!reference.empty() && reference[0] == '&' ? reference : "&" + reference + ";")
    {
    }
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatEntityReference(os, m_sReference);
    }

private:
    std::string m_sReference;
};

class XMLWriter::ApplyTextStream : public Manipulator::Applicator
{
public:
    explicit ApplyTextStream(std::istream& text) : m_Text(text) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatTextStream(os, m_Text);
    }

private:
    std::istream& m_Text;
};

class XMLWriter::ApplyMarkup : public Manipulator::Applicator
{
public:
    explicit ApplyMarkup(const std::string& markup) : m_sMarkup(markup) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatMarkup(os, m_sMarkup);
    }

private:
    std::string m_sMarkup;
};

class XMLWriter::ApplyTag : public Manipulator::Applicator
{
public:
    ApplyTag(const std::string& name, const XMLAttributeMap<std::string>& attributes, const std::string& content)
        : m_sName(name), m_Attributes(attributes), m_sContent(content)
    {
    }
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatTag(os, m_sName, m_Attributes, m_sContent);
    }

private:
    std::string m_sName;
    XMLAttributeMap<std::string> m_Attributes;
    std::string m_sContent;
};

class XMLWriter::ApplyAttribute : public Manipulator::Applicator
{
public:
    ApplyAttribute(const std::string& name, const XMLAttributeValue<std::string>& value)
        : m_sName(name), m_Value(value)
    {
    }
    void Apply(std::ostream&, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        if (writer.m_OpenTags.empty()) return;
        writer.m_OpenTags.front().m_Attributes[m_sName] = m_Value;
    }

private:
    std::string m_sName;
    XMLAttributeValue<std::string> m_Value;
};

class XMLWriter::ApplyComment : public Manipulator::Applicator
{
public:
    ApplyComment(const std::string& text, bool preserveFormat) : m_sText(text), m_bPreserveFormat(preserveFormat) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatComment(os, m_sText, m_bPreserveFormat);
    }

private:
    std::string m_sText;
    bool m_bPreserveFormat;
};

class XMLWriter::ApplyCDATA : public Manipulator::Applicator
{
public:
    ApplyCDATA(const std::string& text, bool preserveFormat) : m_sText(text), m_bPreserveFormat(preserveFormat) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        writer.m_spFormatter->FormatCDATA(os, m_sText, m_bPreserveFormat);
    }

private:
    std::string m_sText;
    bool m_bPreserveFormat;
};

template <typename Stream>
class XMLWriter::ApplyCDATAStream : public Manipulator::Applicator
{
public:
    ApplyCDATAStream(Stream& text, bool preserveFormat) : m_Text(text), m_bPreserveFormat(preserveFormat) {}
    void Apply(std::ostream& os, const Manipulator& manipulator) override
    {
        XMLWriter& writer = *manipulator.GetWriter();
        writer.WritePendingTag(os);
        if constexpr (std::is_same_v<Stream, std::wistream>)
            writer.m_spFormatter->FormatWideCDATAStream(os, m_Text, m_bPreserveFormat);
        else
            writer.m_spFormatter->FormatCDATAStream(os, m_Text, m_bPreserveFormat);
    }

private:
    Stream& m_Text;
    bool m_bPreserveFormat;
};

// ---- the writer ----

XMLWriter::XMLWriter(std::shared_ptr<XMLFormatter> formatter)
    : m_spFormatter(formatter ? std::move(formatter) : XMLFormatter::CreatePrettyPrint())
{
}

XMLWriter::XMLWriter(const XMLWriter& other) = default;
XMLWriter& XMLWriter::operator=(const XMLWriter& other) = default;
XMLWriter::~XMLWriter() = default;

void XMLWriter::Reset(std::shared_ptr<XMLFormatter> formatter)
{
    m_spFormatter = formatter ? std::move(formatter) : XMLFormatter::CreatePrettyPrint();
    m_OpenTags.clear();
}

void XMLWriter::WritePendingTag(std::ostream& os)
{
    if (m_OpenTags.empty() || m_OpenTags.front().m_bWritten) return;
    TagRecord& top = m_OpenTags.front();
    top.m_bWritten = true;
    m_spFormatter->FormatStartTag(os, top.m_sName, top.m_Attributes, false);
}

void XMLWriter::CloseTag(std::ostream& os)
{
    WritePendingTag(os);
    m_spFormatter->FormatEndTag(os, m_OpenTags.front().m_sName);
    m_OpenTags.pop_front();
}

XMLWriter::Manipulator XMLWriter::StartXMLDoc()
{
    return StartXMLDocImpl("1.0", "UTF-8", false, true);
}

XMLWriter::Manipulator XMLWriter::StartXMLDocImpl(const std::string& version, const std::string& encoding,
                                                  bool standalone, bool endOpenTags)
{
    return Manipulator(this, std::make_shared<ApplyStartDoc>(version, encoding, standalone, endOpenTags));
}

XMLWriter::Manipulator XMLWriter::EndXMLDoc()
{
    return EndAllTags();
}

XMLWriter::Manipulator XMLWriter::StyleSheetImpl(const std::string& href, const std::string& type)
{
    return Manipulator(this, std::make_shared<ApplyStyleSheet>(href, type));
}

XMLWriter::Manipulator XMLWriter::StartTagImpl(const std::string& name, const XMLAttributeMap<std::string>& attributes)
{
    return Manipulator(this, std::make_shared<ApplyStartTag>(name, attributes));
}

XMLWriter::Manipulator XMLWriter::EndTag()
{
    return Manipulator(this, std::make_shared<ApplyEndTag>());
}

XMLWriter::Manipulator XMLWriter::EndAllTags()
{
    return Manipulator(this, std::make_shared<ApplyEndAllTags>());
}

XMLWriter::Manipulator XMLWriter::TagManipulator(const std::string& name,
                                                 const XMLAttributeMap<std::string>& attributes,
                                                 const std::string& content)
{
    return Manipulator(this, std::make_shared<ApplyTag>(name, attributes, content));
}

XMLWriter::Manipulator XMLWriter::AttributeManipulator(const std::string& name,
                                                       const XMLAttributeValue<std::string>& value)
{
    return Manipulator(this, std::make_shared<ApplyAttribute>(name, value));
}

XMLWriter::Manipulator XMLWriter::TextImpl(const std::string& text)
{
    return Manipulator(this, std::make_shared<ApplyText>(text));
}

XMLWriter::Manipulator XMLWriter::Text(std::istream& text)
{
    return Manipulator(this, std::make_shared<ApplyTextStream>(text));
}

XMLWriter::Manipulator XMLWriter::EntityReferenceImpl(const std::string& reference)
{
    return Manipulator(this, std::make_shared<ApplyEntityReference>(reference));
}

XMLWriter::Manipulator XMLWriter::MarkupImpl(const std::string& markup)
{
    return Manipulator(this, std::make_shared<ApplyMarkup>(markup));
}

XMLWriter::Manipulator XMLWriter::CommentImpl(const std::string& text, bool preserveFormat)
{
    return Manipulator(this, std::make_shared<ApplyComment>(text, preserveFormat));
}

XMLWriter::Manipulator XMLWriter::CDATASectionImpl(const std::string& text, bool preserveFormat)
{
    return Manipulator(this, std::make_shared<ApplyCDATA>(text, preserveFormat));
}

XMLWriter::Manipulator XMLWriter::CDATASection(std::istream& text, bool preserveFormat)
{
    return Manipulator(this, std::make_shared<ApplyCDATAStream<std::istream>>(text, preserveFormat));
}

XMLWriter::Manipulator XMLWriter::CDATASection(std::wistream& text, bool preserveFormat)
{
    return Manipulator(this, std::make_shared<ApplyCDATAStream<std::wistream>>(text, preserveFormat));
}

} // namespace Qel::Core
