// Benchmarks of XML parsing and writing against the well-known libraries, measured in the same run.
//
// Parsing (bytes processed = input bytes), our XMLParser from memory (Parse(std::string)) and from
// a stream (Parse(std::istream&) over an std::istringstream, its construction included) against
// expat (XML_Parse over the same bytes in memory) and libxml2's SAX parser
// (xmlSAXUserParseMemory). Every parser is given handlers for start tags, end tags and text that
// count what they see, so that all of them deliver the same information to the caller:
//   - XMLParseGenerated: a generated document of 10 MB (nested elements with attributes, text with
//     entities and character references, comments, a CDATA section now and then),
//   - XMLParseCorpus: the XML files under /usr/share, each parsed as a document of its own from
//     memory; files that libxml2 (as xmllint does) or expat reject are left out,
//   - XMLParseSmall: the 47-byte document of the parser's documentation, a new parser for each parse
//     on every side, for the latency of one parse.
// The stream form is measured as its own cases (...Stream_Qel), against the same in-memory
// references, so that its ratio says what reading through a stream costs against the references.
//
// Writing (bytes processed = output bytes): 200,000 elements like
//   <item id="N" name="a&lt;b &amp; &quot;c&quot;">some text &amp; more &lt;here&gt;</item>
// through the compact XMLWriter into an std::ostringstream, against pugixml building the same tree
// and saving it unindented into an std::ostringstream.
//
// Names follow BM_<Case>_Qel against BM_<Case>_Expat, BM_<Case>_Libxml, BM_<Case>_Pugixml.
#include "Infrastructure/QelCore/XMLParser.h"

#if __has_include("Infrastructure/QelCore/XMLFormatter.h")
#include "Infrastructure/QelCore/XMLFormatter.h"
#include "Infrastructure/QelCore/XMLWriter.h"
#define QEL_BENCH_XML_WRITER 1
#endif

#include <benchmark/benchmark.h>
#include <expat.h>
#include <libxml/parser.h>
#include <pugixml.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr double dMIN_TIME = 0.5;

// ---- documents ----

// About `size` bytes of XML, the same on every run.
std::string GenerateDocument(std::size_t size)
{
    std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<catalog generator=\"qel-bench\" version=\"2\">\n";
    std::uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7fff;
    };
    for (unsigned n = 0; doc.size() < size; ++n) {
        doc += "  <record id=\"r" + std::to_string(n) + "\" kind=\"" + (n % 3 ? "plain" : "a&amp;b") +
               "\" weight='" + std::to_string(next() % 1000) + "." + std::to_string(next() % 100) + "'>\n";
        doc += "    <name lang=\"en\">Item " + std::to_string(n) + " &amp; part &lt;" + std::to_string(next()) +
               "&gt; caf\xc3\xa9</name>\n";
        if (n % 4 == 0) doc += "    <!-- record " + std::to_string(n) + " was checked -->\n";
        doc += "    <values unit=\"mm\" count=\"3\">\n";
        for (int k = 0; k < 3; ++k) {
            doc += "      <v i=\"" + std::to_string(k) + "\" q=\"&quot;ok&quot;\">" + std::to_string(next()) + "." +
                   std::to_string(next() % 1000) + "</v>\n";
        }
        doc += "    </values>\n";
        doc += "    <note>Measured at &#176;C " + std::to_string(next() % 40) +
               " with the &apos;standard&apos; probe; see below.</note>\n";
        if (n % 10 == 0) doc += "    <raw><![CDATA[if (a < b && c > d) { x = \"<tag>\"; }]]></raw>\n";
        doc += "    <flags><on/><off reason=\"n/a\"/></flags>\n  </record>\n";
    }
    doc += "</catalog>\n";
    return doc;
}

const std::string& GeneratedDocument()
{
    static const std::string doc = GenerateDocument(10 * 1000 * 1000);
    return doc;
}

const std::string& SmallDocument()
{
    static const std::string doc = "<?xml version=\"1.0\"?><a x=\"1\">t<!--c--><b/></a>";
    return doc;
}

void SilentError(void*, const char*, ...) {}

