// The readers-writer lock: per-thread counts, upgrade with stepping aside, writers before new readers.
#include "Infrastructure/QelCore/ReadersWriterMutex.h"

#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <algorithm>
#include <unordered_map>

namespace Qel::Core {

namespace {
unsigned long CurrentId()
{
    return Platform::ThreadIdFast();
}

template <typename Container, typename Predicate>
auto FindIf(Container& container, Predicate predicate)
{
    return std::find_if(container.begin(), container.end(), predicate);
}

bool Contains(const std::vector<unsigned long>& ids, unsigned long tid)
{
    return std::find(ids.begin(), ids.end(), tid) != ids.end();
}

// Removes the id; tells whether it was there.
bool Erase(std::vector<unsigned long>& ids, unsigned long tid)
{
    auto found = std::find(ids.begin(), ids.end(), tid);
    if (found == ids.end()) return false;
    *found = ids.back();
    ids.pop_back();
    return true;
}

void Insert(std::vector<unsigned long>& ids, unsigned long tid)
{
    if (!Contains(ids, tid)) ids.push_back(tid);
}

// What is left of a deadline, as a time-out.
Elapse LeftUntil(Platform::Deadline deadline)
{
    return Elapse(Platform::TicksLeft(deadline), Elapse::TimerTicks);
}
} // namespace

ReadersWriterMutex::ReadersWriterMutex(Logger logger)
    : m_Condition(true),
      m_writer(0, 0),
      m_PendingWriters(0),
      m_PendingReaders(0),
      m_pLogger(logger),
      m_iForkGeneration(Platform::ForkGeneration())
{
    CallLogger("RWC", "ReadersWriterMutex constructor");
}

ReadersWriterMutex::~ReadersWriterMutex()
{
    try {
        CallLogger("RWD", "ReadersWriterMutex destructor");
    } catch (...) {
    }
}

void ReadersWriterMutex::ForgetThreadsOfParent()
{
    std::uint32_t generation = Platform::ForkGeneration();
    if (m_iForkGeneration == generation) [[likely]]
        return;
    // The first use in the child of a fork: only the thread that forked went on. The holds and
    // waits of the others stay in the parent.
    m_iForkGeneration = generation;
    unsigned long forking = Platform::g_iForkingThreadId.load();
    m_readers.erase(std::remove_if(m_readers.begin(), m_readers.end(),
                                   [forking](const auto& reader) { return reader.first != forking; }),
                    m_readers.end());
    m_ActiveReaders.erase(std::remove_if(m_ActiveReaders.begin(), m_ActiveReaders.end(),
                                         [forking](unsigned long tid) { return tid != forking; }),
                          m_ActiveReaders.end());
    if (m_writer.second > 0 && m_writer.first != forking) m_writer = {0, 0};
    m_PendingWriters = 0;
    m_PendingReaders = 0;
}

void ReadersWriterMutex::CallLogger(const char* code, const char* text)
{
    if (m_pLogger == nullptr) return;
    std::unordered_map<unsigned long, unsigned int> readers(m_readers.begin(), m_readers.end());
    m_pLogger(m_writer, readers, m_PendingWriters, m_PendingReaders, code, text);
}

bool ReadersWriterMutex::PrivateTryWaitReaderLock(unsigned long tid)
{
    if (m_writer.second > 0 && m_writer.first != tid) return false;
    auto found = FindIf(m_readers, [tid](const auto& reader) { return reader.first == tid; });
    if (found != m_readers.end()) {
        ++found->second;
        return true;
    }
    if (m_writer.second == 0 && m_PendingWriters >= 1) {
        // Waiting writers go first; wake them to see that.
        CallLogger("RLB", "ReaderLock broadcast writers");
        m_Condition.Broadcast();
        return false;
    }
    m_readers.emplace_back(tid, 1);
    Insert(m_ActiveReaders, tid);
    return true;
}

bool ReadersWriterMutex::PrivateTryWaitWriterLock(unsigned long tid)
{
    if (m_writer.second != 0) {
        if (m_writer.first != tid) return false;
        ++m_writer.second;
        return true;
    }
    if (m_ActiveReaders.size() > 1) return false;
    if (m_ActiveReaders.size() == 1 && m_ActiveReaders.front() != tid) return false;
    m_writer = {tid, 1};
    return true;
}

void ReadersWriterMutex::WaitReaderLock()
{
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    ++m_PendingReaders;
    CallLogger("RW>", "WaitReaderLock started");
    while (!PrivateTryWaitReaderLock(tid)) m_Condition.Wait();
    --m_PendingReaders;
    CallLogger("RW+", "WaitReaderLock succeeded");
}

bool ReadersWriterMutex::TimedWaitReaderLock(const Elapse& timeout)
{
    // The deadline comes first, so that the time spent on the internal lock counts.
    Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    ++m_PendingReaders;
    CallLogger("RT>", "TimedWaitReaderLock started");
    for (;;) {
        if (PrivateTryWaitReaderLock(tid)) {
            --m_PendingReaders;
            CallLogger("RT+", "TimedWaitReaderLock succeeded");
            return true;
        }
        if (!m_Condition.TimedWait(LeftUntil(deadline))) break;
    }
    --m_PendingReaders;
    if (PrivateTryWaitReaderLock(tid)) {
        CallLogger("RT+", "TimedWaitReaderLock succeeded");
        return true;
    }
    CallLogger("RT<", "TimedWaitReaderLock failed");
    return false;
}

bool ReadersWriterMutex::TryWaitReaderLock()
{
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    bool acquired = PrivateTryWaitReaderLock(tid);
    if (acquired) CallLogger("RY+", "TryWaitReaderLock succeeded");
    return acquired;
}

void ReadersWriterMutex::ReaderUnlock()
{
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    auto it = FindIf(m_readers, [tid](const auto& reader) { return reader.first == tid; });
    if (it == m_readers.end()) {
        AssertFailed("it != m_readers.end()", QEL_CODE_CONTEXT());
        return;
    }
    if (!(it->second > 0)) {
        AssertFailed("it->second > 0", QEL_CODE_CONTEXT());
        return;
    }
    if (--it->second == 0) {
        *it = m_readers.back();
        m_readers.pop_back();
        Erase(m_ActiveReaders, tid);
        CallLogger("RL-", "ReaderUnlock");
        if (m_PendingWriters > 0) {
            CallLogger("RUB", "ReaderUnlock broadcast writers");
            m_Condition.Broadcast();
        }
    } else {
        CallLogger("RL-", "ReaderUnlock");
    }
}

void ReadersWriterMutex::WaitWriterLock()
{
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    ++m_PendingWriters;
    CallLogger("WW>", "WaitWriterLock started");
    if (!PrivateTryWaitWriterLock(tid)) {
        // Step aside: another reader that upgrades now sees one active reader fewer.
        bool steppedAside = Erase(m_ActiveReaders, tid);
        do {
            m_Condition.Wait();
        } while (!PrivateTryWaitWriterLock(tid));
        if (steppedAside) Insert(m_ActiveReaders, tid);
    }
    --m_PendingWriters;
    CallLogger("WW+", "WaitWriterLock succeeded");
}

bool ReadersWriterMutex::TimedWaitWriterLock(const Elapse& timeout)
{
    Platform::Deadline deadline = Platform::DeadlineAfterTicks(timeout.GetRawTimerTicks());
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    ++m_PendingWriters;
    CallLogger("WT>", "TimedWaitWriterLock started");
    if (!PrivateTryWaitWriterLock(tid)) {
        bool steppedAside = Erase(m_ActiveReaders, tid);
        bool acquired = false;
        while (m_Condition.TimedWait(LeftUntil(deadline))) {
            if (steppedAside) {
                // From here on the thread waits as an active reader again.
                Insert(m_ActiveReaders, tid);
                steppedAside = false;
            }
            if (PrivateTryWaitWriterLock(tid)) {
                acquired = true;
                break;
            }
        }
        if (!acquired) {
            if (steppedAside) Insert(m_ActiveReaders, tid);
            --m_PendingWriters;
            if (PrivateTryWaitWriterLock(tid)) {
                CallLogger("WT+", "TimedWaitWriterLock succeeded");
                return true;
            }
            CallLogger("WT<", "TimedWaitWriterLock failed");
            if (m_PendingWriters <= 0 && m_writer.second == 0) {
                // Readers may have stood back for this writer.
                CallLogger("WBR", "TimedWaitWriterLock broadcast readers");
                m_Condition.Broadcast();
            }
            return false;
        }
    }
    --m_PendingWriters;
    CallLogger("WT+", "TimedWaitWriterLock succeeded");
    return true;
}

bool ReadersWriterMutex::TryWaitWriterLock()
{
    unsigned long tid = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    bool acquired = PrivateTryWaitWriterLock(tid);
    if (acquired) CallLogger("WY+", "TryWaitWriterLock succeeded");
    return acquired;
}

void ReadersWriterMutex::WriterUnlock()
{
    unsigned long threadID = CurrentId();
    Lock guard(m_Condition);
    ForgetThreadsOfParent();
    if (!(m_writer.second > 0)) {
        AssertFailed("m_writer.second > 0", QEL_CODE_CONTEXT());
        return;
    }
    if (!(m_writer.first == threadID)) {
        AssertFailed("m_writer.first == threadID", QEL_CODE_CONTEXT());
        return;
    }
    --m_writer.second;
    CallLogger("WL-", "WriterUnlock");
    if (m_writer.second == 0 && (m_PendingWriters >= 1 || m_PendingReaders >= 1)) {
        // The thread still reads and no pending writer could pass: nobody to wake.
        if (m_PendingReaders < 1 && Contains(m_ActiveReaders, threadID)) return;
        CallLogger("WB*", "WriterUnlock broadcast all");
        m_Condition.Broadcast();
    }
}

// ---- guards ----

ReaderLock::ReaderLock(const ReadersWriterMutex& mutex) : ReaderLock(&mutex) {}

ReaderLock::ReaderLock(const ReadersWriterMutex* mutex) : m_rwMutex(const_cast<ReadersWriterMutex*>(mutex))
{
    QEL_ASSERT(m_rwMutex != 0);
    if (m_rwMutex != nullptr) m_rwMutex->WaitReaderLock();
}

ReaderLock::~ReaderLock()
{
    try {
        Release();
    } catch (...) {
    }
}

void ReaderLock::Release()
{
    if (m_rwMutex != nullptr) {
        ReadersWriterMutex* mutex = m_rwMutex;
        m_rwMutex = nullptr;
        mutex->ReaderUnlock();
    }
}

void ReaderLock::Reset(const ReadersWriterMutex& other)
{
    if (&other == m_rwMutex) return;
    Release();
    auto* next = const_cast<ReadersWriterMutex*>(&other);
    next->WaitReaderLock();
    m_rwMutex = next;
}

WriterLock::WriterLock(const ReadersWriterMutex& mutex) : WriterLock(&mutex) {}

WriterLock::WriterLock(const ReadersWriterMutex* mutex) : m_rwMutex(const_cast<ReadersWriterMutex*>(mutex))
{
    QEL_ASSERT(m_rwMutex != 0);
    if (m_rwMutex != nullptr) m_rwMutex->WaitWriterLock();
}

WriterLock::~WriterLock()
{
    try {
        Release();
    } catch (...) {
    }
}

void WriterLock::Release()
{
    if (m_rwMutex != nullptr) {
        ReadersWriterMutex* mutex = m_rwMutex;
        m_rwMutex = nullptr;
        mutex->WriterUnlock();
    }
}

void WriterLock::Reset(const ReadersWriterMutex& other)
{
    if (&other == m_rwMutex) return;
    Release();
    auto* next = const_cast<ReadersWriterMutex*>(&other);
    next->WaitWriterLock();
    m_rwMutex = next;
}

} // namespace Qel::Core
