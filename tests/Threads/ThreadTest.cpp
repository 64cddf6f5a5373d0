// Managed threads: states and transitions, stop requests, listeners, errors out of tasks, waits,
// names, priorities and the lifetime of a released Thread.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

using namespace Qel::Core;

namespace {

using QelTest::Eventually;

// Runs until a stop is requested, polling KeepRunning.
class PollingTask : public Task
{
public:
    int Run(TaskDirective& directive) override
    {
        entered = true;
        while (directive.KeepRunning()) QelSleep(1, Elapse::MilliSeconds);
        return 7;
    }
    std::atomic<bool> entered{false};
};

// Runs the function given.
class FunctionTask : public Task
{
public:
    explicit FunctionTask(std::function<int(TaskDirective&)> function) : m_Function(std::move(function)) {}
    int Run(TaskDirective& directive) override { return m_Function(directive); }

private:
    std::function<int(TaskDirective&)> m_Function;
};

std::shared_ptr<Task> MakeTask(std::function<int(TaskDirective&)> function)
{
    return std::make_shared<FunctionTask>(std::move(function));
}

// Counts what a thread tells its listeners.
class Recorder : public Thread::Listener
{
public:
    ~Recorder() override { RemoveAllNotificationSources(); }
    void OnThreadComplete(std::shared_ptr<Thread> thread) override
    {
        ++completes;
        completedThread = thread.get();
    }
    void OnThreadError(std::shared_ptr<Thread> thread, Error& error) override
    {
        ++errors;
        errorThreadName = thread ? thread->GetName() : "";
        errorMessage = error.GetMessageA();
        stateDuringError = thread ? thread->GetState() : Thread::eTHREAD_IDLE;
    }
    std::atomic<int> completes{0};
    std::atomic<int> errors{0};
    Thread* completedThread = nullptr;
    std::string errorThreadName;
    std::string errorMessage;
    Thread::EState stateDuringError = Thread::eTHREAD_IDLE;
};

// The nice value of a thread, the 19th field of /proc/self/task/<tid>/stat.
int NiceOf(unsigned long threadId)
{
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 19; ++i) fields >> field;
    return std::stoi(field);
}

} // namespace

// ---- names and configuration ----

TEST(Thread, AutomaticNamesCountUpAndSetNameReplacesThem)
{
    auto first = Thread::Create();
    auto second = Thread::Create("");
    ASSERT_EQ(first->GetName().rfind("QelThread ", 0), 0u);
    int a = std::stoi(first->GetName().substr(10));
    int b = std::stoi(second->GetName().substr(10));
    EXPECT_EQ(first->GetName().size(), 14u); // four digits
    EXPECT_EQ(b, a == 10000 ? 0 : a + 1);
    auto named = Thread::Create("Acquisition");
    EXPECT_EQ(named->GetName(), "Acquisition");
    named->SetName("Renamed");
    EXPECT_EQ(named->GetName(), "Renamed");
    EXPECT_EQ(named->GetPriority(), Thread::ePRIORITY_NORMAL);
    named->SetStackSize(200000);
    EXPECT_EQ(named->GetStackSize(), 200000u);
}

TEST(Thread, NewThreadIsIdleAndHasNotBegun)
{
    auto thread = Thread::Create("Idle");
    EXPECT_EQ(thread->GetState(), Thread::eTHREAD_IDLE);
    EXPECT_FALSE(thread->HasBegun());
    EXPECT_FALSE(thread->HasCompleted());
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_FALSE(thread->IsAlive());
    EXPECT_TRUE(thread->IsState(Thread::eTHREAD_NOT_RUNNING));
    EXPECT_EQ(thread->GetLastError(), nullptr);
    EXPECT_TRUE(thread->Stop(Elapse(1, Elapse::Seconds))); // nothing runs: stopped at once
    EXPECT_TRUE(thread->Kill(Elapse(1, Elapse::Seconds)));
}

// ---- running, stopping, restarting ----

