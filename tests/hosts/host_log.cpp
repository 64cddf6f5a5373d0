// A host that writes to the default log, for the scripts that check the log files from outside.
// The log folder is the program's folder unless "SystemInfo.ini" beside it says otherwise.
//
//   host_log endtoend          raises a host error, catches it, shuts the library down, then
//                              writes through a logger it kept
//   host_log forever           logs "entry 000001", "entry 000002", ... until it is killed,
//                              with rollover put out of reach
//   host_log several P PROCESSES N LIMIT GO
//                              process P of PROCESSES: with a rollover limit of LIMIT bytes,
//                              prints "ready", waits for the file GO to exist, then logs
//                              "process P entry 00001" .. N and shuts down; the last 200
//                              entries only after every process has written all but its last 200
//   host_log holdlock          takes the log file's cross-process lock, prints "held" and the
//                              entries file's name, and sleeps until killed
//   host_log writer W N        logs "writer W entry 1" .. N, prints "queued", waits until the
//                              worker took them all and shuts down
//   host_log unwritable N      makes N log calls as fast as it can ("unwritable 1" .. N) and
//                              shuts down
//   host_log sizes             logs messages of many sizes (one above 8 KiB) and raises an
//                              error with a long message; prints "Entries=<count>"
// Each mode ends with exit status 0 when it did all it had to; 1 when something the library
// gave back was wrong, 2 for a wrong command line.
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/Logging/DefaultLogService.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>

using namespace Qel::Core;

namespace HostLog {

QEL_DEFINE_ERROR(SampleRunFailed, IOError, eERROR, "Log sample %1% failed", std::string)

} // namespace HostLog

namespace {

const char* const sLOGGER = "Qel.Host.Log";

void SleepMs(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Keeps the queue well below its hard limit (3000), so that no entry is dropped, and below its
// first watermark (1000), so that the queue reports nothing.
void Pace(LogManager& manager)
{
    while (manager.GetQueuedCount() >= 900) SleepMs(1);
}

// Waits until the worker has taken every queued entry (at most `seconds`); the entry it is
// writing is finished by the shutdown that follows.
bool Drain(LogManager& manager, int seconds)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (manager.GetQueuedCount() > 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        SleepMs(2);
    }
    return true;
}

std::shared_ptr<Logger> HostLogger(LogManager& manager)
{
    return manager.GetLogger(sLOGGER);
}

// The entries file's full name as the library builds it from the log folder.
std::string EntriesFileName(LogManager& manager)
{
    PathName path(manager.GetLogPath());
    path.ForceAsDir();
    path.SetLeafAndExt(sDEFAULT_LOG_ENTRIES);
    return path.ToFileSystemPath();
}

std::string Numbered(const char* prefix, int width, long number)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%0*ld", width, number);
    return std::string(prefix) + digits;
}

int EndToEnd(LogManager& manager)
{
    (void)manager;
    bool bCaught = false;
    try {
        QEL_RAISE_ERROR(HostLog::SampleRunFailed("run42"), sLOGGER);
    } catch (const HostLog::SampleRunFailed& error) {
        bCaught = true;
        std::printf("Message=%s\n", error.GetMessage().c_str());
    }
    std::printf("Caught=%s\n", bCaught ? "true" : "false");
    return bCaught ? 0 : 1;
}

[[noreturn]] void Forever(LogManager& manager)
{
    // No rollover: the one file must hold every entry written before the kill.
    DefaultLogEntriesFile::SetRolloverLimit(std::uint64_t(1) << 32);
    std::shared_ptr<Logger> logger = HostLogger(manager);
    for (long n = 1;; ++n) {
        Pace(manager);
        logger->WriteLog(QelLogInformational, Numbered("entry ", 6, n));
    }
}

bool WaitForFile(const std::string& name, int seconds)
{
    struct stat status;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (stat(name.c_str(), &status) != 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        SleepMs(1);
    }
    return true;
}

int Several(LogManager& manager, int process, int processes, int count, unsigned long limit, const std::string& go)
{
    DefaultLogEntriesFile::SetRolloverLimit(limit);
    std::shared_ptr<Logger> logger = HostLogger(manager);
    // All processes start logging at about the same moment.
    std::printf("ready\n");
    std::fflush(stdout);
    if (!WaitForFile(go, 30)) return 1;
    const std::string prefix = "process " + std::to_string(process) + " entry ";
    // The processes end together: the last entries of each are written after all processes have
    // written the rest, so that every process has entries among the newest ones, which are the
    // ones the current file and the archive keep.
    const int tail = count > 400 ? 200 : 0;
    for (int n = 1; n <= count; ++n) {
        if (n == count - tail + 1) {
            if (!Drain(manager, 60)) return 1;
            FILE* mark = std::fopen((go + "." + std::to_string(process)).c_str(), "w");
            if (mark) std::fclose(mark);
            for (int p = 1; p <= processes; ++p)
                if (!WaitForFile(go + "." + std::to_string(p), 60)) return 1;
        }
        Pace(manager);
        logger->WriteLog(QelLogInformational, Numbered(prefix.c_str(), 5, n));
    }
    return Drain(manager, 60) ? 0 : 1;
}

