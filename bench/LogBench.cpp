// Logging against spdlog 1.10 (Debian's libspdlog), in the same run:
//  - LogFiltered: a call that the severity filter refuses, against spdlog's level check;
//  - LogAccepted: an accepted call as its caller pays for it (format, stamp, queue), against
//    spdlog's async logger; on both sides the entries end in a receiver that does nothing (a
//    no-op log handler registered with the LogManager, spdlog's null_sink), so the worker's
//    share stays small and the queues are measured, not a disk;
//  - LogFileThroughput: entries per second reaching "DefaultLog.entries" through the default
//    log service's WriteLog (the log worker's whole work per entry: offer to handlers, keep for
//    replay, XML layout, cross-process lock, one write(2), size check, rollover), against
//    spdlog's basic_file_sink flushing every line (one fwrite + fflush) with a line of the
//    same length as our entry;
//  - LogFileEndToEnd: the same file work behind the caller: Logger -> queue -> worker -> file,
//    against spdlog's async logger -> basic_file_sink flushing every line.
// The queues never overflow: calls are timed in batches of kBatch, and between batches the
// timing pauses until the queue is empty (for the end-to-end case the wait is timed: it is the
// file work).
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/Logging/DefaultLogService.h"

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace Qel::Core;

constexpr int kBatch = 1000;          // calls between two drains; far below both queue limits
constexpr std::size_t kSpdlogQueue = 8192;
constexpr long long kFileCut = 4000;  // spdlog's file is cut to 0 every kFileCut lines (untimed)

// A folder of its own under the temporary folder, removed at exit.
const std::string& TempFolder()
{
    static const std::string folder = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qel-logbench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        // The command outlives the folder's name, which is destroyed before this handler runs.
        static const std::string* removal = new std::string("rm -rf '" + pattern + "'");
        std::atexit([] { (void)!std::system(removal->c_str()); });
        return pattern + "/";
    }();
    return folder;
}

// Waits until `empty()` holds, polling; the caller pauses the timing if the wait is not work.
template <typename Empty>
void WaitUntil(Empty empty)
{
    while (!empty()) std::this_thread::sleep_for(std::chrono::microseconds(50));
}

// Takes every entry and does nothing with it but count it.
class NoOpHandler : public IQelLogHandler
{
public:
    void OnLogTreeChange() override {}
    void WriteLog(const QelLogEntry&) override { m_Taken.fetch_add(1, std::memory_order_relaxed); }
    std::atomic<long long> m_Taken{0};
};

std::shared_ptr<spdlog::details::thread_pool> SpdlogPool()
{
    static auto pool = std::make_shared<spdlog::details::thread_pool>(kSpdlogQueue, 1);
    return pool;
}

// ---- a refused call ----

