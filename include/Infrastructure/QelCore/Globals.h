// The library frame: start and stop of the library, the managed globals and singletons.
//
// The process-wide objects of the library are built when it is loaded, before any entry point is
// called, and go down in reverse order of creation. InitializeQelCore only primes the error
// machinery; a host that never calls it still has a working library. If the host does not call
// ShutdownQelCore, the library's unload calls Shutdown itself and says so on the debug output.
#pragma once

#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/QelCoreExport.h"
#include "Infrastructure/QelCore/TypeNames.h"

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

// ---- plain entry points, found by name with dlsym ----
extern "C" {
// Primes the error machinery (once per process) and counts one more user of the fault adapter.
QEL_CORE_API void InitializeQelCore();
// Runs the library's shutdown; a second call does nothing.
QEL_CORE_API void ShutdownQelCore();
// False: this is a release library.
QEL_CORE_API bool IsQelCoreDebug();
}

namespace Qel::Core {

QEL_CORE_API void Initialize();
QEL_CORE_API void Shutdown();

// The state of the library frame, which every path in a destructor consults.
QEL_CORE_API bool IsFatalExit();
QEL_CORE_API bool IsUnloading();
// Marks the process as leaving through the fatal path and ends it with `status` through the C
// runtime's exit (a status of -1 is 255 on Linux).
[[noreturn]] QEL_CORE_API void FatalExit(int status);

// The lock of the frame's registries: held only around container work, never while an object is
// built or destroyed.
using FrameMutex = Mutex;

// The untyped entry of a managed global.
class QEL_CORE_API GlobalEntryBase
{
public:
    explicit GlobalEntryBase(std::string key) : m_sKey(std::move(key)) {}
    virtual ~GlobalEntryBase();
    // The owned object, untyped.
    virtual void* Object() const = 0;
    const std::string& GetKey() const { return m_sKey; }
    // The class of the owned object. Compared with type_info's equality, which matches a class
    // by name across the library, the host and its modules (each holds its own copy of the
    // type information of a class built with hidden visibility).
    virtual const std::type_info& ObjectType() const = 0;

private:
    std::string m_sKey;
};

// Owns one process-wide object, built with T's default constructor.
template <typename T>
class Global : public GlobalEntryBase
{
public:
    // Built with new, not make_shared: a class that only its Global may build befriends Global<T>.
    explicit Global(std::string key) : GlobalEntryBase(std::move(key)), m_spObject(new T()) {}
    T* Get() const { return m_spObject.get(); }
    const std::type_info& ObjectType() const override { return typeid(T); }
    void* Object() const override { return m_spObject.get(); }

private:
    std::shared_ptr<T> m_spObject;
};

// The registry of process-wide objects, torn down in reverse order of creation. Each object is
// destroyed outside the registry's lock, so a destructor may use the registry.
class QEL_CORE_API ManagedGlobals
{
public:
    ManagedGlobals();
    ManagedGlobals(const ManagedGlobals&) = delete;
    ManagedGlobals& operator=(const ManagedGlobals&) = delete;
    virtual ~ManagedGlobals();

    // Builds a T (outside the lock: a T that adds globals in its constructor ends up behind
    // them) and appends it under `name`. There is one object per name and class in a registry:
    // when the name is taken already (by whichever module asked first), that object is given
    // and no second one is kept.
    template <typename T>
    T* Add(const std::string& name)
    {
        if (T* present = Get<T>(name)) return present;
        auto entry = std::make_shared<Global<T>>(KeyOf<T>(name));
        return static_cast<T*>(Append(std::move(entry)));
    }

    // The object registered under `name` with class T, or null. Works from any module of the
    // process: the class is matched by type_info equality, not by a dynamic cast (which fails
    // across modules for classes built with hidden visibility).
    template <typename T>
    T* Get(const std::string& name)
    {
        return static_cast<T*>(Find(KeyOf<T>(name), typeid(T)));
    }

    // Takes the entry out and destroys its object outside the lock; an unknown name is ignored.
    template <typename T>
    void Remove(const std::string& name)
    {
        RemoveKey(KeyOf<T>(name));
    }

    // Destroys every entry, newest first, each outside the lock.
    void DestroyAll();

    // Number of entries, and their keys in order of creation (for diagnostics and tests).
    std::size_t Size() const;
    std::list<std::string> Keys() const;

private:
    template <typename T>
    static std::string KeyOf(const std::string& name)
    {
        return name + TypeName(typeid(T));
    }
    // Enters `entry` unless its key is there already; gives the object kept under the key.
    void* Append(std::shared_ptr<GlobalEntryBase> entry);
    // The object under `key` when it is of class `type`, else null.
    void* Find(const std::string& key, const std::type_info& type) const;
    void RemoveKey(const std::string& key);

