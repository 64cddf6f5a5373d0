// The category bases of errors and the standard alert classes that are written by hand.
#include "Infrastructure/QelCore/Error.h"

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"

namespace Qel::Core {

// A category base: an error of eERROR with its Category and its place in Inheritance, and the
// message if one is given.
#define QEL_DEFINE_CATEGORY_ERROR(Name)                                      \
    Name::Name(AlertDerivedTag) : Error(eERROR)                              \
    {                                                                        \
        try {                                                                \
            SetData(AlertInfo::sCATEGORY, Name::sCATEGORY);                         \
        } catch (...) {                                                      \
        }                                                                    \
        AppendInheritance(typeid(Name));                                     \
    }                                                                        \
    Name::Name(const std::string& message) : Name(AlertDerivedTag{})         \
    {                                                                        \
        try {                                                                \
            if (!message.empty()) SetData(sMESSAGE, message);                \
        } catch (...) {                                                      \
        }                                                                    \
    }                                                                        \
    std::shared_ptr<Error> Name::Clone() const                               \
    {                                                                        \
        return std::make_shared<Name>(*this);                                \
    }                                                                        \
    void Name::Throw()                                                       \
    {                                                                        \
        throw Name(*this);                                                   \
    }

QEL_DEFINE_CATEGORY_ERROR(LogicError)
QEL_DEFINE_CATEGORY_ERROR(HardwareError)
QEL_DEFINE_CATEGORY_ERROR(IOError)
QEL_DEFINE_CATEGORY_ERROR(OSError)
QEL_DEFINE_CATEGORY_ERROR(UnknownError)

// ---- InvalidParameter ----

InvalidParameter::InvalidParameter(AlertDerivedTag tag) : LogicError(tag)
{
    AppendInheritance(typeid(InvalidParameter));
}

InvalidParameter::InvalidParameter(const std::string& name) : InvalidParameter(AlertDerivedTag{})
{
    Compose(name, "{Not Provided}");
}

void InvalidParameter::Compose(const std::string& name, const std::string& value)
{
    try {
        SetData(sNAME, name);
        SetData(sVALUE, value);
        SetData(sMESSAGE, "Invalid Parameter: " + name + " = " + value);
        SetData(sTYPE_NAME, TypeName(typeid(*this)));
    } catch (...) {
    }
}

std::shared_ptr<Error> InvalidParameter::Clone() const
{
    return std::make_shared<InvalidParameter>(*this);
}

void InvalidParameter::Throw()
{
    throw InvalidParameter(*this);
}

// ---- ErrorHandlingPrimer ----

ErrorHandlingPrimer::ErrorHandlingPrimer() : Error(eERROR) {}

std::shared_ptr<Error> ErrorHandlingPrimer::Clone() const
{
    return std::make_shared<ErrorHandlingPrimer>(*this);
}

void ErrorHandlingPrimer::PrimeAndThrow()
{
    (void)CreateCallStack();
    throw ErrorHandlingPrimer(*this);
}

void ErrorHandlingPrimer::Throw()
{
    throw ErrorHandlingPrimer(*this);
}

} // namespace Qel::Core
