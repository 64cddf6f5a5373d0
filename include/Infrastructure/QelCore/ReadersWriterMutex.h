// A readers-writer lock whose bookkeeping is per thread, so that a thread nests freely:
// - a reader may take the reader lock again, and a writer the writer lock, any number of times;
// - a writer may read, and a reader may write: the lock is upgraded when no other thread reads;
// - two readers that want to upgrade at once do not block each other for ever: the first that has
//   to wait stops counting as a reader until it is through;
// - waiting writers go before new readers, but a thread that already reads is never held back.
// All waiting is done on one Condition. No operation raises an alert.
// In the child of a fork (without exec) only the forking thread goes on: the holds and waits of the
// other threads are forgotten there at the first use.
#pragma once

#include "Infrastructure/QelCore/Condition.h"

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Qel::Core {

class QEL_CORE_API ReadersWriterMutex
{
public:
    // Receives every step: the writer (thread, count), the readers, the pending counts, a row code
    // and its text. Called with the internal lock held.
    using Logger = void (*)(const std::pair<unsigned long, unsigned int>& writer,
                            const std::unordered_map<unsigned long, unsigned int>& readers, int pendingWriters,
                            int pendingReaders, const char* code, const char* text);

    explicit ReadersWriterMutex(Logger logger = nullptr);
    ReadersWriterMutex(const ReadersWriterMutex&) = delete;
    ReadersWriterMutex& operator=(const ReadersWriterMutex&) = delete;
    // Destroying it while it is held or waited on is the caller's fault.
    virtual ~ReadersWriterMutex();

    // Wait... blocks, TimedWait... gives false when the time is up, TryWait... never waits.
    void WaitReaderLock();
    bool TimedWaitReaderLock(const Elapse& timeout);
    bool TryWaitReaderLock();
    // Fails the assertions "it != m_readers.end()" / "it->second > 0" without a reader lock.
    void ReaderUnlock();

    void WaitWriterLock();
    bool TimedWaitWriterLock(const Elapse& timeout);
    bool TryWaitWriterLock();
    // Fails the assertions "m_writer.second > 0" / "m_writer.first == threadID" without the lock.
    void WriterUnlock();

private:
    bool PrivateTryWaitReaderLock(unsigned long tid);
    bool PrivateTryWaitWriterLock(unsigned long tid);
    // Under the internal lock: forgets the threads of the parent at the first use after a fork.
    void ForgetThreadsOfParent();
    void CallLogger(const char* code, const char* text);

    // The readers are a handful of threads at most: flat vectors searched from the front keep
    // their memory between uses, so that taking and giving back a read never allocates. The
    // logger receives them as the map of its signature.
    using ReaderCounts = std::vector<std::pair<unsigned long, unsigned int>>;
    using ThreadIds = std::vector<unsigned long>;

    mutable Condition m_Condition;
    std::pair<unsigned long, unsigned int> m_writer;
    ReaderCounts m_readers;   // every thread that reads, with its nesting count (above 0)
    int m_PendingWriters;
    int m_PendingReaders;
    ThreadIds m_ActiveReaders; // the readers that count against a writer
    Logger m_pLogger;
    std::uint32_t m_iForkGeneration; // of the process when the holds above were last made
};

// Scope guard of the reader lock.
class QEL_CORE_API ReaderLock
{
public:
    ReaderLock() : m_rwMutex(nullptr) {}
    explicit ReaderLock(const ReadersWriterMutex& mutex);
    explicit ReaderLock(const ReadersWriterMutex* mutex);
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;
    ~ReaderLock();
    void Release();
    void Reset(const ReadersWriterMutex& other);

private:
    ReadersWriterMutex* m_rwMutex;
};

// Scope guard of the writer lock.
class QEL_CORE_API WriterLock
{
public:
    WriterLock() : m_rwMutex(nullptr) {}
    explicit WriterLock(const ReadersWriterMutex& mutex);
    explicit WriterLock(const ReadersWriterMutex* mutex);
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;
    ~WriterLock();
    void Release();
    void Reset(const ReadersWriterMutex& other);

private:
    ReadersWriterMutex* m_rwMutex;
};

} // namespace Qel::Core
