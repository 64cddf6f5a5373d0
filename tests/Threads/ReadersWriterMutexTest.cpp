// The readers-writer lock: nesting, upgrade, stepping aside, writers before new readers.
#include <Infrastructure/QelCore/QelCore.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace Qel::Core;

namespace {

std::vector<std::string> g_Rows;

void RecordRow(const std::pair<unsigned long, unsigned int>&, const std::unordered_map<unsigned long, unsigned int>&,
               int, int, const char* code, const char*)
{
    g_Rows.emplace_back(code);
}

template <typename F>
void OnOtherThread(F&& work)
{
    std::thread other(std::forward<F>(work));
    other.join();
}

} // namespace

TEST(ReadersWriterMutex, EveryFormNestsOnOneThread)
{
    ReadersWriterMutex mutex;
    for (int round = 0; round < 3; ++round) {
        mutex.WaitReaderLock();
        EXPECT_TRUE(mutex.TryWaitReaderLock());
        EXPECT_TRUE(mutex.TimedWaitReaderLock(Elapse(1, Elapse::Seconds)));
        mutex.WaitWriterLock();
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        EXPECT_TRUE(mutex.TimedWaitWriterLock(Elapse(1, Elapse::Seconds)));
    }
    for (int i = 0; i < 9; ++i) mutex.ReaderUnlock();
    // Still the writer after giving up every read.
    OnOtherThread([&] { EXPECT_FALSE(mutex.TryWaitReaderLock()); });
    for (int i = 0; i < 9; ++i) mutex.WriterUnlock();
    OnOtherThread([&] {
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        mutex.WriterUnlock();
    });
}

TEST(ReadersWriterMutex, UpgradeAndDowngradeUnwindInEitherOrder)
{
    ReadersWriterMutex mutex;
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        EXPECT_TRUE(mutex.TryWaitReaderLock());
    }
    for (int round = 0; round < 3; ++round) {
        mutex.ReaderUnlock();
        mutex.WriterUnlock();
    }
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(mutex.TimedWaitReaderLock(Elapse(1, Elapse::Seconds)));
        EXPECT_TRUE(mutex.TimedWaitWriterLock(Elapse(1, Elapse::Seconds)));
    }
    for (int round = 0; round < 3; ++round) {
        mutex.WriterUnlock();
        mutex.ReaderUnlock();
    }
    OnOtherThread([&] {
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        mutex.WriterUnlock();
    });
}

TEST(ReadersWriterMutex, LoggerSeesEveryStep)
{
    g_Rows.clear();
    {
        ReadersWriterMutex mutex(&RecordRow);
        mutex.WaitReaderLock();
        mutex.ReaderUnlock();
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        mutex.WriterUnlock();
        EXPECT_TRUE(mutex.TimedWaitWriterLock(Elapse(1, Elapse::Seconds)));
        mutex.WriterUnlock();
    }
    std::vector<std::string> expected{"RWC", "RW>", "RW+", "RL-", "WY+", "WL-", "WT>", "WT+", "WL-", "RWD"};
    EXPECT_EQ(g_Rows, expected);
}

