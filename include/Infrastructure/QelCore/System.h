// The process-wide facade of the library: what the process is, where it keeps its data, the names
// of its threads, its current locale, the abort, shutdown and locale events, the bookkeeping of
// threads that wait for work on the main thread, and the message pump of the main thread's waits.
//
// The one System object is built when the library is loaded, first of the library's managed
// globals, and destroyed when it is unloaded. Nearly everything is static; Instance() is null
// before and after that time, and the static functions then give empty texts and do nothing.
//
// Data folders on Linux:
// - The folder shared by all users is $QEL_COMMON_DATA_DIR if set, else /var/lib/ when the process
//   may create folders there, else the user's folder below.
// - The user's folder is $XDG_DATA_HOME if set and absolute, else $HOME/.local/share/.
// - The application's sub-directory is "Korvel/" plus the executable's name without extension
//   ("Korvel/Acquire/" for Acquire), unless "SystemInfo.ini" beside the executable says otherwise:
//       [default]                  ; read first
//       AppDataSubDir=Vendor/Tool  ; relative; a later non-empty value wins
//       EnablePerUserData=0        ; non-zero: the user path gets its own folder
//       [Acquire]                  ; the executable's file name, read second
//       AppDataSubDir=Acquire2
//   Without EnablePerUserData every user shares the common folder: GetUserDataPath() is then
//   GetCommonDataPath(). Nothing here creates the folders; their users do.
//
// Every function may be called from any thread. None raises, but SetAppDataSubDir with an
// absolute path fails an assertion (a programming error) and stores the path all the same.
#pragma once

#include "Infrastructure/QelCore/Callback.h"
#include "Infrastructure/QelCore/Notification.h"
#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/ReadersWriterMutex.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace Qel::Core {

class Locale;
class LocaleName;
class System;
class Thread;
QEL_CORE_API void Shutdown();

// ---- listeners and notifications of the three system events ----

// Hears SignalAbort: what an abort means is for the listener to decide.
class QEL_CORE_API AbortListener : public NotificationListener
{
public:
    virtual void OnAbort() = 0;
};

// Hears the library's shutdown, newest listener first.
class QEL_CORE_API ShutdownListener : public NotificationListener
{
public:
    virtual void OnShutdown() = 0;
};

// Hears a change of the process's locale.
class QEL_CORE_API SystemLocaleListener : public NotificationListener
{
public:
    virtual void OnLocaleChange(std::shared_ptr<Locale> spNew, std::shared_ptr<Locale> spOld) = 0;
};

class QEL_CORE_API AbortNotification : public Notification
{
public:
    void Notify(NotificationListener& listener) override;
};

class QEL_CORE_API ShutdownNotification : public Notification
{
public:
    void Notify(NotificationListener& listener) override;
};

class QEL_CORE_API LocaleChangeNotification : public Notification
{
public:
    LocaleChangeNotification(std::shared_ptr<Locale> spNew, std::shared_ptr<Locale> spOld);
    void Notify(NotificationListener& listener) override;

private:
    std::shared_ptr<Locale> m_spNew;
    std::shared_ptr<Locale> m_spOld;
};

namespace Detail {
// A shared pointer that threads read and replace at once, guarded by a plain mutex (the thread
// sanitizer cannot see through the lock bit inside std::atomic<std::shared_ptr>). The pointer that
// a store replaces is let go outside the lock.
template <typename T>
class SharedPointerCell
{
public:
    std::shared_ptr<T> load() const
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Pointer;
    }
    void store(std::shared_ptr<T> pointer)
    {
        {
            std::lock_guard<std::mutex> guard(m_Mutex);
            m_Pointer.swap(pointer);
        }
        pointer.reset();
    }

private:
    mutable std::mutex m_Mutex;
    std::shared_ptr<T> m_Pointer;
};
} // namespace Detail

class QEL_CORE_API System
{
public:
    // A code section that hands work to the main thread and blocks until the main thread has
    // done it brackets its wait with these calls. While a worker is between them, the main
    // thread may borrow the locks that worker holds instead of waiting for them. Calls on the
    // main thread do nothing.
    class QEL_CORE_API DispatchController
    {
    protected:
        static void BeginThreadDispatch();
        static void EndThreadDispatch();
    };

    ~System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // The one object; null before the library's globals are built and after they are gone.
    static System* Instance();

    // ---- identity ----

    static const std::string& GetProductName(); // "QelCore"
    static void GetProductName(std::string& out);
    static const std::string& GetProductVersion(); // "5.0"
    static void GetProductVersion(std::string& out);
    static const std::string& GetHostName(); // empty when unknown
    static void GetHostName(std::string& out);
    // E.g. "Debian GNU/Linux 12 (bookworm) build 6.1.0-27-amd64 (64 bit)".
    static const std::string& GetOsName();
    static void GetOsName(std::string& out);
    // The executable's file name, and its folder with a trailing separator ("Unknown" and "./"
    // when the executable cannot be found).
    static std::string GetProcessName();
    static void GetProcessName(std::string& out);
    static std::string GetProcessPath();
    static void GetProcessPath(std::string& out);
    static void SetProcessName(const std::string& name);
    static void SetProcessPath(const std::string& path);
    static std::uint32_t GetProcessId();
    static void GetProcessId(std::string& out); // decimal
    static std::uint32_t GetCurrentThreadId();
    static void GetCurrentThreadId(std::string& out); // decimal
    static unsigned GetNumProcessors();
    // "x64", "x86" or "Unknown Processor Type".
    static std::string GetProcessorType();
    // The login name and the user's full name; "Unknown" when not known.
    static std::string GetUserAccountName();
    static std::string GetUserDisplayName();
    // The folder, with a trailing separator, of a module loaded in the process: a shared library
    // by its file name ("libQelCore.so" also finds "libQelCore.so.0.1"), or the executable.
    static bool GetModulePath(const std::string& sModule, std::string& sPath);

