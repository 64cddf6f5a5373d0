// System: identity, data paths, path macros, temporary names, thread names, locale, events,
// dispatch bookkeeping, message pump and the system details of code positions.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace Qel::Core {

// Saves the state that the tests change and puts it back, and reaches the shutdown signal.
class SystemTestAccess
{
public:
    SystemTestAccess()
    {
        System& system = *System::Instance();
        m_Common = system.m_sCommonDataPath;
        m_User = system.m_sUserDataPath;
        m_SubDir = system.m_sAppDataSubDir;
        m_CommonAppends = system.m_bCommonAppendsSubDir;
        m_UserAppends = system.m_bUserAppendsSubDir;
        m_PerUser = system.m_bEnablePerUserData;
        m_Locale = system.m_spLocale.load();
        m_ProcessName = system.m_sProcessName;
        m_ProcessPath = system.m_sProcessPath;
    }
    ~SystemTestAccess()
    {
        System& system = *System::Instance();
        system.m_sCommonDataPath = m_Common;
        system.m_sUserDataPath = m_User;
        system.m_sAppDataSubDir = m_SubDir;
        system.m_bCommonAppendsSubDir = m_CommonAppends;
        system.m_bUserAppendsSubDir = m_UserAppends;
        system.m_bEnablePerUserData = m_PerUser;
        system.m_spLocale.store(m_Locale);
        system.m_sProcessName = m_ProcessName;
        system.m_sProcessPath = m_ProcessPath;
    }
    static void SignalShutdown() { System::SignalShutdown(); }
    static void EnablePerUserData(bool enable) { System::Instance()->m_bEnablePerUserData = enable; }
    static void SetFolders(const std::string& common, const std::string& user)
    {
        System::Instance()->m_sCommonDataPath = common;
        System::Instance()->m_sUserDataPath = user;
    }

private:
    std::string m_Common, m_User, m_SubDir, m_ProcessName, m_ProcessPath;
    bool m_CommonAppends, m_UserAppends, m_PerUser;
    std::shared_ptr<Locale> m_Locale;
};

} // namespace Qel::Core

using namespace Qel::Core;
namespace fs = std::filesystem;