    mutable FrameMutex m_Lock;
    std::list<std::shared_ptr<GlobalEntryBase>> m_Entries;
    std::unordered_map<std::string, GlobalEntryBase*> m_Index;
};

class System;
class AlertManager;
class LogManager;
class LocaleManager;

// The one instance of the managed globals, a static object of the library built at load.
class QEL_CORE_API Globals : public ManagedGlobals
{
public:
    Globals();
    ~Globals() override;

    // The library's instance.
    static Globals& Instance();

    System* m_pSystem = nullptr;           // what System::Instance() gives while it lives
    LocaleManager* m_pLocaleManager = nullptr; // the locale manager, once made
    // What LogManager::Instance() gives: set at load, cleared when Shutdown destroys the manager.
    std::atomic<LogManager*> m_pLogManager{nullptr};
    const std::string m_sDefaultLocale;    // "en-US"
    const std::string m_sStringTableFile;  // "QelStringTables.xml"
};

// Interface of a registered singleton.
class QEL_CORE_API ISingletonRegistryEntry
{
public:
    virtual ~ISingletonRegistryEntry();
    virtual void Destroy() = 0;
};

// The instance of one singleton class: kept by the library, one per class in the process.
struct SingletonSlot
{
    std::atomic<void*> m_pInstance{nullptr};
    FrameMutex m_Mutex; // guards building and destroying the instance
};

// The list of lazily built singletons, destroyed newest first by Shutdown.
class QEL_CORE_API SingletonRegistry
{
public:
    // Puts the entry at the front unless it is there already.
    static void Register(ISingletonRegistryEntry* entry);
    static void Unregister(const ISingletonRegistryEntry* entry);
    // Number of registered entries.
    static std::size_t Size();
    // The slot of the class `type`, made on first use and kept for the life of the process. A
    // class is one class whichever module asks (the host, the library, a plug-in): the slot is
    // found by the class's type name, except for classes local to one module (anonymous
    // namespaces), which each module has for itself.
    static SingletonSlot& SlotOf(const std::type_info& type);

private:
    SingletonRegistry();
    virtual ~SingletonRegistry();
    static void DestroyAllSingletons();
    friend QEL_CORE_API void Shutdown();
    friend class SingletonRegistryTestAccess;
};

// Base of a class that wants one lazily built instance. The instance is built by the first
// Instance() (once, whatever the number of threads and modules asking) and destroyed by
// Shutdown; a later Instance() builds a new one. The instance pointer lives in the library, not
// in this template, so a host and the modules it loads all share one instance.
template <typename T>
class Singleton : public ISingletonRegistryEntry
{
public:
    static T* Instance()
    {
        SingletonSlot& slot = Slot();
        void* instance = slot.m_pInstance.load(std::memory_order_acquire);
        if (instance != nullptr) return static_cast<T*>(instance);
        Lock guard(slot.m_Mutex);
        instance = slot.m_pInstance.load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = new T();
            slot.m_pInstance.store(instance, std::memory_order_release);
        }
        return static_cast<T*>(instance);
    }

    // Whether the instance exists; takes no lock.
    static bool IsInstantiated() { return Slot().m_pInstance.load(std::memory_order_acquire) != nullptr; }

protected:
    Singleton() { SingletonRegistry::Register(this); }
    ~Singleton() override { SingletonRegistry::Unregister(this); }

    void Destroy() override
    {
        SingletonSlot& slot = Slot();
        Lock guard(slot.m_Mutex);
        T* instance = static_cast<T*>(slot.m_pInstance.exchange(nullptr, std::memory_order_acq_rel));
        delete instance;
    }

private:
    // Each module caches the reference; the slot itself never moves or goes.
    static SingletonSlot& Slot()
    {
        static SingletonSlot& s_Slot = SingletonRegistry::SlotOf(typeid(T));
        return s_Slot;
    }
};

namespace Memory {

// Scope and constant classes of a leak detector: present as an interface, with no effect.
class QEL_CORE_API MemoryLeakDetection
{
public:
    explicit MemoryLeakDetection(int enable);
    virtual ~MemoryLeakDetection();
};

class QEL_CORE_API MemoryLeakDetectOnOff
{
public:
    explicit MemoryLeakDetectOnOff(int enable);
    virtual ~MemoryLeakDetectOnOff();
};

QEL_CORE_API extern const MemoryLeakDetectOnOff DisableLeak; // built with 1
QEL_CORE_API extern const MemoryLeakDetectOnOff EnableLeak;  // built with 0

// Holds a T built in its constructor inside a leak-detection scope.
template <typename T>
class GlobalAllocator
{
public:
    template <typename... Args>
    explicit GlobalAllocator(Args&&... args)
    {
        MemoryLeakDetection scope(0);
        m_spObject = std::make_shared<T>(std::forward<Args>(args)...);
    }
    virtual ~GlobalAllocator() = default;
    const std::shared_ptr<T>& Get() const { return m_spObject; }

private:
    std::shared_ptr<T> m_spObject;
};

} // namespace Memory
} // namespace Qel::Core