    // ---- data paths (see above) ----

    static std::string GetCommonDataPath();
    static std::string GetUserDataPath();
    static std::string GetAppDataSubDir();
    // An explicit path is used as it stands, with a trailing separator and no sub-directory.
    static void SetCommonDataPath(const std::string& path);
    static void SetUserDataPath(const std::string& path);
    // Must be relative (the assertion "path.IsRelative()").
    static void SetAppDataSubDir(const std::string& path);

    // ---- temporary files ----

    // The temporary folder with a trailing separator; false when there is none.
    static bool GetTempDir(std::string& sDir);
    // A free name for a temporary file in the temporary folder, beginning with the prefix. No
    // file is left under the name. False when no name could be made.
    static bool CreateTempFileName(std::string& sName, const std::string& sPrefix);

    // ---- threads ----

    // Names the calling thread once: a thread that has a name keeps it. The name also shows in
    // debuggers and in /proc/<pid>/task/<tid>/comm (its first 15 bytes there).
    static void SetCurrentThreadName(const std::string& name);
    // The name of the calling thread; empty when it has none.
    static void GetCurrentThreadName(std::string& name);
    // Whether the thread waits in a dispatch to the main thread; never for the main thread.
    static bool IsThreadWaitingOnDispatch(std::uint32_t threadId);

    // ---- locale ----

    // The current locale (null while none is set); takes no lock.
    static std::shared_ptr<Locale> GetLocale();
    // Makes the locale current and tells the locale listeners (outside every lock of System).
    // An empty pointer or the current locale changes nothing and tells nobody. The result tells
    // whether the given locale is current afterwards.
    static bool SetLocale(std::shared_ptr<Locale> spLocale);
    // The locale of that name (Locale::Acquire); raises InvalidLocale under the logger
    // "Qel.System.SetLocale" if there is none, otherwise as above.
    static bool SetLocale(const LocaleName& localeName);

    // ---- events ----

    static void AddAbortListener(AbortListener& listener);
    static void RemoveAbortListener(AbortListener& listener);
    static void AddShutdownListener(ShutdownListener& listener);
    static void RemoveShutdownListener(ShutdownListener& listener);
    static void AddLocaleListener(SystemLocaleListener& listener);
    static void RemoveLocaleListener(SystemLocaleListener& listener);
    // Tells every abort listener, in the order they were added; blocks while they run.
    static void SignalAbort();

    // ---- the main thread's message pump ----

    // Handles at most `iMaxMessages` messages of the calling thread. With a pump installed, the
    // pump is called with the count and does the work. Linux threads have no message queue of
    // their own: without a pump nothing is handled and the call returns at once.
    static void PumpMessages(int iMaxMessages);
    // Installs a pump (a host with a GUI toolkit installs its own) and returns the one installed
    // before; an empty pointer restores the built-in behaviour.
    static std::shared_ptr<CallbackArg<int>> SetMessagePump(std::shared_ptr<CallbackArg<int>> spPump);

private:
    template <typename>
    friend class Global;
    friend QEL_CORE_API void Shutdown();
    friend class SystemTestAccess;
    friend class Thread;

    System();
    void ReadSettings();
    // Called by every new Thread on itself: the thread's name is registered for its id (a name
    // the id had is replaced) and shown to debuggers.
    static void InitThread(Thread& thread);
    // Tells the shutdown listeners, newest first; called once by the library's shutdown.
    static void SignalShutdown();

    // The dispatching threads and the pump are consulted from inside the main thread's lock
    // waits; they sit under a plain lock of their own that never waits on a library lock, so
    // that those waits cannot recurse.
    std::unordered_set<std::uint32_t> m_DispatchingThreads;
    std::shared_ptr<CallbackArg<int>> m_spMessagePump;
    std::string m_sProductName;
    std::string m_sProductVersion;
    std::string m_sHostName;
    std::string m_sOsName;
    std::string m_sProcessName;
    std::string m_sProcessPath;
    std::string m_sCommonDataPath;
    std::string m_sUserDataPath;
    std::string m_sAppDataSubDir;
    std::unordered_map<std::uint32_t, std::string> m_ThreadNames;
    bool m_bCommonAppendsSubDir;
    bool m_bUserAppendsSubDir;
    bool m_bEnablePerUserData;
    ReadersWriterMutex m_Lock;
    NotificationSupport m_AbortListeners;
    NotificationSupport m_ShutdownListeners;
    Detail::SharedPointerCell<Locale> m_spLocale;
    NotificationSupport m_LocaleListeners;
    struct DispatchState;
    std::unique_ptr<DispatchState> m_pDispatch;
};

} // namespace Qel::Core
