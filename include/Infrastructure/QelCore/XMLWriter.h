// Writing XML.
//
// This is the writer's element core: start and end elements with attributes, escaped text, and
// the stack of open elements. Output is compact: no white space between elements, and a line end
// behind the outermost element. Text is escaped so that the result stays well-formed whatever it
// holds: markup characters become entities, control characters and bytes that are not UTF-8 are
// replaced.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <ostream>
#include <string>
#include <vector>

namespace Qel::Core {

class QEL_CORE_API XMLWriter
{
public:
    XMLWriter();
    virtual ~XMLWriter();

    // Opens an element, with one attribute if `attributeName` is not empty.
    void StartElement(std::ostream& out, const std::string& name, const std::string& attributeName = std::string(),
                      const std::string& attributeValue = std::string());
    // Writes escaped text into the open element.
    void Text(std::ostream& out, const std::string& text);
    // Closes the innermost open element; nothing if none is open.
    void EndElement(std::ostream& out);
    // A whole element with text.
    void Element(std::ostream& out, const std::string& name, const std::string& text);

    // The text with markup characters as entities, control characters (but tab, line feed and
    // carriage return) and invalid UTF-8 replaced by U+FFFD.
    static std::string Escape(const std::string& text);

private:
    std::vector<std::string> m_OpenTags;
};

} // namespace Qel::Core
