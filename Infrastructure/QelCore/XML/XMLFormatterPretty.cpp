// The pretty-print style: indentation by nesting, 80-column layout, counted lines and columns.
#include "Infrastructure/QelCore/XML/PrettyPrintFormatter.h"

#include "Infrastructure/QelCore/StringTools.h"

#include <algorithm>
#include <cctype>
#include <cwctype>

namespace Qel::Core {
namespace {

// The right margin: text that reaches it is followed by a line break.
constexpr std::uint64_t s_iLineWidth = 80;
// CDATA text up to this length (with the indentation) stays on the line of its markers.
constexpr std::uint64_t s_iShortCDATA = 68;

const std::string s_sCDATAOpening = "<![CDATA[";
const std::string s_sCDATAClosing = "]]>";

} // namespace

std::shared_ptr<XMLFormatter> XMLFormatter::CreatePrettyPrint()
{
    return std::make_shared<PrettyPrintFormatter>();
}

PrettyPrintFormatter::PrettyPrintFormatter()
{
    m_TagRecords.reserve(10);
    m_Indents.reserve(10);
    m_Indents.emplace_back();
}

PrettyPrintFormatter::~PrettyPrintFormatter() = default;

std::string PrettyPrintFormatter::GetIndentStep() const
{
    return "  ";
}

void PrettyPrintFormatter::BreakLine(std::ostream& os)
{
    os << std::endl;
    ++m_iLine;
    m_iColumn = 0;
}

void PrettyPrintFormatter::FormatStartDoc(std::ostream& os, const std::string& version, const std::string& encoding,
                                          bool standalone)
{
    m_Indents.resize(1);
    m_Indents.front().clear();
    m_TagRecords.clear();
    m_iLine = 1;
    m_iColumn = 0;
    os << "<?xml version=\"" << version << "\" encoding=\"" << encoding << '"';
    if (standalone) os << " standalone=\"yes\"";
    os << "?>" << std::endl;
}

void PrettyPrintFormatter::FormatStartTag(std::ostream& os, const std::string& name,
                                          const XMLAttributeMap<std::string>& attributes, bool empty)
{
    if (m_iColumn != 0) BreakLine(os);
    const std::uint64_t startLine = m_iLine;
    const std::uint64_t startColumn = m_iColumn;
    const std::string& indent = GetIndent();
    os << indent << '<' << name;
    m_iColumn += indent.size() + 1 + name.size();
    const std::uint64_t tagColumn = m_iColumn;

    if (!attributes.empty()) {
        // Each attribute is followed by a blank, the last one too.
        std::vector<std::string> items;
        items.reserve(attributes.size());
        std::string oneLine = " ";
        for (const auto& [attribute, value] : attributes) {
            items.push_back(attribute + "=\"" + value.ToString() + "\" ");
            oneLine += items.back();
        }
        if (m_iColumn + oneLine.size() <= s_iLineWidth) {
            os << oneLine;
            m_iColumn += oneLine.size();
        } else {
            // One attribute a line, the names under each other.
            const std::string alignment(tagColumn + 1, ' ');
            os << ' ' << items.front();
            m_iColumn = tagColumn + 1 + items.front().size();
            for (std::size_t i = 1; i < items.size(); ++i) {
                os << std::endl << alignment << items[i];
                ++m_iLine;
                m_iColumn = alignment.size() + items[i].size();
            }
        }
    }

    if (empty) {
        os << "/>";
        BreakLine(os);
        return;
    }
    os << '>';
    ++m_iColumn;
    m_TagRecords.push_back(TagRecord{startLine, m_iLine, startColumn, name});
    m_Indents.push_back(GetIndent() + GetIndentStep());
}

void PrettyPrintFormatter::FormatEndTag(std::ostream& os, const std::string& name)
{
    // The bottom indent (the left margin) stays, however many end tags come.
    if (m_Indents.size() > 1) m_Indents.pop_back();
    const std::string end = "</" + name + ">";
    if (!m_TagRecords.empty()) {
        if (m_TagRecords.back().m_iLineAfter == m_iLine && name.size() + 3 + m_iColumn < s_iLineWidth) {
            os << end;
        } else {
            if (m_iColumn != 0) BreakLine(os);
            os << GetIndent() << end;
        }
    } else {
        if (m_iColumn == 0) os << GetIndent();
        os << end;
    }
    os << std::endl;
    ++m_iLine;
    m_iColumn = 0;
}

void PrettyPrintFormatter::WriteInline(std::ostream& os, const std::string& text)
{
    const std::string& indent = GetIndent();
    if (!m_TagRecords.empty()) {
        if (m_iColumn != 0) {
            if (m_TagRecords.back().m_sName.size() + 3 + m_iColumn + text.size() < s_iLineWidth) {
                os << text;
                m_iColumn += text.size();
            } else {
                os << std::endl << indent << text;
                ++m_iLine;
                m_iColumn = indent.size() + text.size();
            }
        } else {
            os << indent << text;
            m_iColumn = indent.size() + text.size();
        }
    } else if (m_iColumn == 0) {
        os << indent << text;
        m_iColumn += indent.size() + text.size();
    } else {
        os << text;
        m_iColumn += text.size();
    }
    if (m_iColumn >= s_iLineWidth) BreakLine(os);
}

void PrettyPrintFormatter::FormatText(std::ostream& os, const std::string& text)
{
    const std::string escaped = XMLEscape(text);
    if (escaped.find('\n') == std::string::npos) {
        WriteInline(os, escaped);
        return;
    }
    // Line by line, each line trimmed and indented.
    std::vector<std::string> pieces;
    StringTools::Split(escaped, "\n", pieces);
    if (m_iColumn != 0) BreakLine(os);
    const std::string& indent = GetIndent();
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0) os << std::endl;
        os << indent << StringTools::TrimWS(pieces[i]);
        ++m_iLine;
    }
    os << std::endl;
    ++m_iLine;
    m_iColumn = 0;
}

