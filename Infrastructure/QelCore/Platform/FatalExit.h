// The platform side of the fatal error path: the report file, and the guards that make a dying
// process end with its status whatever happens on the way out.
//
// Porting decisions taken here:
// - A report file is opened with O_WRONLY | O_CREAT | O_TRUNC (mode 0666 narrowed by the umask):
//   every file is shared on Linux, and a report of an earlier run under the same name is replaced.
// - The way out is the C library's exit, so exit handlers and static destructors run while other
//   threads of the host may still run and hold locks. Two guards bound that way out:
//     * a watchdog thread ends the process with the status by _exit once the limit has passed
//       (after a line on the standard error stream saying so), so a deadlock cannot hang it;
//     * SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and SIGTRAP end the process with the status by
//       _exit, so a crash in a destructor (or a second terminate, whose default is abort) cannot
//       hide the status.
//   Both are armed once, by the first thread that starts the fatal path, and never disarmed.
// - A thread that enters the fatal path while another one owns it is parked for good: the owner
//   ends the process.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <string>

namespace Qel::Core::Platform {

// A file written once from the start: the fatal error report. None of the calls throws; each
// blocks on the file system only.
class ReportFile
{
public:
    ReportFile() = default;
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;
    ~ReportFile();

    // Opens the file for writing, created or cut to length 0; false when it cannot be opened.
    bool Open(const std::string& path);
    // Writes all the bytes (continuing after short writes and signals); false on failure.
    bool Write(const std::string& bytes);
    void Close();

private:
    int m_iFile = -1;
};

// Arms the two guards described above with the status and the limit in seconds (a limit of 0 or
// less arms no watchdog). Only the first call has an effect. Never throws, never blocks.
void ArmFatalExitGuards(int status, int limitSeconds);

// Ends the process at once with the status (_exit): no exit handler, no destructor runs.
[[noreturn]] void QuickExit(int status);

// Blocks the calling thread for good (it sleeps; signals do not wake it out of this call).
[[noreturn]] void ParkThread();

} // namespace Qel::Core::Platform
