// Errors and warnings: the raisable alerts, the macros that define alert classes and the macros
// that raise, forward and assert.
//
// An error is raised, not simply thrown: RaiseError records the position, tells the alert
// listeners, offers the error to in-place handlers and then throws a copy of the exact class.
// The raised status moves from copy to copy; the destruction of the last copy that holds it is
// the moment the error counts as handled.
#pragma once

#include "Infrastructure/QelCore/AlertInfo.h"
#include "Infrastructure/QelCore/TypeNames.h"

#include <boost/format.hpp>
#include <boost/preprocessor/cat.hpp>
#include <boost/preprocessor/seq/for_each_i.hpp>
#include <boost/preprocessor/variadic/to_seq.hpp>

#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <sstream>
#include <string>

namespace Qel::Core {

// Selects the constructor of an alert class that only runs its bases, for a derived class that
// formats its own message.
struct AlertDerivedTag
{
};

// How many errors may be raised on one thread, each while raising the one before, before the
// chain is cut.
constexpr int g_iMAX_ERROR_RECURSION_DEPTH = 10;

class QEL_CORE_API Error : public AlertInfo, public std::exception
{
public:
    static const std::string& sINHERITANCE; // "Inheritance"

    explicit Error(ESeverity severity);
    Error(const StringMap& data, const ContextStack& callStack, const ContextStack& unwindStack);
    // Shares the body and takes over the raised status: it is never held by two objects.
    Error(const Error& other);
    Error& operator=(const Error& other);
    // Destroying the holder of the raised status announces the error as handled.
    ~Error() override;

    // Assignment of the alert; the raised status moves only if `transferRaised`.
    void Copy(const Error& other, bool transferRaised);

    // Pushes the position, records the logger, tells the listeners, offers in-place handlers
    // (if allowed) and throws a copy of the exact class. Returns only if a handler took the
    // error, or while the library is unloading or the process is leaving through its fatal path
    // (then the error is written to the standard error stream instead).
    void RaiseError(const CodeContext& context, const std::string& logName, bool allowInPlaceHandling);
    // The same with the logger's name as text: under heap exhaustion the name may be lost, the
    // error is still raised.
    void RaiseError(const CodeContext& context, const char* logName, bool allowInPlaceHandling);

    // Rethrows the exception being handled, after OnRethrow. Call it only inside a catch block.
    [[noreturn]] void Rethrow();

    // A new object of the exact class; it takes the raised status.
    virtual std::shared_ptr<Error> Clone() const;

    const char* what() const noexcept override;
    std::string XMLElementName() const override;

    bool GetRaisedStatus() const { return m_bRaised; }

protected:
    // Runs only the base: for the constructors of derived classes.
    explicit Error(AlertDerivedTag) : Error(eERROR) {}

    // Throws a copy of the exact class. Every concrete class overrides it.
    [[noreturn]] virtual void Throw();
    virtual void OnRethrow();
    // The call stack of the raising thread, or null without debug help.
    virtual std::shared_ptr<ContextStack> CreateCallStack();

    // Appends "=>" and the type name of `type` to Inheritance.
    void AppendInheritance(const std::type_info& type);

    friend class ErrorTestAccess;
    // Marks the error that ends the process, so that its end is not announced as handled.
    friend class AlertManager;

private:
    mutable std::string m_sWhat;
    mutable bool m_bRaised;
    bool m_bFatal;
};

class QEL_CORE_API Warning : public AlertInfo
{
public:
    Warning();
    Warning(const Warning&) = default;
    Warning& operator=(const Warning&) = default;
    ~Warning() override;

    // Pushes the position, records the logger and, unless the class is silenced, tells the
    // listeners. Always returns.
    void RaiseWarning(const CodeContext& context, const std::string& logName);
    void RaiseWarning(const CodeContext& context, const char* logName);

