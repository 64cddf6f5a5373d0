// The compact style: no white space of its own at all.
#include "Infrastructure/QelCore/XMLFormatter.h"
#include "Infrastructure/QelCore/XMLTranscodeFilter.h"

#include <boost/iostreams/filtering_stream.hpp>

#include <iterator>

namespace Qel::Core {
namespace {

// Copies what is left of `in` to `os`. (os << in.rdbuf() would set failbit on os for an empty
// stream.)
template <typename Stream>
void CopyStream(std::ostream& os, Stream& in)
{
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) os.write(buffer, in.gcount());
}

class CompactFormatter : public XMLFormatter
{
public:
    void FormatStartDoc(std::ostream& os, const std::string& version, const std::string& encoding,
                        bool standalone) override
    {
        os << "<?xml version=\"" << version << "\" encoding=\"" << encoding << '"';
        if (standalone) os << " standalone=\"yes\"";
        os << "?>";
    }

    void FormatStartTag(std::ostream& os, const std::string& name, const XMLAttributeMap<std::string>& attributes,
                        bool empty) override
    {
        os << '<' << name;
        for (const auto& [attribute, value] : attributes) os << ' ' << attribute << "=\"" << value.ToString() << '"';
        os << (empty ? "/>" : ">");
    }

    void FormatTextStream(std::ostream& os, std::istream& text) override
    {
        boost::iostreams::filtering_istream escaped;
        escaped.push(XMLTranscodeFilter<std::string>());
        escaped.push(text);
        CopyStream(os, escaped);
    }

    void FormatText(std::ostream& os, const std::string& text) override { os << XMLEscape(text); }

    void FormatEndTag(std::ostream& os, const std::string& name) override { os << "</" << name << '>'; }

    void FormatProcessingInstruction(std::ostream& os, const std::string& target, const std::string& data,
                                     bool) override
    {
        os << "<?" << target << ' ' << data << "?>";
    }

    void FormatMarkupStream(std::ostream& os, std::istream& markup) override { CopyStream(os, markup); }

    void FormatMarkup(std::ostream& os, const std::string& markup) override { os << markup; }

    void FormatComment(std::ostream& os, const std::string& text, bool) override { os << "<!--" << text << "-->"; }

    void FormatWideCDATAStream(std::ostream& os, std::wistream& text, bool) override
    {
        std::wstring content{std::istreambuf_iterator<wchar_t>(text), std::istreambuf_iterator<wchar_t>()};
        os << "<![CDATA[" << XMLNarrow(content) << "]]>";
    }

    void FormatCDATAStream(std::ostream& os, std::istream& text, bool) override
    {
        os << "<![CDATA[";
        CopyStream(os, text);
        os << "]]>";
    }

    void FormatCDATA(std::ostream& os, const std::string& text, bool) override
    {
        os << "<![CDATA[" << text << "]]>";
    }

    void FormatEntityReference(std::ostream& os, const std::string& reference) override { os << reference; }
};

} // namespace

std::shared_ptr<XMLFormatter> XMLFormatter::CreateCompact()
{
    return std::make_shared<CompactFormatter>();
}

} // namespace Qel::Core
