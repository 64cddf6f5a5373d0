// Kill: a thread in its task is ended at once, also in the middle of a wait, and leaves nothing
// behind in the waits. Run outside the thread sanitizer, whose signal handling holds the kill back.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <fstream>

using namespace Qel::Core;

namespace {

// Spins without taking any lock, as a task that is killed must.
class EndlessTask : public Task
{
public:
    int Run(TaskDirective&) override
    {
        entered = true;
        for (;;) spins = spins + 1;
    }
    std::atomic<bool> entered{false};
    volatile unsigned long spins = 0;
};

class ErrorRecorder : public Thread::Listener
{
public:
    ~ErrorRecorder() override { RemoveAllNotificationSources(); }
    void OnThreadError(std::shared_ptr<Thread>, Error& error) override { messages.push_back(error.GetMessageA()); }
    std::vector<std::string> messages;
};

} // namespace

TEST(ThreadKill, EndsAnEndlessTaskInTheErrorState)
{
    auto thread = Thread::Create("Endless");
    ErrorRecorder recorder;
    thread->AddListener(recorder);
    auto task = std::make_shared<EndlessTask>();
    ASSERT_TRUE(thread->Start(task, Elapse(5, Elapse::Seconds)));
    // A stop before the task's first instruction would skip the task: wait until it runs.
    while (!task->entered.load()) QelSleep(1, Elapse::MilliSeconds);
    EXPECT_FALSE(thread->Stop(Elapse(20, Elapse::MilliSeconds))); // the task does not listen
    EXPECT_TRUE(thread->Kill(Elapse(5, Elapse::Seconds)));
    EXPECT_FALSE(thread->IsRunning());
    EXPECT_FALSE(thread->IsAlive());
    EXPECT_TRUE(thread->IsState(Thread::eTHREAD_ERROR));
    ASSERT_NE(thread->GetLastError(), nullptr);
    EXPECT_NE(dynamic_cast<Thread::ThreadKilled*>(thread->GetLastError().get()), nullptr);
    EXPECT_EQ(thread->GetLastError()->GetMessageA(), "Thread named Endless killed by call to Thread::Kill()");
    ASSERT_EQ(recorder.messages.size(), 1u);
    EXPECT_EQ(recorder.messages[0], "Thread named Endless killed by call to Thread::Kill()");
    unsigned long spins = task->spins;
    EXPECT_EQ(task->spins, spins); // it really stopped
    // A killed thread can run again.
    ASSERT_TRUE(thread->Start(std::make_shared<EndlessTask>(), Elapse(5, Elapse::Seconds)));
    EXPECT_TRUE(thread->Kill(Elapse(0, Elapse::Seconds)));
    EXPECT_TRUE(thread->IsState(Thread::eTHREAD_ERROR));
}

TEST(ThreadKill, WorksOnAHundredThreadsOneAfterTheOther)
{
    for (int i = 0; i < 100; ++i) {
        auto thread = Thread::Create();
        auto task = std::make_shared<EndlessTask>();
        ASSERT_TRUE(thread->Start(task, Elapse(5, Elapse::Seconds))) << i;
        ASSERT_TRUE(thread->Kill(Elapse(5, Elapse::Seconds))) << i;
        ASSERT_FALSE(thread->IsRunning()) << i;
        ASSERT_TRUE(thread->IsState(Thread::eTHREAD_ERROR)) << i;
    }
}

TEST(ThreadKill, AKilledAndReleasedThreadGoesAway)
{
    std::weak_ptr<Thread> weak;
    {
        auto thread = Thread::Create("Released");
        weak = thread;
        ASSERT_TRUE(thread->Start(std::make_shared<EndlessTask>(), Elapse(5, Elapse::Seconds)));
        EXPECT_TRUE(thread->Kill(Elapse(5, Elapse::Seconds)));
    }
    EXPECT_TRUE(weak.expired()); // Kill let go of the object in the thread's place
}

TEST(ThreadKill, ACompletedThreadIsNotKilled)
{
    auto thread = Thread::Create("Done");
    struct Quick : Task
    {
        int Run(TaskDirective&) override { return 4; }
    };
    ASSERT_TRUE(thread->Start(std::make_shared<Quick>(), Elapse(5, Elapse::Seconds)));
    ASSERT_TRUE(thread->WaitFor(nullptr));
    EXPECT_TRUE(thread->Kill(Elapse(1, Elapse::Seconds)));
    EXPECT_TRUE(thread->HasCompleted());
    EXPECT_EQ(thread->GetLastError(), nullptr);
    EXPECT_EQ(thread->GetResult(), 4);
}

// ---- a kill in the middle of a wait ----

