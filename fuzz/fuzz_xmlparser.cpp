// Fuzzes the XML parser: the same input parsed from memory and through a stream gives the same
// result and the same events, a reused parser gives them again, and the events nest: no end tag
// without a start tag, no element deeper than the nesting limit, and a document that parses has
// closed every element it opened.
//
// The nesting limit holds for every start tag reported: an element that would stand deeper ends
// the parse before its start tag is read.
#include "Infrastructure/QelCore/XMLParser.h"

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace {

using String = std::string;

class Recorder : public Qel::Core::XMLParseHandler<Qel::Core::XMLStringPolicy<String>>
{
public:
    std::vector<String> m_Events;
    std::size_t m_nDepth = 0;

    void Reset()
    {
        m_Events.clear();
        m_nDepth = 0;
    }

    void CDATA(const String& text) override { m_Events.push_back("X" + text); }

    void StartDocument(const String& version, const String& encoding, bool standalone)
    {
        m_Events.push_back("D" + version + '|' + encoding + '|' + (standalone ? '1' : '0'));
    }
    void StartTag(const String& name)
    {
        if (++m_nDepth > Qel::Core::XMLParserNestingLimit) __builtin_trap();
        m_Events.push_back("S" + name);
    }
    void Attribute(const String& name, const Qel::Core::XMLAttributeValue<String>& value)
    {
        String event = "A" + name + '=';
        for (const auto& part : value.GetParts()) {
            event += part.reference ? "{" : "";
            event += part.text;
            event += part.reference ? "}" : "";
        }
        m_Events.push_back(event);
    }
    void EndTag(const String& name, bool empty)
    {
        if (m_nDepth == 0) __builtin_trap();
        --m_nDepth;
        m_Events.push_back((empty ? "e" : "E") + name);
    }
    void Text(const String& text) { m_Events.push_back("T" + text); }
    void Comment(const String& text) { m_Events.push_back("C" + text); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const String input(reinterpret_cast<const char*>(data), size);

    Qel::Core::XMLParser<Recorder> memory;
    const bool bMemory = memory.Parse(input);
    if (bMemory && memory.m_nDepth != 0) __builtin_trap();

    Qel::Core::XMLParser<Recorder> stream;
    std::istringstream in(input);
    const bool bStream = stream.Parse(in);
    if (bStream != bMemory || stream.m_Events != memory.m_Events) __builtin_trap();

    // The memory parser once more, after a parse of its own: nothing of the first parse shows.
    std::vector<String> first = std::move(memory.m_Events);
    memory.Reset();
    if (memory.Parse(input) != bMemory || memory.m_Events != first) __builtin_trap();
    return 0;
}
