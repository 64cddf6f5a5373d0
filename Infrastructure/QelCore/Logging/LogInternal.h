// The library's own ways into the log, for code that runs before, beside and after the manager.
#pragma once

#include "Infrastructure/QelCore/LogManager.h"

#include <string>

namespace Qel::Core::Detail {

// Writes the error to the log as a raised error (in XML form); nothing while the library
// unloads or when the manager is gone. Never throws.
void LogAlert(Error& error);
// Writes a line through the logger of that path; nothing while the library unloads or when the
// manager is gone. Never throws.
void WriteLogText(const std::string& logger, QelLogSeverityEnum severity, const std::string& text);

} // namespace Qel::Core::Detail
