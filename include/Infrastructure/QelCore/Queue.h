// A bounded queue for many producers and many consumers.
//
// Producers never block in Enqueue: a full queue refuses the item (false). TimedEnqueue waits up
// to a time-out for room instead. Consumers block in Dequeue until an item comes or the queue is
// released; TryDequeue never blocks and TimedDequeue waits up to a time-out. A released queue
// still gives out the items it holds, then false, to every consumer at once.
//
// The queue watches its fill level: from `firstWatermark` items on, each new high watermark that
// is `watermarkStep` items above the last one reported, and the hard limit once, are reported on
// the standard error stream with the time, the process and the queue's name.
#pragma once

#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/Semaphore.h"
#include "Infrastructure/QelCore/Time.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>

namespace Qel::Core {
namespace Detail {
// Writes a queue's watermark report to the standard error stream and flushes it.
QEL_CORE_API void ReportQueueWatermark(const std::string& queueName, unsigned highWatermark, unsigned hardLimit);
} // namespace Detail

template <typename T>
class Queue
{
public:
    // Called on each item that Clear throws away.
    using Disposer = std::function<void(T&)>;

    // An empty name becomes "Queue #<n>", counted per item type from 0.
    explicit Queue(const std::string& name = std::string(), Disposer disposer = nullptr,
                   unsigned firstWatermark = 1000, unsigned watermarkStep = 100, unsigned hardLimit = 3000)
        : m_Semaphore(0),
          m_Name(name.empty() ? NextName() : name),
          m_Disposer(std::move(disposer)),
          m_FirstWatermark(firstWatermark),
          m_WatermarkStep(watermarkStep),
          m_HardLimit(hardLimit)
    {
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    // Throws the items away (through the disposer); nothing escapes.
    virtual ~Queue()
    {
        try {
            Clear();
        } catch (...) {
        }
    }

    // Appends the item; false (and the item is not stored) when the queue is full. Never blocks.
    bool Enqueue(const T& item)
    {
        {
            Hold guard(m_Mutex);
            if (m_Items.size() >= m_HardLimit) return false;
            m_Items.push_back(item);
            UpdateWatermark();
        }
        m_Semaphore.Post(1);
        return true;
    }

    // As above, moving the item in.
    bool Enqueue(T&& item)
    {
        {
            Hold guard(m_Mutex);
            if (m_Items.size() >= m_HardLimit) return false;
            m_Items.push_back(std::move(item));
            UpdateWatermark();
        }
        m_Semaphore.Post(1);
        return true;
    }

    // Appends the item, waiting up to `timeout` for room; false when there was none in time.
    bool TimedEnqueue(const T& item, const Elapse& timeout)
    {
        Time deadline(timeout);
        for (;;) {
            {
                Lock guard(m_Mutex);
                if (m_Items.size() < m_HardLimit) {
                    m_Items.push_back(item);
                    UpdateWatermark();
                    guard.Release();
                    m_Semaphore.Post(1);
                    return true;
                }
                ++m_WaitingProducers;
            }
            bool signalled = m_Room.TimedWait(deadline.TimeLeft());
            {
                Lock guard(m_Mutex);
                --m_WaitingProducers;
            }
            if (!signalled && deadline.TimeLeft().GetRawTimerTicks() <= 0) {
                // One last look: room may have come with the time-out.
                Lock guard(m_Mutex);
                if (m_Items.size() >= m_HardLimit) return false;
            }
        }
    }

    // Takes the front item; false when there is none. Never blocks.
    bool TryDequeue(T& item) { return Take(item, false); }

    // Blocks until an item comes (true) or the queue is released and empty (false).
    bool Dequeue(T& item)
    {
        m_Semaphore.Wait();
        return Take(item, true);
    }

    // As Dequeue, waiting at most `timeout`; false also when the time ran out.
    bool TimedDequeue(T& item, const Elapse& timeout)
    {
        if (!m_Semaphore.TimedWait(timeout)) return false;
        return Take(item, true);
    }

    unsigned GetCount()
    {
        Lock guard(m_Mutex);
        return static_cast<unsigned>(m_Items.size());
    }

    // Releasing lets every consumer through without waiting, from now on; there is no way back
    // for consumers that have passed.
    void SetReleased(bool released)
    {
        Lock guard(m_Mutex);
        if (m_Released == released) return;
        m_Released = released;
        if (released) m_Semaphore.Post(1);
    }

    // Throws every item away, calling the disposer on each.
    void Clear()
    {
        T item;
        while (TryDequeue(item))
            if (m_Disposer) m_Disposer(item);
    }

    const std::string& GetName() const { return m_Name; }
    unsigned GetHighWatermark()
    {
        Lock guard(m_Mutex);
        return m_HighWatermark;
    }

private:
    // The queue's own scope guard on its mutex: the calls go straight to Mutex, past the virtual
    // interface that Lock serves.
    class Hold
    {
    public:
        explicit Hold(Mutex& mutex) : m_Mutex(mutex) { m_Mutex.Mutex::Lock(Elapse::Infinite()); }
        ~Hold() { m_Mutex.Mutex::Unlock(); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        Mutex& m_Mutex;
    };

    // Takes the front item under one lock; after a wait on the semaphore, the unit of a release
    // travels on from consumer to consumer.
    bool Take(T& item, bool afterWait)
    {
        bool wakeProducer;
        {
            Hold guard(m_Mutex);
            if (afterWait && m_Released) m_Semaphore.Post(1);
            if (m_Items.empty()) return false;
            item = std::move(m_Items.front());
            m_Items.pop_front();
            wakeProducer = m_WaitingProducers > 0;
        }
        if (wakeProducer) m_Room.Post(1);
        return true;
    }

    // Under m_Mutex.
    void UpdateWatermark()
    {
        unsigned size = static_cast<unsigned>(m_Items.size());
        if (size <= m_HighWatermark) return;
        m_HighWatermark = size;
        if (size < m_FirstWatermark) return;
        if (m_WatermarkStep + m_LastReported > size && m_HardLimit > size) return;
        Detail::ReportQueueWatermark(m_Name, m_HighWatermark, size < m_HardLimit ? 0 : m_HardLimit);
        m_LastReported = m_HighWatermark;
    }

    static std::string NextName()
    {
        static Mutex s_Mutex;
        static int s_iNext = 0;
        Lock guard(s_Mutex);
        return "Queue #" + std::to_string(s_iNext++);
    }

    Semaphore m_Semaphore;
    Mutex m_Mutex;
    std::deque<T> m_Items;
    std::string m_Name;
    Disposer m_Disposer;
    std::uint32_t m_FirstWatermark;
    std::uint32_t m_WatermarkStep;
    std::uint32_t m_HardLimit;
    std::uint32_t m_LastReported = 0;
    std::uint32_t m_HighWatermark = 0;
    bool m_Released = false;
    // Producers waiting in TimedEnqueue for room, and their wake-ups.
    std::uint32_t m_WaitingProducers = 0;
    Semaphore m_Room{0};
};

} // namespace Qel::Core
