// Errors: raising, the raised status and the per-thread recursion stop.
#include "Infrastructure/QelCore/Error.h"

#include "Infrastructure/QelCore/AlertManager.h"

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/XMLWriter.h"

#include <sstream>

namespace Qel::Core {
namespace {

// The two per-thread slots of the recursion stop; 0 on every thread until first used.
thread_local std::int32_t t_iErrorRecursionCount = 0;
thread_local Error* t_pRaisedError = nullptr;

} // namespace

std::int32_t ThreadSpecificErrorRecursionCount::Get()
{
    return t_iErrorRecursionCount;
}

void ThreadSpecificErrorRecursionCount::Set(std::int32_t count)
{
    t_iErrorRecursionCount = count;
}

Error* ThreadSpecificRaisedError::Get()
{
    return t_pRaisedError;
}

void ThreadSpecificRaisedError::Set(Error* error)
{
    t_pRaisedError = error;
}

namespace Detail {
// Writes an alert as XML to the standard error stream; nothing escapes.
void WriteAlertToStandardError(AlertInfo& alert, const std::string& circumstance)
{
    try {
        XMLWriter writer;
        std::ostringstream out;
        alert.ToXML(writer, out, circumstance);
        Platform::WriteStandardError(out.str());
    } catch (...) {
    }
}
} // namespace Detail

Error::Error(ESeverity severity) : m_bRaised(false), m_bFatal(false)
{
    try {
        SetData(sINHERITANCE, TypeName(typeid(Error)));
    } catch (...) {
    }
    SetSeverity(severity);
}

Error::Error(const StringMap& data, const ContextStack& callStack, const ContextStack& unwindStack)
    : AlertInfo(data, callStack, unwindStack), m_bRaised(false), m_bFatal(false)
{
}

Error::Error(const Error& other)
    : AlertInfo(other), std::exception(other), m_bRaised(other.m_bRaised), m_bFatal(other.m_bFatal)
{
    other.m_bRaised = false;
}

Error& Error::operator=(const Error& other)
{
    Copy(other, true);
    return *this;
}

void Error::Copy(const Error& other, bool transferRaised)
{
    if (this == &other) return;
    AlertInfo::operator=(other);
    m_sWhat.clear();
    m_bFatal = other.m_bFatal;
    if (transferRaised) {
        m_bRaised = other.m_bRaised;
        other.m_bRaised = false;
    } else {
        m_bRaised = false;
    }
}

Error::~Error()
{
    try {
        if (m_bRaised && !m_bFatal) {
            std::int32_t count = ThreadSpecificErrorRecursionCount::Get();
            if (count > 0) {
                if (count == 1) ThreadSpecificRaisedError::Set(nullptr);
                ThreadSpecificErrorRecursionCount::Set(count - 1);
            }
            if (!IsUnloading()) {
                if (AlertManager* manager = AlertManager::Instance()) {
                    Qel::Core::ErrorHandled notification(*this);
                    manager->Broadcast(notification);
                }
            }
        }
    } catch (...) {
        // A destructor lets nothing out.
    }
    if (ThreadSpecificRaisedError::Get() == this) {
        ThreadSpecificRaisedError::Set(nullptr);
        ThreadSpecificErrorRecursionCount::Set(0);
    }
}

void Error::RaiseError(const CodeContext& context, const char* logName, bool allowInPlaceHandling)
{
    std::string name;
    try {
        if (logName != nullptr) name = logName;
    } catch (...) {
        // No memory for the logger's name: the error goes on without it.
    }
    RaiseError(context, name, allowInPlaceHandling);
}

// Every step that allocates for the library's own purposes is guarded: under heap exhaustion
// the error is still counted, broadcast and thrown as its own class, with what could be stored.
// What comes out is the error itself, or what an in-place handler throws.
void Error::RaiseError(const CodeContext& context, const std::string& logName, bool allowInPlaceHandling)
{
    PushContext(context);
    SetData(sLOG_NAME, logName);

    if (IsFatalExit() || IsUnloading()) {
        Detail::WriteAlertToStandardError(*this, "Error Raised During QelCore Shutdown");
        return;
    }

    // An error that a handler kept is thrown again as it is: no count, no notification.
    if (m_bRaised) Throw();

    std::int32_t count = ThreadSpecificErrorRecursionCount::Get();
    if (count == 0) ThreadSpecificRaisedError::Set(this);
    ThreadSpecificErrorRecursionCount::Set(count + 1);

    if (count + 1 >= g_iMAX_ERROR_RECURSION_DEPTH) {
        Detail::WriteAlertToStandardError(
            *this, "Detected potential infinite error recursion, halting recursion and throwing original error");
        Error* first = ThreadSpecificRaisedError::Get();
        ThreadSpecificRaisedError::Set(nullptr);
        ThreadSpecificErrorRecursionCount::Set(0);
        if (first != nullptr) throw Error(*first);
        std::string text;
        try {
            text = "Detected potential infinite error recursion, halted recursion and threw this generic error";
        } catch (...) {
        }
        throw LogicError(text);
    }

    try {
        std::shared_ptr<ContextStack> stack = CreateCallStack();
        if (stack) {
            if (!m_spCallStack) m_spCallStack = stack;
            else m_spCallStack->insert(m_spCallStack->end(), stack->begin(), stack->end());
        }
    } catch (const std::bad_alloc&) {
        // No memory for the call stack: the error is raised without (all of) it.
    }

    m_bRaised = true;
    AlertManager* manager = AlertManager::Instance();
    if (manager != nullptr) {
        Qel::Core::ErrorRaised notification(*this);
        manager->Broadcast(notification);
    }

    if (allowInPlaceHandling && manager != nullptr && manager->UseErrorHandler(*this)) return;

    Throw();
}

void Error::Rethrow()
{
    OnRethrow();
    throw;
}

std::shared_ptr<Error> Error::Clone() const
{
    return std::make_shared<Error>(*this);
}

void Error::Throw()
{
    if (typeid(*this) != typeid(Error)) {
        // A derived class left out its own Throw: a throw from here loses its type.
        QEL_RAISE_WARNING(ErrorSlicedOnThrow(ReadableTypeName(typeid(*this))), "Qel.Core.Error");
    }
    throw Error(*this);
}

namespace Detail {

namespace {
// "Attempt to allocate the error raised here failed", as far as the heap allows.
AllocationFailed StandInForLostError() noexcept
{
    std::string what;
    try {
        what = "the error raised here";
    } catch (...) {
    }
    // Moved, not copied, into the constructor: nothing to allocate on the way in.
    return AllocationFailed(std::move(what));
}
} // namespace

void RaiseAllocationFailed(const CodeContext& context, const char* logName, bool allowInPlaceHandling)
{
    AllocationFailed error = StandInForLostError();
    error.RaiseError(context, logName, allowInPlaceHandling);
}

void RaiseAllocationFailed(const CodeContext& context, const std::string& logName, bool allowInPlaceHandling)
{
    AllocationFailed error = StandInForLostError();
    error.RaiseError(context, logName, allowInPlaceHandling);
}

void RaiseAllocationFailedWarning(const CodeContext& context, const char* logName) noexcept
{
    try {
        AllocationFailedWarning warning;
        warning.RaiseWarning(context, logName);
    } catch (...) {
    }
}

void RaiseAllocationFailedWarning(const CodeContext& context, const std::string& logName) noexcept
{
    try {
        AllocationFailedWarning warning;
        warning.RaiseWarning(context, logName);
    } catch (...) {
    }
}

} // namespace Detail

void Error::OnRethrow() {}

std::shared_ptr<AlertInfo::ContextStack> Error::CreateCallStack()
{
    return StandIns::CaptureCallStack(100);
}

void Error::AppendInheritance(const std::type_info& type)
{
    try {
        SetData(sINHERITANCE, GetData(sINHERITANCE) + "=>" + TypeName(type));
    } catch (...) {
    }
}

const char* Error::what() const noexcept
{
    try {
        if (m_sWhat.empty()) m_sWhat = GetMessageA();
    } catch (...) {
    }
    return m_sWhat.c_str();
}

std::string Error::XMLElementName() const
{
    return "Error";
}

} // namespace Qel::Core