    std::string XMLElementName() const override;

protected:
    explicit Warning(AlertDerivedTag) : Warning() {}
};

// The per-thread count of errors raised and not yet handled.
class QEL_CORE_API ThreadSpecificErrorRecursionCount
{
public:
    static std::int32_t Get();
    static void Set(std::int32_t count);
};

// The first error of the running chain on this thread: the object on which RaiseError was called
// while the count was 0.
class QEL_CORE_API ThreadSpecificRaisedError
{
public:
    static Error* Get();
    static void Set(Error* error);
};

// The five direct bases of concrete errors, one per category.
#define QEL_DECLARE_CATEGORY_ERROR(Name)                                                          \
    class QEL_CORE_API Name : public Error                                                        \
    {                                                                                             \
    public:                                                                                       \
        static const std::string& sCATEGORY;                                                      \
        explicit Name(const std::string& message);                                                \
        Name(const Name&) = default;                                                              \
        Name& operator=(const Name&) = default;                                                   \
        Name(const StringMap& data, const ContextStack& callStack, const ContextStack& unwindStack) \
            : Error(data, callStack, unwindStack)                                                 \
        {                                                                                         \
        }                                                                                         \
        std::shared_ptr<Error> Clone() const override;                                            \
                                                                                                  \
    protected:                                                                                    \
        explicit Name(AlertDerivedTag);                                                           \
        [[noreturn]] void Throw() override;                                                       \
    };

QEL_DECLARE_CATEGORY_ERROR(LogicError)
QEL_DECLARE_CATEGORY_ERROR(HardwareError)
QEL_DECLARE_CATEGORY_ERROR(IOError)
QEL_DECLARE_CATEGORY_ERROR(OSError)
QEL_DECLARE_CATEGORY_ERROR(UnknownError)

namespace Detail {

// Formats with Boost.Format, feeding the arguments in order; positional flags are honoured.
template <typename... Args>
std::string FormatAlert(const std::string& format, const Args&... args)
{
    boost::format formatter(format);
    (void)(formatter % ... % args);
    return formatter.str();
}

} // namespace Detail
} // namespace Qel::Core

// ---- defining alert classes ----
//
// QEL_DEFINE_ERROR(Name, Base, Severity, "format", Type1, ..., Type8)
// QEL_DEFINE_WARNING(Name, Base, "format", Type1, ..., Type8)
//
// define a class `Name` derived from `Base` with a public constructor taking the listed parameter
// types (up to eight), whose message is the format filled with the arguments by Boost.Format
// ("%1%", "%2$x", ...). Severity is an enumerator of AlertInfo::ESeverity (eWARNING, eERROR,
// eCRITICAL). The macro may stand in any namespace or class. An export mark may be added with the
// _API forms, which take it as their first argument.

#define QEL_DETAIL_PARAM(r, data, i, type) BOOST_PP_COMMA_IF(i) type BOOST_PP_CAT(a, i)
#define QEL_DETAIL_ARG(r, data, i, type) , BOOST_PP_CAT(a, i)
#define QEL_DETAIL_PARAMS(...) \
    __VA_OPT__(BOOST_PP_SEQ_FOR_EACH_I(QEL_DETAIL_PARAM, _, BOOST_PP_VARIADIC_TO_SEQ(__VA_ARGS__)))
#define QEL_DETAIL_ARGS(...) \
    __VA_OPT__(BOOST_PP_SEQ_FOR_EACH_I(QEL_DETAIL_ARG, _, BOOST_PP_VARIADIC_TO_SEQ(__VA_ARGS__)))

