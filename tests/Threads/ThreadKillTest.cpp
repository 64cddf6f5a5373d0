// Kill: a thread in its task is ended at once. Run outside the thread sanitizer, whose signal
// handling holds the kill back.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>

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