void PrettyPrintFormatter::FormatEntityReference(std::ostream& os, const std::string& reference)
{
    WriteInline(os, reference);
}

void PrettyPrintFormatter::FormatTextStream(std::ostream& os, std::istream& text)
{
    if (m_iColumn != 0) BreakLine(os);
    const std::string& indent = GetIndent();
    std::string line;
    while (std::getline(text, line)) {
        os << std::endl << indent << XMLEscape(StringTools::TrimWS(line));
        ++m_iLine;
    }
    os << std::endl;
    ++m_iLine;
    m_iColumn = 0;
}

void PrettyPrintFormatter::FormatWrapped(std::ostream& os, const std::string& opening, const std::string& text,
                                         const std::string& closing, bool preserveFormat)
{
    const std::string& indent = GetIndent();
    if (m_iColumn != indent.size()) {
        os << std::endl << indent;
        ++m_iLine;
        m_iColumn = indent.size();
    }
    const std::uint64_t startLine = m_iLine;
    os << opening;
    m_iColumn += opening.size();

    if (!text.empty()) {
        if (!preserveFormat && text.find('\n') != std::string::npos) {
            // Trimmed lines, one step deeper than the opening.
            std::vector<std::string> pieces;
            StringTools::Split(text, "\n", pieces);
            const std::string inner = indent + GetIndentStep();
            for (const std::string& piece : pieces) {
                os << std::endl << inner << StringTools::TrimWS(piece);
                ++m_iLine;
            }
            os << std::endl;
            ++m_iLine;
            m_iColumn = 0;
        } else if (text.size() + closing.size() + m_iColumn > s_iLineWidth) {
            os << std::endl << indent << GetIndentStep() << text << std::endl;
            m_iLine += 2;
            m_iColumn = 0;
        } else {
            os << text;
            m_iColumn += text.size();
        }
    }

    if (m_iLine == startLine || m_iColumn != 0) os << closing << std::endl;
    else os << indent << closing << std::endl;
    ++m_iLine;
    m_iColumn = 0;
}

void PrettyPrintFormatter::FormatComment(std::ostream& os, const std::string& text, bool preserveFormat)
{
    FormatWrapped(os, "<!-- ", text, " -->", preserveFormat);
}

void PrettyPrintFormatter::FormatProcessingInstruction(std::ostream& os, const std::string& target,
                                                       const std::string& data, bool preserveFormat)
{
    FormatWrapped(os, "<?" + target + " ", data, "?>", preserveFormat);
}

