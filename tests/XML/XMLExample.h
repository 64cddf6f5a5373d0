// The example document that the XML tests write in both styles: a comment, empty tags with and
// without attributes, an element with attributes, escaped text and CDATA, then text.
#pragma once

#include "Infrastructure/QelCore/XMLWriter.h"

#include <ostream>
#include <string>

namespace QelTest {

// Writes the example through `writer`; `tagName` names the element that holds text and CDATA.
inline void WriteExample(Qel::Core::XMLWriter& writer, std::ostream& out,
                         const std::string& tagName = "TagWithAttributes")
{
    Qel::Core::XMLAttributeMap<std::string> attribute;
    attribute["name"] = "value";
    Qel::Core::XMLAttributeMap<std::string> attributes;
    attributes["name1"] = "value1";
    attributes["name2"] = "value2";
    out << writer.StartXMLDoc() << writer.StartTag("Test") << writer.Comment("A comment", false)
        << writer.Tag("AnEmptyTag") << writer.Tag("EmptyTagWithAttribute", attribute, "")
        << writer.StartTag(tagName, attributes) << writer.Text("1 < 2")
        << writer.CDATASection("<CDATA Test>Entity usage: &amp;</CDATA Test>", false) << writer.EndTag()
        << writer.Text("content") << writer.EndAllTags() << writer.EndXMLDoc();
}

} // namespace QelTest