TEST(ReadersWriterMutex, ReadersShareAndWaitingWritersGoBeforeNewReaders)
{
    ReadersWriterMutex mutex;
    mutex.WaitReaderLock(); // the first reader
    OnOtherThread([&] { EXPECT_FALSE(mutex.TryWaitWriterLock()); });
    OnOtherThread([&] {
        EXPECT_TRUE(mutex.TryWaitReaderLock());
        mutex.ReaderUnlock();
    });

    std::atomic<bool> writerDone{false};
    std::thread writer([&] {
        mutex.WaitWriterLock();
        writerDone = true;
        mutex.WriterUnlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the writer is pending now
    OnOtherThread([&] { EXPECT_FALSE(mutex.TryWaitReaderLock()); }); // a new reader stands back
    EXPECT_TRUE(mutex.TryWaitReaderLock());                          // a thread that reads passes
    mutex.ReaderUnlock();
    EXPECT_FALSE(writerDone.load());
    mutex.ReaderUnlock();
    writer.join();
    EXPECT_TRUE(writerDone.load());
    OnOtherThread([&] {
        EXPECT_TRUE(mutex.TryWaitReaderLock());
        mutex.ReaderUnlock();
    });
}

TEST(ReadersWriterMutex, TimedOutUpgradeKeepsTheReadCounting)
{
    ReadersWriterMutex mutex;
    std::atomic<int> phase{0};
    std::thread otherReader([&] {
        mutex.WaitReaderLock();
        phase = 1;
        while (phase.load() != 2) std::this_thread::yield();
        mutex.ReaderUnlock();
    });
    while (phase.load() != 1) std::this_thread::yield();
    mutex.WaitReaderLock();
    EXPECT_FALSE(mutex.TimedWaitWriterLock(Elapse(50, Elapse::MilliSeconds)));
    // This thread still reads, and its read still counts against writers.
    phase = 2;
    otherReader.join();
    OnOtherThread([&] { EXPECT_FALSE(mutex.TryWaitWriterLock()); });
    mutex.ReaderUnlock();
    OnOtherThread([&] {
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        mutex.WriterUnlock();
    });
}

TEST(ReadersWriterMutex, TwoReadersUpgradingAtOnceDoNotDeadlock)
{
    ReadersWriterMutex mutex;
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> readers{0};
        auto upgrade = [&] {
            ReaderLock read(mutex);
            ++readers;
            while (readers.load() < 2) std::this_thread::yield();
            WriterLock write(mutex); // one steps aside, the other is upgraded
            // Give the read back first, then the write.
            read.Release();
            write.Release();
        };
        std::thread other(upgrade);
        upgrade();
        other.join();
    }
    OnOtherThread([&] {
        EXPECT_TRUE(mutex.TryWaitWriterLock());
        mutex.WriterUnlock();
    });
}

TEST(ReadersWriterMutex, ReadersNeverSeeAHalfWrittenBuffer)
{
    ReadersWriterMutex mutex;
    std::vector<unsigned char> buffer(1 << 20, 0);
    unsigned long long checksum = 0;
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::atomic<int> reads{0};
    auto reader = [&] {
        while (!stop.load()) {
            ReaderLock read(mutex);
            unsigned long long sum = 0;
            for (std::size_t i = 0; i < buffer.size(); i += 64) sum += buffer[i];
            if (sum != checksum) ++bad;
            ++reads;
        }
    };
    auto writer = [&](unsigned char seed) {
        for (int i = 0; i < 20; ++i) {
            WriterLock write(mutex);
            unsigned long long sum = 0;
            for (std::size_t k = 0; k < buffer.size(); k += 64) {
                buffer[k] = static_cast<unsigned char>(seed + i + k);
                sum += buffer[k];
            }
            checksum = sum;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) threads.emplace_back(reader);
    std::thread w1(writer, 1), w2(writer, 7);
    w1.join();
    w2.join();
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(reads.load(), 0);
}

TEST(ReadersWriterMutex, GuardsReleaseOnceAndResetKeepsAHeldMutex)
{
    ReadersWriterMutex first;
    ReadersWriterMutex second;
    {
        ReaderLock none;
        WriterLock alsoNone;
        none.Release();
    }
    {
        WriterLock write(first);
        write.Reset(first);
        OnOtherThread([&] { EXPECT_FALSE(first.TryWaitReaderLock()); });
        write.Reset(second);
        OnOtherThread([&] {
            EXPECT_TRUE(first.TryWaitReaderLock());
            first.ReaderUnlock();
        });
        write.Release();
        write.Release();
    }
    {
        ReaderLock read(&second);
        OnOtherThread([&] { EXPECT_FALSE(second.TryWaitWriterLock()); });
    }
    OnOtherThread([&] {
        EXPECT_TRUE(second.TryWaitWriterLock());
        second.WriterUnlock();
    });
}

TEST(ReadersWriterMutex, LoggerSeesReadersStandBackAndWritersGiveUp)
{
    g_Rows.clear();
    ReadersWriterMutex mutex(&RecordRow);
    mutex.WaitReaderLock();
    std::thread writer([&] { EXPECT_FALSE(mutex.TimedWaitWriterLock(Elapse(300, Elapse::MilliSeconds))); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    OnOtherThread([&] { EXPECT_FALSE(mutex.TryWaitReaderLock()); }); // stands back: RLB
    writer.join();
    mutex.ReaderUnlock();
    auto has = [&](const char* code) { return std::find(g_Rows.begin(), g_Rows.end(), code) != g_Rows.end(); };
    EXPECT_TRUE(has("RLB"));
    EXPECT_TRUE(has("WT>"));
    EXPECT_TRUE(has("WT<"));
    EXPECT_TRUE(has("WBR")); // the last pending writer gave up: readers may go again

    g_Rows.clear();
    mutex.WaitReaderLock();
    std::thread waitingWriter([&] {
        mutex.WaitWriterLock();
        mutex.WriterUnlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    mutex.ReaderUnlock(); // the last read goes while a writer waits: RUB
    waitingWriter.join();
    EXPECT_TRUE(has("WW>"));
    EXPECT_TRUE(has("RUB"));
    EXPECT_TRUE(has("WW+"));
}
