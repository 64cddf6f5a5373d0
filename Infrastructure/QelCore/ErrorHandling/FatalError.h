// Internals of the fatal error reports shared with the library's tests: the clock of the time
// stamp, the process-wide counts, the reading of the report folder from the settings file, and
// the limit of the way out.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstdint>
#include <string>

namespace Qel::Core::FatalErrors {

// Seconds since 1970-01-01 00:00:00 UTC, as the stamp of the report names reads them.
using Clock = std::int64_t (*)();

// Replaces the clock of the stamp (null: the system's wall clock) and returns the one before.
QEL_CORE_API Clock SetClock(Clock clock);

// The stamp made last ("2024-05-01__13-05-09__"), empty before the first.
QEL_CORE_API std::string CurrentStamp();

// Puts the stamp, its time, the count of reports and the count of terminate handler entries
// back to their state at load, as a new process has them.
QEL_CORE_API void ResetCounts();

// The report folder that a settings file gives a process: ErrorPath of the process's section
// over that of [default], an empty value counting as none, path macros expanded; empty when
// neither gives one (or the file cannot be read). No separator is added.
QEL_CORE_API std::string ErrorPathFromSettings(const std::string& settingsFile, const std::string& processName);

// The most seconds that the way out of a fatal error may take before the process is ended
// at once; 20 at load. Read when the fatal path starts.
QEL_CORE_API void SetExitLimit(int seconds);
int ExitLimit();

// The terminate handler that the alert manager installs.
[[noreturn]] QEL_CORE_API void TerminateHandler();

} // namespace Qel::Core::FatalErrors
