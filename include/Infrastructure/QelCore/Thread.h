// Managed threads: a Thread owns one operating-system thread at a time and runs a Task on it.
//
// Task is what runs; TaskDirective is how a running task learns that it should stop; Thread is
// the lifecycle around it: a state that others can wait on (idle, starting, running, completed,
// error), a name, a stack size, a priority, the last error, and listeners told of the end. A
// started Thread keeps itself alive until its thread ends, so a caller may start it and let its
// pointer go. A Thread can be started again once it has stopped.
//
// What escapes a task never crosses the thread's top frame: it becomes the thread's last error,
// the listeners hear of it, the thread ends in the error state, and the log gets a line.
//
// What Kill leaves behind. Kill ends the thread at once, without unwinding its stack: no
// destructor of the task runs, and every lock the task held (a Mutex, a Condition's lock, a
// reader's or writer's hold of a ReadersWriterMutex, a lock of the host's) stays held for good;
// whatever the task was changing stays half changed. Kill only tasks that hold no lock. A task
// killed while it waits in the library (WaitForStopRequest, TimedWaitForStopRequest, a Condition,
// a Semaphore, Queue::Dequeue, waiting for a Mutex) leaves nothing behind in that wait: the object
// can be waited on, woken and destroyed as if the task had never waited, and the Thread can be
// started again. A wait for a ReadersWriterMutex is the exception: it stays counted (a killed
// writer's wait holds new readers back), as a hold would. The killed thread's stack stays
// reserved (address space, not memory in use).
//
// A thread ended behind the library's back (the task calls pthread_exit, or the thread is
// cancelled) ends in the error state with OSThreadTermination, told to the listeners; the process
// goes on and the Thread can be started again.
//
// Fork without exec: only the thread that forked goes on in the child. A Thread whose thread was
// running in the parent is, in the child, a thread that ended behind the library's back: IsAlive,
// the waits and the destructor find it in the error state with OSThreadTermination (its object is
// held until then), and it can be started again there.
//
// A thread that has ended its task may still be on its last instructions (the log line of an
// error, letting go of its object) when others see its state change. When the library unloads it
// waits up to 2 s for such threads and joins them before its objects go.
#pragma once

#include "Infrastructure/QelCore/Condition.h"
#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/Notification.h"
#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/RefCountedObject.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Qel::Core {

class TaskDirective;

// The work that a Thread runs.
class QEL_CORE_API Task
{
public:
    virtual ~Task() = default;
    // Runs the task; the result becomes the thread's result.
    virtual int Run(TaskDirective& directive) = 0;
};

// How a running task learns that it should stop.
class QEL_CORE_API TaskDirective
{
public:
    QEL_DEFINE_ERROR_API(QEL_CORE_API, UnimplementedInterface, LogicError, eERROR,
                         "TaskDirective::%1% called but wasn't implemented by the TaskDirective subclass",
                         std::string)

    virtual ~TaskDirective() = default;
    virtual bool MustStop() = 0;
    // Blocks until a stop is requested. This base raises UnimplementedInterface.
    virtual void WaitForStopRequest();
    // Blocks until a stop is requested (true) or the time-out passes (false). This base raises
    // UnimplementedInterface and gives false.
    virtual bool TimedWaitForStopRequest(const Elapse& timeout);
    bool KeepRunning() { return !MustStop(); }
};

class QEL_CORE_API Thread : public RefCountedObject, public TaskDirective
{
public:
    enum EState : std::int32_t {
        eTHREAD_IDLE = 1,
        eTHREAD_RUNNING = 2,
        eTHREAD_COMPLETED = 4,
        eTHREAD_ERROR = 8,
        eTHREAD_STARTING = 16,
        eTHREAD_NOT_RUNNING = 13, // idle, completed or error
    };

    // Eleven steps from 0 (idle) to 10 (time critical); 5 is normal.
    enum EPriority : std::int32_t {
        ePRIORITY_IDLE = 0,
        ePRIORITY_LOWEST = 1,
        ePRIORITY_LOWER = 2,
        ePRIORITY_LOW = 3,
        ePRIORITY_BELOW_NORMAL = 4,
        ePRIORITY_NORMAL = 5,
        ePRIORITY_ABOVE_NORMAL = 6,
        ePRIORITY_HIGH = 7,
        ePRIORITY_HIGHER = 8,
        ePRIORITY_HIGHEST = 9,
        ePRIORITY_TIME_CRITICAL = 10,
    };

    QEL_DEFINE_ERROR_API(QEL_CORE_API, NullTaskPointer, LogicError, eERROR,
                         "Attempted to run thread %1% with a NULL Task pointer", std::string)
    QEL_DEFINE_ERROR_API(QEL_CORE_API, OSThreadTermination, OSError, eERROR,
                         "Thread named %1% terminated by OS before thread ended", std::string)
    QEL_DEFINE_ERROR_API(QEL_CORE_API, ThreadKilled, LogicError, eERROR,
                         "Thread named %1% killed by call to Thread::Kill()", std::string)

    // Hears the end of a thread. Complete listeners run on the ending thread with its state lock
    // held: they must not wait for that thread's state.
    class QEL_CORE_API Listener : public NotificationListener
    {
    public:
        virtual void OnThreadComplete(std::shared_ptr<Thread> thread);
        virtual void OnThreadError(std::shared_ptr<Thread> thread, Error& error);
    };

