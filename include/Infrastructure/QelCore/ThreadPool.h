// A fixed set of threads that run callbacks from a queue, and tasks made of callbacks.
//
// ThreadPool<T> makes its threads at construction ("<name>_0", "<name>_1", ...) and starts them
// with Start. Enqueue hands a callback and its argument to the pool; any free thread runs it once.
// What a callback throws is dropped, and the item counts as done. A callback that ends its thread
// (pthread_exit, or the thread is cancelled) ends that pool thread: the item counts as done, the
// thread is in the error state with OSThreadTermination, and the other threads work on. Destroying
// the pool stops the threads, waits for each to finish the callback it is in, and throws away what
// has not begun. Start on a pool that runs fails the assertion of Thread::Start for each thread
// and returns; the threads run on.
//
// CallbackTask and its sisters turn a callback into a Task; LaunchThread starts one on a new
// Thread.
#pragma once

#include "Infrastructure/QelCore/Callback.h"
#include "Infrastructure/QelCore/Condition.h"
#include "Infrastructure/QelCore/Queue.h"
#include "Infrastructure/QelCore/Thread.h"

#include <memory>
#include <string>
#include <vector>

namespace Qel::Core {

template <typename T>
class ThreadPool : public Task
{
public:
    struct TaskCallback
    {
        std::shared_ptr<CallbackArg<T>> m_pCallback;
        T m_Argument;
    };

    // Makes `threadCount` threads (none below 1); they start with Start.
    ThreadPool(const std::string& name, int threadCount) : m_Name(name), m_Condition(true)
    {
        for (int i = 0; i < threadCount; ++i) m_Threads.push_back(Thread::Create(name + "_" + std::to_string(i)));
    }
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Stops the threads, lets each finish its callback (blocks until then), and throws away the
    // callbacks that have not begun. Nothing escapes.
    ~ThreadPool() override
    {
        try {
            for (auto& thread : m_Threads) thread->Stop(Elapse(0, Elapse::Seconds));
            m_Queue.SetReleased(true);
            for (auto& thread : m_Threads) thread->WaitForState(Thread::eTHREAD_NOT_RUNNING);
            m_Queue.Clear();
            m_Threads.clear();
        } catch (...) {
        }
    }

    // Starts every thread; returns at once (also when they run already).
    void Start()
    {
        Lock guard(m_Condition);
        // The threads run the pool, which they do not own: the destructor waits for them.
        std::shared_ptr<Task> self(this, [](Task*) {});
        for (auto& thread : m_Threads) thread->Start(self, Elapse(0, Elapse::Seconds));
    }

    // Hands a callback to the pool. Never blocks: false when the queue is full (3000 waiting),
    // and the callback is then not run.
    bool Enqueue(std::shared_ptr<CallbackArg<T>> callback, T argument)
    {
        return Add(std::move(callback), std::move(argument), nullptr);
    }
    // As Enqueue, waiting up to `timeout` for room in the queue.
    bool Enqueue(std::shared_ptr<CallbackArg<T>> callback, T argument, const Elapse& timeout)
    {
        return Add(std::move(callback), std::move(argument), &timeout);
    }

    // Blocks until every callback handed over has run (true) or the time-out passes (false).
    bool WaitUntilIdle(const Elapse& timeout)
    {
        Time deadline(timeout);
        Lock guard(m_Condition);
        for (;;) {
            if (m_Pending == 0) return true;
            if (!m_Condition.TimedWait(deadline.TimeLeft())) return m_Pending == 0;
        }
    }

    // Callbacks handed over and not finished.
    int GetPending()
    {
        Lock guard(m_Condition);
        return m_Pending;
    }

    const std::vector<std::shared_ptr<Thread>>& GetThreads() const { return m_Threads; }

    // The work of each thread: take callbacks until a stop is requested.
    int Run(TaskDirective& directive) override
    {
        for (;;) {
            if (directive.MustStop()) return 0;
            std::shared_ptr<TaskCallback> item;
            if (!m_Queue.Dequeue(item) || !item) continue;
            // The item counts as done however the callback ends, also when it ends the thread.
            Done done{*this};
            // A stop that came while this thread waited: what has not begun is not run.
            if (!directive.MustStop()) {
                try {
                    (*item->m_pCallback)(item->m_Argument);
                } catch (...) {
                    // A callback's failure is dropped; the end of the thread goes on.
                    Detail::RethrowIfThreadEnding();
                }
            }
        }
    }

private:
    struct Done
    {
        ThreadPool& m_Pool;
        ~Done()
        {
            try {
                Lock guard(m_Pool.m_Condition);
                --m_Pool.m_Pending;
                m_Pool.m_Condition.Notify();
            } catch (...) {
            }
        }
    };

