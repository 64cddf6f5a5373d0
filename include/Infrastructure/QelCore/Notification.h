// The observer pattern of the library: sources, listeners and notifications.
//
// A NotificationSupport is an event source, a NotificationListener a subscriber, a Notification
// one event that knows which method of which listener class to call. The link is two-way: the
// destructor of either side cleans the other, so neither has to outlive the other. A broadcast
// with catching turns whatever a listener throws into a warning and goes on. A listener may
// remove itself, or any other listener, during a broadcast. Each source calls its listeners
// first-added-first or last-added-first, and listeners may claim priority among themselves.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Mutex.h"

#include <atomic>
#include <list>
#include <unordered_set>

namespace Qel::Core {

QEL_DEFINE_WARNING_API(QEL_CORE_API, ListenerErrorOnNotification, Warning,
                       "Listener threw error during notification: Listener->%1% : Notification->%2% : %3%",
                       std::string, std::string, std::string)
QEL_DEFINE_WARNING_API(QEL_CORE_API, ListenerErrorOnRemoval, Warning,
                       "Listener threw error during removal from source: %1%", std::string)

class NotificationSupport;
class NotificationListener;

// The interface of a listener, as the sources see it.
struct QEL_CORE_API IQelNotificationListener
{
    virtual void AddNotificationSource(NotificationSupport& source) = 0;
    virtual void RemoveNotificationSource(NotificationSupport& source) = 0;

protected:
    ~IQelNotificationListener() = default;
};

class QEL_CORE_API NotificationListener : public IQelNotificationListener
{
public:
    NotificationListener();
    NotificationListener(const NotificationListener&) = delete;
    NotificationListener& operator=(const NotificationListener&) = delete;

    // Called by the sources from their own operations; user code calls AddListener and
    // RemoveListener on the source instead.
    void AddNotificationSource(NotificationSupport& source) override;
    void RemoveNotificationSource(NotificationSupport& source) override;
    // Ends every link: each source removes this listener.
    virtual ~NotificationListener();
    virtual bool IsPrioritized() const { return false; }
    virtual bool IsHigherPriorityThan(const NotificationListener&) const { return false; }

    void RemoveAllNotificationSources();
    // Number of sources that hold this listener.
    std::size_t GetNumSources() const;

protected:
    // Told once for each source that lets this listener go. A derived class that wants its
    // override called at its end ends its links in its own destructor.
    virtual void NotificationSourceIsRemoved(const NotificationSupport&) {}

private:
    std::unordered_set<NotificationSupport*> m_Sources;
    mutable Mutex m_SourcesLock;
};

// One event: a short-lived object that knows which listener method to call.
class QEL_CORE_API Notification
{
public:
    Notification() = default;
    virtual ~Notification();
    // Casts the listener to the class it knows and calls it; other listeners are passed over.
    virtual void Notify(NotificationListener& listener) = 0;
    // Asked once per listener, just before Notify.
    virtual bool ShouldBeBroadcast() { return true; }
};

class QEL_CORE_API NotificationSupport
{
public:
    enum ENotificationOrder : std::int32_t { eFIRST_ADDED_FIRST = 0, eLAST_ADDED_FIRST = 1 };

    explicit NotificationSupport(ENotificationOrder order = eFIRST_ADDED_FIRST);
    NotificationSupport(const NotificationSupport&) = delete;
    NotificationSupport& operator=(const NotificationSupport&) = delete;
    // Lets every listener go (each is told) before the source goes.
    virtual ~NotificationSupport();

    // A listener that is there already is ignored.
    void AddListener(NotificationListener& listener);
    // A listener that is not there is ignored. If the listener throws while it is let go, the
    // warning ListenerErrorOnRemoval is raised and it stays.
    void RemoveListener(NotificationListener& listener);
    void RemoveAllListeners();
    // Calls every listener, on this thread, with the source's lock held. With `catchErrors`,
    // what a listener throws becomes the warning ListenerErrorOnNotification and the next one is
    // called; without, it leaves Broadcast and the rest are not called.
    void Broadcast(Notification& notification, bool catchErrors);

    // Snapshots, read without the lock.
    int GetNumListeners() const;
    bool HasListeners() const;

private:
    struct Entry
    {
        NotificationListener* pListener; // null once removed during a broadcast
    };
    using List = std::list<Entry>;

    void notify(NotificationListener& listener, Notification& notification) const;
    void notify_with_catch(NotificationListener& listener, Notification& notification) const;
    List::iterator Find(NotificationListener& listener);
    void Erase(List::iterator element);
    void Compact();

    List m_Listeners;
    mutable Mutex m_ListenersLock;
    ENotificationOrder m_Order;
    std::atomic<int> m_iCount;     // listeners in the list that are not removed
    int m_iBroadcastDepth;         // broadcasts running on the owning thread
};

// The process-wide lock that orders the destructors of sources and listeners against each other.
QEL_CORE_API Mutex& NotificationTeardownLock();

} // namespace Qel::Core
