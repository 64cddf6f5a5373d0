// Managed threads: the state machine around a task on an operating-system thread.
#include "Infrastructure/QelCore/Thread.h"

#include "Infrastructure/QelCore/Logging/LogInternal.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Platform/Locks.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Platform/Threads.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Time.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"

#include <boost/format.hpp>

namespace Qel::Core {
namespace {

const char* const sTHREAD_LOGGER = "Qel.Core.Thread";

// The stack-size policy of all threads, under one lock.
struct StackPolicy
{
    Mutex m_Mutex;
    unsigned int m_Default = 65536;
    unsigned int m_Min = 65536;
    unsigned int m_Max = 1048576;
    unsigned int m_Multiplier = 1;
    unsigned int m_Offset = 0;
};

StackPolicy& Stacks()
{
    static Utilities::Immortal<StackPolicy> s_Policy;
    return s_Policy.Get();
}

// The counter of automatic names.
struct NameCounter
{
    Mutex m_Mutex;
    int m_iNext = 0;
};

std::string NextAutomaticName()
{
    static Utilities::Immortal<NameCounter> s_Counter;
    NameCounter& counter = s_Counter.Get();
    Lock guard(counter.m_Mutex);
    std::string name = (boost::format("QelThread %04d") % counter.m_iNext).str();
    counter.m_iNext = counter.m_iNext >= 10000 ? 0 : counter.m_iNext + 1;
    return name;
}

class NotifyThreadComplete : public Notification
{
public:
    explicit NotifyThreadComplete(std::weak_ptr<Thread> thread) : m_wpThread(std::move(thread)) {}
    void Notify(NotificationListener& listener) override
    {
        if (auto* threadListener = dynamic_cast<Thread::Listener*>(&listener))
            threadListener->OnThreadComplete(m_wpThread.lock());
    }

private:
    std::weak_ptr<Thread> m_wpThread;
};

class NotifyThreadError : public Notification
{
public:
    NotifyThreadError(std::weak_ptr<Thread> thread, Error& error) : m_wpThread(std::move(thread)), m_Error(error) {}
    void Notify(NotificationListener& listener) override
    {
        if (auto* threadListener = dynamic_cast<Thread::Listener*>(&listener))
            threadListener->OnThreadError(m_wpThread.lock(), m_Error);
    }

private:
    std::weak_ptr<Thread> m_wpThread;
    Error& m_Error;
};

} // namespace

// ---- TaskDirective ----

void TaskDirective::WaitForStopRequest()
{
    QEL_RAISE_ERROR(UnimplementedInterface("WaitForStopRequest"), "Qel.Core.TaskDirective");
}

bool TaskDirective::TimedWaitForStopRequest(const Elapse&)
{
    QEL_RAISE_ERROR(UnimplementedInterface("TimedWaitForStopRequest"), "Qel.Core.TaskDirective");
    return false;
}

void Thread::Listener::OnThreadComplete(std::shared_ptr<Thread>) {}
void Thread::Listener::OnThreadError(std::shared_ptr<Thread>, Error&) {}

// ---- construction ----

Thread::Thread()
    : m_State(static_cast<EState>(0)),
      m_StateCondition(true),
      m_StopRequested(false),
      m_StackSize(0),
      m_Name(NextAutomaticName()),
      m_ThreadId(0),
      m_Priority(ePRIORITY_NORMAL),
      m_Result(0),
      m_TaskEntered(false),
      m_Listeners(NotificationSupport::eFIRST_ADDED_FIRST),
      m_hThread(0),
      m_iForkGeneration(Platform::ForkGeneration())
{
    {
        Lock guard(Stacks().m_Mutex);
        m_StackSize = Stacks().m_Default;
    }
    SetState(eTHREAD_IDLE);
}

std::shared_ptr<Thread> Thread::Create(const std::string& name)
{
    std::shared_ptr<Thread> thread(new Thread());
    thread->m_wpSelf = thread;
    if (!name.empty()) thread->SetName(name);
    return thread;
}

Thread::~Thread()
{
    try {
        bool ended = true;
        if (m_iForkGeneration.load() != Platform::ForkGeneration() &&
            m_ThreadId.load() != Platform::g_iForkingThreadId.load()) {
            // A thread of the parent of a fork: not in this process. Its handle is the parent's.
            m_hThread.store(0);
            return;
        }
        if (IsState(eTHREAD_RUNNING)) {
            Stop(Elapse(0, Elapse::Seconds));
            bool ok = TimedWaitForState(eTHREAD_NOT_RUNNING, Elapse(5, Elapse::Seconds));
            QEL_ASSERT(ok);
            ended = ok;
        }
        // The thread lets go of its count on its last instructions. The poll sleeps at least one
        // interval, so it is only asked while the count is not 0 yet.
        bool ok = GetRefCount() == 0 ||
                  PollForZeroRefCount(Elapse(2, Elapse::Seconds), Elapse(100, Elapse::MilliSeconds));
        QEL_ASSERT(ok);
        Platform::ThreadHandle handle = m_hThread.exchange(0);
        Platform::CloseThread(handle, ended && ok);
    } catch (...) {
        // A destructor lets nothing out.
    }
}

// ---- configuration ----

void Thread::SetName(const std::string& name)
{
    Lock guard(m_Mutex);
    m_Name = name;
}

const std::string& Thread::GetName() const
{
    Lock guard(m_Mutex);
    return m_Name;
}

void Thread::SetStackSize(unsigned int bytes)
{
    Lock guard(m_Mutex);
    m_StackSize = bytes;
}

unsigned int Thread::GetStackSize() const
{
    Lock guard(m_Mutex);
    return m_StackSize;
}

void Thread::SetDefaultStackSize(unsigned int bytes)
{
    Lock guard(Stacks().m_Mutex);
    Stacks().m_Default = bytes;
}

void Thread::SetStackSizeLimits(unsigned int minSize, unsigned int maxSize)
{
    QEL_ASSERT(minSize <= maxSize);
    Lock guard(Stacks().m_Mutex);
    Stacks().m_Min = minSize;
    Stacks().m_Max = maxSize;
}

void Thread::SetStackSizeTransform(unsigned int offset, unsigned int multiplier)
{
    Lock guard(Stacks().m_Mutex);
    Stacks().m_Offset = offset;
    Stacks().m_Multiplier = multiplier;
}

void Thread::SetPriority(EPriority priority)
{
    {
        Lock guard(m_Mutex);
        if (m_Priority != priority) m_Priority = priority;
    }
    Lock guard(m_StateCondition);
    if (m_State == eTHREAD_RUNNING)
        Platform::SetThreadPriorityStep(m_ThreadId.load(), GetPlatformSpecificPriority(priority));
}

Thread::EPriority Thread::GetPriority() const
{
    Lock guard(m_Mutex);
    return m_Priority;
}

void Thread::AddListener(Listener& listener)
{
    m_Listeners.AddListener(listener);
}

void Thread::RemoveListener(Listener& listener)
{
    m_Listeners.RemoveListener(listener);
}

int Thread::GetPlatformSpecificPriority(EPriority priority)
{
    int value = priority;
    if (value <= 0) return -15;
    if (value <= 3) return -2;
    if (value == 4) return -1;
    if (value == 5) return 0;
    if (value == 6) return 1;
    if (value <= 9) return 2;
    return 15;
}

// ---- running ----

bool Thread::Start(std::shared_ptr<Task> p_spTask, const Elapse& timeout)
{
    EndedByFork();
    if (!IsState(eTHREAD_NOT_RUNNING)) {
        // The thread runs on with its task; the call goes on and returns.
        QEL_ASSERT(IsState(eTHREAD_NOT_RUNNING));
        return false;
    }
    QEL_ASSERT((p_spTask != nullptr));
    bool started;
    // The thread of the previous run is on its last instructions, or gone: wait for it to be
    // gone (outside every lock of this object, which those instructions may take), so that its
    // final release of the object cannot meet this run's.
    Platform::ThreadHandle old = m_hThread.exchange(0);
    Platform::CloseThread(old, true);
    {
        Lock guard(m_Mutex);
        {
            Lock errorGuard(m_StateCondition);
            m_LastError.reset();
        }
        m_TaskEntered = false;
        SetTask(std::move(p_spTask));
        ResetStopFlag();

        unsigned int stackSize;
        {
            StackPolicy& policy = Stacks();
            Lock policyGuard(policy.m_Mutex);
            stackSize = m_StackSize < policy.m_Min ? policy.m_Min : m_StackSize;
            stackSize = stackSize > policy.m_Max ? policy.m_Max : stackSize;
            stackSize = stackSize * policy.m_Multiplier + policy.m_Offset;
        }

        Lock stateGuard(m_StateCondition);
        m_iForkGeneration.store(Platform::ForkGeneration());
        m_spSelf = m_wpSelf.lock();
        SetState(eTHREAD_STARTING);
        // The new thread cannot leave the starting state before this lock is let go, so the
        // handle is in place before anyone can see the thread running.
        Platform::ThreadHandle handle = 0;
        started = Platform::StartThread(stackSize, &Thread::Invoker, this, handle);
        m_hThread.store(handle);
        if (!started) {
            SetState(eTHREAD_ERROR);
            m_spSelf.reset();
        }
    }
    if (!started) return false;
    if (timeout.GetRawTimerTicks() == 0) return true;
    return TimedWaitForState(~eTHREAD_STARTING, timeout);
}

void Thread::SetTask(std::shared_ptr<Task> task)
{
    Lock guard(m_Mutex);
    QEL_ASSERT(IsState(eTHREAD_NOT_RUNNING));
    m_Task = std::move(task);
}

void Thread::Invoker(void* argument)
{
    auto* thread = static_cast<Thread*>(argument);
    QEL_ASSERT(thread != 0);
    if (thread == nullptr) return;
    thread->m_ThreadId.store(Platform::CurrentThreadId());
    thread->Invoke();
}

unsigned int Thread::Invoke()
{
    {
        // No strong reference stays on this thread's stack: m_spSelf holds the object while the
        // task runs, and a Kill, which ends the thread without unwinding, lets go of that one.
        std::shared_ptr<Thread> self = m_wpSelf.lock();
        if (!self) return 1;
        System::InitThread(*self);
    }
    EPriority priority = GetPriority();
    if (priority != ePRIORITY_NORMAL)
        Platform::SetThreadPriorityStep(m_ThreadId.load(), GetPlatformSpecificPriority(priority));

    AddRef();
    // The C library may end the thread in its task (pthread_exit, cancellation) by unwinding it:
    // then the guard records the end as one behind the library's back.
    struct EndGuard
    {
        Thread* m_pThread;
        bool m_bDone = false;
        ~EndGuard()
        {
            if (!m_bDone) m_pThread->EndedInTask();
        }
    } guard{this};
    try {
        SetState(eTHREAD_RUNNING);
        Run();
    } catch (Error& error) {
        SetLastError(error, true);
        SetState(eTHREAD_ERROR);
        Detail::WriteLogText(sTHREAD_LOGGER, QelLogError,
                           (boost::format("Thread %s terminated due to error thrown from Run():\n%s") % GetName() %
                            error.GetMessageA())
                               .str());
    } catch (...) {
        Platform::RethrowIfThreadEnding(); // the C library ends the thread: see the guard
        HandleUnknownError(" terminated due to an unknown error thrown from Thread Run()");
    }
    guard.m_bDone = true;
    int result = m_Result.load();
    Release();
    std::shared_ptr<Thread> last;
    {
        Lock guard(m_StateCondition);
        last.swap(m_spSelf);
    }
    last.reset(); // may destroy this object: nothing of it is touched afterwards
    return static_cast<unsigned int>(result);
}

unsigned int Thread::Run()
{
    QEL_ASSERT(IsCurrentThread());
    // A plain pointer: m_Task holds the task while the thread runs (it changes only while the
    // thread is not running), and a killed thread leaves nothing behind on its stack.
    Task* task = nullptr;
    {
        Lock guard(m_Mutex);
        if (!m_Task) {
            NullTaskPointer error(m_Name);
            SetLastError(error, true);
            SetState(eTHREAD_ERROR);
            QEL_RAISE_HANDLEABLE_ERROR(error, sTHREAD_LOGGER);
            return 2;
        }
        task = m_Task.get();
    }
    m_Result = -1;
    m_TaskEntered = true;
    try {
        if (!MustStop()) m_Result = task->Run(*this);
        SetState(eTHREAD_COMPLETED);
    } catch (Error& error) {
        SetLastError(error, true);
        SetState(eTHREAD_ERROR);
        Detail::WriteLogText(
            sTHREAD_LOGGER, QelLogError,
            (boost::format("Thread %s terminated due to error:\n%s") % GetName() % error.GetMessageA()).str());
    } catch (...) {
        Platform::RethrowIfThreadEnding();
        HandleUnknownError(" terminated due to an unknown error thrown from Task Run()");
    }
    return static_cast<unsigned int>(m_Result.load());
}

void Thread::EndedInTask() noexcept
{
    try {
        OSThreadTermination error(GetName());
        SetLastError(error, true);
        SetState(eTHREAD_ERROR);
    } catch (...) {
        // The thread ends whatever happens here.
    }
    // The thread lets go of the object as at a normal end; the next Start or the destructor
    // joins it (it is on its last instructions).
    Release();
    std::shared_ptr<Thread> last;
    {
        Lock guard(m_StateCondition);
        last.swap(m_spSelf);
    }
    last.reset(); // may destroy this object: nothing of it is touched afterwards
}

bool Thread::EndedByFork() const
{
    std::uint32_t generation = Platform::ForkGeneration();
    if (m_iForkGeneration.load() == generation) return false;
    auto* self = const_cast<Thread*>(this);
    bool ended = false;
    {
        Lock guard(m_StateCondition);
        if (m_iForkGeneration.load() == generation) return false;
        self->m_iForkGeneration.store(generation);
        // The thread that forked goes on in the child.
        if (m_ThreadId.load() == Platform::g_iForkingThreadId.load()) return false;
        if ((m_State & (eTHREAD_RUNNING | eTHREAD_STARTING)) == 0) {
            self->m_hThread.store(0); // the parent's thread: nothing to join here
            return false;
        }
        // A thread of the parent: it ended behind the library's back. Its handle names a thread
        // of the parent: never joined, detached or signalled here.
        self->m_hThread.store(0);
        OSThreadTermination error(m_Name);
        self->SetLastError(error, true);
        self->SetState(eTHREAD_ERROR);
        ended = true;
    }
    self->ReleaseSelf();
    return ended;
}

void Thread::HandleUnknownError(const char* where)
{
    UnknownError error("Thread " + GetName() + where);
    SetLastError(error, true);
    SetState(eTHREAD_ERROR);
    error.SetData(AlertInfo::sLOG_NAME, sTHREAD_LOGGER);
    Detail::LogAlert(error);
}

void Thread::SetState(EState state)
{
    Lock guard(m_StateCondition);
    if (m_State != state) {
        // The thread's own end: from here on others may see it done, and the process may end;
        // the library's unload lets the thread finish its last instructions first.
        if ((state == eTHREAD_COMPLETED || state == eTHREAD_ERROR) && IsCurrentThread()) Platform::MarkThreadFinishing();
        m_State = state;
        if (state == eTHREAD_COMPLETED) {
            NotifyThreadComplete notification(m_wpSelf);
            m_Listeners.Broadcast(notification, true);
        }
    }
    m_StateCondition.Notify();
}

void Thread::SetLastError(Error& error, bool notify)
{
    {
        // A fresh copy each time, never a copy into the last one: a caller that holds the last
        // error (GetLastError) reads it while the thread goes on.
        std::shared_ptr<Error> copy = error.Clone();
        Lock guard(m_StateCondition);
        m_LastError = std::move(copy);
    }
    if (notify) {
        NotifyThreadError notification(m_wpSelf, error);
        m_Listeners.Broadcast(notification, true);
    }
}

bool Thread::Stop(const Elapse& timeout)
{
    {
        Lock guard(m_StateCondition);
        m_StopRequested = true;
        m_StateCondition.Notify();
    }
    if (timeout.GetRawTimerTicks() == 0) return true;
    return TimedWaitForState(eTHREAD_NOT_RUNNING, timeout);
}

void Thread::ResetStopFlag()
{
    Lock guard(m_StateCondition);
    m_StopRequested = false;
    m_StateCondition.Notify();
}

bool Thread::IsAlive() const
{
    if (EndedByFork()) return false;
    auto* self = const_cast<Thread*>(this);
    bool released = false;
    {
        Lock guard(m_StateCondition);
        if (!IsState(eTHREAD_RUNNING)) return false;
        Platform::ThreadHandle handle = m_hThread.load();
        if (handle == 0 || !Platform::HasThreadEnded(handle)) return true;
        // The system ended the thread behind the library's back (it has been joined now).
        self->m_hThread.store(0);
        OSThreadTermination error(m_Name);
        self->SetLastError(error, true);
        self->SetState(eTHREAD_ERROR);
        released = true;
    }
    // The thread can no longer let go of the object itself.
    if (released) self->ReleaseSelf();
    return false;
}

void Thread::ReleaseSelf()
{
    std::shared_ptr<Thread> self;
    {
        Lock guard(m_StateCondition);
        self.swap(m_spSelf);
    }
    Release();
    // `self` goes here; the caller of Kill or IsAlive holds the object too.
}

bool Thread::Kill(const Elapse& timeout)
{
    if (!IsAlive()) return true;
    // A thread that has not reached its task yet gets up to 10 s to do so.
    Time deadline(Elapse(10, Elapse::Seconds));
    while (!m_TaskEntered.load() && IsState(eTHREAD_RUNNING) && deadline.TimeLeft().GetRawTimerTicks() > 0)
        QelSleep(10, Elapse::MilliSeconds, false);

    Platform::ThreadHandle handle = 0;
    {
        // Under the state lock the thread cannot leave its task's state while it is ended.
        Lock guard(m_StateCondition);
        if (!IsState(eTHREAD_RUNNING)) return true;
        if (!m_TaskEntered.load()) return false;
        handle = m_hThread.load();
        if (!Platform::KillThread(handle, m_ThreadId.load())) {
            QEL_RAISE_ERROR(OSError(Platform::LastSystemErrorText()), "Qel.Core.Thread.Kill");
            return false;
        }
        m_hThread.store(0);
        ThreadKilled error(m_Name);
        SetLastError(error, true);
        SetState(eTHREAD_ERROR);
        error.SetData(AlertInfo::sLOG_NAME, sTHREAD_LOGGER);
        Detail::LogAlert(error);
    }
    // The thread is gone: let go of the object in its place.
    ReleaseSelf();
    if (timeout.GetRawTimerTicks() == 0) return true;
    return TimedWaitForState(eTHREAD_NOT_RUNNING, timeout);
}

// ---- queries ----

Thread::EState Thread::GetState() const
{
    Lock guard(m_StateCondition);
    return m_State;
}

bool Thread::IsState(int mask) const
{
    Lock guard(m_StateCondition);
    return (m_State & mask) == m_State;
}

bool Thread::IsRunning() const
{
    return IsState(eTHREAD_RUNNING);
}

bool Thread::HasCompleted() const
{
    return IsState(eTHREAD_COMPLETED);
}

bool Thread::HasBegun() const
{
    return IsState(eTHREAD_RUNNING | eTHREAD_COMPLETED | eTHREAD_ERROR | eTHREAD_STARTING);
}

bool Thread::IsCurrentThread() const
{
    return Platform::IsCallingThread(m_hThread.load());
}

std::shared_ptr<Task> Thread::GetTask() const
{
    Lock guard(m_Mutex);
    return m_Task;
}

int Thread::GetResult() const
{
    return m_Result.load();
}

unsigned long Thread::GetThreadID() const
{
    return m_ThreadId.load();
}

std::shared_ptr<Error> Thread::GetLastError() const
{
    Lock guard(m_StateCondition);
    return m_LastError;
}

unsigned long Thread::GetCurrentId()
{
    return Platform::CurrentThreadId();
}

// ---- waiting ----

bool Thread::TryWaitForState(int mask)
{
    QEL_ASSERT(!IsCurrentThread());
    return IsState(mask);
}

void Thread::WaitForState(int mask)
{
    QEL_ASSERT(!IsCurrentThread());
    EndedByFork();
    Lock guard(m_StateCondition);
    while (!IsState(mask)) m_StateCondition.Wait();
}

bool Thread::TimedWaitForState(int mask, const Elapse& timeout)
{
    QEL_ASSERT(!IsCurrentThread());
    EndedByFork();
    Time deadline(timeout);
    Lock guard(m_StateCondition);
    for (;;) {
        if (IsState(mask)) return true;
        if (!m_StateCondition.TimedWait(deadline.TimeLeft())) return IsState(mask);
    }
}

bool Thread::WaitFor(const Elapse* timeout)
{
    if (timeout == nullptr) {
        WaitForState(eTHREAD_NOT_RUNNING);
        return true;
    }
    return TimedWaitForState(eTHREAD_NOT_RUNNING, *timeout);
}

bool Thread::WaitForAll(std::shared_ptr<Thread> threads[], std::size_t count, Elapse* timeout)
{
    QEL_ASSERT(0 != threads);
    QEL_ASSERT(count > 0);
    if (threads == nullptr) return false;
    if (timeout == nullptr) {
        for (std::size_t i = 0; i < count; ++i)
            if (threads[i]) threads[i]->WaitForState(eTHREAD_NOT_RUNNING);
        return true;
    }
    Time deadline(*timeout);
    for (std::size_t i = 0; i < count; ++i)
        if (threads[i] && !threads[i]->TimedWaitForState(eTHREAD_NOT_RUNNING, deadline.TimeLeft())) return false;
    return true;
}

// ---- the task's side ----

bool Thread::MustStop()
{
    Lock guard(m_StateCondition);
    return m_StopRequested;
}

void Thread::WaitForStopRequest()
{
    Lock guard(m_StateCondition);
    while (!m_StopRequested) m_StateCondition.Wait();
}

bool Thread::TimedWaitForStopRequest(const Elapse& timeout)
{
    Time deadline(timeout);
    Lock guard(m_StateCondition);
    for (;;) {
        if (m_StopRequested) return true;
        if (!m_StateCondition.TimedWait(deadline.TimeLeft())) return m_StopRequested;
    }
}

} // namespace Qel::Core

namespace Qel::Core::Detail {

void RethrowIfThreadEnding()
{
    Platform::RethrowIfThreadEnding();
}

} // namespace Qel::Core::Detail