TEST(Thread, StartsStopsAndRestartsTwentyTimesAtTwoPriorities)
{
    auto thread = Thread::Create("Restarted");
    auto task = std::make_shared<PollingTask>();
    for (int round = 0; round < 20; ++round) {
        thread->SetPriority(round < 10 ? Thread::ePRIORITY_HIGH : Thread::ePRIORITY_LOW);
        task->entered = false;
        ASSERT_TRUE(thread->Start(task, Elapse(5, Elapse::Seconds))) << round;
        EXPECT_FALSE(thread->IsState(Thread::eTHREAD_ERROR));
        ASSERT_TRUE(thread->TimedWaitForState(Thread::eTHREAD_RUNNING, Elapse(2, Elapse::Seconds)));
        // A stop before the task's first instruction would skip the task (result -1).
        ASSERT_TRUE(Eventually([&] { return task->entered.load(); }));
        EXPECT_TRUE(thread->HasBegun());
        EXPECT_TRUE(thread->IsAlive());
        ASSERT_TRUE(thread->Stop(Elapse(5, Elapse::Seconds))) << round;
        EXPECT_TRUE(thread->HasCompleted());
        EXPECT_FALSE(thread->IsAlive());
        EXPECT_EQ(thread->GetResult(), 7);
    }
}

TEST(Thread, PriorityBecomesTheThreadsNiceValue)
{
    auto thread = Thread::Create("Niced");
    thread->SetPriority(Thread::ePRIORITY_LOW); // a lower priority is always allowed
    std::atomic<unsigned long> id{0};
    std::atomic<bool> release{false};
    ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective&) {
                                  id = Thread::GetCurrentId();
                                  while (!release.load()) QelSleep(1, Elapse::MilliSeconds);
                                  return 0;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(Eventually([&] { return id.load() != 0; }));
    EXPECT_EQ(thread->GetThreadID(), id.load());
    EXPECT_EQ(NiceOf(id), 10);
    thread->SetPriority(Thread::ePRIORITY_IDLE); // while it runs
    EXPECT_EQ(NiceOf(id), 19);
    release = true;
    EXPECT_TRUE(thread->WaitFor(nullptr));
}

TEST(Thread, TaskSeesTheStopRequestInEachWayOfAsking)
{
    auto thread = Thread::Create("Stoppable");
    std::atomic<int> phase{0};
    bool timedOut = true, waited = false;
    ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective& directive) {
                                  timedOut = !directive.TimedWaitForStopRequest(Elapse(20, Elapse::MilliSeconds));
                                  phase = 1;
                                  directive.WaitForStopRequest();
                                  waited = true;
                                  EXPECT_FALSE(directive.KeepRunning());
                                  EXPECT_TRUE(directive.MustStop());
                                  EXPECT_TRUE(directive.TimedWaitForStopRequest(Elapse(0, Elapse::Seconds)));
                                  return 3;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(Eventually([&] { return phase.load() == 1; }));
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_TRUE(thread->Stop(Elapse(5, Elapse::Seconds)));
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(waited);
    EXPECT_EQ(thread->GetResult(), 3);
}

TEST(Thread, StopBeforeStartDoesNotCarryIntoTheRun)
{
    auto thread = Thread::Create("Fresh");
    thread->Stop(Elapse(0, Elapse::Seconds));
    std::atomic<bool> ran{false};
    ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective& directive) {
                                  ran = directive.KeepRunning();
                                  return 1;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_TRUE(ran.load());
    EXPECT_EQ(thread->GetResult(), 1);
}

TEST(Thread, StopRightAfterStartCompletesWithoutOrWithTheTask)
{
    // Either the request comes before the task's first instruction (the task is not run, the
    // result is -1) or the task runs and sees it; the thread completes either way.
    for (int round = 0; round < 50; ++round) {
        auto thread = Thread::Create();
        std::atomic<bool> ran{false};
        ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective& directive) {
            ran = true;
            directive.WaitForStopRequest();
            return 5;
        })));
        thread->Stop(Elapse(0, Elapse::Seconds));
        ASSERT_TRUE(thread->WaitFor(nullptr));
        EXPECT_TRUE(thread->HasCompleted());
        EXPECT_EQ(thread->GetResult(), ran.load() ? 5 : -1);
    }
}

TEST(Thread, TaskThatIgnoresStopRunsOn)
{
    auto thread = Thread::Create("Stubborn");
    std::atomic<bool> release{false}, entered{false};
    ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective&) {
                                  entered = true;
                                  while (!release.load()) QelSleep(1, Elapse::MilliSeconds);
                                  return 0;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(Eventually([&] { return entered.load(); }));
    EXPECT_FALSE(thread->Stop(Elapse(50, Elapse::MilliSeconds)));
    EXPECT_TRUE(thread->IsRunning());
    Elapse shortWait(50, Elapse::MilliSeconds);
    EXPECT_FALSE(thread->WaitFor(&shortWait));
    std::shared_ptr<Thread> all[] = {thread, nullptr};
    EXPECT_FALSE(Thread::WaitForAll(all, 2, &shortWait));
    release = true;
    Elapse longWait(5, Elapse::Seconds);
    EXPECT_TRUE(Thread::WaitForAll(all, 2, &longWait));
    EXPECT_TRUE(thread->HasCompleted());
}