namespace {

// System never looks inside a locale: distinct non-null pointers stand for distinct locales.
// Real locales, a different one at each call, never the one that is current.
std::shared_ptr<Locale> FakeLocale()
{
    static const char* const s_Names[] = {"de-DE", "fr-FR", "it-IT", "es-ES", "nl-NL", "sv-SE", "da-DK"};
    static std::atomic<unsigned> s_Next{0};
    std::shared_ptr<Locale> locale;
    do {
        locale = Locale::Acquire(LocaleName(s_Names[s_Next++ % 7]));
    } while (locale == System::GetLocale());
    return locale;
}

std::uint32_t KernelThreadId()
{
    // "/proc/thread-self" links to "<pid>/task/<tid>".
    return static_cast<std::uint32_t>(std::stoul(fs::read_symlink("/proc/thread-self").filename().string()));
}

std::string ReadFirstLine(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

struct MainThreadScope
{
    MainThreadScope() { SetMainThread(); }
    ~MainThreadScope() { SetMainThreadId(0); }
};

bool Contains(const std::vector<std::string>& texts, const std::string& part)
{
    for (const std::string& text : texts)
        if (text.find(part) != std::string::npos) return true;
    return false;
}

} // namespace

// ---- identity ----

TEST(SystemIdentity, SystemIsTheFirstManagedGlobal)
{
    std::list<std::string> keys = Globals::Instance().Keys();
    ASSERT_GE(keys.size(), 4u);
    auto key = keys.begin();
    EXPECT_EQ(key->rfind("System", 0), 0u) << *key;
    EXPECT_EQ((++key)->rfind("LocaleManager", 0), 0u) << *key;
    EXPECT_EQ((++key)->rfind("CurrentErrors", 0), 0u) << *key;
    EXPECT_EQ((++key)->rfind("AlertManager", 0), 0u) << *key;
    EXPECT_EQ(Globals::Instance().m_pSystem, System::Instance());
}

TEST(SystemIdentity, NamesTheProductProcessMachineAndUser)
{
    ASSERT_NE(System::Instance(), nullptr);
    EXPECT_EQ(System::GetProductName(), "QelCore");
    EXPECT_EQ(System::GetProductVersion(), "5.0");
    std::string text;
    System::GetProductVersion(text);
    EXPECT_EQ(text, "5.0");

    EXPECT_EQ(System::GetProcessName(), "SystemTests");
    std::string processPath = System::GetProcessPath();
    ASSERT_FALSE(processPath.empty());
    EXPECT_EQ(processPath.back(), '/');
    EXPECT_TRUE(fs::equivalent(processPath + System::GetProcessName(), "/proc/self/exe"));

    System::GetProcessId(text);
    EXPECT_EQ(text, fs::read_symlink("/proc/self").string());
    EXPECT_EQ(System::GetCurrentThreadId(), KernelThreadId());

    EXPECT_NE(System::GetOsName().find(" build "), std::string::npos) << System::GetOsName();
    EXPECT_NE(System::GetOsName().find(" (64 bit)"), std::string::npos) << System::GetOsName();
    EXPECT_FALSE(System::GetHostName().empty());
    EXPECT_EQ(System::GetProcessorType(), "x64");
    EXPECT_GE(System::GetNumProcessors(), 1u);
    EXPECT_FALSE(System::GetUserAccountName().empty());
    EXPECT_FALSE(System::GetUserDisplayName().empty());
}

TEST(SystemIdentity, FindsLoadedModulesByFileName)
{
    std::string folder;
    ASSERT_TRUE(System::GetModulePath("libQelCore.so", folder)); // the versioned file is found
    EXPECT_EQ(folder.back(), '/');
    EXPECT_TRUE(fs::exists(folder + "libQelCore.so"));
    ASSERT_TRUE(System::GetModulePath("SystemTests", folder));
    EXPECT_EQ(folder, System::GetProcessPath());

    folder = "unchanged";
    EXPECT_FALSE(System::GetModulePath("libNoSuchModule.so", folder));
    EXPECT_FALSE(System::GetModulePath("", folder));
    EXPECT_FALSE(System::GetModulePath("libQelCore", folder)); // a name is a whole file name
    EXPECT_EQ(folder, "unchanged");
}

TEST(SystemIdentity, SettersOfTheProcessAreHeard)
{
    SystemTestAccess saved;
    System::SetProcessName("Acquire");
    System::SetProcessPath("/opt/acquire/");
    EXPECT_EQ(System::GetProcessName(), "Acquire");
    EXPECT_EQ(System::GetProcessPath(), "/opt/acquire/");
    CodeContext context = QEL_CODE_CONTEXT();
    EXPECT_EQ(context.Get(CodeContext::sPROCESS), "Acquire");
}

// ---- data paths ----

TEST(SystemDataPaths, DefaultSubDirectoryIsKorvelAndTheProcessName)
{
    // No settings file lies beside the test program.
    ASSERT_FALSE(fs::exists(System::GetProcessPath() + "SystemInfo.ini"));
    EXPECT_EQ(System::GetAppDataSubDir(), "Korvel/SystemTests/");
    std::string common = System::GetCommonDataPath();
    EXPECT_EQ(common.size() > 19 ? common.substr(common.size() - 19) : common, "Korvel/SystemTests/");
    EXPECT_EQ(System::GetUserDataPath(), common); // all users share the common folder
}

TEST(SystemDataPaths, PerUserDataUsesTheUsersOwnFolder)
{
    SystemTestAccess saved;
    SystemTestAccess::SetFolders("/srv/common/", "/home/someone/.local/share/");
    EXPECT_EQ(System::GetUserDataPath(), "/srv/common/Korvel/SystemTests/");
    SystemTestAccess::EnablePerUserData(true);
    EXPECT_EQ(System::GetUserDataPath(), "/home/someone/.local/share/Korvel/SystemTests/");
    EXPECT_EQ(System::GetCommonDataPath(), "/srv/common/Korvel/SystemTests/");
}

TEST(SystemDataPaths, ExplicitPathsStandAsGivenWithASeparator)
{
    SystemTestAccess saved;
    System::SetUserDataPath("D:\\x");
    EXPECT_EQ(System::GetUserDataPath(), "D:\\x\\"); // a text with a backslash keeps it
    System::SetUserDataPath("/data/user");
    EXPECT_EQ(System::GetUserDataPath(), "/data/user/");
}

TEST(SystemDataPaths, ExplicitCommonPathIsFollowedByTheUserPathWithoutPerUserData)
{
    SystemTestAccess saved;
    System::SetCommonDataPath("/data/common");
    EXPECT_EQ(System::GetCommonDataPath(), "/data/common/");
    EXPECT_EQ(System::GetUserDataPath(), "/data/common/");
    System::SetAppDataSubDir("Vendor/Tool");
    EXPECT_EQ(System::GetAppDataSubDir(), "Vendor/Tool/");
    EXPECT_EQ(System::GetCommonDataPath(), "/data/common/"); // an explicit path takes no sub-directory
}

TEST(SystemDataPaths, AbsoluteSubDirectoryFailsTheAssertionAndIsStored)
{
    SystemTestAccess saved;
    QelTest::DebugCapture capture;
    System::SetAppDataSubDir("relative/dir");
    EXPECT_TRUE(capture.Texts().empty());
    System::SetAppDataSubDir("/absolute/dir");
    ASSERT_EQ(capture.Texts().size(), 1u);
    EXPECT_TRUE(Contains(capture.Texts(), "): Failed Assertion(path.IsRelative())"));
    EXPECT_EQ(System::GetAppDataSubDir(), "/absolute/dir/");
}

TEST(SystemDataPaths, PathMacrosExpandOnlyAtTheStart)
{
    SystemTestAccess saved;
    System::SetCommonDataPath("/c");
    System::SetUserDataPath("/u");
    EXPECT_EQ(ExpandPathMacros("$(CommonDataPath)logs/x.log"), "/c/logs/x.log");
    EXPECT_EQ(ExpandPathMacros("$(commondatapath)logs"), "/c/logs");
    EXPECT_EQ(ExpandPathMacros("$(UserDataPath)"), "/u/");
    EXPECT_EQ(ExpandPathMacros("$(userdatapath)/x"), "/u//x"); // the seam is left as it stands
    EXPECT_EQ(ExpandPathMacros("$(COMMONDATAPATH)x"), "$(COMMONDATAPATH)x");
    EXPECT_EQ(ExpandPathMacros("$(CommonDataPATH)x"), "$(CommonDataPATH)x");
    EXPECT_EQ(ExpandPathMacros("logs/$(CommonDataPath)"), "logs/$(CommonDataPath)");
    EXPECT_EQ(ExpandPathMacros("$(CommonDataPath"), "$(CommonDataPath");
    EXPECT_EQ(ExpandPathMacros(""), "");
}

// ---- temporary names ----

TEST(SystemTemp, TempFileNameIsFreeAndInTheTempFolder)
{
    std::string folder;
    ASSERT_TRUE(System::GetTempDir(folder));
    EXPECT_EQ(folder.back(), '/');
    std::string first, second;
    ASSERT_TRUE(System::CreateTempFileName(first, "~QEL"));
    ASSERT_TRUE(System::CreateTempFileName(second, "~QEL"));
    EXPECT_EQ(first.compare(0, folder.size() + 4, folder + "~QEL"), 0) << first;
    EXPECT_FALSE(fs::exists(first));
    EXPECT_NE(first, second);
}

TEST(SystemTemp, TmpdirIsHonouredWhenItIsAFolder)
{
    const char* previous = std::getenv("TMPDIR");
    std::string saved = previous != nullptr ? previous : "";
    fs::path own = fs::temp_directory_path() / ("qel-tmpdir-" + std::to_string(System::GetProcessId()));
    fs::create_directories(own);
    setenv("TMPDIR", own.c_str(), 1);
    std::string folder, name;
    EXPECT_TRUE(System::GetTempDir(folder));
    EXPECT_EQ(folder, own.string() + "/");
    EXPECT_TRUE(System::CreateTempFileName(name, "p"));
    EXPECT_EQ(name.compare(0, folder.size(), folder), 0);
    EXPECT_TRUE(fs::is_empty(own));

    setenv("TMPDIR", (own / "missing").c_str(), 1);
    EXPECT_TRUE(System::GetTempDir(folder));
    EXPECT_EQ(folder, "/tmp/");
    if (previous != nullptr) setenv("TMPDIR", saved.c_str(), 1);
    else unsetenv("TMPDIR");
    fs::remove_all(own);
}

// ---- thread names ----

TEST(SystemThreadNames, AThreadIsNamedOnceAndShowsInProc)
{
    std::string before, first, second, comm;
    std::thread worker([&] {
        System::GetCurrentThreadName(before);
        System::SetCurrentThreadName("Acquisition Worker 7");
        System::SetCurrentThreadName("Renamed");
        System::GetCurrentThreadName(first);
        comm = ReadFirstLine("/proc/self/task/" + std::to_string(KernelThreadId()) + "/comm");
        CodeContext context = QEL_CODE_CONTEXT();
        second = context.Get(CodeContext::sTHREAD);
    });
    worker.join();
    EXPECT_EQ(before, "");
    EXPECT_EQ(first, "Acquisition Worker 7");
    EXPECT_EQ(comm, "Acquisition Wor"); // the kernel keeps 15 bytes
    EXPECT_EQ(second, "Acquisition Worker 7");
}

TEST(SystemThreadNames, KernelNameIsNotCutInsideACharacter)
{
    std::string comm;
    std::thread worker([&] {
        System::SetCurrentThreadName("Messger\xC3\xA4t-\xC3\xBCx\xC3\xA4\xC3\xB6"); // bytes 15 and 16 form one character
        comm = ReadFirstLine("/proc/self/task/" + std::to_string(KernelThreadId()) + "/comm");
    });
    worker.join();
    EXPECT_EQ(comm, "Messger\xC3\xA4t-\xC3\xBCx");
}

TEST(SystemThreadNames, UnnamedThreadHasNoNameInItsCodeContext)
{
    std::string name = "x";
    bool hasKey = true;
    std::thread worker([&] {
        System::GetCurrentThreadName(name);
        CodeContext context = QEL_CODE_CONTEXT();
        hasKey = context.GetContextInfo().count(CodeContext::sTHREAD) != 0;
    });
    worker.join();
    EXPECT_EQ(name, "");
    EXPECT_FALSE(hasKey);
}

TEST(SystemThreadNames, ManyThreadsNameThemselvesAtOnce)
{
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i, &right] {
            std::string wanted = "Parallel " + std::to_string(i);
            for (int round = 0; round < 200; ++round) {
                System::SetCurrentThreadName(wanted);
                std::string name;
                System::GetCurrentThreadName(name);
                (void)System::GetCommonDataPath();
                if (name != wanted) return;
            }
            ++right;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(right.load(), 8);
}

// ---- code positions ----

TEST(SystemCodeContext, PositionsCarryProcessThreadOsAndHost)
{
    CodeContext context = QEL_CODE_CONTEXT();
    EXPECT_EQ(context.Get(CodeContext::sPROCESS), "SystemTests");
    EXPECT_EQ(context.Get(CodeContext::sPROCESS_ID), std::to_string(System::GetProcessId()));
    EXPECT_EQ(context.Get(CodeContext::sTHREAD_ID), std::to_string(KernelThreadId()));
    EXPECT_EQ(context.Get(CodeContext::sOPERATING_SYSTEM), System::GetOsName());
    EXPECT_EQ(context.Get(CodeContext::sHOST), System::GetHostName());
}

// ---- locale ----

namespace {

class LocaleRecorder : public SystemLocaleListener
{
public:
    LocaleRecorder() { System::AddLocaleListener(*this); }
    ~LocaleRecorder() override { RemoveAllNotificationSources(); }
    void OnLocaleChange(std::shared_ptr<Locale> spNew, std::shared_ptr<Locale> spOld) override
    {
        changes.emplace_back(spNew, spOld);
        if (throwOnChange) throw std::runtime_error("listener fails");
    }
    std::vector<std::pair<std::shared_ptr<Locale>, std::shared_ptr<Locale>>> changes;
    bool throwOnChange = false;
};

} // namespace

TEST(SystemLocale, ChangesAreHeardOnceAndTheCurrentLocaleSendsNothing)
{
    SystemTestAccess saved;
    LocaleRecorder recorder;
    auto first = FakeLocale();
    auto second = FakeLocale();
    auto before = System::GetLocale();

    EXPECT_EQ(System::SetLocale(std::shared_ptr<Locale>()), before == nullptr); // nothing changes
    EXPECT_TRUE(recorder.changes.empty());

    EXPECT_TRUE(System::SetLocale(first));
    ASSERT_EQ(recorder.changes.size(), 1u);
    EXPECT_EQ(recorder.changes[0].first, first);
    EXPECT_EQ(recorder.changes[0].second, before);
    EXPECT_EQ(System::GetLocale(), first);

    EXPECT_TRUE(System::SetLocale(first)); // the current one: true, and nobody is told
    EXPECT_EQ(recorder.changes.size(), 1u);

    EXPECT_TRUE(System::SetLocale(second));
    ASSERT_EQ(recorder.changes.size(), 2u);
    EXPECT_EQ(recorder.changes[1].first, second);
    EXPECT_EQ(recorder.changes[1].second, first);
}

TEST(SystemLocale, AFailingListenerDoesNotStopTheOthers)
{
    SystemTestAccess saved;
    QelTest::AlertRecorder alerts;
    LocaleRecorder failing;
    failing.throwOnChange = true;
    LocaleRecorder second;
    EXPECT_TRUE(System::SetLocale(FakeLocale()));
    EXPECT_EQ(failing.changes.size(), 1u);
    EXPECT_EQ(second.changes.size(), 1u);
    EXPECT_EQ(alerts.Count("warning"), 1u); // the listener's failure becomes a warning
}

TEST(SystemLocale, ListenersMaySetTheLocaleFromTheirNotification)
{
    // No lock of System is held while the listeners run.
    SystemTestAccess saved;
    struct Reentrant : SystemLocaleListener
    {
        Reentrant() { System::AddLocaleListener(*this); }
        ~Reentrant() override { RemoveAllNotificationSources(); }
        void OnLocaleChange(std::shared_ptr<Locale> spNew, std::shared_ptr<Locale>) override
        {
            ++calls;
            if (spNew == first) System::SetLocale(next);
        }
        std::shared_ptr<Locale> first = FakeLocale();
        std::shared_ptr<Locale> next = FakeLocale();
        int calls = 0;
    } listener;
    // The result tells whether the locale given is current afterwards: the listener changed it.
    EXPECT_FALSE(System::SetLocale(listener.first));
    EXPECT_EQ(listener.calls, 2);
    EXPECT_EQ(System::GetLocale(), listener.next);
}

// ---- events ----

namespace {

struct Order
{
    std::vector<std::string> heard;
};

// A listener of one of System's events that writes its name into the order it is heard in.
template <typename Base, void (*Add)(Base&)>
class Named : public Base
{
public:
    Named(Order& order, std::string name) : m_Order(order), m_Name(std::move(name)) { Add(*this); }
    ~Named() override { this->RemoveAllNotificationSources(); }

protected:
    void Heard() { m_Order.heard.push_back(m_Name); }

private:
    Order& m_Order;
    std::string m_Name;
};

class NamedShutdownListener : public Named<ShutdownListener, &System::AddShutdownListener>
{
public:
    using Named::Named;
    void OnShutdown() override { Heard(); }
};

class NamedAbortListener : public Named<AbortListener, &System::AddAbortListener>
{
public:
    using Named::Named;
    void OnAbort() override { Heard(); }
};

} // namespace

TEST(SystemEvents, AbortListenersHearInTheOrderTheyCame)
{
    Order order;
    NamedAbortListener a(order, "a"), b(order, "b"), c(order, "c");
    System::RemoveAbortListener(b);
    System::SignalAbort();
    System::SignalAbort();
    EXPECT_EQ(order.heard, (std::vector<std::string>{"a", "c", "a", "c"}));
}

TEST(SystemEvents, ShutdownListenersHearNewestFirstAndThePumpGoes)
{
    Order order;
    NamedShutdownListener first(order, "first"), second(order, "second"), third(order, "third");
    int pumped = 0;
    System::SetMessagePump(QelTest::MakePump([&](int) { ++pumped; }));
    std::atomic<bool> dispatching{false}, done{false};
    std::uint32_t workerId = 0;
    std::thread worker([&] {
        workerId = System::GetCurrentThreadId();
        QelTest::Dispatcher::Begin();
        dispatching = true;
        while (!done.load()) std::this_thread::yield();
        QelTest::Dispatcher::End();
    });
    while (!dispatching.load()) std::this_thread::yield();
    EXPECT_TRUE(System::IsThreadWaitingOnDispatch(workerId));

    SystemTestAccess::SignalShutdown();
    EXPECT_EQ(order.heard, (std::vector<std::string>{"third", "second", "first"}));
    EXPECT_FALSE(System::IsThreadWaitingOnDispatch(workerId)); // the set is cleared
    System::PumpMessages(5);
    EXPECT_EQ(pumped, 0); // the pump was taken away
    done = true;
    worker.join();
}

// ---- dispatch and message pump ----

TEST(SystemDispatch, WorkersAreMarkedBetweenBeginAndEnd)
{
    MainThreadScope main;
    std::uint32_t mainId = System::GetCurrentThreadId();
    QelTest::Dispatcher::Begin(); // the main thread's own dispatch is not recorded
    EXPECT_FALSE(System::IsThreadWaitingOnDispatch(mainId));
    QelTest::Dispatcher::End();

    std::atomic<int> phase{0};
    std::uint32_t workerId = 0;
    std::thread worker([&] {
        workerId = System::GetCurrentThreadId();
        QelTest::Dispatcher::Begin();
        phase = 1;
        while (phase.load() != 2) std::this_thread::yield();
        QelTest::Dispatcher::End();
        phase = 3;
    });
    while (phase.load() != 1) std::this_thread::yield();
    EXPECT_TRUE(System::IsThreadWaitingOnDispatch(workerId));
    EXPECT_FALSE(System::IsThreadWaitingOnDispatch(mainId));
    phase = 2;
    while (phase.load() != 3) std::this_thread::yield();
    EXPECT_FALSE(System::IsThreadWaitingOnDispatch(workerId));
    worker.join();
}

TEST(SystemPump, InstalledPumpGetsTheCountAndTheOldPumpComesBack)
{
    System::PumpMessages(0); // nothing installed: nothing happens
    System::PumpMessages(10);
    std::vector<int> counts;
    auto first = QelTest::MakePump([&](int n) { counts.push_back(n); });
    auto previous = System::SetMessagePump(first);
    EXPECT_EQ(previous, nullptr);
    System::PumpMessages(0);
    System::PumpMessages(7);
    EXPECT_EQ(counts, (std::vector<int>{0, 7}));
    auto second = QelTest::MakePump([&](int n) { counts.push_back(-n); });
    EXPECT_EQ(System::SetMessagePump(second), first);
    System::PumpMessages(3);
    EXPECT_EQ(System::SetMessagePump(nullptr), second);
    System::PumpMessages(4); // the built-in loop again
    EXPECT_EQ(counts, (std::vector<int>{0, 7, -3}));
}
