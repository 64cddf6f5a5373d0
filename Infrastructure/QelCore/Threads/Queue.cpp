// The watermark report of queues.
#include "Infrastructure/QelCore/Queue.h"

#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Time.h"

#include <boost/format.hpp>

namespace Qel::Core::Detail {

void ReportQueueWatermark(const std::string& queueName, unsigned highWatermark, unsigned hardLimit)
{
    try {
        Time now;
        std::string time = (boost::format("%02d:%02d:%02d - ") % now.Hour() % now.Minute() % now.Second()).str();
        std::string process = System::GetProcessName();
        if (!process.empty()) process += " / ";
        std::string indent(time.size(), ' ');
        std::string text;
        if (hardLimit == 0)
            text = (boost::format("%s%s%s\n%snew high watermark (%d items)\n") % time % process % queueName % indent %
                    highWatermark)
                       .str();
        else
            text = (boost::format("%s%s%s\n%shigh watermark (%d items) reached hard limit (%d items)\n\n") % time %
                    process % queueName % indent % highWatermark % hardLimit)
                       .str();
        Platform::WriteStandardError(text + "\n");
    } catch (...) {
        // A report that cannot be made does not stop the producer.
    }
}

} // namespace Qel::Core::Detail