// ---- listeners and errors ----

TEST(Thread, ListenersHearACompletionOnce)
{
    auto thread = Thread::Create("Completing");
    Recorder recorder;
    thread->AddListener(recorder);
    ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) { return 0; }), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_EQ(recorder.completes.load(), 1);
    EXPECT_EQ(recorder.errors.load(), 0);
    EXPECT_EQ(recorder.completedThread, thread.get());
    thread->RemoveListener(recorder);
    ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) { return 0; }), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_EQ(recorder.completes.load(), 1);
}

QEL_DEFINE_ERROR(TaskFailed, LogicError, eERROR, "Task failed on sample %1%", int)

TEST(Thread, AnErrorOutOfATaskEndsTheThreadInTheErrorState)
{
    QelTest::LogCapture log;
    auto thread = Thread::Create("Failing");
    Recorder recorder;
    thread->AddListener(recorder);
    ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) -> int {
                                  QEL_RAISE_ERROR(TaskFailed(17), "Test.Task");
                                  return 0;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_TRUE(thread->IsState(Thread::eTHREAD_ERROR));
    EXPECT_FALSE(thread->HasCompleted());
    EXPECT_EQ(recorder.errors.load(), 1);
    EXPECT_EQ(recorder.completes.load(), 0);
    EXPECT_EQ(recorder.errorThreadName, "Failing");
    EXPECT_EQ(recorder.errorMessage, "Task failed on sample 17");
    EXPECT_EQ(recorder.stateDuringError, Thread::eTHREAD_RUNNING); // heard before the state changed
    ASSERT_NE(thread->GetLastError(), nullptr);
    EXPECT_NE(dynamic_cast<TaskFailed*>(thread->GetLastError().get()), nullptr);
    EXPECT_EQ(thread->GetResult(), -1);
    // The log line follows the change of state.
    EXPECT_TRUE(Eventually([&] { return log.Holds("Thread Failing terminated due to error:\nTask failed on sample 17"); }));

    // The next run starts with no error.
    ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) { return 0; }), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_EQ(thread->GetLastError(), nullptr);
    EXPECT_TRUE(thread->HasCompleted());
}

TEST(Thread, AnythingElseThrownBecomesAnUnknownError)
{
    auto thread = Thread::Create("Throwing");
    Recorder recorder;
    thread->AddListener(recorder);
    ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) -> int { throw 42; }), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_TRUE(thread->IsState(Thread::eTHREAD_ERROR));
    ASSERT_NE(thread->GetLastError(), nullptr);
    EXPECT_NE(dynamic_cast<UnknownError*>(thread->GetLastError().get()), nullptr);
    EXPECT_EQ(thread->GetLastError()->GetMessageA(),
              "Thread Throwing terminated due to an unknown error thrown from Task Run()");
    EXPECT_EQ(recorder.errors.load(), 1);
}

