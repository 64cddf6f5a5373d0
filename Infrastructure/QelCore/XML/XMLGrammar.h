// The grammar of the XML parser, on Boost.Spirit Classic.
//
// The rules follow the productions of XML 1.0, with actions on the few that report to the parser.
// The grammar is a plain object holding its rules, built afresh for each parse; it does not derive
// from spirit's grammar<>, whose object-id registry is shared by all threads without a lock.
//
// Input is a byte sequence; each byte is one character. The character classes work on the byte
// value (unsigned): Char is tab, line feed, carriage return and 0x20 to 0xFF; letters are the ASCII
// letters and every byte of 0x80 and above (so that names in UTF-8 pass); digits are ASCII.
//
// The hot character runs (character data, attribute text, names, white space, comment, CDATA and
// processing-instruction bodies) are small primitive parsers with lookup tables instead of
// compositions of single-character parsers; they accept exactly the language of the production
// they stand for.
#pragma once

#include "Infrastructure/QelCore/XMLParser.h"

#include <boost/spirit/include/classic_chset.hpp>
#include <boost/spirit/include/classic_core.hpp>
#include <boost/spirit/include/classic_multi_pass.hpp>

#include <array>
#include <iterator>
#include <string>
#include <type_traits>

namespace Qel::Core::Detail {

namespace spirit = boost::spirit::classic;

// Byte classes.
enum : unsigned char
{
    kChar = 1,      // XML Char
    kNameStart = 2, // Letter, '_' or ':'
    kNameChar = 4,  // Letter, Digit, '.', '-', '_', ':' (and bytes of 0x80 and above)
    kSpace = 8,     // S
    kPubid = 16,    // PubidChar
    kPubidNoApos = 32, // PubidChar but '\''
};

struct ByteClasses
{
    std::array<unsigned char, 256> table{};
    constexpr ByteClasses()
    {
        for (unsigned c = 0; c < 256; ++c) {
            unsigned char k = 0;
            bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c >= 0x80;
            bool digit = c >= '0' && c <= '9';
            if (c == '\t' || c == '\n' || c == '\r' || c >= 0x20) k |= kChar;
            if (letter || c == '_' || c == ':') k |= kNameStart;
            if (letter || digit || c == '.' || c == '-' || c == '_' || c == ':') k |= kNameChar;
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') k |= kSpace;
            if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || digit || c == ' ' || c == '\r' || c == '\n')
                k |= kPubid;
            for (const char* p = "-'()+,./:=?;!*#@$_%"; *p; ++p) {
                if (c == static_cast<unsigned char>(*p)) k |= kPubid;
            }
            if ((k & kPubid) && c != '\'') k |= kPubidNoApos;
            table[c] = k;
        }
    }
    constexpr bool Is(char c, unsigned char k) const { return (table[static_cast<unsigned char>(c)] & k) != 0; }
};

inline constexpr ByteClasses s_Bytes{};

// A run of bytes of one class: at least `min` of them.
struct ClassRunParser : spirit::parser<ClassRunParser>
{
    using self_t = ClassRunParser;
    ClassRunParser(unsigned char klass, std::size_t min) : m_Class(klass), m_Min(min) {}

    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        auto start = scan.first;
        std::ptrdiff_t n = 0;
        while (!scan.at_end() && s_Bytes.Is(*scan, m_Class)) {
            ++scan.first;
            ++n;
        }
        if (static_cast<std::size_t>(n) < m_Min) {
            scan.first = start;
            return scan.no_match();
        }
        return scan.create_match(n, spirit::nil_t(), start, scan.first);
    }

    unsigned char m_Class;
    std::size_t m_Min;
};

// A name: a name-start byte, then name bytes.
struct NameParser : spirit::parser<NameParser>
{
    using self_t = NameParser;
    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        auto start = scan.first;
        if (scan.at_end() || !s_Bytes.Is(*scan, kNameStart)) return scan.no_match();
        ++scan.first;
        std::ptrdiff_t n = 1;
        while (!scan.at_end() && s_Bytes.Is(*scan, kNameChar)) {
            ++scan.first;
            ++n;
        }
        return scan.create_match(n, spirit::nil_t(), start, scan.first);
    }
};

