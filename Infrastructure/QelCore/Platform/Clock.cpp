// Wall-clock readings for time stamps.
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <cstdio>
#include <ctime>

namespace Qel::Core::Platform {

std::string LocalTimeStampNow()
{
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    struct tm fields {};
    ::localtime_r(&now.tv_sec, &fields);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d/%02d/%02d %02d:%02d:%02d.%03ld", fields.tm_year + 1900,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
                  now.tv_nsec / 1000000L);
    return buffer;
}

} // namespace Qel::Core::Platform