// Whether libxml2 finds the document well-formed (what xmllint --noout says), without loading
// anything from outside.
bool LibxmlAccepts(const std::string& doc)
{
    xmlDocPtr parsed = xmlReadMemory(doc.data(), static_cast<int>(doc.size()), nullptr, nullptr,
                                     XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (parsed == nullptr) return false;
    xmlFreeDoc(parsed);
    return true;
}

bool ExpatAccepts(const std::string& doc)
{
    XML_Parser parser = XML_ParserCreate(nullptr);
    bool ok = XML_Parse(parser, doc.data(), static_cast<int>(doc.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return ok;
}

const std::vector<std::string>& CorpusDocuments()
{
    static const std::vector<std::string> docs = [] {
        std::vector<std::string> paths;
        std::error_code error;
        namespace fs = std::filesystem;
        for (fs::recursive_directory_iterator it("/usr/share", fs::directory_options::skip_permission_denied, error), end;
             !error && it != end; it.increment(error)) {
            if (it->path().extension() == ".xml" && it->is_regular_file(error) && !it->is_symlink(error))
                paths.push_back(it->path().string());
        }
        std::sort(paths.begin(), paths.end());
        std::vector<std::string> result;
        for (const std::string& path : paths) {
            std::ifstream file(path, std::ios::binary);
            std::string doc((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            if (!doc.empty() && LibxmlAccepts(doc) && ExpatAccepts(doc)) result.push_back(std::move(doc));
        }
        return result;
    }();
    return docs;
}

std::int64_t TotalBytes(const std::vector<std::string>& docs)
{
    std::int64_t total = 0;
    for (const std::string& doc : docs) total += static_cast<std::int64_t>(doc.size());
    return total;
}

// What each handler gathers: elements, and bytes of text.
struct Counts
{
    std::int64_t elements = 0;
    std::int64_t text = 0;
};

// ---- our parser ----

class CountingHandler : public Qel::Core::XMLParseHandler<Qel::Core::XMLStringPolicy<std::string>>
{
public:
    Counts m_Counts;
    void StartTag(const std::string&) { ++m_Counts.elements; }
    void EndTag(const std::string&, bool) { ++m_Counts.elements; }
    void Text(const std::string& text) { m_Counts.text += static_cast<std::int64_t>(text.size()); }
    void CDATA(const std::string& text) override { m_Counts.text += static_cast<std::int64_t>(text.size()); }
};

bool QelParse(const std::string& doc, Counts& counts)
{
    Qel::Core::XMLParser<CountingHandler> parser;
    bool ok = parser.Parse(doc);
    counts.elements += parser.m_Counts.elements;
    counts.text += parser.m_Counts.text;
    return ok;
}

bool QelParseStream(const std::string& doc, Counts& counts)
{
    Qel::Core::XMLParser<CountingHandler> parser;
    std::istringstream in(doc);
    bool ok = parser.Parse(in);
    counts.elements += parser.m_Counts.elements;
    counts.text += parser.m_Counts.text;
    return ok;
}

// ---- expat ----

void XMLCALL ExpatStart(void* data, const XML_Char*, const XML_Char**) { ++static_cast<Counts*>(data)->elements; }
void XMLCALL ExpatEnd(void* data, const XML_Char*) { ++static_cast<Counts*>(data)->elements; }
void XMLCALL ExpatText(void* data, const XML_Char*, int length) { static_cast<Counts*>(data)->text += length; }

bool ExpatParse(const std::string& doc, Counts& counts)
{
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &counts);
    XML_SetElementHandler(parser, ExpatStart, ExpatEnd);
    XML_SetCharacterDataHandler(parser, ExpatText);
    bool ok = XML_Parse(parser, doc.data(), static_cast<int>(doc.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return ok;
}

// ---- libxml2 SAX ----

void LibxmlStart(void* data, const xmlChar*, const xmlChar**) { ++static_cast<Counts*>(data)->elements; }
void LibxmlEnd(void* data, const xmlChar*) { ++static_cast<Counts*>(data)->elements; }
void LibxmlText(void* data, const xmlChar*, int length) { static_cast<Counts*>(data)->text += length; }

bool LibxmlParse(const std::string& doc, Counts& counts)
{
    xmlSAXHandler handler{};
    handler.startElement = LibxmlStart;
    handler.endElement = LibxmlEnd;
    handler.characters = LibxmlText;
    handler.cdataBlock = LibxmlText;
    handler.warning = SilentError;
    handler.error = SilentError;
    handler.fatalError = SilentError;
    return xmlSAXUserParseMemory(&handler, &counts, doc.data(), static_cast<int>(doc.size())) == 0;
}

// ---- the cases ----

using ParseFunction = bool (*)(const std::string&, Counts&);

void ParseDocuments(benchmark::State& state, const std::vector<std::string>& docs, ParseFunction parse)
{
    Counts counts;
    std::int64_t rejected = 0;
    for (auto _ : state) {
        for (const std::string& doc : docs) {
            if (!parse(doc, counts)) ++rejected;
        }
        benchmark::DoNotOptimize(counts);
    }
    state.SetBytesProcessed(state.iterations() * TotalBytes(docs));
    state.counters["docs"] = static_cast<double>(docs.size());
    state.counters["rejected"] = static_cast<double>(rejected) / static_cast<double>(std::max<std::int64_t>(1, state.iterations()));
    if (rejected != 0 && parse != QelParse && parse != QelParseStream)
        state.SkipWithError("a reference parser rejected a document it was chosen for");
}

const std::vector<std::string>& Generated()
{
    static const std::vector<std::string> docs{GeneratedDocument()};
    return docs;
}

const std::vector<std::string>& Small()
{
    static const std::vector<std::string> docs{SmallDocument()};
    return docs;
}

void RegisterParseCases()
{
    struct Case
    {
        const char* name;
        const std::vector<std::string>& (*docs)();
    };
    struct Side
    {
        const char* suffix;
        ParseFunction parse;
    };
    const Case cases[] = {{"XMLParseGenerated", Generated}, {"XMLParseCorpus", CorpusDocuments}, {"XMLParseSmall", Small}};
    const Side references[] = {{"_Expat", ExpatParse}, {"_Libxml", LibxmlParse}};
    for (const Case& c : cases) {
        for (bool stream : {false, true}) {
            std::string base = std::string("BM_") + c.name + (stream ? "Stream" : "");
            ParseFunction ours = stream ? QelParseStream : QelParse;
            auto docs = c.docs;
            benchmark::RegisterBenchmark((base + "_Qel").c_str(),
                                         [docs, ours](benchmark::State& state) { ParseDocuments(state, docs(), ours); })
                ->MinTime(dMIN_TIME)
                ->Unit(benchmark::kMicrosecond);
            for (const Side& side : references) {
                ParseFunction parse = side.parse;
                benchmark::RegisterBenchmark((base + side.suffix).c_str(),
                                             [docs, parse](benchmark::State& state) { ParseDocuments(state, docs(), parse); })
                    ->MinTime(dMIN_TIME)
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
}

const bool bParseCasesRegistered = (RegisterParseCases(), true);

// ---- writing ----

constexpr int nWRITE_ELEMENTS = 200000;
const char* const sNAME_VALUE = "a<b & \"c\"";
const char* const sTEXT = "some text & more <here>";

#ifdef QEL_BENCH_XML_WRITER
void BM_XMLWriteItems_Qel(benchmark::State& state)
{
    using namespace Qel::Core;
    std::int64_t bytes = 0;
    for (auto _ : state) {
        std::ostringstream out;
        XMLWriter writer(XMLFormatter::CreateCompact());
        out << writer.StartXMLDoc() << writer.StartTag("items");
        for (int n = 0; n < nWRITE_ELEMENTS; ++n) {
            out << writer.StartTag("item") << writer.Attribute("id", std::to_string(n))
                << writer.Attribute("name", sNAME_VALUE) << writer.Text(sTEXT) << writer.EndTag();
        }
        out << writer.EndTag();
        bytes += static_cast<std::int64_t>(out.tellp());
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_XMLWriteItems_Qel)->MinTime(dMIN_TIME)->Unit(benchmark::kMillisecond);
#endif

void BM_XMLWriteItems_Pugixml(benchmark::State& state)
{
    std::int64_t bytes = 0;
    for (auto _ : state) {
        std::ostringstream out;
        pugi::xml_document doc;
        pugi::xml_node declaration = doc.append_child(pugi::node_declaration);
        declaration.append_attribute("version").set_value("1.0");
        declaration.append_attribute("encoding").set_value("UTF-8");
        pugi::xml_node items = doc.append_child("items");
        for (int n = 0; n < nWRITE_ELEMENTS; ++n) {
            pugi::xml_node item = items.append_child("item");
            item.append_attribute("id").set_value(n);
            item.append_attribute("name").set_value(sNAME_VALUE);
            item.append_child(pugi::node_pcdata).set_value(sTEXT);
        }
        doc.save(out, "", pugi::format_raw);
        bytes += static_cast<std::int64_t>(out.tellp());
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_XMLWriteItems_Pugixml)->MinTime(dMIN_TIME)->Unit(benchmark::kMillisecond);

} // namespace
