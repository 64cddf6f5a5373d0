// Markup given to the pretty-print formatter. For now it is written as it stands, without a new
// layout; the line and column counts are left as they were.
#include "Infrastructure/QelCore/XML/PrettyPrintFormatter.h"

namespace Qel::Core {

void PrettyPrintFormatter::ReformatMarkup(std::ostream& os, std::istream* stream, const std::string* text)
{
    if (text != nullptr) os << *text;
    if (stream != nullptr) {
        char buffer[4096];
        while (stream->read(buffer, sizeof buffer) || stream->gcount() > 0) os.write(buffer, stream->gcount());
    }
}

} // namespace Qel::Core
