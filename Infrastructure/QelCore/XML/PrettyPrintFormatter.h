// The pretty-print style of XMLWriter (internal; made by XMLFormatter::CreatePrettyPrint).
//
// It counts lines and columns itself, in bytes, and lays out:
// - one element a line, indented by GetIndentStep() per level; an element whose content fits
//   closes on the line of its start tag ("<a>text</a>");
// - attribute lists on the tag's line while they fit into 80 columns, else one attribute a line,
//   aligned under the first attribute's name; every attribute is followed by a blank;
// - text behind the start tag while it fits, else on a line of its own; text with line feeds as
//   trimmed lines; a line break after text that reaches column 80;
// - comments, processing instructions and long CDATA sections in a wrapped form, and CDATA
//   streams in chunks of 76 characters without white space.
// Every line end is std::endl. FormatStartDoc starts afresh at line 1 with no indent.
#pragma once

#include "Infrastructure/QelCore/XMLFormatter.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Qel::Core {

class QEL_CORE_LOCAL PrettyPrintFormatter : public XMLFormatter
{
public:
    PrettyPrintFormatter();
    ~PrettyPrintFormatter() override;

    void FormatStartDoc(std::ostream& os, const std::string& version, const std::string& encoding,
                        bool standalone) override;
    void FormatStartTag(std::ostream& os, const std::string& name, const XMLAttributeMap<std::string>& attributes,
                        bool empty) override;
    void FormatTextStream(std::ostream& os, std::istream& text) override;
    void FormatText(std::ostream& os, const std::string& text) override;
    void FormatEndTag(std::ostream& os, const std::string& name) override;
    void FormatProcessingInstruction(std::ostream& os, const std::string& target, const std::string& data,
                                     bool preserveFormat) override;
    void FormatMarkupStream(std::ostream& os, std::istream& markup) override;
    void FormatMarkup(std::ostream& os, const std::string& markup) override;
    void FormatComment(std::ostream& os, const std::string& text, bool preserveFormat) override;
    void FormatWideCDATAStream(std::ostream& os, std::wistream& text, bool preserveFormat) override;
    void FormatCDATAStream(std::ostream& os, std::istream& text, bool preserveFormat) override;
    void FormatCDATA(std::ostream& os, const std::string& text, bool preserveFormat) override;
    void FormatEntityReference(std::ostream& os, const std::string& reference) override;

    // The indentation added per level: two blanks.
    virtual std::string GetIndentStep() const;

    // The running count of line ends and the characters on the current line (0: the line is empty).
    std::uint64_t GetLine() const { return m_iLine; }
    std::uint64_t GetColumn() const { return m_iColumn; }
    // The current indentation.
    const std::string& GetIndent() const { return m_Indents.back(); }

private:
    // A start tag written that wasn't empty.
    struct TagRecord
    {
        std::uint64_t m_iStartLine;  // line at the beginning of the start tag
        std::uint64_t m_iLineAfter;  // line after the start tag
        std::uint64_t m_iColumn;     // column at the beginning of the start tag
        std::string m_sName;
    };

    // The parser's handler that feeds markup back into this formatter.
    class XMLHandler;
    friend class XMLHandler;

    // Lays out markup (from `stream`, or `text` if `stream` is null) by parsing it and feeding the
    // result back into this formatter.
    void ReformatMarkup(std::ostream& os, std::istream* stream, const std::string* text);

    void BreakLine(std::ostream& os);
    // Text or a reference that is already escaped, on one line.
    void WriteInline(std::ostream& os, const std::string& text);
    // Comments, processing instructions and long CDATA sections.
    void FormatWrapped(std::ostream& os, const std::string& opening, const std::string& text,
                       const std::string& closing, bool preserveFormat);

    std::uint64_t m_iLine = 0;
    std::uint64_t m_iColumn = 0;
    std::vector<TagRecord> m_TagRecords;
    std::vector<std::string> m_Indents;
};

} // namespace Qel::Core