// One or more bytes that are none of up to three stop bytes, with an optional extra rule for ']'
// (character data may not hold "]]>"). Stands for
//   +((anychar - chset(stops)) - "]]>")   with `stopCDataEnd`, otherwise   +(anychar - chset(stops)).
struct TextRunParser : spirit::parser<TextRunParser>
{
    using self_t = TextRunParser;
    TextRunParser(const char* stops, bool stopCDataEnd) : m_bStopCDataEnd(stopCDataEnd)
    {
        for (const char* p = stops; *p; ++p) m_Stop[static_cast<unsigned char>(*p)] = true;
        if (stopCDataEnd) m_Stop[static_cast<unsigned char>(']')] = true;
    }

    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        auto start = scan.first;
        std::ptrdiff_t n = 0;
        while (!scan.at_end()) {
            char c = *scan;
            if (m_Stop[static_cast<unsigned char>(c)]) {
                if (!m_bStopCDataEnd || c != ']' || StartsCDataEnd(scan)) break;
            }
            ++scan.first;
            ++n;
        }
        if (n == 0) return scan.no_match();
        return scan.create_match(n, spirit::nil_t(), start, scan.first);
    }

    // Whether "]]>" starts at the scanner's position; the position is left where it was.
    template <typename ScannerT>
    static bool StartsCDataEnd(const ScannerT& scan)
    {
        auto save = scan.first;
        bool found = false;
        ++scan.first;
        if (!scan.at_end() && *scan == ']') {
            ++scan.first;
            found = !scan.at_end() && *scan == '>';
        }
        scan.first = save;
        return found;
    }

    std::array<bool, 256> m_Stop{};
    bool m_bStopCDataEnd;
};

// Bodies that end at a closing text: (Char - "]]>")* for CDATA, (Char - "?>")* for processing
// instructions. Zero or more Char bytes up to the first place where the closing text starts.
struct CharsUntilParser : spirit::parser<CharsUntilParser>
{
    using self_t = CharsUntilParser;
    explicit CharsUntilParser(const char* closing) : m_Closing(closing) {}

    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        auto start = scan.first;
        std::ptrdiff_t n = 0;
        while (!scan.at_end() && s_Bytes.Is(*scan, kChar)) {
            if (*scan == m_Closing[0] && ClosingAt(scan)) break;
            ++scan.first;
            ++n;
        }
        return scan.create_match(n, spirit::nil_t(), start, scan.first);
    }

    template <typename ScannerT>
    bool ClosingAt(const ScannerT& scan) const
    {
        auto save = scan.first;
        const char* p = m_Closing;
        while (*p && !scan.at_end() && *scan == *p) {
            ++scan.first;
            ++p;
        }
        scan.first = save;
        return *p == '\0';
    }

    const char* m_Closing;
};

// A comment's body: ((Char - '-') | ('-' (Char - '-')))*.
struct CommentBodyParser : spirit::parser<CommentBodyParser>
{
    using self_t = CommentBodyParser;
    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        auto start = scan.first;
        std::ptrdiff_t n = 0;
        while (!scan.at_end() && s_Bytes.Is(*scan, kChar)) {
            if (*scan != '-') {
                ++scan.first;
                ++n;
                continue;
            }
            auto save = scan.first;
            ++scan.first;
            if (!scan.at_end() && *scan != '-' && s_Bytes.Is(*scan, kChar)) {
                ++scan.first;
                n += 2;
                continue;
            }
            scan.first = save;
            break;
        }
        return scan.create_match(n, spirit::nil_t(), start, scan.first);
    }
};

// Counts how deep the subject nests on the way down and fails past the limit, so that deeply
// nested groups of an element declaration end the parse instead of the stack.
template <typename SubjectT>
struct DepthGuardParser : spirit::unary<SubjectT, spirit::parser<DepthGuardParser<SubjectT>>>
{
    using self_t = DepthGuardParser<SubjectT>;
    using base_t = spirit::unary<SubjectT, spirit::parser<self_t>>;
    DepthGuardParser(const SubjectT& subject, std::size_t& depth, bool& exceeded)
        : base_t(subject), m_Depth(depth), m_bExceeded(exceeded)
    {
    }

    template <typename ScannerT>
    struct result
    {
        using type = typename spirit::match_result<ScannerT, spirit::nil_t>::type;
    };

    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        if (m_bExceeded || m_Depth >= XMLParserGroupNestingLimit) {
            m_bExceeded = true;
            return scan.no_match();
        }
        ++m_Depth;
        struct Leave
        {
            std::size_t& depth;
            ~Leave() { --depth; }
        } leave{m_Depth};
        auto hit = this->subject().parse(scan);
        if (!hit) return scan.no_match();
        return scan.create_match(hit.length(), spirit::nil_t(), scan.first, scan.first);
    }

    std::size_t& m_Depth;
    bool& m_bExceeded;
};

