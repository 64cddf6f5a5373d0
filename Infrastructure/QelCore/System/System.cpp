// The process-wide facade: identity, data paths, thread names, locale, events, dispatch and pump.
#include "Infrastructure/QelCore/System.h"

#include "Infrastructure/QelCore/Locale.h"

#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/PathName.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Platform/SystemInfo.h"
#include "Infrastructure/QelCore/System/SystemDetails.h"
#include "Infrastructure/QelCore/Thread.h"
#include "Infrastructure/QelCore/Threads/MainThread.h"

#include <mutex>

namespace Qel::Core {
namespace {

std::atomic<System*> s_pInstance{nullptr};

const char* const sSETTINGS_FILE = "SystemInfo.ini";
const char* const sDEFAULT_SECTION = "default";
const char* const sAPP_DATA_SUB_DIR = "AppDataSubDir";
const char* const sENABLE_PER_USER_DATA = "EnablePerUserData";

} // namespace

struct System::DispatchState
{
    std::mutex m_Mutex;
};

// ---- notifications ----

void AbortNotification::Notify(NotificationListener& listener)
{
    if (auto* abort = dynamic_cast<AbortListener*>(&listener)) abort->OnAbort();
}

void ShutdownNotification::Notify(NotificationListener& listener)
{
    if (auto* shutdown = dynamic_cast<ShutdownListener*>(&listener)) shutdown->OnShutdown();
}

LocaleChangeNotification::LocaleChangeNotification(std::shared_ptr<Locale> spNew, std::shared_ptr<Locale> spOld)
    : m_spNew(std::move(spNew)), m_spOld(std::move(spOld))
{
}

void LocaleChangeNotification::Notify(NotificationListener& listener)
{
    if (auto* locale = dynamic_cast<SystemLocaleListener*>(&listener)) locale->OnLocaleChange(m_spNew, m_spOld);
}

// ---- construction ----

System::System()
    : m_sProductName("QelCore"),
      m_sProductVersion("5.0"),
      m_bCommonAppendsSubDir(true),
      m_bUserAppendsSubDir(true),
      m_bEnablePerUserData(false),
      m_AbortListeners(NotificationSupport::eFIRST_ADDED_FIRST),
      m_ShutdownListeners(NotificationSupport::eLAST_ADDED_FIRST),
      m_LocaleListeners(NotificationSupport::eFIRST_ADDED_FIRST),
      m_pDispatch(std::make_unique<DispatchState>())
{
    // The process: its folder and its file name.
    std::string executable = Platform::ExecutablePath();
    if (!executable.empty()) {
        PathName exePath(executable);
        PathName folder(exePath.GetBaseAndBranch());
        folder.ForceAsDir();
        m_sProcessPath = static_cast<const std::string&>(folder);
        m_sProcessName = exePath.GetLeafAndExt();
    } else {
        m_sProcessPath = "./";
        m_sProcessName = "Unknown";
    }

    ReadSettings();

    m_sCommonDataPath = Platform::CommonDataFolder();
    m_sUserDataPath = Platform::UserDataFolder();
    {
        PathName common(m_sCommonDataPath);
        common.ForceAsDir();
        m_sCommonDataPath = static_cast<const std::string&>(common);
        PathName user(m_sUserDataPath);
        user.ForceAsDir();
        m_sUserDataPath = static_cast<const std::string&>(user);
    }
    // Libraries beside this one are found through the library's run path ($ORIGIN): there is no
    // search folder to set here.

    m_sOsName = Platform::OsName();
    m_sHostName = Platform::HostName();

    s_pInstance.store(this, std::memory_order_release);
}

void System::ReadSettings()
{
    // "Korvel/" and the executable's name without its extension.
    PathName subDir("Korvel/");
    subDir.AddBranch(PathName(m_sProcessName).GetLeaf());

    Platform::IniFile settings;
    if (settings.Load(m_sProcessPath + sSETTINGS_FILE)) {
        std::string value;
        if (settings.GetString(sDEFAULT_SECTION, sAPP_DATA_SUB_DIR, value) && !value.empty()) subDir = value;
        if (settings.GetString(m_sProcessName, sAPP_DATA_SUB_DIR, value) && !value.empty()) subDir = value;
        // A section can only switch per-user data on; the process's section is asked only
        // when the default one left it off.
        if (settings.GetInt(sDEFAULT_SECTION, sENABLE_PER_USER_DATA, 0) != 0) m_bEnablePerUserData = true;
        else if (settings.GetInt(m_sProcessName, sENABLE_PER_USER_DATA, 0) != 0) m_bEnablePerUserData = true;
    }

    PathName appDataSubDir(subDir);
    appDataSubDir.ForceAsDir();
    QEL_ASSERT(appDataSubDir.IsRelative());
    m_sAppDataSubDir = static_cast<const std::string&>(appDataSubDir);
}

System::~System()
{
    s_pInstance.store(nullptr, std::memory_order_release);
}

System* System::Instance()
{
    return s_pInstance.load(std::memory_order_acquire);
}

// ---- identity ----


const std::string& System::GetProductName()
{
    static const std::string name("QelCore");
    System* system = Instance();
    return system == nullptr ? name : system->m_sProductName;
}

void System::GetProductName(std::string& out)
{
    out = GetProductName();
}

const std::string& System::GetProductVersion()
{
    static const std::string version("5.0");
    System* system = Instance();
    return system == nullptr ? version : system->m_sProductVersion;
}

void System::GetProductVersion(std::string& out)
{
    out = GetProductVersion();
}

// Host and OS never change after construction: their references stay valid while the object is.
const std::string& System::GetHostName()
{
    System* system = Instance();
    return system == nullptr ? Detail::EmptyText() : system->m_sHostName;
}

void System::GetHostName(std::string& out)
{
    out = GetHostName();
}

const std::string& System::GetOsName()
{
    System* system = Instance();
    return system == nullptr ? Detail::EmptyText() : system->m_sOsName;
}

void System::GetOsName(std::string& out)
{
    out = GetOsName();
}

std::string System::GetProcessName()
{
    System* system = Instance();
    if (system == nullptr) return std::string();
    ReaderLock guard(system->m_Lock);
    return system->m_sProcessName;
}

void System::GetProcessName(std::string& out)
{
    out = GetProcessName();
}

std::string System::GetProcessPath()
{
    System* system = Instance();
    if (system == nullptr) return std::string();
    ReaderLock guard(system->m_Lock);
    return system->m_sProcessPath;
}

void System::GetProcessPath(std::string& out)
{
    out = GetProcessPath();
}

void System::SetProcessName(const std::string& name)
{
    System* system = Instance();
    if (system == nullptr) return;
    WriterLock guard(system->m_Lock);
    system->m_sProcessName = name;
}

void System::SetProcessPath(const std::string& path)
{
    System* system = Instance();
    if (system == nullptr) return;
    WriterLock guard(system->m_Lock);
    system->m_sProcessPath = path;
}

std::uint32_t System::GetProcessId()
{
    return Platform::ProcessId();
}

void System::GetProcessId(std::string& out)
{
    out = std::to_string(GetProcessId());
}

std::uint32_t System::GetCurrentThreadId()
{
    return Platform::ThreadIdFast();
}

void System::GetCurrentThreadId(std::string& out)
{
    out = std::to_string(GetCurrentThreadId());
}

unsigned System::GetNumProcessors()
{
    return Platform::NumProcessors();
}

std::string System::GetProcessorType()
{
    return Platform::ProcessorType();
}

std::string System::GetUserAccountName()
{
    return Platform::UserAccountName();
}

std::string System::GetUserDisplayName()
{
    return Platform::UserDisplayName();
}

bool System::GetModulePath(const std::string& sModule, std::string& sPath)
{
    std::string full;
    if (!Platform::LoadedModulePath(sModule, full)) return false;
    PathName folder(PathName(full).GetBaseAndBranch());
    folder.ForceAsDir();
    sPath = static_cast<const std::string&>(folder);
    return true;
}

// ---- data paths ----

std::string System::GetCommonDataPath()
{
    System* system = Instance();
    if (system == nullptr) return std::string();
    ReaderLock guard(system->m_Lock);
    return system->m_bCommonAppendsSubDir ? system->m_sCommonDataPath + system->m_sAppDataSubDir
                                          : system->m_sCommonDataPath;
}

std::string System::GetUserDataPath()
{
    System* system = Instance();
    if (system == nullptr) return std::string();
    {
        ReaderLock guard(system->m_Lock);
        if (!system->m_bUserAppendsSubDir) return system->m_sUserDataPath;
        if (system->m_bEnablePerUserData) return system->m_sUserDataPath + system->m_sAppDataSubDir;
    }
    // Without per-user data all users share the common folder.
    return GetCommonDataPath();
}

std::string System::GetAppDataSubDir()
{
    System* system = Instance();
    if (system == nullptr) return std::string();
    ReaderLock guard(system->m_Lock);
    return system->m_sAppDataSubDir;
}

void System::SetCommonDataPath(const std::string& path)
{
    System* system = Instance();
    if (system == nullptr) return;
    PathName folder(path);
    folder.ForceAsDir();
    WriterLock guard(system->m_Lock);
    system->m_sCommonDataPath = static_cast<const std::string&>(folder);
    system->m_bCommonAppendsSubDir = false;
}

void System::SetUserDataPath(const std::string& path)
{
    System* system = Instance();
    if (system == nullptr) return;
    PathName folder(path);
    folder.ForceAsDir();
    WriterLock guard(system->m_Lock);
    system->m_sUserDataPath = static_cast<const std::string&>(folder);
    system->m_bUserAppendsSubDir = false;
}

void System::SetAppDataSubDir(const std::string& path)
{
    System* system = Instance();
    if (system == nullptr) return;
    PathName folder(path);
    folder.ForceAsDir();
    {
        const PathName& path = folder; // the name the assertion text shows
        QEL_ASSERT(path.IsRelative());
    }
    WriterLock guard(system->m_Lock);
    system->m_sAppDataSubDir = static_cast<const std::string&>(folder);
}

// ---- temporary files ----

bool System::GetTempDir(std::string& sDir)
{
    return Platform::TempFolder(sDir);
}

bool System::CreateTempFileName(std::string& sName, const std::string& sPrefix)
{
    std::string folder;
    if (!GetTempDir(folder)) return false;
    return Platform::FreeTempFileName(folder, sPrefix, sName);
}

// ---- threads ----

void System::SetCurrentThreadName(const std::string& name)
{
    System* system = Instance();
    if (system == nullptr) return;
    std::uint32_t id = Platform::ThreadIdFast();
    {
        WriterLock guard(system->m_Lock);
        if (system->m_ThreadNames.count(id) != 0) return; // a thread is named once
        auto result = system->m_ThreadNames.emplace(id, name);
        QEL_ASSERT(result.second == true);
    }
    Platform::AnnounceThreadName(name);
}

void System::GetCurrentThreadName(std::string& name)
{
    name.clear();
    System* system = Instance();
    if (system == nullptr) return;
    ReaderLock guard(system->m_Lock);
    auto found = system->m_ThreadNames.find(Platform::ThreadIdFast());
    if (found != system->m_ThreadNames.end()) name = found->second;
}

void System::InitThread(Thread& thread)
{
    // Linux has no locale of a thread to set: the library's look-ups follow the current locale.
    System* system = Instance();
    if (system == nullptr) return;
    std::string name = thread.GetName();
    {
        WriterLock guard(system->m_Lock);
        system->m_ThreadNames[Platform::ThreadIdFast()] = name;
    }
    Platform::AnnounceThreadName(name);
}

bool System::IsThreadWaitingOnDispatch(std::uint32_t threadId)
{
    if (threadId == MainThread::g_iMainThreadId.load(std::memory_order_relaxed) && threadId != 0) return false;
    System* system = Instance();
    if (system == nullptr) return false;
    std::lock_guard<std::mutex> guard(system->m_pDispatch->m_Mutex);
    return system->m_DispatchingThreads.count(threadId) != 0;
}

void System::DispatchController::BeginThreadDispatch()
{
    if (MainThread::IsMain()) return;
    System* system = Instance();
    if (system == nullptr) return;
    std::lock_guard<std::mutex> guard(system->m_pDispatch->m_Mutex);
    system->m_DispatchingThreads.insert(Platform::ThreadIdFast());
}

void System::DispatchController::EndThreadDispatch()
{
    if (MainThread::IsMain()) return;
    System* system = Instance();
    if (system == nullptr) return;
    std::lock_guard<std::mutex> guard(system->m_pDispatch->m_Mutex);
    system->m_DispatchingThreads.erase(Platform::ThreadIdFast());
}

// ---- locale ----

std::shared_ptr<Locale> System::GetLocale()
{
    System* system = Instance();
    if (system == nullptr) return nullptr;
    return system->m_spLocale.load();
}

bool System::SetLocale(std::shared_ptr<Locale> spLocale)
{
    System* system = Instance();
    if (system == nullptr) return false;
    if (!spLocale || spLocale == system->m_spLocale.load()) return spLocale == system->m_spLocale.load();
    std::shared_ptr<Locale> spOld;
    {
        WriterLock guard(system->m_Lock);
        spOld = system->m_spLocale.load();
        if (spOld == spLocale) return true;
        system->m_spLocale.store(spLocale);
        // Linux has no locale of a thread to set here: the library's own look-ups follow the
        // current locale.
    }
    LocaleChangeNotification notification(spLocale, spOld);
    system->m_LocaleListeners.Broadcast(notification, true);
    return system->m_spLocale.load() == spLocale;
}

// ---- events ----

void System::AddAbortListener(AbortListener& listener)
{
    if (System* system = Instance()) system->m_AbortListeners.AddListener(listener);
}

void System::RemoveAbortListener(AbortListener& listener)
{
    if (System* system = Instance()) system->m_AbortListeners.RemoveListener(listener);
}

void System::AddShutdownListener(ShutdownListener& listener)
{
    if (System* system = Instance()) system->m_ShutdownListeners.AddListener(listener);
}

void System::RemoveShutdownListener(ShutdownListener& listener)
{
    if (System* system = Instance()) system->m_ShutdownListeners.RemoveListener(listener);
}

bool System::SetLocale(const LocaleName& localeName)
{
    std::shared_ptr<Locale> spLocale = Locale::Acquire(localeName);
    if (!spLocale) QEL_RAISE_ERROR(InvalidLocale(localeName.ToString()), "Qel.System.SetLocale");
    return SetLocale(spLocale);
}

void System::AddLocaleListener(SystemLocaleListener& listener)
{
    if (System* system = Instance()) system->m_LocaleListeners.AddListener(listener);
}

void System::RemoveLocaleListener(SystemLocaleListener& listener)
{
    if (System* system = Instance()) system->m_LocaleListeners.RemoveListener(listener);
}

void System::SignalAbort()
{
    System* system = Instance();
    if (system == nullptr) return;
    static AbortNotification s_Abort;
    system->m_AbortListeners.Broadcast(s_Abort, true);
}

void System::SignalShutdown()
{
    System* system = Instance();
    if (system == nullptr) return;
    {
        std::lock_guard<std::mutex> guard(system->m_pDispatch->m_Mutex);
        system->m_DispatchingThreads.clear();
    }
    static ShutdownNotification s_Shutdown;
    system->m_ShutdownListeners.Broadcast(s_Shutdown, true);
    SetMessagePump(nullptr);
}

// ---- message pump ----

void System::PumpMessages(int iMaxMessages)
{
    System* system = Instance();
    if (system == nullptr) return;
    std::shared_ptr<CallbackArg<int>> spPump;
    {
        std::lock_guard<std::mutex> guard(system->m_pDispatch->m_Mutex);
        spPump = system->m_spMessagePump;
    }
    if (spPump) {
        (*spPump)(iMaxMessages);
        return;
    }
    // The built-in loop: a Linux thread has no message queue, so there is never a message to
    // handle, and the loop's limits (the count, 250 ms) are never reached.
}

std::shared_ptr<CallbackArg<int>> System::SetMessagePump(std::shared_ptr<CallbackArg<int>> spPump)
{
    System* system = Instance();
    if (system == nullptr) return nullptr;
    std::lock_guard<std::mutex> guard(system->m_pDispatch->m_Mutex);
    std::swap(system->m_spMessagePump, spPump);
    return spPump;
}

// ---- details of a code position ----

void AddSystemDetails(CodeContext& context)
{
    if (IsUnloading() || System::Instance() == nullptr) return;
    std::string value;
    auto put = [&context](const std::string& key, const std::string& text) {
        if (!text.empty()) context.SetInfo(key, text);
    };
    put(CodeContext::sPROCESS, System::GetProcessName());
    System::GetProcessId(value);
    put(CodeContext::sPROCESS_ID, value);
    System::GetCurrentThreadName(value);
    put(CodeContext::sTHREAD, value);
    System::GetCurrentThreadId(value);
    put(CodeContext::sTHREAD_ID, value);
    put(CodeContext::sOPERATING_SYSTEM, System::GetOsName());
    put(CodeContext::sHOST, System::GetHostName());
}

// ---- path macros ----

std::string ExpandPathMacros(const std::string& s)
{
    static const std::string common[] = {"$(CommonDataPath)", "$(commondatapath)"};
    static const std::string user[] = {"$(UserDataPath)", "$(userdatapath)"};
    for (const std::string& macro : common)
        if (s.compare(0, macro.size(), macro) == 0) return System::GetCommonDataPath() + s.substr(macro.size());
    for (const std::string& macro : user)
        if (s.compare(0, macro.size(), macro) == 0) return System::GetUserDataPath() + s.substr(macro.size());
    return s;
}

} // namespace Qel::Core