#define QEL_DEFINE_ERROR_API(Api, Name, Base, Severity, Format, ...)                                  \
    class Api Name : public Base                                                                      \
    {                                                                                                 \
    public:                                                                                           \
        explicit Name(QEL_DETAIL_PARAMS(__VA_ARGS__)) : Base(::Qel::Core::AlertDerivedTag{})          \
        {                                                                                             \
            this->SetSeverity(Severity);                                                              \
            this->ComposeMessages(                                                                    \
                typeid(Name), Format,                                                                 \
                [&](const std::string& qelFormat) {                                                   \
                    return ::Qel::Core::Detail::FormatAlert(qelFormat QEL_DETAIL_ARGS(__VA_ARGS__));  \
                },                                                                                    \
                true);                                                                                \
        }                                                                                             \
        Name(const Name&) = default;                                                                  \
        Name& operator=(const Name&) = default;                                                       \
        Name(const ::Qel::Core::StringMap& data, const ContextStack& callStack,                      \
             const ContextStack& unwindStack)                                                         \
            : Base(data, callStack, unwindStack)                                                      \
        {                                                                                             \
        }                                                                                             \
        std::shared_ptr<::Qel::Core::Error> Clone() const override                                    \
        {                                                                                             \
            return std::make_shared<Name>(*this);                                                     \
        }                                                                                             \
                                                                                                      \
    protected:                                                                                        \
        explicit Name(::Qel::Core::AlertDerivedTag tag) : Base(tag)                                   \
        {                                                                                             \
            this->AppendInheritance(typeid(Name));                                                    \
        }                                                                                             \
        [[noreturn]] void Throw() override                                                            \
        {                                                                                             \
            throw Name(*this);                                                                        \
        }                                                                                             \
    };

#define QEL_DEFINE_ERROR(Name, Base, Severity, Format, ...) \
    QEL_DEFINE_ERROR_API(, Name, Base, Severity, Format __VA_OPT__(, ) __VA_ARGS__)

#define QEL_DEFINE_WARNING_API(Api, Name, Base, Format, ...)                                          \
    class Api Name : public Base                                                                      \
    {                                                                                                 \
    public:                                                                                           \
        explicit Name(QEL_DETAIL_PARAMS(__VA_ARGS__)) : Base(::Qel::Core::AlertDerivedTag{})          \
        {                                                                                             \
            this->SetSeverity(eWARNING);                                                              \
            this->ComposeMessages(                                                                    \
                typeid(Name), Format,                                                                 \
                [&](const std::string& qelFormat) {                                                   \
                    return ::Qel::Core::Detail::FormatAlert(qelFormat QEL_DETAIL_ARGS(__VA_ARGS__));  \
                },                                                                                    \
                false);                                                                               \
        }                                                                                             \
        Name(const Name&) = default;                                                                  \
        Name& operator=(const Name&) = default;                                                       \
        /* Lets at most `maxWarnings` warnings of this class through (see AlertManager). */           \
        static void SetMaxWarnings(unsigned long maxWarnings, bool overwrite)                         \
        {                                                                                             \
            ::Qel::Core::Detail::SetMaxWarnings(::Qel::Core::TypeName(typeid(Name)), maxWarnings,    \
                                                overwrite);                                           \
        }                                                                                             \
        static void ResetWarningCount()                                                               \
        {                                                                                             \
            ::Qel::Core::Detail::ResetWarningCount(::Qel::Core::TypeName(typeid(Name)));             \
        }                                                                                             \
                                                                                                      \
    protected:                                                                                        \
        explicit Name(::Qel::Core::AlertDerivedTag tag) : Base(tag) {}                                \
    };

#define QEL_DEFINE_WARNING(Name, Base, Format, ...) \
    QEL_DEFINE_WARNING_API(, Name, Base, Format __VA_OPT__(, ) __VA_ARGS__)

