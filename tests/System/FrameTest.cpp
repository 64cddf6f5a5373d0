// The library frame: managed globals, singletons, the entry points and their state.
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Qel::Core;

namespace Qel::Core {
// Reaches the registry's private teardown.
class SingletonRegistryTestAccess
{
public:
    static void DestroyAll() { SingletonRegistry::DestroyAllSingletons(); }
};
} // namespace Qel::Core

namespace {

std::vector<std::string> g_Log;
ManagedGlobals* g_pRegistry = nullptr;

struct Inner
{
    Inner() { g_Log.push_back("+Inner"); }
    ~Inner() { g_Log.push_back("-Inner"); }
};

// Adds a further global from its own constructor, like the alert manager does.
struct Outer
{
    Outer()
    {
        g_Log.push_back("+Outer");
        g_pRegistry->Add<Inner>("Inner");
    }
    ~Outer()
    {
        // The registry's lock is not held here: look-ups work and find what still lives.
        g_Log.push_back(g_pRegistry->Get<Inner>("Inner") != nullptr ? "-Outer sees Inner" : "-Outer alone");
    }
};

struct Last
{
    ~Last() { g_Log.push_back(g_pRegistry->Get<Outer>("Outer") != nullptr ? "-Last sees Outer" : "-Last"); }
};

class Counted : public Singleton<Counted>
{
public:
    static std::atomic<int> s_iBuilt;
    static std::vector<std::string>* s_pDestroyed;
    Counted() { ++s_iBuilt; }
    ~Counted() override
    {
        if (s_pDestroyed) s_pDestroyed->push_back("Counted");
    }
};
std::atomic<int> Counted::s_iBuilt{0};
std::vector<std::string>* Counted::s_pDestroyed = nullptr;

class Other : public Singleton<Other>
{
public:
    ~Other() override
    {
        if (Counted::s_pDestroyed) Counted::s_pDestroyed->push_back("Other");
    }
};

} // namespace

TEST(ManagedGlobals, GlobalsAddedWhileBuildingGoFirstAndAllGoInReverse)
{
    g_Log.clear();
    {
        ManagedGlobals registry;
        g_pRegistry = &registry;
        Outer* outer = registry.Add<Outer>("Outer");
        registry.Add<Last>("Last");
        EXPECT_EQ(registry.Get<Outer>("Outer"), outer);
        std::list<std::string> keys = registry.Keys();
        ASSERT_EQ(keys.size(), 3u);
        EXPECT_EQ(keys.front(), "Inner" + TypeName(typeid(Inner)));
        EXPECT_EQ(*std::next(keys.begin()), "Outer" + TypeName(typeid(Outer)));
        registry.DestroyAll();
        EXPECT_EQ(registry.Size(), 0u);
        registry.DestroyAll(); // finds nothing
    }
    std::vector<std::string> expected{"+Outer", "+Inner", "-Last sees Outer", "-Outer sees Inner", "-Inner"};
    EXPECT_EQ(g_Log, expected);
}

TEST(ManagedGlobals, LookUpNeedsNameAndClassAndRemoveIgnoresUnknownNames)
{
    g_Log.clear();
    ManagedGlobals registry;
    g_pRegistry = &registry;
    registry.Add<Inner>("Inner");
    EXPECT_EQ(registry.Get<Outer>("Inner"), nullptr); // right name, wrong class
    EXPECT_EQ(registry.Get<Inner>("inner"), nullptr);
    registry.Remove<Inner>("Unknown");
    EXPECT_EQ(registry.Size(), 1u);
    registry.Remove<Inner>("Inner");
    EXPECT_EQ(registry.Size(), 0u);
    EXPECT_EQ(registry.Get<Inner>("Inner"), nullptr);
    std::vector<std::string> expected{"+Inner", "-Inner"};
    EXPECT_EQ(g_Log, expected);
}

TEST(ManagedGlobals, ATakenNameGivesTheObjectAlreadyThere)
{
    g_Log.clear();
    ManagedGlobals registry;
    g_pRegistry = &registry;
    Inner* first = registry.Add<Inner>("Inner");
    EXPECT_EQ(registry.Add<Inner>("Inner"), first);
    EXPECT_EQ(registry.Size(), 1u);
    registry.DestroyAll();
    std::vector<std::string> expected{"+Inner", "-Inner"}; // one object built, one destroyed
    EXPECT_EQ(g_Log, expected);
}

TEST(ManagedGlobals, LibraryGlobalsHoldTheirFixedTexts)
{
    EXPECT_EQ(Globals::Instance().m_sDefaultLocale, "en-US");
    EXPECT_EQ(Globals::Instance().m_sStringTableFile, "QelStringTables.xml");
    EXPECT_FALSE(IsQelCoreDebug());
    EXPECT_FALSE(IsUnloading());
    EXPECT_FALSE(IsFatalExit());
}

TEST(Singletons, TwoThreadsBuildOneInstanceAndDestroyRebuilds)
{
    std::vector<Counted*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&, i] { seen[i] = Counted::Instance(); });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Counted::s_iBuilt.load(), 1);
    for (Counted* instance : seen) EXPECT_EQ(instance, seen[0]);
    EXPECT_TRUE(Counted::IsInstantiated());

    std::vector<std::string> destroyed;
    Counted::s_pDestroyed = &destroyed;
    Other::Instance(); // newer than Counted
    SingletonRegistryTestAccess::DestroyAll();
    std::vector<std::string> expected{"Other", "Counted"};
    EXPECT_EQ(destroyed, expected);
    EXPECT_FALSE(Counted::IsInstantiated());
    EXPECT_EQ(SingletonRegistry::Size(), 0u);

    Counted* again = Counted::Instance();
    EXPECT_NE(again, nullptr);
    EXPECT_EQ(Counted::s_iBuilt.load(), 2);
    SingletonRegistryTestAccess::DestroyAll();
    SingletonRegistryTestAccess::DestroyAll(); // an empty registry: nothing happens
    EXPECT_EQ(destroyed.size(), 3u);
    Counted::s_pDestroyed = nullptr;
}

TEST(Singletons, RegisterSkipsDuplicates)
{
    struct Entry : ISingletonRegistryEntry
    {
        void Destroy() override {}
    } entry;
    std::size_t before = SingletonRegistry::Size();
    SingletonRegistry::Register(&entry);
    SingletonRegistry::Register(&entry);
    EXPECT_EQ(SingletonRegistry::Size(), before + 1);
    SingletonRegistry::Unregister(&entry);
    EXPECT_EQ(SingletonRegistry::Size(), before);
}

// Each test runs in a process of its own, so this is the process's first Initialize.
TEST(EntryPoints, InitializePrimesOnceAndCountsEachCall)
{
    unsigned users = StandIns::FaultAdapterUserCount();
    testing::internal::CaptureStdout();
    InitializeQelCore();
    InitializeQelCore();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Error handling started up via initial throw...\n");
    EXPECT_EQ(StandIns::FaultAdapterUserCount(), users + 2);
    EXPECT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);
}

TEST(EntryPoints, ShutdownDestroysSingletonsOnceAndAlertsStillWork)
{
    std::vector<std::string> destroyed;
    Counted::s_pDestroyed = &destroyed;
    Counted::Instance();
    ShutdownQelCore();
    ShutdownQelCore();
    EXPECT_EQ(destroyed.size(), 1u);
    // A singleton used after shutdown is built again and stays.
    Counted::Instance();
    Counted::s_pDestroyed = nullptr;
    EXPECT_THROW(QEL_RAISE_ERROR(LogicError("after shutdown"), "Qel.Test"), LogicError);
}
