// Sources and listeners: calling order, priorities, removal during a broadcast, teardown in either
// order, catching and non-catching broadcasts.
#include <Infrastructure/QelCore/QelCore.h>

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Qel::Core;

namespace {

std::vector<std::string> g_Calls;

QEL_DEFINE_WARNING(Churn, Warning, "churn")

class Counter : public NotificationListener
{
public:
    explicit Counter(std::string name = "", int priority = -1) : m_sName(std::move(name)), m_iPriority(priority) {}
    ~Counter() override { RemoveAllNotificationSources(); } // so that our override is told

    bool IsPrioritized() const override { return m_iPriority >= 0; }
    bool IsHigherPriorityThan(const NotificationListener& other) const override
    {
        auto* counter = dynamic_cast<const Counter*>(&other);
        return counter != nullptr && counter->IsPrioritized() && m_iPriority > counter->m_iPriority;
    }

    void Hear()
    {
        ++m_iCount;
        g_Calls.push_back(m_sName);
        if (m_Action) m_Action(*this);
    }

    std::string m_sName;
    int m_iPriority;
    int m_iCount = 0;
    int m_iRemoved = 0;
    std::function<void(Counter&)> m_Action;

protected:
    void NotificationSourceIsRemoved(const NotificationSupport&) override { ++m_iRemoved; }
};

class Ping : public Notification
{
public:
    void Notify(NotificationListener& listener) override
    {
        if (auto* counter = dynamic_cast<Counter*>(&listener)) counter->Hear();
    }
};

} // namespace

TEST(Notifications, ListenersAreCalledInTheOrderOfTheirSource)
{
    g_Calls.clear();
    NotificationSupport fifo(NotificationSupport::eFIRST_ADDED_FIRST);
    NotificationSupport lifo(NotificationSupport::eLAST_ADDED_FIRST);
    Counter a("a"), b("b"), c("c");
    for (Counter* counter : {&a, &b, &c}) {
        fifo.AddListener(*counter);
        lifo.AddListener(*counter);
    }
    fifo.AddListener(a); // already there: ignored
    EXPECT_EQ(fifo.GetNumListeners(), 3);
    Ping ping;
    fifo.Broadcast(ping, true);
    lifo.Broadcast(ping, true);
    std::vector<std::string> expected{"a", "b", "c", "c", "b", "a"};
    EXPECT_EQ(g_Calls, expected);
    EXPECT_EQ(a.GetNumSources(), 2u);

    fifo.RemoveListener(a);
    fifo.RemoveListener(b);
    fifo.RemoveListener(b); // not there: ignored
    g_Calls.clear();
    fifo.Broadcast(ping, true);
    EXPECT_EQ(g_Calls, std::vector<std::string>{"c"});
    EXPECT_EQ(a.m_iRemoved, 1);
    EXPECT_EQ(a.GetNumSources(), 1u);
}

TEST(Notifications, PrioritiesOrderTheList)
{
    g_Calls.clear();
    NotificationSupport source;
    Counter low("low", 1), high("high", 9), plain("plain");
    source.AddListener(low);
    source.AddListener(high); // outranks low: goes in front of it
    source.AddListener(plain); // goes in front of the prioritized listeners that do not outrank it
    Ping ping;
    source.Broadcast(ping, true);
    std::vector<std::string> expected{"plain", "high", "low"};
    EXPECT_EQ(g_Calls, expected);
}

TEST(Notifications, RemoveAllTellsEveryListener)
{
    NotificationSupport source;
    Counter a, b;
    source.AddListener(a);
    source.AddListener(b);
    EXPECT_EQ(source.GetNumListeners(), 2);
    EXPECT_TRUE(source.HasListeners());
    source.RemoveAllListeners();
    EXPECT_EQ(source.GetNumListeners(), 0);
    EXPECT_FALSE(source.HasListeners());
    EXPECT_EQ(a.m_iRemoved, 1);
    EXPECT_EQ(b.m_iRemoved, 1);
    EXPECT_EQ(a.GetNumSources(), 0u);
}