namespace Qel::Core {
namespace Detail {
// Passed on to the alert manager by the warning classes' static members.
QEL_CORE_API void SetMaxWarnings(const std::string& typeName, unsigned long maxWarnings, bool overwrite);
QEL_CORE_API void ResetWarningCount(const std::string& typeName);
} // namespace Detail

// ---- the standard alert classes ----

QEL_DEFINE_ERROR_API(QEL_CORE_API, AssertionFailure, LogicError, eERROR, "%1%", std::string)
QEL_DEFINE_ERROR_API(QEL_CORE_API, NullPointer, LogicError, eERROR, "NULL pointer variable named %1%",
                     std::string)
QEL_DEFINE_ERROR_API(QEL_CORE_API, IndexOutOfBounds, LogicError, eERROR,
                     "Out of bounds index of %1% for %2% with size of %3%", long long, std::string,
                     unsigned long long)
QEL_DEFINE_ERROR_API(QEL_CORE_API, StdException, LogicError, eERROR, "Caught std::exception - %1%",
                     std::string)
QEL_DEFINE_ERROR_API(QEL_CORE_API, AllocationFailed, OSError, eERROR, "Attempt to allocate %1% failed",
                     std::string)
QEL_DEFINE_WARNING_API(QEL_CORE_API, ErrorSlicedOnThrow, Warning,
                       "%1% sliced to Qel::Core::Error in Error base class Throw() method", std::string)
// Raised by the warning macro in place of a warning that could not be built because the heap
// refused (its arguments or the warning itself); the raising position is the original one.
QEL_DEFINE_WARNING_API(QEL_CORE_API, AllocationFailedWarning, Warning,
                       "Attempt to allocate memory for a warning failed; this warning stands for it")

namespace Detail {
// What the raising macros do when building the alert (or the call site's arguments) throws
// std::bad_alloc: an error becomes AllocationFailed ("Attempt to allocate the error raised here
// failed"), raised at the same position, so the caller gets a typed error all the same; a
// warning becomes AllocationFailedWarning. Neither lets std::bad_alloc out.
QEL_CORE_API void RaiseAllocationFailed(const CodeContext& context, const char* logName, bool allowInPlaceHandling);
QEL_CORE_API void RaiseAllocationFailed(const CodeContext& context, const std::string& logName,
                                        bool allowInPlaceHandling);
QEL_CORE_API void RaiseAllocationFailedWarning(const CodeContext& context, const char* logName) noexcept;
QEL_CORE_API void RaiseAllocationFailedWarning(const CodeContext& context, const std::string& logName) noexcept;
} // namespace Detail

// A parameter with a bad value: "Invalid Parameter: <name> = <value>", the value rendered as text,
// or "{Not Provided}" without one. Name and value are kept under ParamName and ParamValue.
class QEL_CORE_API InvalidParameter : public LogicError
{
public:
    static const std::string& sNAME;  // "ParamName"
    static const std::string& sVALUE; // "ParamValue"

    explicit InvalidParameter(const std::string& name);
    template <typename T>
    InvalidParameter(const std::string& name, const T& value) : InvalidParameter(AlertDerivedTag{})
    {
        std::ostringstream text;
        text << value;
        Compose(name, text.str());
    }
    InvalidParameter(const InvalidParameter&) = default;
    InvalidParameter& operator=(const InvalidParameter&) = default;
    InvalidParameter(const StringMap& data, const ContextStack& callStack, const ContextStack& unwindStack)
        : LogicError(data, callStack, unwindStack)
    {
    }
    std::shared_ptr<Error> Clone() const override;

protected:
    explicit InvalidParameter(AlertDerivedTag tag);
    [[noreturn]] void Throw() override;

private:
    void Compose(const std::string& name, const std::string& value);
};

// Thrown once by the first Initialize to start the error machinery; never raised.
class QEL_CORE_API ErrorHandlingPrimer : public Error
{
public:
    ErrorHandlingPrimer();
    ErrorHandlingPrimer(const ErrorHandlingPrimer&) = default;
    std::shared_ptr<Error> Clone() const override;

    // Asks for the call stack (which loads the symbol engine) and throws a copy of itself.
    [[noreturn]] void PrimeAndThrow();

protected:
    [[noreturn]] void Throw() override;
};

// A failed assertion: one line "<File>(<Line>): Failed Assertion(<expression>)" to the debug
// output. Nothing is raised; the result is always false.
QEL_CORE_API bool AssertFailed(const std::string& expression, const CodeContext& context);
// As AssertFailed, and the failure is also written to the log.
QEL_CORE_API bool LogAssertFailed(const std::string& expression, const CodeContext& context);

} // namespace Qel::Core

// ---- raising ----

// The position of the code where the macro stands. Never throws (see CodeContext::AtSource).
#define QEL_CODE_CONTEXT() \
    ::Qel::Core::CodeContext::AtSource(__FILE__, __LINE__, __TIMESTAMP__, __PRETTY_FUNCTION__)

