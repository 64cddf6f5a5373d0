// The observer pattern of the library: sources, listeners and notifications.
//
// A NotificationSupport is an event source, a NotificationListener a subscriber, a Notification
// one event that knows which method of which listener class to call. The link is two-way: the
// destructor of either side cleans the other, so neither has to outlive the other. A broadcast
// with catching turns whatever a listener throws into a warning and goes on. A listener may
// remove itself, or any other listener, during a broadcast. Each source calls its listeners
// first-added-first or last-added-first, and listeners may claim priority among themselves.
//
// Locks and teardown. Two kinds of lock take part, both reentrant Mutexes with unbounded waits:
// the source's lock (held for a whole broadcast, and by AddListener, RemoveListener,
// RemoveAllListeners and the source's destructor) and the listener's own lock over its set of
// sources. Every path that holds both takes the source's lock first. There is no process-wide
// teardown lock: a thread that ends a listener or a source waits for nothing but the locks of
// the objects it unlinks, and holds none of its own while it waits for one of those.
//
// How the two destructors stay safe against each other without one:
// - A source's lock lives in a small shared anchor together with a pointer back to the source.
//   Each listener keeps, per source, a shared reference to that anchor; so the lock outlives the
//   source, and a listener can always take it.
// - A source's destructor, under its lock, tells every listener in its list (each removes the
//   source from its set) and then clears the anchor's back pointer. Until it lets the lock go,
//   the source is whole.
// - A listener's teardown (RemoveAllNotificationSources, run by its destructor) empties its set
//   under its own lock, lets that lock go, and then for each anchor of the set takes the anchor's
//   lock: if the back pointer is still there, the source is alive (its destructor cannot pass
//   that lock) and drops the listener from its list; if it is cleared, the source has gone and
//   has dropped the listener already. Taking the source's lock also waits for a broadcast that
//   runs on another thread, so a listener whose destructor has returned is never called again.
// - A source that tells a listener of its end does so inside the listener's own lock; a
//   listener's teardown takes that lock to empty its set, so it cannot finish while a source
//   is still in the middle of telling it.
// Therefore: a listener may build and end listeners and sources, add and remove listeners, and
// raise alerts while it is told of an event, with any other thread ending listeners and sources
// at the same time. What can still block for good is host code that waits inside a listener for
// something that another thread holds while it waits for this listener's source (see
// AlertManager.h for what a listener must not do).
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Mutex.h"

#include <atomic>
#include <list>
#include <memory>
#include <unordered_map>
#include <unordered_set>

namespace Qel::Core {

QEL_DEFINE_WARNING_API(QEL_CORE_API, ListenerErrorOnNotification, Warning,
                       "Listener threw error during notification: Listener->%1% : Notification->%2% : %3%",
                       std::string, std::string, std::string)
QEL_DEFINE_WARNING_API(QEL_CORE_API, ListenerErrorOnRemoval, Warning,
                       "Listener threw error during removal from source: %1%", std::string)

class NotificationSupport;
class NotificationListener;

namespace Detail {
// A source's lock and the pointer back to its source (null once the source has gone); shared by
// the source and by every listener linked to it.
struct NotificationAnchor;
} // namespace Detail

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

    // Unlinks this listener from every source it is linked to. Blocks while one of those sources
    // broadcasts on another thread (waits without end for the source's lock); never waits for a
    // lock of the calling thread's own making.
    void RemoveAllNotificationSources();
    // Number of sources that hold this listener.
    std::size_t GetNumSources() const;

protected:
    // Told once for each source that lets this listener go. A derived class that wants its
    // override called at its end ends its links in its own destructor.
    virtual void NotificationSourceIsRemoved(const NotificationSupport&) {}

private:
    // Per linked source, the source's anchor (kept alive here, see above).
    std::unordered_map<NotificationSupport*, std::shared_ptr<Detail::NotificationAnchor>> m_Sources;
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
    // Lets every listener go (each is told) before the source goes. Blocks, without end, while a
    // listener of this source is being unlinked on another thread.
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
    friend class NotificationListener;

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
    // RemoveListener; with `unlinkAlways` the element goes even if the listener throws (a
    // listener that ends must not stay behind in the list).
    void Unlink(NotificationListener& listener, bool unlinkAlways);
    Mutex& ListenersLock() const;

    std::shared_ptr<Detail::NotificationAnchor> m_spAnchor;
    List m_Listeners;
    ENotificationOrder m_Order;
    std::atomic<int> m_iCount;     // listeners in the list that are not removed
    int m_iBroadcastDepth;         // broadcasts running on the owning thread
};

} // namespace Qel::Core