namespace {

enum class WaitKind { StopRequest, TimedStopRequest, Dequeue };

const char* NameOf(WaitKind kind)
{
    switch (kind) {
    case WaitKind::StopRequest: return "WaitForStopRequest";
    case WaitKind::TimedStopRequest: return "TimedWaitForStopRequest";
    case WaitKind::Dequeue: return "Queue::Dequeue";
    }
    return "";
}

// Waits in one of the three ways until it is stopped (or, for the queue, given an item, which
// becomes the result).
class WaitingTask : public Task
{
public:
    WaitingTask(WaitKind kind, Queue<int>& queue) : m_Kind(kind), m_Queue(queue) {}
    int Run(TaskDirective& directive) override
    {
        threadId = Thread::GetCurrentId();
        switch (m_Kind) {
        case WaitKind::StopRequest: directive.WaitForStopRequest(); return 1;
        case WaitKind::TimedStopRequest: return directive.TimedWaitForStopRequest(Elapse(600, Elapse::Seconds)) ? 1 : 0;
        case WaitKind::Dequeue: {
            int item = -1;
            return m_Queue.Dequeue(item) ? item : -1;
        }
        }
        return 0;
    }
    std::atomic<unsigned long> threadId{0};

private:
    WaitKind m_Kind;
    Queue<int>& m_Queue;
};

// Whether the thread sleeps in the kernel (state S of /proc/self/task/<id>/stat).
bool IsAsleep(unsigned long threadId)
{
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() && text[paren + 2] == 'S';
}

// Starts the task and waits until it sleeps in its wait; false if it does not within 10 s.
bool StartAndWaitUntilAsleep(Thread& thread, const std::shared_ptr<WaitingTask>& task)
{
    if (!thread.Start(task, Elapse(5, Elapse::Seconds))) return false;
    if (!QelTest::Eventually([&] { return task->threadId.load() != 0; }, std::chrono::seconds(10))) return false;
    // Asleep twice in a row, some milliseconds apart: in the wait, not on its way there.
    return QelTest::Eventually(
        [&] {
            if (!IsAsleep(task->threadId.load())) return false;
            QelSleep(20, Elapse::MilliSeconds);
            return IsAsleep(task->threadId.load());
        },
        std::chrono::seconds(10));
}

double ProcessCpuSeconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

const WaitKind kWaitKinds[] = {WaitKind::StopRequest, WaitKind::TimedStopRequest, WaitKind::Dequeue};

} // namespace

TEST(ThreadKill, AThreadKilledInAWaitCanBeDestroyedAndSoCanItsQueue)
{
    for (WaitKind kind : kWaitKinds) {
        std::string result = QelTest::RunInChild(
            [kind] {
                auto queue = std::make_unique<Queue<int>>("Killed waiter's queue");
                auto thread = Thread::Create("Killed waiter");
                auto task = std::make_shared<WaitingTask>(kind, *queue);
                if (!StartAndWaitUntilAsleep(*thread, task)) return 4;
                if (!thread->Kill(Elapse(5, Elapse::Seconds))) return 5;
                if (!thread->IsState(Thread::eTHREAD_ERROR)) return 6;
                thread.reset();
                queue.reset();
                return 0;
            },
            20);
        EXPECT_EQ(result, "exit 0") << NameOf(kind) << " (signal 14: the destruction hung)";
    }
}

TEST(ThreadKill, AWaitAfterAKilledWaiterBlocksAndIsWoken)
{
    for (WaitKind kind : kWaitKinds) {
        std::string result = QelTest::RunInChild(
            [kind] {
                Queue<int> queue("Restarted waiter's queue");
                auto thread = Thread::Create("Restarted waiter");
                if (!StartAndWaitUntilAsleep(*thread, std::make_shared<WaitingTask>(kind, queue))) return 4;
                if (!thread->Kill(Elapse(5, Elapse::Seconds))) return 5;
                // The same wait again, on the same objects: it sleeps (a dead waiter left counted
                // would make it spin) ...
                if (!StartAndWaitUntilAsleep(*thread, std::make_shared<WaitingTask>(kind, queue))) return 6;
                double before = ProcessCpuSeconds();
                QelSleep(300, Elapse::MilliSeconds);
                double spent = ProcessCpuSeconds() - before;
                if (spent > 0.15) {
                    std::fprintf(stderr, "%.3f s of processor time in 0.3 s of waiting\n", spent);
                    return 7;
                }
                // ... and the wake-up reaches it (not the dead one).
                if (kind == WaitKind::Dequeue) queue.Enqueue(42);
                else thread->Stop(Elapse(0, Elapse::Seconds));
                if (!thread->TimedWaitForState(Thread::eTHREAD_NOT_RUNNING, Elapse(5, Elapse::Seconds))) return 8;
                if (!thread->HasCompleted()) return 9;
                if (thread->GetResult() != (kind == WaitKind::Dequeue ? 42 : 1)) return 10;
                return 0;
            },
            20);
        EXPECT_EQ(result, "exit 0") << NameOf(kind) << " (6 or 7: it spun; signal 14: it hung)";
    }
}
