// Object lifetime helpers: a user count that can be waited on, a sole-owner pointer that lives
// in standard containers, and a deleter that owns nothing.
#pragma once

#include "Infrastructure/QelCore/Elapse.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <compare>
#include <cstdint>
#include <functional>

namespace Qel::Core {

// Counts the users of an object. The count does not govern the object's life: Release never
// deletes anything, the object stays where its owner put it, and the owner waits with
// PollForZeroRefCount until the users on other threads are done before it destroys the object.
// Every operation may be called from any thread.
class QEL_CORE_API RefCountedObject
{
public:
    // The count starts at 0.
    RefCountedObject();
    RefCountedObject(const RefCountedObject&) = delete;
    RefCountedObject& operator=(const RefCountedObject&) = delete;
    // Asserts "m_refCount == 0".
    virtual ~RefCountedObject();

    // One user more; the new count.
    virtual int AddRef();
    // One user less; the new count. Asserts "m_refCount >= 0".
    virtual int Release();
    int GetRefCount() const;

    // Waits for the count to reach 0: looks at the count and the deadline (now + `timeout`) and
    // sleeps `pollInterval`, again and again, until the count is 0 or the deadline has passed.
    // Sleeps one interval even when the count is 0 from the start. True when the count is 0.
    // The deadline runs on the monotonic clock.
    bool PollForZeroRefCount(const Elapse& timeout, const Elapse& pollInterval);

private:
    Mutex m_Lock;
    std::int32_t m_refCount;
};

// The sole owner of a T, which may live in standard containers. Copying transfers: the new
// pointer takes the object and the source is set to null, so that an object is deleted once,
// by its last holder. Construction and assignment take a non-constant source (a copy from a
// constant one would have to change it) or an rvalue; moves transfer the same way, which is what
// containers use when they move elements around. Pointers compare by address, so they can be
// keys of ordered containers.
template <typename T>
class container_ptr
{
public:
    explicit container_ptr(T* pObject = nullptr) noexcept : m_pObject(pObject) {}
    container_ptr(container_ptr& other) noexcept : m_pObject(other.release()) {}
    container_ptr(container_ptr&& other) noexcept : m_pObject(other.release()) {}

    // Assignment to itself does nothing. Otherwise: a different object held so far is deleted and
    // the source's pointer is taken; the source is set to null, also when both held the same one.
    container_ptr& operator=(container_ptr& other) noexcept
    {
        if (this != &other) {
            T* pObject = other.release();
            if (pObject != m_pObject) {
                delete m_pObject;
                m_pObject = pObject;
            }
        }
        return *this;
    }
    container_ptr& operator=(container_ptr&& other) noexcept { return *this = other; }

    // Deletes the object, if any.
    ~container_ptr() { delete m_pObject; }

    T* get() const noexcept { return m_pObject; }
    T& operator*() const noexcept { return *m_pObject; }
    T* operator->() const noexcept { return m_pObject; }
    // Gives up the object without deleting it: the pointer, and null in this holder.
    T* release() noexcept
    {
        T* pObject = m_pObject;
        m_pObject = nullptr;
        return pObject;
    }

    friend bool operator==(const container_ptr& a, const container_ptr& b) noexcept
    {
        return a.m_pObject == b.m_pObject;
    }
    friend std::strong_ordering operator<=>(const container_ptr& a, const container_ptr& b) noexcept
    {
        return std::compare_three_way{}(a.m_pObject, b.m_pObject);
    }

private:
    T* m_pObject;
};

// A deleter that does nothing: a std::shared_ptr made with it refers to an object that somebody
// else owns (a test object, a static, a manager that outlives the pointer). Such a pointer
// compares equal to an owning one on the same address.
struct NoDelete
{
    template <typename T>
    void operator()(T*) const noexcept
    {
    }
};

} // namespace Qel::Core
