// The formatter base: whole elements and style sheets in terms of the virtual operations. The
// factories lie beside the styles they make.
#include "Infrastructure/QelCore/XMLFormatter.h"

namespace Qel::Core {

XMLFormatter::XMLFormatter() = default;
XMLFormatter::XMLFormatter(const XMLFormatter&) = default;
XMLFormatter& XMLFormatter::operator=(const XMLFormatter&) = default;
XMLFormatter::~XMLFormatter() = default;

void XMLFormatter::FormatTag(std::ostream& os, const std::string& name, const XMLAttributeMap<std::string>& attributes,
                             const std::string& content)
{
    FormatStartTag(os, name, attributes, content.empty());
    if (!content.empty()) {
        FormatText(os, content);
        FormatEndTag(os, name);
    }
}

void XMLFormatter::FormatStyleSheet(std::ostream& os, const std::string& href, const std::string& type)
{
    std::string data = "type=\"" + type + "\"\nhref=\"" + href + "\"";
    FormatProcessingInstruction(os, "xml-stylesheet", data, false);
}

} // namespace Qel::Core