// The rule `element` with its content, read with an explicit count of open elements instead of
// recursion, so that the depth of a document costs no stack:
//   element = STagBegin ("/>" | ">" content ETag)
//   content = CharData? ((element | Reference | CDSect | PI | Comment) CharData?)*
// After the text of a content, "</" can only begin the end tag and "<" with a name start only a
// nested element; anything else must be one of the other items. Every failure fails the element,
// as no other reading of the input could match there.
template <typename RuleT>
struct ElementParser : spirit::parser<ElementParser<RuleT>>
{
    using self_t = ElementParser<RuleT>;
    const RuleT* startTag; // STagBegin, with its actions
    const RuleT* emptyEnd; // "/>", with its action
    const RuleT* endTag;   // ETag, with its action
    const RuleT* text;     // CharData, with its action
    const RuleT* item;     // Reference | CDSect | PI | Comment, with their actions
    bool* exceeded;        // set when the input nests deeper than the limit

    template <typename ScannerT>
    typename spirit::parser_result<self_t, ScannerT>::type parse(const ScannerT& scan) const
    {
        auto start = scan.first;
        std::ptrdiff_t length = 0;
        std::size_t open = 0;
        for (;;) {
            // At the start of an element, which stands at depth open + 1.
            if (open >= XMLParserNestingLimit) {
                *exceeded = true;
                return scan.no_match();
            }
            auto tag = startTag->parse(scan);
            if (!tag) return scan.no_match();
            length += tag.length();
            if (auto end = emptyEnd->parse(scan)) {
                length += end.length();
                if (open == 0) return scan.create_match(length, spirit::nil_t(), start, scan.first);
            } else if (!scan.at_end() && *scan == '>') {
                ++scan.first;
                ++length;
                ++open;
            } else {
                return scan.no_match();
            }
            // In the content of the innermost open element, up to the next element's start.
            for (;;) {
                if (auto run = text->parse(scan)) length += run.length();
                char next = 0;
                if (!PeekTwo(scan, next)) return scan.no_match();
                if (next == '/') {
                    auto close = endTag->parse(scan);
                    if (!close) return scan.no_match();
                    length += close.length();
                    if (--open == 0) return scan.create_match(length, spirit::nil_t(), start, scan.first);
                    continue;
                }
                if (next != 0 && s_Bytes.Is(next, kNameStart)) break;
                auto other = item->parse(scan);
                if (!other) return scan.no_match();
                length += other.length();
            }
        }
    }

    // False at the end of input. Otherwise `next` is the byte after a '<' at the position, or 0
    // when no '<' is there; the position does not move.
    template <typename ScannerT>
    static bool PeekTwo(const ScannerT& scan, char& next)
    {
        if (scan.at_end()) return false;
        next = 0;
        if (*scan != '<') return true;
        auto save = scan.first;
        ++scan.first;
        if (!scan.at_end()) next = *scan;
        scan.first = save;
        if (next == 0) next = 1; // a '<' at the end: not a name start, not '/'
        return true;
    }
};

// An action that hands the matched range to a member of the parser core. Over a pointer range the
// bytes are passed as they lie; over other iterators they are copied first.
using RangeMember = void (XMLParserCore::*)(const char*, const char*);
using PlainMember = void (XMLParserCore::*)();

struct RangeAction
{
    XMLParserCore* core;
    RangeMember member;
    std::string* scratch;

    template <typename Iterator>
    void operator()(Iterator first, Iterator last) const
    {
        if constexpr (std::is_same_v<Iterator, const char*>) {
            (core->*member)(first, last);
        } else {
            scratch->assign(first, last);
            (core->*member)(scratch->data(), scratch->data() + scratch->size());
        }
    }
};

struct PlainAction
{
    XMLParserCore* core;
    PlainMember member;

    template <typename Iterator>
    void operator()(Iterator, Iterator) const
    {
        (core->*member)();
    }
};

template <typename Iterator>
class XMLGrammar
{
public:
    using scanner_t = spirit::scanner<Iterator>;
    using rule_t = spirit::rule<scanner_t>;

    explicit XMLGrammar(XMLParserCore& core);

    // Runs the start rule over the input; true if it matched the whole input and did not nest
    // too deep.
    bool Run(Iterator first, Iterator last)
    {
        spirit::parse_info<Iterator> info = spirit::parse(first, last, document);
        return info.full && !m_bTooDeep;
    }

private:
    RangeAction Act(RangeMember member) { return RangeAction{&m_Core, member, &m_Scratch}; }
    PlainAction Act(PlainMember member) { return PlainAction{&m_Core, member}; }

    XMLParserCore& m_Core;
    std::string m_Scratch;
    std::size_t m_nGroupDepth = 0;
    bool m_bTooDeep = false;