TEST(Notifications, ListenerMayRemoveItselfAtAnyPlace)
{
    for (int place = 0; place < 3; ++place) {
        g_Calls.clear();
        NotificationSupport source;
        Counter counters[3] = {Counter("0"), Counter("1"), Counter("2")};
        for (Counter& counter : counters) source.AddListener(counter);
        counters[place].m_Action = [&source](Counter& self) { source.RemoveListener(self); };
        Ping ping;
        source.Broadcast(ping, true);
        EXPECT_EQ(g_Calls.size(), 3u) << place;
        EXPECT_EQ(source.GetNumListeners(), 2);
        counters[place].m_Action = nullptr;
        source.Broadcast(ping, true);
        EXPECT_EQ(counters[place].m_iCount, 1);
        source.AddListener(counters[place]);
        source.Broadcast(ping, true);
        EXPECT_EQ(counters[place].m_iCount, 2);
    }
}

TEST(Notifications, ListenerMayRemoveTheNextOneDuringABroadcast)
{
    g_Calls.clear();
    NotificationSupport source;
    Counter a("a"), b("b"), c("c");
    source.AddListener(a);
    source.AddListener(b);
    source.AddListener(c);
    a.m_Action = [&](Counter&) { source.RemoveListener(b); };
    Ping ping;
    source.Broadcast(ping, true);
    EXPECT_EQ(g_Calls, (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(source.GetNumListeners(), 2);
}

TEST(Notifications, EitherSideMayGoFirst)
{
    Ping ping;
    {
        NotificationSupport source;
        auto* listener = new Counter;
        Counter other;
        source.AddListener(*listener);
        source.AddListener(other);
        delete listener; // the source forgets it
        EXPECT_EQ(source.GetNumListeners(), 1);
        source.Broadcast(ping, true);
        EXPECT_EQ(other.m_iCount, 1);
    }
    {
        Counter listener;
        auto* first = new NotificationSupport;
        NotificationSupport second;
        first->AddListener(listener);
        second.AddListener(listener);
        first->Broadcast(ping, true);
        second.Broadcast(ping, true);
        EXPECT_EQ(listener.m_iCount, 2);
        delete first; // the listener is told and forgets the source
        EXPECT_EQ(listener.m_iRemoved, 1);
        EXPECT_EQ(listener.GetNumSources(), 1u);
    } // the listener goes after its last source: it touches nothing dead
}

TEST(Notifications, CatchingBroadcastTurnsFailuresIntoWarnings)
{
    struct Thrower
    {
        int kind;
        void operator()(Counter&) const
        {
            if (kind == 0) throw LogicError("logic failed");
            if (kind == 1) throw std::runtime_error("runtime failed");
            throw 42;
        }
    };
    const char* texts[] = {"logic failed", "runtime failed", "Unknown error"};
    for (int place = 0; place < 3; ++place) {
        QelTest::AlertRecorder recorder;
        NotificationSupport source;
        Counter counters[3];
        for (Counter& counter : counters) source.AddListener(counter);
        counters[place].m_Action = Thrower{place};
        Ping ping;
        source.Broadcast(ping, true);
        for (const Counter& counter : counters) EXPECT_EQ(counter.m_iCount, 1);
        ASSERT_EQ(recorder.Count("warning"), 1u);
        EXPECT_EQ(recorder.Events()[0].message, "Listener threw error during notification: Listener->" +
                                                    ReadableTypeName(typeid(Counter)) + " : Notification->" +
                                                    ReadableTypeName(typeid(Ping)) + " : " + texts[place]);
        EXPECT_EQ(recorder.Events()[0].typeName, TypeName(typeid(ListenerErrorOnNotification)));
    }
}

TEST(Notifications, NonCatchingBroadcastLetsTheFailureOut)
{
    QelTest::AlertRecorder recorder;
    NotificationSupport source;
    Counter a, b, c;
    source.AddListener(a);
    source.AddListener(b);
    source.AddListener(c);
    b.m_Action = [](Counter&) { throw std::runtime_error("stop"); };
    Ping ping;
    EXPECT_THROW(source.Broadcast(ping, false), std::runtime_error);
    EXPECT_EQ(a.m_iCount, 1);
    EXPECT_EQ(c.m_iCount, 0);
    EXPECT_EQ(recorder.Count("warning"), 0u);
    // The source's lock was released on the way out: another thread can use it.
    std::thread other([&] { source.RemoveListener(c); });
    other.join();
    EXPECT_EQ(source.GetNumListeners(), 2);
}

TEST(Notifications, FailingRemovalWarnsAndKeepsTheListener)
{
    class Stubborn : public NotificationListener
    {
    public:
        void RemoveNotificationSource(NotificationSupport& source) override
        {
            if (m_bRefuse) throw std::runtime_error("not now");
            NotificationListener::RemoveNotificationSource(source);
        }
        bool m_bRefuse = true;
    };
    QelTest::AlertRecorder recorder;
    NotificationSupport source;
    Stubborn stubborn;
    source.AddListener(stubborn);
    source.RemoveListener(stubborn);
    EXPECT_EQ(source.GetNumListeners(), 1);
    ASSERT_EQ(recorder.Count("warning"), 1u);
    EXPECT_EQ(recorder.Events()[0].message, "Listener threw error during removal from source: not now");
    source.RemoveAllListeners(); // warns again, and the list ends empty all the same
    EXPECT_EQ(source.GetNumListeners(), 0);
    EXPECT_EQ(recorder.Count("warning"), 2u);
    stubborn.m_bRefuse = false;
}

TEST(NotificationThreads, ListenersComeAndGoWhileSourcesBroadcast)
{
    NotificationSupport source;
    std::atomic<bool> stop{false};
    Counter steady;
    source.AddListener(steady);
    std::thread churn([&] {
        for (int i = 0; i < 2000; ++i) {
            Counter passing;
            source.AddListener(passing);
            if (i % 2 == 0) source.RemoveListener(passing);
        } // the rest leave through their destructors
        stop = true;
    });
    Ping ping;
    int broadcasts = 0;
    while (!stop.load()) {
        source.Broadcast(ping, true);
        ++broadcasts;
    }
    churn.join();
    EXPECT_EQ(steady.m_iCount, broadcasts);
    EXPECT_EQ(source.GetNumListeners(), 1);
}

TEST(NotificationThreads, ListenerBuildingShortLivedObjectsBesideAnEndingAlertListener)
{
    // While told of an alert (the alert source's lock held), a listener builds and ends a listener
    // and a source of its own; another thread keeps ending scoped alert listeners.
    struct Builder : AlertListener
    {
        std::atomic<int> heard{0};
        void WarningRaised(Warning& warning) override
        {
            if (warning.GetMessageA() != "churn") return;
            {
                NotificationSupport source;
                Counter listener;
                source.AddListener(listener);
                Ping ping;
                source.Broadcast(ping, true);
            }
            {
                Counter alone;
            }
            {
                NotificationSupport alone;
            }
            ++heard;
        }
        ~Builder() override { RemoveAllNotificationSources(); }
    } builder;
    AlertManager::Instance()->AddAlertListener(builder);
    QelTest::Watchdog watchdog("listener building short-lived sources beside ending alert listeners");
    constexpr int kRounds = 300;
    std::atomic<bool> stop{false};
    std::thread ending([&] {
        while (!stop.load()) {
            AlertListener scoped;
            AlertManager::Instance()->AddAlertListener(scoped);
        }
    });
    std::thread raising([&] {
        for (int i = 0; i < kRounds; ++i) QEL_RAISE_WARNING(Churn(), "Qel.Test");
        stop = true;
    });
    raising.join();
    ending.join();
    AlertManager::Instance()->RemoveAlertListener(builder);
    EXPECT_EQ(builder.heard.load(), kRounds);
}

TEST(NotificationThreads, SourcesAndListenersLinkedAllToAllDieTogetherOnTwoThreads)
{
    // Each round links every listener to every source and ends the sources on one thread while
    // the listeners end on another; the sanitizers see any touch of an object that has gone.
    QelTest::Watchdog watchdog("sources and listeners ending together");
    constexpr int kRounds = 200, kEach = 4;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::unique_ptr<NotificationSupport>> sources;
        std::vector<std::unique_ptr<Counter>> listeners;
        for (int i = 0; i < kEach; ++i) {
            sources.push_back(std::make_unique<NotificationSupport>());
            listeners.push_back(std::make_unique<Counter>());
        }
        for (auto& source : sources)
            for (auto& listener : listeners) source->AddListener(*listener);
        std::atomic<int> ready{0};
        auto endAll = [&ready](auto& objects) {
            ++ready;
            while (ready.load() < 2) {
            }
            objects.clear();
        };
        std::thread first([&] { endAll(sources); });
        std::thread second([&] { endAll(listeners); });
        first.join();
        second.join();
    }
}