    // The only way to make a Thread. An empty name gives the automatic one, "QelThread 0000" to
    // "QelThread 10000", then over again.
    static std::shared_ptr<Thread> Create(const std::string& name = std::string());

    // Waits up to 5 s for a running thread to stop (a stop is requested) and up to 2 s for the
    // thread to let go of the object; failures are assertions, nothing escapes.
    ~Thread() override;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // ---- configuration ----

    void SetName(const std::string& name);
    const std::string& GetName() const;
    // The wanted stack size; it is bounded and transformed at Start (see the statics below).
    void SetStackSize(unsigned int bytes);
    unsigned int GetStackSize() const;
    // For threads created from then on (initially 65536).
    static void SetDefaultStackSize(unsigned int bytes);
    // Bounds of the stack size at Start (initially 65536 and 1048576); asserts "minSize <= maxSize".
    static void SetStackSizeLimits(unsigned int minSize, unsigned int maxSize);
    // The stack size at Start is size * multiplier + offset (initially 0 and 1).
    static void SetStackSizeTransform(unsigned int offset, unsigned int multiplier);
    void SetPriority(EPriority priority);
    EPriority GetPriority() const;
    void AddListener(Listener& listener);
    void RemoveListener(Listener& listener);

    // ---- running ----

    // Starts the task on a new thread. With a zero time-out it returns at once (true unless the
    // system refused the thread); otherwise it blocks until the thread has left the starting
    // state, and false means that it did not within the time-out. The thread must not be running:
    // on a running (or starting) thread it fails the assertion "IsState(eTHREAD_NOT_RUNNING)" and
    // returns false at once, and the thread runs on with its task.
    bool Start(std::shared_ptr<Task> task, const Elapse& timeout = Elapse(0, Elapse::Seconds));
    // Asks the task to stop; with a time-out, blocks until the thread has stopped (true) or the
    // time-out passes (false). A task that ignores the request runs on.
    bool Stop(const Elapse& timeout);
    // Ends the thread at once once it is in its task (see above). Blocks up to 10 s for a thread
    // that has not reached its task yet, then, with a time-out, until it has stopped. True when
    // the thread is not alive (any more).
    bool Kill(const Elapse& timeout);
    void ResetStopFlag();

    // ---- queries ----

    EState GetState() const;
    // Whether the state has no bit outside the mask.
    bool IsState(int mask) const;
    bool IsRunning() const;
    bool HasCompleted() const;
    bool HasBegun() const;
    // Whether the thread runs; finds a thread that the system ended behind the library's back.
    bool IsAlive() const;
    bool IsCurrentThread() const;
    std::shared_ptr<Task> GetTask() const;
    int GetResult() const;
    unsigned long GetThreadID() const;
    std::shared_ptr<Error> GetLastError() const;
    static unsigned long GetCurrentId();

    // ---- waiting, from other threads only (asserts "!IsCurrentThread()") ----

    void WaitForState(int mask);
    bool TimedWaitForState(int mask, const Elapse& timeout);
    bool TryWaitForState(int mask);
    // Null: waits without end for the thread to stop, true. Else as TimedWaitForState.
    bool WaitFor(const Elapse* timeout);
    // Waits for all threads (null entries skipped) with one time-out shared by all.
    static bool WaitForAll(std::shared_ptr<Thread> threads[], std::size_t count, Elapse* timeout);

    // ---- the task's side ----

    bool MustStop() override;
    void WaitForStopRequest() override;
    bool TimedWaitForStopRequest(const Elapse& timeout) override;

protected:
    void SetState(EState state);

private:
    Thread();
    static void Invoker(void* argument);
    unsigned int Invoke();
    unsigned int Run();
    void SetLastError(Error& error, bool notify);
    void SetTask(std::shared_ptr<Task> task);
    static int GetPlatformSpecificPriority(EPriority priority);
    void HandleUnknownError(const char* where);
    void ReleaseSelf();
    // The end of a thread that the C library ended in its task (pthread_exit, cancellation).
    void EndedInTask() noexcept;
    // Finds a thread started before the latest fork, other than the forking one, ended (true).
    bool EndedByFork() const;

    EState m_State;
    mutable Condition m_StateCondition;
    bool m_StopRequested;
    mutable Mutex m_Mutex;
    unsigned int m_StackSize;
    std::string m_Name;
    std::shared_ptr<Task> m_Task;
    std::atomic<std::uint32_t> m_ThreadId;
    EPriority m_Priority;
    std::atomic<std::int32_t> m_Result;
    std::atomic<bool> m_TaskEntered;
    std::shared_ptr<Error> m_LastError; // under m_StateCondition
    std::shared_ptr<Thread> m_spSelf;   // under m_StateCondition
    std::weak_ptr<Thread> m_wpSelf;
    NotificationSupport m_Listeners;
    std::atomic<std::uintptr_t> m_hThread; // the operating-system thread, 0 for none
    std::atomic<std::uint32_t> m_iForkGeneration; // the fork generation of the process at Start
};

namespace Detail {
// For catch-alls on a thread's way (ThreadPool): lets the C library's unwinding of an ending
// thread (pthread_exit, cancellation) go on; returns for every C++ exception. Call in a catch block.
QEL_CORE_API void RethrowIfThreadEnding();
} // namespace Detail

} // namespace Qel::Core
