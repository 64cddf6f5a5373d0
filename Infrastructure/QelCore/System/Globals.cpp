// The library frame: entry points, state flags, managed globals and the singleton registry.
#include "Infrastructure/QelCore/System/Frame.h"

#include "Infrastructure/QelCore/AlertManager.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/LogManager.h"
#include "Infrastructure/QelCore/ErrorHandling/FatalError.h"
#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Platform/FatalExit.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Platform/Threads.h"
#include "Infrastructure/QelCore/System.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"

#include <atomic>
#include <cstdint>
#include <iostream>

namespace Qel::Core {
namespace {

// Process-wide flags of the frame. Initialize and Shutdown are called from one thread at a time;
// the unloading and fatal flags only ever go from false to true, and other threads (the log's
// worker among them, which runs until Shutdown stops it) read them meanwhile: atomic bytes.
bool s_bFirstInitialize = true;
bool s_bShutdownBegun = false;
std::atomic<bool> s_bUnloading{false};
std::atomic<bool> s_bFatalExit{false};

} // namespace

bool Frame::ShutdownBegun()
{
    return s_bShutdownBegun;
}

bool IsFatalExit()
{
    return s_bFatalExit;
}

bool IsUnloading()
{
    return s_bUnloading;
}

void FatalExit(int status)
{
    // The first caller ends the process. A second call from the thread that is already in exit
    // (a terminate in an exit handler) may not call exit again: it ends the process at once. A
    // call from another thread waits for the first to finish.
    static std::atomic<std::uint32_t> s_iExitingThread{0};
    const std::uint32_t self = Platform::CurrentThreadId();
    std::uint32_t first = 0;
    if (!s_iExitingThread.compare_exchange_strong(first, self)) {
        if (first == self) Platform::QuickExit(status);
        Platform::ParkThread();
    }
    Platform::ArmFatalExitGuards(status, FatalErrors::ExitLimit());
    s_bFatalExit = true;
    Platform::ExitProcess(status);
}

void Initialize()
{
    if (s_bFirstInitialize) {
        // One throw through the whole error machinery, so that the exception runtime and the
        // symbol engine are warmed up before a real error needs them. No listener hears of it.
        try {
            ErrorHandlingPrimer primer;
            primer.PrimeAndThrow();
        } catch (ErrorHandlingPrimer&) {
            std::cout << "Error handling started up via initial throw..." << std::endl;
        }
        s_bFirstInitialize = false;
    }
    StandIns::FaultAdapterInitialize();
}

void Shutdown()
{
    if (s_bShutdownBegun) return;
    s_bShutdownBegun = true;
    System::SignalShutdown();
    // In a fatal exit other threads of the host may still be inside the library's objects: they
    // are shut down but not destroyed (the process is ending anyway).
    const bool fatal = IsFatalExit();
    try {
        if (!fatal) Frame::DestroyAllSingletons();
    } catch (...) {
        // A failing singleton does not stop the shutdown.
    }
    // The log manager goes here, not at unload; nothing reaches it afterwards.
    if (LogManager* manager = LogManager::Instance()) {
        try {
            manager->Shutdown();
        } catch (...) {
        }
        if (!fatal) {
            Globals::Instance().m_pLogManager = nullptr;
            Globals::Instance().Remove<LogManager>("LogManager");
        }
    }
    StandIns::ReleaseDebugHelp();
}

// ---- managed globals ----

GlobalEntryBase::~GlobalEntryBase() = default;

ManagedGlobals::ManagedGlobals() = default;

ManagedGlobals::~ManagedGlobals()
{
    try {
        DestroyAll();
    } catch (...) {
    }
}

void* ManagedGlobals::Append(std::shared_ptr<GlobalEntryBase> entry)
{
    std::shared_ptr<GlobalEntryBase> late; // a second object built for a taken key goes outside the lock
    Lock guard(m_Lock);
    auto [found, added] = m_Index.try_emplace(entry->GetKey(), entry.get());
    if (!added) {
        late = std::move(entry);
        void* present = found->second->Object();
        guard.Release();
        return present;
    }
    void* object = entry->Object();
    m_Entries.push_back(std::move(entry));
    return object;
}

void* ManagedGlobals::Find(const std::string& key, const std::type_info& type) const
{
    Lock guard(m_Lock);
    auto found = m_Index.find(key);
    if (found == m_Index.end() || found->second->ObjectType() != type) return nullptr;
    return found->second->Object();
}

void ManagedGlobals::RemoveKey(const std::string& key)
{
    std::shared_ptr<GlobalEntryBase> doomed;
    {
        Lock guard(m_Lock);
        auto found = m_Index.find(key);
        if (found == m_Index.end()) return;
        GlobalEntryBase* entry = found->second;
        m_Index.erase(found);
        for (auto it = m_Entries.begin(); it != m_Entries.end(); ++it) {
            if (it->get() == entry) {
                doomed = std::move(*it);
                m_Entries.erase(it);
                break;
            }
        }
    }
    // The object goes here, outside the lock.
}

void ManagedGlobals::DestroyAll()
{
    Lock guard(m_Lock);
    if (IsFatalExit()) {
        // The process is ending through its fatal path while other threads may still use the
        // objects: they are left alive, and nothing reaches them through the registry any more.
        auto* abandoned = new std::list<std::shared_ptr<GlobalEntryBase>>(std::move(m_Entries));
        Platform::KeepForever(abandoned);
        m_Entries.clear();
        m_Index.clear();
        return;
    }
    while (!m_Entries.empty()) {
        std::shared_ptr<GlobalEntryBase> doomed = std::move(m_Entries.back());
        m_Entries.pop_back();
        m_Index.erase(doomed->GetKey());
        guard.Release();
        doomed.reset(); // outside the lock
        guard.Reset(m_Lock);
    }
}

std::size_t ManagedGlobals::Size() const
{
    Lock guard(m_Lock);
    return m_Entries.size();
}

std::list<std::string> ManagedGlobals::Keys() const
{
    Lock guard(m_Lock);
    std::list<std::string> keys;
    for (const auto& entry : m_Entries) keys.push_back(entry->GetKey());
    return keys;
}

Globals::Globals() : m_sDefaultLocale("en-US"), m_sStringTableFile("QelStringTables.xml")
{
    // The process-wide services register here, in this order, as they come into the library:
    // System, LocaleManager (then its Init), AlertManager (which adds CurrentErrors), LogManager.
    m_pSystem = Add<System>("System");
    m_pLocaleManager = Add<LocaleManager>("LocaleManager");
    m_pLocaleManager->Init();
    Add<AlertManager>("AlertManager");
    m_pLogManager = Add<LogManager>("LogManager");
}

Globals::~Globals()
{
    // The objects go while the pointers to them are still members of this object.
    try {
        DestroyAll();
    } catch (...) {
    }
}

// ---- singletons ----

ISingletonRegistryEntry::~ISingletonRegistryEntry() = default;

void SingletonRegistry::Register(ISingletonRegistryEntry* entry)
{
    Lock guard(Frame::SingletonMutex());
    auto& list = Frame::SingletonList();
    for (ISingletonRegistryEntry* present : list)
        if (present == entry) return;
    list.push_front(entry);
}

void SingletonRegistry::Unregister(const ISingletonRegistryEntry* entry)
{
    Lock guard(Frame::SingletonMutex());
    Frame::SingletonList().remove(const_cast<ISingletonRegistryEntry*>(entry));
}

std::size_t SingletonRegistry::Size()
{
    Lock guard(Frame::SingletonMutex());
    return Frame::SingletonList().size();
}

SingletonSlot& SingletonRegistry::SlotOf(const std::type_info& type)
{
    // Slots are never destroyed: a module may still hold a reference to one after the library's
    // own statics are gone. The map's nodes do not move, so references stay valid as it grows.
    static Utilities::Immortal<std::unordered_map<std::string, SingletonSlot>> s_Slots;
    // A class local to one module carries a leading '*' in its type name; the same name in
    // another module is another class, so its key also holds the address of the type information.
    std::string key = type.name();
    if (!key.empty() && key[0] == '*') key += '@' + std::to_string(reinterpret_cast<std::uintptr_t>(&type));
    Lock guard(Frame::SingletonMutex());
    return s_Slots.Get().try_emplace(key).first->second;
}

void SingletonRegistry::DestroyAllSingletons()
{
    Frame::DestroyAllSingletons();
}

void Frame::DestroyAllSingletons()
{
    std::list<ISingletonRegistryEntry*> entries;
    {
        Lock guard(SingletonMutex());
        entries.swap(SingletonList());
    }
    for (ISingletonRegistryEntry* entry : entries) entry->Destroy();
}

// ---- leak detection: an interface with no effect ----

namespace Memory {
MemoryLeakDetection::MemoryLeakDetection(int) {}
MemoryLeakDetection::~MemoryLeakDetection() = default;
MemoryLeakDetectOnOff::MemoryLeakDetectOnOff(int) {}
MemoryLeakDetectOnOff::~MemoryLeakDetectOnOff() = default;
} // namespace Memory

// ---- unload ----

void Frame::OnLibraryUnload()
{
    // Threads of the library that are on their way out finish before the library changes state
    // under them and its objects go.
    Platform::FinishThreads(2000);
    s_bUnloading = true;
    if (!s_bShutdownBegun) {
        Platform::DebugOutput(std::string("Calling Qel::Core::Shutdown from QelCore.dll unload.  This may result in ") +
                              "false memory leak reporting.  To avoid this call Qel::Core::Shutdown when " +
                              "the application is exiting but not from an ::atexit() handler (e.g. from" +
                              "ExitInstance)");
        Shutdown();
    }
    // The log's worker, stopped by Shutdown, is off the library's code before it goes.
    Platform::FinishThreads(2000);
    StandIns::FaultAdapterShutdown();
    Globals::Instance().DestroyAll();
}

} // namespace Qel::Core

// ---- plain entry points ----

extern "C" {
void InitializeQelCore()
{
    Qel::Core::Initialize();
}

void ShutdownQelCore()
{
    Qel::Core::Shutdown();
}

bool IsQelCoreDebug()
{
    return false;
}
}