void BM_LogFiltered_Qel(benchmark::State& state)
{
    std::shared_ptr<Logger> logger = LogManager::Instance()->GetLogger("Bench.Log.Filtered");
    // The default filter word (46) refuses debug.
    int i = 0;
    for (auto _ : state) {
        logger->WriteLog(QelLogDebug, "value %d", i);
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_LogFiltered_Qel);

void BM_LogFiltered_Baseline(benchmark::State& state)
{
    auto logger = std::make_shared<spdlog::logger>("bench-filtered", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::info);
    int i = 0;
    for (auto _ : state) {
        logger->debug("value {}", i);
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_LogFiltered_Baseline);

// ---- an accepted call, on the caller's thread ----

void BM_LogAccepted_Qel(benchmark::State& state)
{
    LogManager* manager = LogManager::Instance();
    std::shared_ptr<Logger> logger = manager->GetLogger("Bench.Log.Accepted");
    NoOpHandler handler;
    manager->RegisterHandler(&handler);
    long long calls = 0;
    int i = 0;
    for (auto _ : state) {
        logger->WriteLog(QelLogInformational, "value %d %s", i, "text");
        ++i;
        if (++calls % kBatch == 0) {
            state.PauseTiming();
            WaitUntil([&] { return manager->GetQueuedCount() == 0; });
            state.ResumeTiming();
        }
    }
    WaitUntil([&] { return manager->GetQueuedCount() == 0; });
    // Let the worker hand on the last entry before the handler goes.
    WaitUntil([&] { return handler.m_Taken.load() >= calls; });
    manager->UnregisterHandler(&handler);
    state.counters["dropped"] = static_cast<double>(calls - handler.m_Taken.load());
}
BENCHMARK(BM_LogAccepted_Qel);

void BM_LogAccepted_Baseline(benchmark::State& state)
{
    auto pool = SpdlogPool();
    auto logger = std::make_shared<spdlog::async_logger>("bench-accepted", std::make_shared<spdlog::sinks::null_sink_mt>(),
                                                         pool, spdlog::async_overflow_policy::block);
    logger->set_level(spdlog::level::info);
    std::size_t overrunsBefore = pool->overrun_counter();
    long long calls = 0;
    int i = 0;
    for (auto _ : state) {
        logger->info("value {} {}", i, "text");
        ++i;
        if (++calls % kBatch == 0) {
            state.PauseTiming();
            WaitUntil([&] { return pool->queue_size() == 0; });
            state.ResumeTiming();
        }
    }
    WaitUntil([&] { return pool->queue_size() == 0; });
    state.counters["dropped"] = static_cast<double>(pool->overrun_counter() - overrunsBefore);
}
BENCHMARK(BM_LogAccepted_Baseline);

// ---- entries per second into the file ----

// The entry that the file cases write: a short one-line message, as most are.
QelLogEntry SampleEntry()
{
    QelLogEntry entry;
    entry.m_TimeStamp = Time();
    entry.m_Severity = QelLogInformational;
    entry.m_LogName = "Bench.Log.File";
    entry.m_Format = "plain";
    entry.m_Message = "value 123456 text";
    return entry;
}

// The length of what spdlog's default pattern "[%Y-%m-%d %H:%M:%S.%e] [%n] [%l] %v" and its
// line end put around an info message.
std::size_t SpdlogFrame(const std::string& loggerName)
{
    return std::string("[2024-01-01 12:00:00.000] [] [info] \n").size() + loggerName.size();
}

// A payload that makes spdlog's line as long as our entry.
std::string SpdlogPayload(const std::string& loggerName)
{
    std::size_t entryLength = FormatDefaultLogEntry(SampleEntry()).size();
    std::size_t frame = SpdlogFrame(loggerName);
    std::string payload = "value 123456 text ";
    payload.resize(entryLength > frame ? entryLength - frame : payload.size(), 'x');
    return payload;
}

void BM_LogFileThroughput_Qel(benchmark::State& state)
{
    std::string folder = TempFolder() + "service/";
    DefaultLogService service([folder] { return folder; });
    QelLogEntry entry = SampleEntry();
    for (auto _ : state) service.WriteLog(entry);
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes_per_entry"] = static_cast<double>(FormatDefaultLogEntry(entry).size());
}
BENCHMARK(BM_LogFileThroughput_Qel)->UseRealTime();

void BM_LogFileThroughput_Baseline(benchmark::State& state)
{
    std::string name = TempFolder() + "spdlog-basic.log";
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(name, true);
    spdlog::logger logger("bench-file", sink);
    logger.flush_on(spdlog::level::trace);
    std::string payload = SpdlogPayload(logger.name());
    long long lines = 0;
    for (auto _ : state) {
        logger.info(payload);
        if (++lines % kFileCut == 0) {
            // Keeps the file small, as our rollover does; the sink appends, so it goes on at 0.
            state.PauseTiming();
            if (::truncate(name.c_str(), 0) != 0) state.SkipWithError("truncate failed");
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes_per_entry"] = static_cast<double>(SpdlogFrame(logger.name()) + payload.size());
}
BENCHMARK(BM_LogFileThroughput_Baseline)->UseRealTime();

// ---- end to end: caller, queue, worker, file ----

void BM_LogFileEndToEnd_Qel(benchmark::State& state)
{
    LogManager* manager = LogManager::Instance();
    std::string previous = manager->GetLogPath();
    manager->SetLogPath(TempFolder() + "manager/");
    std::shared_ptr<Logger> logger = manager->GetLogger("Bench.Log.File");
    const std::string message = SampleEntry().m_Message;
    long long calls = 0;
    for (auto _ : state) {
        logger->WriteLog(QelLogInformational, message);
        if (++calls % kBatch == 0) WaitUntil([&] { return manager->GetQueuedCount() == 0; });
    }
    WaitUntil([&] { return manager->GetQueuedCount() == 0; });
    state.SetItemsProcessed(state.iterations());
    manager->SetLogPath(previous);
}
BENCHMARK(BM_LogFileEndToEnd_Qel)->UseRealTime();

void BM_LogFileEndToEnd_Baseline(benchmark::State& state)
{
    std::string name = TempFolder() + "spdlog-async.log";
    auto pool = SpdlogPool();
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(name, true);
    auto logger = std::make_shared<spdlog::async_logger>("bench-file", sink, pool, spdlog::async_overflow_policy::block);
    logger->flush_on(spdlog::level::trace);
    std::string payload = SpdlogPayload(logger->name());
    long long calls = 0;
    for (auto _ : state) {
        logger->info(payload);
        if (++calls % kBatch == 0) {
            WaitUntil([&] { return pool->queue_size() == 0; });
            if (calls % kFileCut == 0) {
                state.PauseTiming();
                if (::truncate(name.c_str(), 0) != 0) state.SkipWithError("truncate failed");
                state.ResumeTiming();
            }
        }
    }
    WaitUntil([&] { return pool->queue_size() == 0; });
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogFileEndToEnd_Baseline)->UseRealTime();

} // namespace
