// Markup given to the pretty-print formatter is parsed and laid out anew: the handler below turns
// the parser's callbacks back into formatter calls, with the writer's lazy start tag, so that
// empty elements keep their short form and attributes reach their start tag.
#include "Infrastructure/QelCore/XML/PrettyPrintFormatter.h"

#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/StringTools.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"
#include "Infrastructure/QelCore/XMLParser.h"

#include <list>

namespace Qel::Core {
namespace {

// All markup parses of the process run one at a time.
Mutex& MarkupParseMutex()
{
    static Utilities::Immortal<Mutex> s_Mutex; // never destroyed: a formatter may run during unload
    return s_Mutex.Get();
}

} // namespace

class PrettyPrintFormatter::XMLHandler : public XMLParseHandler<XMLStringPolicy<std::string>>
{
public:
    XMLHandler(XMLFormatter& formatter, std::ostream& os) : m_Formatter(formatter), m_Out(os) {}

    std::shared_ptr<Lock> GetParseLock() override { return std::make_shared<Lock>(MarkupParseMutex()); }

    void StartDocument(const std::string& version, const std::string& encoding, bool standalone)
    {
        m_Formatter.FormatStartDoc(m_Out, version, encoding, standalone);
    }

    void StartTag(const std::string& name)
    {
        FlushPending();
        WritePendingTag(false);
        m_Tags.push_front(Tag{false, name, XMLAttributeMap<std::string>()});
    }

    // The parser gives a value's meaning; the stored value is escaped again for writing, and
    // references that the parser did not replace stay references.
    void Attribute(const std::string& name, const XMLAttributeValue<std::string>& value)
    {
        if (m_Tags.empty()) return;
        XMLAttributeValue<std::string> written;
        for (const auto& part : value.GetParts()) {
            if (part.reference) written.AppendReference(part.text);
            else written.Append(part.text, true);
        }
        m_Tags.front().attributes[name] = written;
    }

    void EndTag(const std::string& name, bool empty)
    {
        FlushPending();
        if (empty) {
            WritePendingTag(true);
            if (!m_Tags.empty()) m_Tags.pop_front();
            return;
        }
        WritePendingTag(false);
        if (!m_Tags.empty()) m_Tags.pop_front();
        m_Formatter.FormatEndTag(m_Out, name);
    }

    void Text(const std::string& text) { m_Text += text; }

    void Comment(const std::string& text)
    {
        FlushPending();
        WritePendingTag(false);
        m_Formatter.FormatComment(m_Out, text, true);
    }

    void CDATA(const std::string& text) override
    {
        FlushPending();
        WritePendingTag(false);
        m_Formatter.FormatCDATA(m_Out, text, true);
    }

    // Collected text, trimmed of white space; nothing if only white space was collected.
    void FlushPending()
    {
        if (m_Text.empty()) return;
        std::string text = StringTools::TrimWS(m_Text);
        m_Text.clear();
        if (text.empty()) return;
        WritePendingTag(false);
        m_Formatter.FormatText(m_Out, text);
    }

private:
    struct Tag
    {
        bool written;
        std::string name;
        XMLAttributeMap<std::string> attributes;
    };

    void WritePendingTag(bool empty)
    {
        if (m_Tags.empty() || m_Tags.front().written) return;
        m_Tags.front().written = true;
        m_Formatter.FormatStartTag(m_Out, m_Tags.front().name, m_Tags.front().attributes, empty);
    }

    XMLFormatter& m_Formatter;
    std::ostream& m_Out;
    std::list<Tag> m_Tags; // latest first
    std::string m_Text;
};

void PrettyPrintFormatter::ReformatMarkup(std::ostream& os, std::istream* stream, const std::string* text)
{
    XMLParser<XMLHandler> parser(*this, os);
    // Markup that is not one well-formed document leaves what was written so far; nothing is
    // reported.
    if (stream) (void)parser.Parse(*stream);
    else if (text) (void)parser.Parse(*text);
    parser.FlushPending(); // text after the last tag of a partial document
}

} // namespace Qel::Core