void PrettyPrintFormatter::FormatCDATA(std::ostream& os, const std::string& text, bool preserveFormat)
{
    const std::string& indent = GetIndent();
    if (text.size() + indent.size() <= s_iShortCDATA) {
        if (m_iColumn != indent.size()) {
            os << std::endl << indent;
            ++m_iLine;
            m_iColumn = indent.size();
        }
        os << s_sCDATAOpening << text << s_sCDATAClosing << std::endl;
        ++m_iLine;
        m_iColumn = 0;
    } else if (!preserveFormat) {
        FormatWrapped(os, s_sCDATAOpening, text, s_sCDATAClosing, false);
    } else {
        // Kept as it stands, set apart by empty lines.
        os << std::endl << std::endl << s_sCDATAOpening << text << s_sCDATAClosing << std::endl << std::endl;
        m_iLine += 4 + static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
        m_iColumn = 0;
    }
}

namespace {

// The body of a CDATA stream without white space, in lines of `width` characters behind `step`.
// `isSpace` tells the white space, `narrow` turns a chunk into output text. Narrow text is UTF-8:
// a character is a lead byte with its continuation bytes, and a line never ends inside one, so
// that every line stays valid UTF-8.
template <typename Stream, typename IsSpace, typename Narrow>
std::uint64_t WriteChunks(std::ostream& os, Stream& text, const std::string& step, std::size_t width,
                          IsSpace isSpace, Narrow narrow)
{
    using Char = typename Stream::char_type;
    using Traits = typename Stream::traits_type;
    auto isContinuation = [](Char c) {
        if constexpr (sizeof(Char) == 1) return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
        else return false;
    };
    std::uint64_t lines = 0;
    std::basic_string<Char> chunk;
    std::size_t characters = 0;
    auto flush = [&] {
        os << step << narrow(chunk) << std::endl;
        ++lines;
        chunk.clear();
        characters = 0;
    };
    auto* buffer = text.rdbuf();
    if (buffer == nullptr) return 0;
    for (auto c = buffer->sbumpc(); !Traits::eq_int_type(c, Traits::eof()); c = buffer->sbumpc()) {
        Char ch = Traits::to_char_type(c);
        if (isSpace(ch)) continue;
        if (isContinuation(ch)) {
            chunk += ch;
            continue;
        }
        // A full chunk is written when the next character comes, so that its last character's
        // continuation bytes stay with it.
        if (characters == width) flush();
        chunk += ch;
        ++characters;
    }
    if (!chunk.empty()) flush();
    text.setstate(std::ios::eofbit);
    return lines;
}

// A CDATA section from a stream, set apart by empty lines: its lines as they stand, or its
// characters without white space in chunks of 78 minus the step. Gives the lines written.
template <typename Stream, typename IsSpace, typename Narrow>
std::uint64_t WriteCDATAStream(std::ostream& os, Stream& text, bool preserveFormat, const std::string& step,
                               IsSpace isSpace, Narrow narrow)
{
    std::uint64_t lines = 2;
    os << std::endl << std::endl << s_sCDATAOpening;
    if (preserveFormat) {
        std::basic_string<typename Stream::char_type> line;
        while (std::getline(text, line)) {
            os << narrow(line) << std::endl;
            ++lines;
        }
    } else {
        os << std::endl;
        ++lines;
        lines += WriteChunks(os, text, step, 78 - step.size(), isSpace, narrow);
    }
    os << s_sCDATAClosing << std::endl << std::endl;
    return lines + 2;
}

} // namespace

void PrettyPrintFormatter::FormatCDATAStream(std::ostream& os, std::istream& text, bool preserveFormat)
{
    m_iLine += WriteCDATAStream(
        os, text, preserveFormat, GetIndentStep(),
        [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; },
        [](const std::string& chunk) -> const std::string& { return chunk; });
    m_iColumn = 0;
}

void PrettyPrintFormatter::FormatWideCDATAStream(std::ostream& os, std::wistream& text, bool preserveFormat)
{
    m_iLine += WriteCDATAStream(
        os, text, preserveFormat, GetIndentStep(),
        [](wchar_t c) { return std::iswspace(static_cast<std::wint_t>(c)) != 0; },
        [](const std::wstring& chunk) { return XMLNarrow(chunk); });
    m_iColumn = 0;
}

void PrettyPrintFormatter::FormatMarkup(std::ostream& os, const std::string& markup)
{
    ReformatMarkup(os, nullptr, &markup);
}

void PrettyPrintFormatter::FormatMarkupStream(std::ostream& os, std::istream& markup)
{
    ReformatMarkup(os, &markup, nullptr);
}

} // namespace Qel::Core