// Raises an error (an expression that builds one) under a logger name, such as "Qel.Core.Mutex".
// If building the error runs out of memory, AllocationFailed is raised in its place.
#define QEL_RAISE_ERROR(alert, logName) QEL_DETAIL_RAISE_ERROR(alert, logName, false)

// As QEL_RAISE_ERROR, and in-place handlers may take the error: the statement behind the macro
// then runs.
#define QEL_RAISE_HANDLEABLE_ERROR(alert, logName) QEL_DETAIL_RAISE_ERROR(alert, logName, true)

#define QEL_DETAIL_RAISE_ERROR(alert, logName, allowInPlace)                                      \
    do {                                                                                          \
        const ::Qel::Core::CodeContext qelRaiseContext = QEL_CODE_CONTEXT();                      \
        try {                                                                                     \
            (alert).RaiseError(qelRaiseContext, (logName), (allowInPlace));                       \
        } catch (const std::bad_alloc&) {                                                         \
            ::Qel::Core::Detail::RaiseAllocationFailed(qelRaiseContext, (logName), (allowInPlace)); \
        }                                                                                         \
    } while (false)

// Raises a warning; returns always. If building the warning runs out of memory,
// AllocationFailedWarning is raised in its place.
#define QEL_RAISE_WARNING(alert, logName)                                                         \
    do {                                                                                          \
        const ::Qel::Core::CodeContext qelRaiseContext = QEL_CODE_CONTEXT();                      \
        try {                                                                                     \
            (alert).RaiseWarning(qelRaiseContext, (logName));                                     \
        } catch (const std::bad_alloc&) {                                                         \
            ::Qel::Core::Detail::RaiseAllocationFailedWarning(qelRaiseContext, (logName));        \
        }                                                                                         \
    } while (false)

// Sends a line to the debug output if the expression is false; execution goes on.
#define QEL_ASSERT(expression)                                                        \
    do {                                                                              \
        if (!(expression)) ::Qel::Core::AssertFailed(#expression, QEL_CODE_CONTEXT()); \
    } while (false)

// Closes a try block: an error passing through gets this position on its unwind stack; a
// std::exception becomes StdException, anything else UnknownError. The _WITH form runs the
// given statements on the position first (name: qelForwardContext); QEL_FORWARD_VARIABLE and
// QEL_FORWARD_INFO write them.
#define QEL_FORWARD_ERROR_WITH(...)                                                         \
    catch (::Qel::Core::Error & qelForwardedError)                                          \
    {                                                                                       \
        ::Qel::Core::CodeContext qelForwardContext = QEL_CODE_CONTEXT();                    \
        __VA_ARGS__;                                                                        \
        qelForwardedError.PushContext(qelForwardContext);                                   \
        qelForwardedError.Rethrow();                                                        \
    }                                                                                       \
    catch (std::exception & qelForwardedException)                                          \
    {                                                                                       \
        ::Qel::Core::CodeContext qelForwardContext = QEL_CODE_CONTEXT();                    \
        __VA_ARGS__;                                                                        \
        try {                                                                               \
            ::Qel::Core::StdException(qelForwardedException.what())                         \
                .RaiseError(qelForwardContext, "", false);                                  \
        } catch (const std::bad_alloc&) {                                                   \
            ::Qel::Core::Detail::RaiseAllocationFailed(qelForwardContext, "", false);       \
        }                                                                                   \
    }                                                                                       \
    catch (...)                                                                             \
    {                                                                                       \
        ::Qel::Core::CodeContext qelForwardContext = QEL_CODE_CONTEXT();                    \
        __VA_ARGS__;                                                                        \
        ::Qel::Core::UnknownError(std::string()).RaiseError(qelForwardContext, "", false);  \
    }

#define QEL_FORWARD_ERROR QEL_FORWARD_ERROR_WITH((void)0)
#define QEL_FORWARD_VARIABLE(variable) qelForwardContext.SetVariable(#variable, (variable))
#define QEL_FORWARD_INFO(key, value) qelForwardContext.SetInfo((key), (value))
