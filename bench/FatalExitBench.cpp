// The price of dying of an uncaught error, each iteration one process started and waited for:
//  - FatalExit_Qel: an error escapes main and the library's terminate handler writes the report,
//    logs the fatal error (buffering off), writes the copy on standard error and exits with 255;
//  - FatalExit_CleanExit: the same host returns from main after ShutdownQelCore;
//  - FatalExit_Abort: the error escapes with the standard library's terminate handler (abort).
// The argument is the number of entries the host logs just before (queued for the log's worker):
// 0 for an idle log, 1000 for a busy one. The host runs from a folder of its own whose
// SystemInfo.ini sends reports and log files to a temporary folder; no core files are written.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

extern char** environ;

namespace {

// The host copied into a temporary folder beside its settings; the folder goes at exit.
const std::string& HostCopy()
{
    static const std::string path = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qel-fatalbench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        static const std::string* removal = new std::string("rm -rf '" + pattern + "'");
        std::atexit([] { (void)!std::system(removal->c_str()); });
        std::filesystem::create_directories(pattern + "/reports");
        std::filesystem::create_directories(pattern + "/log");
        std::string host = pattern + "/FatalExitHost";
        std::filesystem::copy_file(QEL_FATAL_EXIT_HOST, host);
        std::ofstream(pattern + "/SystemInfo.ini") << "[default]\nErrorPath=" << pattern << "/reports/\nLogPath="
                                                    << pattern << "/log/\n";
        // An abort must not write a core file: that would be the disk's time, not the exit's.
        struct rlimit none{0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        return host;
    }();
    return path;
}

void RunHost(benchmark::State& state, const char* mode, int expectedStatus)
{
    const std::string& host = HostCopy();
    std::string entries = std::to_string(state.range(0));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        char* argv[] = {const_cast<char*>(host.c_str()), const_cast<char*>(mode), entries.data(), nullptr};
        pid_t pid = 0;
        if (posix_spawn(&pid, host.c_str(), &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("spawn failed");
            break;
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        int result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (result != expectedStatus) {
            state.SkipWithError(("unexpected status " + std::to_string(result)).c_str());
            break;
        }
    }
    posix_spawn_file_actions_destroy(&actions);
}

void BM_FatalExit_Qel(benchmark::State& state)
{
    RunHost(state, "qel", 255);
}
void BM_FatalExit_CleanExit(benchmark::State& state)
{
    RunHost(state, "clean", 0);
}
void BM_FatalExit_Abort(benchmark::State& state)
{
    RunHost(state, "abort", 128 + SIGABRT);
}

#define QEL_FATAL_EXIT_ARGS ->Arg(0)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0)
BENCHMARK(BM_FatalExit_Qel) QEL_FATAL_EXIT_ARGS;
BENCHMARK(BM_FatalExit_CleanExit) QEL_FATAL_EXIT_ARGS;
BENCHMARK(BM_FatalExit_Abort) QEL_FATAL_EXIT_ARGS;

} // namespace
