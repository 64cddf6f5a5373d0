// Storage for an object that is built once and never destroyed.
//
// Used for the few objects that code running after the library's own static destructors still
// reads (an alert raised from a host's exit handler, the unload message): key strings, the empty
// text, the debug-output hook. The object lives in static storage, not on the heap, so nothing
// is left behind on the heap when the library is unloaded, except the buffers of strings too
// long for the string's own storage.
#pragma once

#include <new>
#include <utility>

namespace Qel::Core::Utilities {

template <typename T>
class Immortal
{
public:
    template <typename... Args>
    explicit Immortal(Args&&... args)
    {
        new (&m_Object) T(std::forward<Args>(args)...);
    }
    // The member of the union is never destroyed.
    ~Immortal() {}
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T& Get() { return m_Object; }

    union
    {
        T m_Object;
    };
};

} // namespace Qel::Core::Utilities
