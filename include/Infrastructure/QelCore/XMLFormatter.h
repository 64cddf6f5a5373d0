// The output style of XMLWriter.
//
// The writer decides what comes next; the formatter decides the characters and the white space.
// Two styles exist, made by the factories:
// - compact: no white space of its own at all;
// - pretty print: indents by nesting (two blanks a level), keeps short elements on one line,
//   wraps at 80 columns, breaks long attribute lists into aligned lines, and lays out anew XML
//   that reaches it as markup. It counts lines and columns itself (in bytes), so any ostream will
//   do; every line end is std::endl. It holds the state of one document at a time: its
//   FormatStartDoc starts afresh.
// A formatter has no lock; it belongs to one thread at a time.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/XMLAttributes.h"

#include <istream>
#include <memory>
#include <ostream>
#include <string>

namespace Qel::Core {

class QEL_CORE_API XMLFormatter
{
public:
    virtual ~XMLFormatter();

    // The XML declaration; standalone="yes" only if `standalone`.
    virtual void FormatStartDoc(std::ostream& os, const std::string& version, const std::string& encoding,
                                bool standalone) = 0;
    // A start tag, in the short form "<name/>" if `empty`.
    virtual void FormatStartTag(std::ostream& os, const std::string& name,
                                const XMLAttributeMap<std::string>& attributes, bool empty) = 0;
    // The whole content of the stream as escaped text.
    virtual void FormatTextStream(std::ostream& os, std::istream& text) = 0;
    // Escaped text.
    virtual void FormatText(std::ostream& os, const std::string& text) = 0;
    virtual void FormatEndTag(std::ostream& os, const std::string& name) = 0;
    virtual void FormatProcessingInstruction(std::ostream& os, const std::string& target, const std::string& data,
                                             bool preserveFormat) = 0;
    // Text that is already XML.
    virtual void FormatMarkupStream(std::ostream& os, std::istream& markup) = 0;
    virtual void FormatMarkup(std::ostream& os, const std::string& markup) = 0;
    virtual void FormatComment(std::ostream& os, const std::string& text, bool preserveFormat) = 0;
    // CDATA sections; wide content is written as UTF-8.
    virtual void FormatWideCDATAStream(std::ostream& os, std::wistream& text, bool preserveFormat) = 0;
    virtual void FormatCDATAStream(std::ostream& os, std::istream& text, bool preserveFormat) = 0;
    virtual void FormatCDATA(std::ostream& os, const std::string& text, bool preserveFormat) = 0;
    // A reference such as "&lt;", written as it stands.
    virtual void FormatEntityReference(std::ostream& os, const std::string& reference) = 0;

    // A whole element: the short empty form if `content` is empty, else start tag, text, end tag.
    void FormatTag(std::ostream& os, const std::string& name, const XMLAttributeMap<std::string>& attributes,
                   const std::string& content);
    // The processing instruction xml-stylesheet with the data type="..." and href="..." on two lines.
    void FormatStyleSheet(std::ostream& os, const std::string& href, const std::string& type);

    static std::shared_ptr<XMLFormatter> CreateCompact();
    static std::shared_ptr<XMLFormatter> CreatePrettyPrint();

protected:
    XMLFormatter();
    XMLFormatter(const XMLFormatter& other);
    XMLFormatter& operator=(const XMLFormatter& other);
};

} // namespace Qel::Core