[[noreturn]] void HoldLock(LogManager& manager)
{
    const std::string name = EntriesFileName(manager);
    LogFileMutex mutex(name);
    if (!mutex.Acquire()) {
        std::printf("not held\n");
        std::fflush(stdout);
        std::_Exit(1);
    }
    std::printf("held\nEntriesFile=%s\n", name.c_str());
    std::fflush(stdout);
    for (;;) pause();
}

int Writer(LogManager& manager, int writer, int count)
{
    std::shared_ptr<Logger> logger = HostLogger(manager);
    const std::string prefix = "writer " + std::to_string(writer) + " entry ";
    for (int n = 1; n <= count; ++n) logger->WriteLog(QelLogInformational, prefix + std::to_string(n));
    std::printf("queued\n");
    std::fflush(stdout);
    // The lock may be held by another process for a while; the library's own limit is 10 s.
    return Drain(manager, 30) ? 0 : 1;
}

int Unwritable(LogManager& manager, long count)
{
    std::shared_ptr<Logger> logger = HostLogger(manager);
    for (long n = 1; n <= count; ++n) logger->WriteLog(QelLogInformational, "unwritable " + std::to_string(n));
    std::printf("LogPath=%s\nCalls=%ld\n", manager.GetLogPath().c_str(), count);
    return Drain(manager, 60) ? 0 : 1;
}

int Sizes(LogManager& manager)
{
    std::shared_ptr<Logger> logger = HostLogger(manager);
    int entries = 0;
    // Short and long lines, several lines, characters that are escaped, and texts around the
    // usual buffer sizes of streams (4 KiB, 8 KiB) and far above them.
    const std::size_t sizes[] = {1, 10, 79, 80, 200, 1000, 4095, 4096, 4097, 8191, 8192, 8193, 9000, 20000, 70000};
    for (std::size_t size : sizes) {
        std::string text;
        for (std::size_t i = 0; i < size; ++i) text += static_cast<char>('a' + i % 26);
        logger->WriteLog(QelLogWarning, text);
        ++entries;
    }
    std::string lines;
    for (int i = 0; i < 400; ++i) lines += "line " + std::to_string(i) + " with <tags> & \"quotes\"\n";
    logger->WriteLog(QelLogError, lines);
    ++entries;
    try {
        std::string detail(12000, 'x');
        QEL_RAISE_ERROR(HostLog::SampleRunFailed("with a long name " + detail), sLOGGER);
    } catch (const HostLog::SampleRunFailed&) {
    }
    entries += 2; // the raised error and its end
    std::printf("Entries=%d\n", entries);
    return Drain(manager, 60) ? 0 : 1;
}

int Usage()
{
    std::fprintf(stderr, "usage: host_log endtoend|forever|several P PROCESSES N LIMIT GO|holdlock|writer W N|"
                         "unwritable N|sizes\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) return Usage();
    LogManager* manager = LogManager::Instance();
    if (!manager) {
        std::fprintf(stderr, "no log manager\n");
        return 1;
    }
    const std::string mode = argv[1];
    // A logger that the host keeps past the shutdown.
    std::shared_ptr<Logger> kept = manager->GetLogger(sLOGGER);
    int rc;
    if (mode == "endtoend" && argc == 2) {
        rc = EndToEnd(*manager);
    } else if (mode == "forever" && argc == 2) {
        Forever(*manager);
    } else if (mode == "several" && argc == 7) {
        rc = Several(*manager, std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]),
                     std::strtoul(argv[5], nullptr, 10), argv[6]);
    } else if (mode == "holdlock" && argc == 2) {
        HoldLock(*manager);
    } else if (mode == "writer" && argc == 4) {
        rc = Writer(*manager, std::atoi(argv[2]), std::atoi(argv[3]));
    } else if (mode == "unwritable" && argc == 3) {
        rc = Unwritable(*manager, std::atol(argv[2]));
    } else if (mode == "sizes" && argc == 2) {
        rc = Sizes(*manager);
    } else {
        return Usage();
    }
    // Delivers what is still on its way (the worker gets a second) and ends the library.
    ShutdownQelCore();
    if (mode == "endtoend") {
        // The manager is gone: nothing reaches it any more, and a kept logger writes to the
        // standard output stream instead.
        std::printf("ManagerAfterShutdown=%s\n", LogManager::Instance() == nullptr ? "null" : "present");
        std::fflush(stdout);
        kept->WriteLog(QelLogInformational, std::string("written after shutdown"));
        std::printf("\n");
    }
    return rc;
}