    bool Add(std::shared_ptr<CallbackArg<T>> callback, T argument, const Elapse* timeout)
    {
        auto item = std::make_shared<TaskCallback>(TaskCallback{std::move(callback), std::move(argument)});
        {
            Lock guard(m_Condition);
            ++m_Pending;
        }
        bool queued = timeout == nullptr ? m_Queue.Enqueue(item) : m_Queue.TimedEnqueue(item, *timeout);
        if (!queued) {
            Lock guard(m_Condition);
            --m_Pending;
            m_Condition.Notify();
        }
        return queued;
    }

    std::string m_Name;
    std::vector<std::shared_ptr<Thread>> m_Threads;
    Queue<std::shared_ptr<TaskCallback>> m_Queue;
    Condition m_Condition;
    int m_Pending = 0;
};

// ---- tasks made of callbacks ----

class CallbackTask : public Task
{
public:
    explicit CallbackTask(std::shared_ptr<Callback> callback) : m_pCallback(std::move(callback)) {}
    int Run(TaskDirective&) override
    {
        (*m_pCallback)();
        return 0;
    }

private:
    std::shared_ptr<Callback> m_pCallback;
};

template <typename R>
class CallbackRetTask : public Task
{
public:
    explicit CallbackRetTask(std::shared_ptr<CallbackRet<R>> callback) : m_pCallback(std::move(callback)) {}
    int Run(TaskDirective&) override { return static_cast<int>((*m_pCallback)()); }

private:
    std::shared_ptr<CallbackRet<R>> m_pCallback;
};

template <typename A>
class CallbackArgTask : public Task
{
public:
    CallbackArgTask(std::shared_ptr<CallbackArg<A>> callback, A argument)
        : m_pCallback(std::move(callback)), m_Argument(std::move(argument))
    {
    }
    int Run(TaskDirective&) override
    {
        (*m_pCallback)(m_Argument);
        return 0;
    }

private:
    std::shared_ptr<CallbackArg<A>> m_pCallback;
    A m_Argument;
};

template <typename R, typename A>
class CallbackRetArgTask : public Task
{
public:
    CallbackRetArgTask(std::shared_ptr<CallbackRetArg<R, A>> callback, A argument)
        : m_pCallback(std::move(callback)), m_Argument(std::move(argument))
    {
    }
    int Run(TaskDirective&) override { return static_cast<int>((*m_pCallback)(m_Argument)); }

private:
    std::shared_ptr<CallbackRetArg<R, A>> m_pCallback;
    A m_Argument;
};

// Starts the callback on a new thread with an automatic name; `timeout` as for Thread::Start.
inline std::shared_ptr<Thread> LaunchThread(std::shared_ptr<Callback> callback, const Elapse& timeout)
{
    auto thread = Thread::Create(std::string());
    thread->Start(std::make_shared<CallbackTask>(std::move(callback)), timeout);
    return thread;
}

template <typename R>
std::shared_ptr<Thread> LaunchThread(std::shared_ptr<CallbackRet<R>> callback, const Elapse& timeout)
{
    auto thread = Thread::Create(std::string());
    thread->Start(std::make_shared<CallbackRetTask<R>>(std::move(callback)), timeout);
    return thread;
}

template <typename A>
std::shared_ptr<Thread> LaunchThread(std::shared_ptr<CallbackArg<A>> callback, A argument, const Elapse& timeout)
{
    auto thread = Thread::Create(std::string());
    thread->Start(std::make_shared<CallbackArgTask<A>>(std::move(callback), std::move(argument)), timeout);
    return thread;
}

template <typename R, typename A>
std::shared_ptr<Thread> LaunchThread(std::shared_ptr<CallbackRetArg<R, A>> callback, A argument, const Elapse& timeout)
{
    auto thread = Thread::Create(std::string());
    thread->Start(std::make_shared<CallbackRetArgTask<R, A>>(std::move(callback), std::move(argument)), timeout);
    return thread;
}

} // namespace Qel::Core
