// The parser's state and actions, and the parse runs over memory, streams and files.
#include "Infrastructure/QelCore/XMLParser.h"

#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/XML/XMLGrammar.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace Qel::Core::Detail {
namespace {

bool IsCharacterReference(const char* first, const char* last)
{
    return last - first >= 2 && first[0] == '&' && first[1] == '#';
}

} // namespace

XMLParserCore::XMLParserCore()
    : m_Entities{{"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"}, {"&apos;", "'"}, {"&quot;", "\""}}
{
    m_OpenNames.reserve(32);
}

XMLParserCore::~XMLParserCore() = default;

void XMLParserCore::BeginParse()
{
    // Nothing of an earlier parse shows in this one, also after a parse that failed or that a
    // handler's exception ended.
    m_nOpen = 0;
    if (m_OpenNames.capacity() < 32) m_OpenNames.reserve(32);
    m_AttributeName.clear();
    m_AttributeValue.Clear();
    m_bValueStarted = false;
    m_bTextPending = false;
    m_Text.clear();
    m_Version.clear();
    m_Encoding.clear();
    m_bStandalone = false;
}

void XMLParserCore::FlushText()
{
    if (!m_bTextPending) return;
    m_bTextPending = false;
    // The text is handed over from a second buffer, so that the collection can start afresh even
    // if the handler keeps a reference or throws.
    m_Scratch.swap(m_Text);
    m_Text.clear();
    OnText(m_Scratch);
}

bool XMLParserCore::Resolve(const char* first, const char* last, std::string& replacement) const
{
    if (IsCharacterReference(first, last)) {
        if (!m_bExpandCharRefs) {
            replacement.assign(first, last);
            return true;
        }
        bool hex = last - first > 2 && first[2] == 'x';
        std::string digits(first + (hex ? 3 : 2), last - 1);
        replacement.assign(1, static_cast<char>(std::strtoul(digits.c_str(), nullptr, hex ? 16 : 0)));
        return true;
    }
    auto found = m_Entities.find(std::string(first, last));
    if (found == m_Entities.end()) return false;
    replacement = found->second;
    return true;
}

void XMLParserCore::SetVersion(const char* first, const char* last)
{
    m_Version.assign(first, last);
}

void XMLParserCore::SetEncoding(const char* first, const char* last)
{
    m_Encoding.assign(first, last);
}

void XMLParserCore::SetStandalone(const char* first, const char* last)
{
    m_bStandalone = std::string(first, last) == "yes";
}

void XMLParserCore::StartDocAction()
{
    OnStartDocument(m_Version, m_Encoding, m_bStandalone);
}

void XMLParserCore::EndDocAction()
{
    FlushText();
}

void XMLParserCore::StartTagAction(const char* first, const char* last)
{
    FlushText();
    // The names' strings are kept when popped, so that their buffers serve the next names.
    if (m_nOpen == m_OpenNames.size()) m_OpenNames.emplace_back();
    std::string& name = m_OpenNames[m_nOpen++];
    name.assign(first, last);
    OnStartTag(name);
}

void XMLParserCore::EndEmptyTagAction()
{
    FlushText();
    if (m_nOpen == 0) return;
    OnEndTag(m_OpenNames[m_nOpen - 1], true);
    --m_nOpen;
}

void XMLParserCore::EndTagAction(const char* first, const char* last)
{
    FlushText();
    m_Scratch.assign(first, last);
    OnEndTag(m_Scratch, false);
    if (m_nOpen > 0) --m_nOpen;
}

void XMLParserCore::AttributeNameAction(const char* first, const char* last)
{
    m_AttributeName.assign(first, last);
}

void XMLParserCore::AttributeValueTextAction(const char* first, const char* last)
{
    if (!m_bValueStarted) {
        m_AttributeValue.Clear();
        m_bValueStarted = true;
    }
    // Values are kept with their meaning: literal text as it stands.
    m_AttributeValue.Append(std::string(first, last), false);
}

void XMLParserCore::AttributeValueRefAction(const char* first, const char* last)
{
    if (!m_bValueStarted) {
        m_AttributeValue.Clear();
        m_bValueStarted = true;
    }
    std::string replacement;
    // A character reference that is not expanded stays a reference part, so that writing the
    // value again gives the same character rather than the reference's text.
    if (!IsCharacterReference(first, last) && Resolve(first, last, replacement)) {
        m_AttributeValue.Append(replacement, false);
    } else if (m_bExpandCharRefs && Resolve(first, last, replacement)) {
        m_AttributeValue.Append(replacement, false);
    } else {
        m_AttributeValue.AppendReference(std::string(first, last));
    }
}

void XMLParserCore::AttributeValueAction()
{
    if (!m_bValueStarted) m_AttributeValue.Clear();
    m_bValueStarted = false;
}

void XMLParserCore::AttributeAction()
{
    OnAttribute(m_AttributeName, m_AttributeValue);
}

void XMLParserCore::TextAction(const char* first, const char* last)
{
    m_Text.append(first, last);
    m_bTextPending = true;
}

void XMLParserCore::ContentReferenceAction(const char* first, const char* last)
{
    std::string replacement;
    if (Resolve(first, last, replacement)) {
        m_Text += replacement;
        m_bTextPending = true;
    } else {
        FlushText();
    }
}

void XMLParserCore::CommentAction(const char* first, const char* last)
{
    FlushText();
    m_Scratch.assign(first, last);
    OnComment(m_Scratch);
}

void XMLParserCore::CDataAction(const char* first, const char* last)
{
    FlushText();
    m_Scratch.assign(first, last);
    OnCDATA(m_Scratch);
}

bool XMLParserCore::ParseMemory(const char* first, const char* last, std::shared_ptr<Lock> lock)
{
    (void)lock; // held to the end of the parse
    BeginParse();
    XMLGrammar<const char*> grammar(*this);
    return grammar.Run(first, last);
}

bool XMLParserCore::ParseStream(std::istream& stream, std::shared_ptr<Lock> lock)
{
    (void)lock;
    BeginParse();
    using Iterator = spirit::multi_pass<std::istreambuf_iterator<char>>;
    // A stream without a buffer reads as empty input.
    Iterator first = spirit::make_multi_pass(stream.rdbuf() ? std::istreambuf_iterator<char>(stream)
                                                            : std::istreambuf_iterator<char>());
    Iterator last = spirit::make_multi_pass(std::istreambuf_iterator<char>());
    XMLGrammar<Iterator> grammar(*this);
    return grammar.Run(first, last);
}

bool XMLParserCore::ParseFile(const PathName& file, std::shared_ptr<Lock> lock)
{
    if (!file.Exists()) return false;
    std::ifstream in(file.ToFileSystemPath(), std::ios::binary);
    if (!in) return false;
    // Read whole: the grammar runs many times faster over memory than over a stream.
    std::string content;
    in.seekg(0, std::ios::end);
    std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size > 0) {
        content.resize(static_cast<std::size_t>(size));
        in.read(content.data(), size);
        content.resize(static_cast<std::size_t>(in.gcount()));
    }
    // A file that grows while read, or whose size is not known: take the rest as it comes.
    content.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return ParseMemory(content.data(), content.data() + content.size(), std::move(lock));
}

} // namespace Qel::Core::Detail
