// Callbacks as objects: something that can be called without the caller knowing whether a free
// function or a method of some object stands behind it, and that can be held in a shared pointer,
// queued and compared.
//
// There are four shapes, by whether a result R and an argument A are involved. For each there is
// an abstract class and two concrete templates, one over a free function and one over a method of
// a class C:
//
//   no result, no argument   Callback               GlobalCallback             MethodCallback<C>
//   no result, argument A    CallbackArg<A>         GlobalCallbackArg<A>       MethodCallbackArg<C, A>
//   result R, no argument    CallbackRet<R>         GlobalCallbackRet<R>       MethodCallbackRet<C, R>
//   result R, argument A     CallbackRetArg<R, A>   GlobalCallbackRetArg<R, A> MethodCallbackRetArg<C, R, A>
//
// The virtual operations are, in this order: the destructor, operator() and operator==. The
// abstract classes have no base and no fields, and compare by identity. A Global class compares
// equal to another of its class that holds the same function; a Method class to another of its
// class that holds the same method on the same object.
//
// A method callback does not own its object: the caller keeps the object alive for as long as the
// callback can be called. A callback has no state of its own beyond its target, so it may be called
// from several threads at once if the target allows that. Nothing is caught: an exception from the
// target reaches the caller.
//
// A can be a plain value, a pointer or a constant reference; with a reference the target receives
// the very object that the caller passes.
//
// Each concrete class also has a non-virtual operator== for another object of its own class, which
// forwards to the virtual one. Without it, comparing two objects of the same concrete class
// directly would find the virtual operator== equally good with the operands in either order,
// which C++20 counts as ambiguous.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <utility>

namespace Qel::Core {

// ---- no result, no argument ----

class QEL_CORE_API Callback
{
public:
    virtual ~Callback() = default;
    virtual void operator()() = 0;
    // Identity: the other is this very object.
    virtual bool operator==(const Callback& other) const { return this == &other; }

protected:
    Callback() = default;
    Callback(const Callback&) = default;
    Callback& operator=(const Callback&) = default;
};

class QEL_CORE_API GlobalCallback : public Callback
{
public:
    using TFunction = void (*)();

    explicit GlobalCallback(TFunction pFunction) : m_pFunction(pFunction) {}
    GlobalCallback(const GlobalCallback&) = default;
    GlobalCallback& operator=(const GlobalCallback&) = default;
    ~GlobalCallback() override = default;

    void operator()() override { m_pFunction(); }

