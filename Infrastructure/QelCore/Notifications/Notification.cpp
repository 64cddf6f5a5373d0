// Sources, listeners and their two-way links.
#include "Infrastructure/QelCore/Notification.h"

#include <vector>

namespace Qel::Core {

struct Detail::NotificationAnchor
{
    Mutex m_Lock;
    NotificationSupport* m_pOwner = nullptr; // read and cleared under m_Lock
};

// ---- NotificationListener ----

NotificationListener::NotificationListener() = default;

NotificationListener::~NotificationListener()
{
    try {
        RemoveAllNotificationSources();
    } catch (...) {
        // A destructor lets nothing out.
    }
}

void NotificationListener::AddNotificationSource(NotificationSupport& source)
{
    Lock guard(m_SourcesLock);
    m_Sources[&source] = source.m_spAnchor;
}

void NotificationListener::RemoveNotificationSource(NotificationSupport& source)
{
    Lock guard(m_SourcesLock);
    m_Sources.erase(&source);
    NotificationSourceIsRemoved(source);
}

void NotificationListener::RemoveAllNotificationSources()
{
    // The set is emptied under this listener's lock, which is let go before any source's lock
    // is taken (see the header for why that is enough).
    decltype(m_Sources) sources;
    {
        Lock guard(m_SourcesLock);
        sources.swap(m_Sources);
    }
    for (auto& [source, anchor] : sources) {
        if (!anchor) continue;
        try {
            Lock guard(anchor->m_Lock);
            if (anchor->m_pOwner != nullptr) anchor->m_pOwner->Unlink(*this, true);
        } catch (...) {
            // Unlink has warned already; the other sources are still let go.
        }
    }
}

std::size_t NotificationListener::GetNumSources() const
{
    Lock guard(m_SourcesLock);
    return m_Sources.size();
}

Notification::~Notification() = default;

// ---- NotificationSupport ----

namespace {
// Inside a catch block: the warning that a listener failed while it was let go.
void WarnRemovalFailure()
{
    try {
        throw;
    } catch (Error& error) {
        QEL_RAISE_WARNING(ListenerErrorOnRemoval(error.what()), "Qel.Core.NotificationSupport");
    } catch (std::exception& exception) {
        QEL_RAISE_WARNING(ListenerErrorOnRemoval(exception.what()), "Qel.Core.NotificationSupport");
    } catch (...) {
        QEL_RAISE_WARNING(ListenerErrorOnRemoval("Unknown Error"), "Qel.Core.NotificationSupport");
    }
}
} // namespace

NotificationSupport::NotificationSupport(ENotificationOrder order)
    : m_spAnchor(std::make_shared<Detail::NotificationAnchor>()), m_Order(order), m_iCount(0), m_iBroadcastDepth(0)
{
    m_spAnchor->m_pOwner = this;
}

NotificationSupport::~NotificationSupport()
{
    try {
        Lock guard(ListenersLock());
        try {
            RemoveAllListeners();
        } catch (...) {
        }
        // From here on a listener that still holds the anchor finds the source gone.
        m_spAnchor->m_pOwner = nullptr;
    } catch (...) {
    }
}

Mutex& NotificationSupport::ListenersLock() const
{
    return m_spAnchor->m_Lock;
}

NotificationSupport::List::iterator NotificationSupport::Find(NotificationListener& listener)
{
    for (auto it = m_Listeners.begin(); it != m_Listeners.end(); ++it)
        if (it->pListener == &listener) return it;
    return m_Listeners.end();
}

void NotificationSupport::Erase(List::iterator element)
{
    // While a broadcast walks the list, an element only loses its listener; the walk or the
    // end of the outermost broadcast takes it out.
    if (m_iBroadcastDepth > 0) element->pListener = nullptr;
    else m_Listeners.erase(element);
    --m_iCount;
}

void NotificationSupport::Compact()
{
    m_Listeners.remove_if([](const Entry& entry) { return entry.pListener == nullptr; });
}

void NotificationSupport::AddListener(NotificationListener& listener)
{
    Lock guard(ListenersLock());
    if (Find(listener) != m_Listeners.end()) return;
    // The listener learns of the source first: if that fails, nothing is linked; if the list
    // cannot take the listener afterwards, the listener's teardown finds it absent, which is
    // harmless.
    listener.AddNotificationSource(*this);
    auto live = [](const Entry& entry) { return entry.pListener != nullptr; };
    if (listener.IsPrioritized()) {
        // Before the first listener that it outranks.
        auto place = m_Listeners.begin();
        for (; place != m_Listeners.end(); ++place)
            if (live(*place) && listener.IsHigherPriorityThan(*place->pListener)) break;
        m_Listeners.insert(place, Entry{&listener});
    } else {
        // The last live listener decides whether a prioritized tail is to be kept intact.
        auto last = m_Listeners.end();
        for (auto it = m_Listeners.begin(); it != m_Listeners.end(); ++it)
            if (live(*it)) last = it;
        if (last != m_Listeners.end() && last->pListener->IsPrioritized()) {
            // Walk from the end: stay in front of the prioritized listeners that do not outrank it.
            auto place = m_Listeners.end();
            while (place != m_Listeners.begin()) {
                auto prev = std::prev(place);
                if (live(*prev) &&
                    (!prev->pListener->IsPrioritized() || prev->pListener->IsHigherPriorityThan(listener)))
                    break;
                place = prev;
            }
            m_Listeners.insert(place, Entry{&listener});
        } else if (m_Order == eLAST_ADDED_FIRST) {
            m_Listeners.push_front(Entry{&listener});
        } else {
            m_Listeners.push_back(Entry{&listener});
        }
    }
    ++m_iCount;
}

void NotificationSupport::RemoveListener(NotificationListener& listener)
{
    Unlink(listener, false);
}

void NotificationSupport::Unlink(NotificationListener& listener, bool unlinkAlways)
{
    Lock guard(ListenersLock());
    auto element = Find(listener);
    if (element == m_Listeners.end()) return;
    try {
        listener.RemoveNotificationSource(*this);
        Erase(element);
    } catch (...) {
        if (unlinkAlways) Erase(element);
        WarnRemovalFailure();
    }
}

void NotificationSupport::RemoveAllListeners()
{
    Lock guard(ListenersLock());
    for (Entry& entry : m_Listeners) {
        if (entry.pListener == nullptr) continue;
        try {
            entry.pListener->RemoveNotificationSource(*this);
        } catch (...) {
            WarnRemovalFailure();
        }
    }
    if (m_iBroadcastDepth > 0) {
        for (Entry& entry : m_Listeners) entry.pListener = nullptr;
    } else {
        m_Listeners.clear();
    }
    m_iCount = 0;
}

void NotificationSupport::notify(NotificationListener& listener, Notification& notification) const
{
    if (notification.ShouldBeBroadcast()) notification.Notify(listener);
}

void NotificationSupport::notify_with_catch(NotificationListener& listener, Notification& notification) const
{
    try {
        notify(listener, notification);
    } catch (Error& error) {
        QEL_RAISE_WARNING(ListenerErrorOnNotification(ReadableTypeName(typeid(listener)),
                                                      ReadableTypeName(typeid(notification)), error.what()),
                          "Qel.Core.NotificationSupport");
    } catch (std::exception& exception) {
        QEL_RAISE_WARNING(ListenerErrorOnNotification(ReadableTypeName(typeid(listener)),
                                                      ReadableTypeName(typeid(notification)), exception.what()),
                          "Qel.Core.NotificationSupport");
    } catch (...) {
        QEL_RAISE_WARNING(ListenerErrorOnNotification(ReadableTypeName(typeid(listener)),
                                                      ReadableTypeName(typeid(notification)), "Unknown error"),
                          "Qel.Core.NotificationSupport");
    }
}

void NotificationSupport::Broadcast(Notification& notification, bool catchErrors)
{
    Lock guard(ListenersLock());
    // Removed elements stay in the list (without their listener) until the outermost broadcast
    // ends, so that the walk's next element can never be taken away under it.
    struct Depth
    {
        NotificationSupport& source;
        explicit Depth(NotificationSupport& s) : source(s) { ++source.m_iBroadcastDepth; }
        ~Depth()
        {
            if (--source.m_iBroadcastDepth == 0) source.Compact();
        }
    } depth(*this);
    for (auto node = m_Listeners.begin(); node != m_Listeners.end();) {
        NotificationListener* listener = node->pListener;
        ++node;
        if (listener == nullptr) continue;
        if (catchErrors) notify_with_catch(*listener, notification);
        else notify(*listener, notification);
    }
}

int NotificationSupport::GetNumListeners() const
{
    return m_iCount.load(std::memory_order_relaxed);
}

bool NotificationSupport::HasListeners() const
{
    return GetNumListeners() > 0;
}

} // namespace Qel::Core