    // Document and prolog.
    rule_t document, prolog, XMLDecl, VersionInfo, VersionNum, Eq, EncodingDecl, EncName, SDDecl, Misc, S;
    // Names.
    rule_t Name, Nmtoken, PITarget;
    // Elements and content.
    rule_t element, STagBegin, EmptyEnd, Attribute, AttValue, ETag, ContentText, ContentItem, CharData, CDSect, CData,
        Comment, CommentBody, PI, PIBody, Reference, EntityRef, PEReference, CharRef;
    // The document type declaration: checked for syntax, no actions.
    rule_t doctypedecl, DeclSep, markupdecl, elementdecl, contentspec, Mixed, children, cp, cpBody, group, choiceOrSeq,
        AttlistDecl, AttDef, AttType, StringType, TokenizedType, EnumeratedType, NotationType, Enumeration,
        DefaultDecl, DTDAttValue, DTDComment, EntityDecl, GEDecl, PEDecl, EntityDef, PEDef, EntityValue, ExternalID,
        SystemLiteral, PubidLiteral, NDataDecl, NotationDecl, PublicID;
};

template <typename Iterator>
XMLGrammar<Iterator>::XMLGrammar(XMLParserCore& core) : m_Core(core)
{
    using namespace spirit;
    using C = XMLParserCore;

    const TextRunParser charDataRun("<&", true);
    const TextRunParser attTextDouble("<&\"", false);
    const TextRunParser attTextSingle("<&'", false);
    const TextRunParser entityTextDouble("%&\"", false);
    const TextRunParser entityTextSingle("%&'", false);
    const TextRunParser systemDouble("\"", false);
    const TextRunParser systemSingle("'", false);

    // Document and prolog.
    document = !prolog >> element >> *Misc >> eps_p[Act(&C::EndDocAction)];
    prolog = !XMLDecl >> *Misc >> !(doctypedecl >> *Misc);
    XMLDecl = (str_p("<?xml") >> VersionInfo >> !EncodingDecl >> !SDDecl >> !S >> "?>")[Act(&C::StartDocAction)];
    VersionInfo = S >> "version" >> Eq >> (('\'' >> VersionNum >> '\'') | ('"' >> VersionNum >> '"'));
    VersionNum = (+chset_p("a-zA-Z0-9_.:-"))[Act(&C::SetVersion)];
    Eq = !S >> '=' >> !S;
    EncodingDecl = S >> "encoding" >> Eq
        >> (('\'' >> EncName[Act(&C::SetEncoding)] >> '\'') | ('"' >> EncName[Act(&C::SetEncoding)] >> '"'));
    EncName = alpha_p >> *(alnum_p | '.' | '_' | '-');
    SDDecl = S >> "standalone" >> Eq
        >> (('\'' >> (str_p("yes") | "no")[Act(&C::SetStandalone)] >> '\'')
            | ('"' >> (str_p("yes") | "no")[Act(&C::SetStandalone)] >> '"'));
    Misc = Comment | PI | S;
    S = ClassRunParser(kSpace, 1);

    // Names.
    Name = NameParser();
    Nmtoken = ClassRunParser(kNameChar, 1);
    PITarget = Name - as_lower_d[str_p("xml")];

    // Elements. The start of a tag is read once for both forms, so no action runs twice.
    element = ElementParser<rule_t>{{}, &STagBegin, &EmptyEnd, &ETag, &ContentText, &ContentItem, &m_bTooDeep};
    STagBegin = '<' >> Name[Act(&C::StartTagAction)] >> *(S >> Attribute) >> !S;
    EmptyEnd = str_p("/>")[Act(&C::EndEmptyTagAction)];
    Attribute = (Name[Act(&C::AttributeNameAction)] >> Eq >> AttValue)[Act(&C::AttributeAction)];
    AttValue = ('"' >> (*(attTextDouble[Act(&C::AttributeValueTextAction)]
                          | Reference[Act(&C::AttributeValueRefAction)]))[Act(&C::AttributeValueAction)]
                >> '"')
        | ('\'' >> (*(attTextSingle[Act(&C::AttributeValueTextAction)]
                      | Reference[Act(&C::AttributeValueRefAction)]))[Act(&C::AttributeValueAction)]
           >> '\'');
    ETag = "</" >> Name[Act(&C::EndTagAction)] >> !S >> '>';
    // Character data is matched only when it is not empty, so that no empty text is reported.
    ContentText = CharData[Act(&C::TextAction)];
    ContentItem = Reference[Act(&C::ContentReferenceAction)] | CDSect | PI | Comment;
    CharData = charDataRun;
    CDSect = "<![CDATA[" >> CData[Act(&C::CDataAction)] >> "]]>";
    CData = CharsUntilParser("]]>");
    Comment = "<!--" >> CommentBody[Act(&C::CommentAction)] >> "-->";
    CommentBody = CommentBodyParser();
    PI = "<?" >> PITarget >> !(S >> PIBody) >> "?>";
    PIBody = CharsUntilParser("?>");
    Reference = EntityRef | CharRef;
    EntityRef = '&' >> Name >> ';';
    PEReference = '%' >> Name >> ';';
    CharRef = ("&#" >> +digit_p >> ';') | ("&#x" >> +xdigit_p >> ';');

    // Document type declaration.
    doctypedecl = "<!DOCTYPE" >> S >> Name >> !(S >> ExternalID) >> !S
        >> !('[' >> *(markupdecl | DeclSep) >> ']' >> !S) >> '>';
    DeclSep = PEReference | S;
    markupdecl = elementdecl | AttlistDecl | EntityDecl | NotationDecl | PI | DTDComment;
    DTDComment = "<!--" >> CommentBody >> "-->";
    elementdecl = "<!ELEMENT" >> S >> Name >> S >> contentspec >> !S >> '>';
    contentspec = str_p("EMPTY") | "ANY" | Mixed | children;
    Mixed = ('(' >> !S >> "#PCDATA" >> *(!S >> '|' >> !S >> Name) >> !S >> ")*")
        | ('(' >> !S >> "#PCDATA" >> !S >> ')');
    // A choice ("(a|b)") and a sequence ("(a,b)") share their opening; they are read as one group
    // so that nested groups are not parsed again for the second alternative.
    children = group >> !(ch_p('?') | '*' | '+');
    cp = DepthGuardParser<rule_t>(cpBody, m_nGroupDepth, m_bTooDeep);
    cpBody = (Name | group) >> !(ch_p('?') | '*' | '+');
    group = '(' >> !S >> cp >> choiceOrSeq >> !S >> ')';
    choiceOrSeq = +(!S >> '|' >> !S >> cp) | *(!S >> ',' >> !S >> cp);
    AttlistDecl = "<!ATTLIST" >> S >> Name >> *AttDef >> !S >> '>';
    AttDef = S >> Name >> S >> AttType >> S >> DefaultDecl;
    AttType = StringType | TokenizedType | EnumeratedType;
    StringType = str_p("CDATA");
    // Longest first where one keyword begins another.
    TokenizedType = str_p("IDREFS") | "IDREF" | "ID" | "ENTITY" | "ENTITIES" | "NMTOKENS" | "NMTOKEN";
    EnumeratedType = NotationType | Enumeration;
    NotationType = "NOTATION" >> S >> '(' >> !S >> Name >> *(!S >> '|' >> !S >> Name) >> !S >> ')';
    Enumeration = '(' >> !S >> Nmtoken >> *(!S >> '|' >> !S >> Nmtoken) >> !S >> ')';
    DefaultDecl = str_p("#REQUIRED") | "#IMPLIED" | (!(str_p("#FIXED") >> S) >> DTDAttValue);
    DTDAttValue = ('"' >> *(attTextDouble | Reference) >> '"') | ('\'' >> *(attTextSingle | Reference) >> '\'');
    EntityDecl = GEDecl | PEDecl;
    GEDecl = "<!ENTITY" >> S >> Name >> S >> EntityDef >> !S >> '>';
    PEDecl = "<!ENTITY" >> S >> '%' >> S >> Name >> S >> PEDef >> !S >> '>';
    EntityDef = EntityValue | (ExternalID >> !NDataDecl);
    PEDef = EntityValue | ExternalID;
    EntityValue = ('"' >> *(entityTextDouble | PEReference | Reference) >> '"')
        | ('\'' >> *(entityTextSingle | PEReference | Reference) >> '\'');
    ExternalID = ("SYSTEM" >> S >> SystemLiteral) | ("PUBLIC" >> S >> PubidLiteral >> S >> SystemLiteral);
    SystemLiteral = ('"' >> !systemDouble >> '"') | ('\'' >> !systemSingle >> '\'');
    PubidLiteral = ('"' >> !ClassRunParser(kPubid, 1) >> '"')
        | ('\'' >> !ClassRunParser(kPubidNoApos, 1) >> '\'');
    NDataDecl = S >> "NDATA" >> S >> Name;
    NotationDecl = "<!NOTATION" >> S >> Name >> S >> (ExternalID | PublicID) >> !S >> '>';
    PublicID = "PUBLIC" >> S >> PubidLiteral;
}

} // namespace Qel::Core::Detail