TEST(Thread, ANullTaskEndsInTheErrorState)
{
    QelTest::DebugCapture debug;
    auto thread = Thread::Create("Empty");
    EXPECT_TRUE(thread->Start(nullptr, Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_TRUE(thread->IsState(Thread::eTHREAD_ERROR));
    // The state is set before the error is raised on the thread: wait until the thread has let
    // go of its object, so that the raise does not run on into the process's exit.
    for (int i = 0; i < 5000 && thread.use_count() > 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(thread.use_count(), 1);
    ASSERT_NE(thread->GetLastError(), nullptr);
    EXPECT_EQ(thread->GetLastError()->GetMessageA(), "Attempted to run thread Empty with a NULL Task pointer");
    bool asserted = false;
    for (const std::string& text : debug.Texts()) asserted |= text.find("Failed Assertion((p_spTask != nullptr))") != std::string::npos;
    EXPECT_TRUE(asserted);
}

TEST(Thread, WaitsFromTheThreadItselfFailTheAssertion)
{
    QelTest::DebugCapture debug;
    auto thread = Thread::Create("Self");
    Thread* raw = thread.get();
    ASSERT_TRUE(thread->Start(MakeTask([raw](TaskDirective&) {
                                  EXPECT_TRUE(raw->IsCurrentThread());
                                  (void)raw->TryWaitForState(Thread::eTHREAD_RUNNING);
                                  return 0;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_FALSE(thread->IsCurrentThread());
    bool asserted = false;
    for (const std::string& text : debug.Texts()) asserted |= text.find("Failed Assertion(!IsCurrentThread())") != std::string::npos;
    EXPECT_TRUE(asserted);
}

TEST(Thread, TheBaseDirectiveRaisesUnimplementedInterface)
{
    struct Plain : TaskDirective
    {
        bool MustStop() override { return false; }
    } plain;
    EXPECT_TRUE(plain.KeepRunning());
    try {
        plain.WaitForStopRequest();
        FAIL();
    } catch (TaskDirective::UnimplementedInterface& error) {
        EXPECT_EQ(error.GetMessageA(), "TaskDirective::WaitForStopRequest called but wasn't implemented by the TaskDirective subclass");
    }
    EXPECT_THROW(plain.TimedWaitForStopRequest(Elapse(1, Elapse::Seconds)), TaskDirective::UnimplementedInterface);
}

// ---- lifetime ----

TEST(Thread, AReleasedThreadLivesUntilItsTaskEnds)
{
    struct Tracked : Task
    {
        explicit Tracked(std::atomic<bool>& release, std::atomic<bool>& destroyed) : m_Release(release), m_Destroyed(destroyed) {}
        ~Tracked() override { m_Destroyed = true; }
        int Run(TaskDirective&) override
        {
            while (!m_Release.load()) QelSleep(1, Elapse::MilliSeconds);
            return 0;
        }
        std::atomic<bool>& m_Release;
        std::atomic<bool>& m_Destroyed;
    };
    std::atomic<bool> release{false}, destroyed{false};
    std::weak_ptr<Thread> weak;
    {
        auto thread = Thread::Create("Orphan");
        weak = thread;
        ASSERT_TRUE(thread->Start(std::make_shared<Tracked>(release, destroyed), Elapse(5, Elapse::Seconds)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(weak.expired()); // the thread keeps its object
    EXPECT_FALSE(destroyed.load());
    release = true;
    EXPECT_TRUE(Eventually([&] { return weak.expired(); }));
    EXPECT_TRUE(Eventually([&] { return destroyed.load(); })); // the task goes with it
}

TEST(Thread, ThreadNameIsRegisteredForTheThread)
{
    auto thread = Thread::Create("Named Worker Thread");
    std::string name, comm;
    ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective&) {
                                  System::GetCurrentThreadName(name);
                                  std::ifstream file("/proc/self/task/" + std::to_string(Thread::GetCurrentId()) + "/comm");
                                  std::getline(file, comm);
                                  return 0;
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_EQ(name, "Named Worker Thread");
    EXPECT_EQ(comm, "Named Worker Th");
}

TEST(Thread, AThreadWaitingForAnotherThatIsStoppedEndsWithoutDeadlock)
{
    auto second = Thread::Create("Second");
    auto first = Thread::Create("First");
    ASSERT_TRUE(second->Start(std::make_shared<PollingTask>(), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(first->Start(MakeTask([second](TaskDirective&) {
                                 second->WaitForState(Thread::eTHREAD_NOT_RUNNING);
                                 return 0;
                             }),
                             Elapse(5, Elapse::Seconds)));
    std::shared_ptr<Thread> both[] = {first, second};
    second->Stop(Elapse(0, Elapse::Seconds));
    first->Stop(Elapse(0, Elapse::Seconds));
    Elapse limit(10, Elapse::Seconds);
    EXPECT_TRUE(Thread::WaitForAll(both, 2, &limit));
    EXPECT_TRUE(first->HasCompleted());
    EXPECT_TRUE(second->HasCompleted());
}

TEST(Thread, LaunchThreadRunsACallbackOnANewThread)
{
    static std::atomic<int> s_Calls{0};
    struct Call
    {
        static bool Count() { return ++s_Calls > 0; }
    };
    auto thread = LaunchThread(std::shared_ptr<CallbackRet<bool>>(new GlobalCallbackRet<bool>(&Call::Count)),
                               Elapse(5, Elapse::Seconds));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_EQ(s_Calls.load(), 1);
    EXPECT_EQ(thread->GetResult(), 1); // true as an int
    EXPECT_EQ(thread->GetName().rfind("QelThread ", 0), 0u);
}

// ---- a thread ended behind the library's back ----

namespace {

// What a thread that the C library ended (pthread_exit, cancellation) must look like: the error
// state with OSThreadTermination, told to the listeners once, no completion.
void ExpectEndedBehindTheLibrarysBack(Thread& thread, Recorder& recorder, const std::string& name)
{
    EXPECT_TRUE(thread.TimedWaitForState(Thread::eTHREAD_NOT_RUNNING, Elapse(10, Elapse::Seconds)));
    EXPECT_TRUE(thread.IsState(Thread::eTHREAD_ERROR));
    EXPECT_FALSE(thread.IsAlive());
    ASSERT_NE(thread.GetLastError(), nullptr);
    EXPECT_NE(dynamic_cast<Thread::OSThreadTermination*>(thread.GetLastError().get()), nullptr);
    EXPECT_EQ(thread.GetLastError()->GetMessageA(), "Thread named " + name + " terminated by OS before thread ended");
    EXPECT_TRUE(Eventually([&] { return recorder.errors.load() == 1; }));
    EXPECT_EQ(recorder.errorMessage, "Thread named " + name + " terminated by OS before thread ended");
    EXPECT_EQ(recorder.completes.load(), 0);
}

} // namespace

TEST(Thread, PthreadExitInATaskEndsTheThreadAndTheProcessGoesOn)
{
    QelTest::Watchdog watchdog(std::chrono::seconds(60), "pthread_exit in a task");
    std::weak_ptr<Thread> weak;
    {
        auto thread = Thread::Create("Exiting");
        weak = thread;
        Recorder recorder;
        thread->AddListener(recorder);
        ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) -> int { ::pthread_exit(nullptr); }),
                                  Elapse(5, Elapse::Seconds)));
        ExpectEndedBehindTheLibrarysBack(*thread, recorder, "Exiting");
        thread->RemoveListener(recorder);
        // The object can run again.
        ASSERT_TRUE(thread->Start(MakeTask([](TaskDirective&) { return 5; }), Elapse(5, Elapse::Seconds)));
        ASSERT_TRUE(thread->WaitFor(nullptr));
        EXPECT_TRUE(thread->HasCompleted());
        EXPECT_EQ(thread->GetResult(), 5);
    }
    // The ended thread let go of its object: nothing keeps it.
    EXPECT_TRUE(Eventually([&] { return weak.expired(); }));
}

TEST(Thread, ACancelledTaskEndsTheThreadAndTheProcessGoesOn)
{
    QelTest::Watchdog watchdog(std::chrono::seconds(60), "pthread_cancel of a task");
    auto thread = Thread::Create("Cancelled");
    Recorder recorder;
    thread->AddListener(recorder);
    std::atomic<bool> entered{false};
    pthread_t target{};
    ASSERT_TRUE(thread->Start(MakeTask([&](TaskDirective&) -> int {
                                  target = ::pthread_self();
                                  entered = true;
                                  // Cancelled in pthread_testcancel: the thread sanitizer loses track of
                                  // what a thread cancelled inside one of its intercepted calls (sleep)
                                  // does on its way out (google/sanitizers#646).
                                  for (;;) {
                                      ::pthread_testcancel();
                                      ::sched_yield();
                                  }
                              }),
                              Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(Eventually([&] { return entered.load(); }));
    ASSERT_EQ(::pthread_cancel(target), 0);
    ExpectEndedBehindTheLibrarysBack(*thread, recorder, "Cancelled");
    thread->RemoveListener(recorder);
}

// ---- Start on a thread that runs ----

TEST(Thread, StartOnARunningThreadAssertsAndReturnsFalse)
{
    QelTest::Watchdog watchdog(std::chrono::seconds(60), "Start on a running thread");
    QelTest::DebugCapture debug;
    auto thread = Thread::Create("Busy");
    auto first = std::make_shared<PollingTask>();
    ASSERT_TRUE(thread->Start(first, Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(Eventually([&] { return first->entered.load(); }));
    auto second = std::make_shared<PollingTask>();
    EXPECT_FALSE(thread->Start(second, Elapse(0, Elapse::Seconds)));
    EXPECT_FALSE(thread->Start(second, Elapse(1, Elapse::Seconds)));
    int asserted = 0;
    for (const std::string& text : debug.Texts())
        asserted += text.find("Failed Assertion(IsState(eTHREAD_NOT_RUNNING))") != std::string::npos;
    EXPECT_EQ(asserted, 2);
    // The first task runs on, untouched.
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_EQ(thread->GetTask(), first);
    EXPECT_FALSE(second->entered.load());
    EXPECT_TRUE(thread->Stop(Elapse(5, Elapse::Seconds)));
    EXPECT_EQ(thread->GetResult(), 7);
    EXPECT_EQ(thread->GetLastError(), nullptr);
}