    bool operator==(const Callback& other) const override
    {
        const auto* pOther = dynamic_cast<const GlobalCallback*>(&other);
        return pOther != nullptr && pOther->m_pFunction == m_pFunction;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const GlobalCallback& other) const { return this->operator==(static_cast<const Callback&>(other)); }

private:
    TFunction m_pFunction;
};

template <class C> class QEL_CORE_API MethodCallback : public Callback
{
public:
    using TMethod = void (C::*)();

    MethodCallback(C* pObject, TMethod pMethod) : m_pObject(pObject), m_pMethod(pMethod) {}
    MethodCallback(const MethodCallback&) = default;
    MethodCallback& operator=(const MethodCallback&) = default;
    ~MethodCallback() override = default;

    void operator()() override { (m_pObject->*m_pMethod)(); }

    bool operator==(const Callback& other) const override
    {
        const auto* pOther = dynamic_cast<const MethodCallback*>(&other);
        return pOther != nullptr && pOther->m_pMethod == m_pMethod && pOther->m_pObject == m_pObject;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const MethodCallback& other) const { return this->operator==(static_cast<const Callback&>(other)); }

private:
    C* m_pObject;
    TMethod m_pMethod;
};

// ---- no result, argument A ----

template <class A> class QEL_CORE_API CallbackArg
{
public:
    virtual ~CallbackArg() = default;
    virtual void operator()(A arg) = 0;
    // Identity: the other is this very object.
    virtual bool operator==(const CallbackArg& other) const { return this == &other; }

protected:
    CallbackArg() = default;
    CallbackArg(const CallbackArg&) = default;
    CallbackArg& operator=(const CallbackArg&) = default;
};

template <class A> class QEL_CORE_API GlobalCallbackArg : public CallbackArg<A>
{
public:
    using TFunction = void (*)(A);

    explicit GlobalCallbackArg(TFunction pFunction) : m_pFunction(pFunction) {}
    GlobalCallbackArg(const GlobalCallbackArg&) = default;
    GlobalCallbackArg& operator=(const GlobalCallbackArg&) = default;
    ~GlobalCallbackArg() override = default;

    // The argument is passed on as it came: a value is moved on, a reference stays the same one.
    void operator()(A arg) override { m_pFunction(std::forward<A>(arg)); }

    bool operator==(const CallbackArg<A>& other) const override
    {
        const auto* pOther = dynamic_cast<const GlobalCallbackArg*>(&other);
        return pOther != nullptr && pOther->m_pFunction == m_pFunction;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const GlobalCallbackArg& other) const
    {
        return this->operator==(static_cast<const CallbackArg<A>&>(other));
    }

private:
    TFunction m_pFunction;
};

template <class C, class A> class QEL_CORE_API MethodCallbackArg : public CallbackArg<A>
{
public:
    using TMethod = void (C::*)(A);

    MethodCallbackArg(C* pObject, TMethod pMethod) : m_pObject(pObject), m_pMethod(pMethod) {}
    MethodCallbackArg(const MethodCallbackArg&) = default;
    MethodCallbackArg& operator=(const MethodCallbackArg&) = default;
    ~MethodCallbackArg() override = default;

    void operator()(A arg) override { (m_pObject->*m_pMethod)(std::forward<A>(arg)); }

    bool operator==(const CallbackArg<A>& other) const override
    {
        const auto* pOther = dynamic_cast<const MethodCallbackArg*>(&other);
        return pOther != nullptr && pOther->m_pMethod == m_pMethod && pOther->m_pObject == m_pObject;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const MethodCallbackArg& other) const
    {
        return this->operator==(static_cast<const CallbackArg<A>&>(other));
    }

private:
    C* m_pObject;
    TMethod m_pMethod;
};

// ---- result R, no argument ----

template <class R> class QEL_CORE_API CallbackRet
{
public:
    virtual ~CallbackRet() = default;
    virtual R operator()() = 0;
    // Identity: the other is this very object.
    virtual bool operator==(const CallbackRet& other) const { return this == &other; }

protected:
    CallbackRet() = default;
    CallbackRet(const CallbackRet&) = default;
    CallbackRet& operator=(const CallbackRet&) = default;
};

template <class R> class QEL_CORE_API GlobalCallbackRet : public CallbackRet<R>
{
public:
    using TFunction = R (*)();

    explicit GlobalCallbackRet(TFunction pFunction) : m_pFunction(pFunction) {}
    GlobalCallbackRet(const GlobalCallbackRet&) = default;
    GlobalCallbackRet& operator=(const GlobalCallbackRet&) = default;
    ~GlobalCallbackRet() override = default;

    R operator()() override { return m_pFunction(); }

    bool operator==(const CallbackRet<R>& other) const override
    {
        const auto* pOther = dynamic_cast<const GlobalCallbackRet*>(&other);
        return pOther != nullptr && pOther->m_pFunction == m_pFunction;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const GlobalCallbackRet& other) const
    {
        return this->operator==(static_cast<const CallbackRet<R>&>(other));
    }

private:
    TFunction m_pFunction;
};

template <class C, class R> class QEL_CORE_API MethodCallbackRet : public CallbackRet<R>
{
public:
    using TMethod = R (C::*)();

    MethodCallbackRet(C* pObject, TMethod pMethod) : m_pObject(pObject), m_pMethod(pMethod) {}
    MethodCallbackRet(const MethodCallbackRet&) = default;
    MethodCallbackRet& operator=(const MethodCallbackRet&) = default;
    ~MethodCallbackRet() override = default;

    R operator()() override { return (m_pObject->*m_pMethod)(); }

    bool operator==(const CallbackRet<R>& other) const override
    {
        const auto* pOther = dynamic_cast<const MethodCallbackRet*>(&other);
        return pOther != nullptr && pOther->m_pMethod == m_pMethod && pOther->m_pObject == m_pObject;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const MethodCallbackRet& other) const
    {
        return this->operator==(static_cast<const CallbackRet<R>&>(other));
    }

private:
    C* m_pObject;
    TMethod m_pMethod;
};

// ---- result R, argument A ----

template <class R, class A> class QEL_CORE_API CallbackRetArg
{
public:
    virtual ~CallbackRetArg() = default;
    virtual R operator()(A arg) = 0;
    // Identity: the other is this very object.
    virtual bool operator==(const CallbackRetArg& other) const { return this == &other; }

protected:
    CallbackRetArg() = default;
    CallbackRetArg(const CallbackRetArg&) = default;
    CallbackRetArg& operator=(const CallbackRetArg&) = default;
};

template <class R, class A> class QEL_CORE_API GlobalCallbackRetArg : public CallbackRetArg<R, A>
{
public:
    using TFunction = R (*)(A);

    explicit GlobalCallbackRetArg(TFunction pFunction) : m_pFunction(pFunction) {}
    GlobalCallbackRetArg(const GlobalCallbackRetArg&) = default;
    GlobalCallbackRetArg& operator=(const GlobalCallbackRetArg&) = default;
    ~GlobalCallbackRetArg() override = default;

    R operator()(A arg) override { return m_pFunction(std::forward<A>(arg)); }

    bool operator==(const CallbackRetArg<R, A>& other) const override
    {
        const auto* pOther = dynamic_cast<const GlobalCallbackRetArg*>(&other);
        return pOther != nullptr && pOther->m_pFunction == m_pFunction;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const GlobalCallbackRetArg& other) const
    {
        return this->operator==(static_cast<const CallbackRetArg<R, A>&>(other));
    }

private:
    TFunction m_pFunction;
};

template <class C, class R, class A> class QEL_CORE_API MethodCallbackRetArg : public CallbackRetArg<R, A>
{
public:
    using TMethod = R (C::*)(A);

    MethodCallbackRetArg(C* pObject, TMethod pMethod) : m_pObject(pObject), m_pMethod(pMethod) {}
    MethodCallbackRetArg(const MethodCallbackRetArg&) = default;
    MethodCallbackRetArg& operator=(const MethodCallbackRetArg&) = default;
    ~MethodCallbackRetArg() override = default;

    R operator()(A arg) override { return (m_pObject->*m_pMethod)(std::forward<A>(arg)); }

    bool operator==(const CallbackRetArg<R, A>& other) const override
    {
        const auto* pOther = dynamic_cast<const MethodCallbackRetArg*>(&other);
        return pOther != nullptr && pOther->m_pMethod == m_pMethod && pOther->m_pObject == m_pObject;
    }

    // Same class: through the virtual comparison (see the note at the top of the file).
    bool operator==(const MethodCallbackRetArg& other) const
    {
        return this->operator==(static_cast<const CallbackRetArg<R, A>&>(other));
    }

private:
    C* m_pObject;
    TMethod m_pMethod;
};

} // namespace Qel::Core
