// Names of classes and functions as the alert system records them.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <string>
#include <typeinfo>

namespace Qel::Core {

// The type name of a class: the raw name of its run-time type information. It is stable for a
// class and unique among classes; alert records, string tables and `Inheritance` chains key on it.
QEL_CORE_API std::string TypeName(const std::type_info& type);

// The readable name of a class, such as "Qel::Core::LogicError".
QEL_CORE_API std::string ReadableTypeName(const std::type_info& type);

namespace Detail {
// The plain qualified function name cut out of a compiler's pretty signature; used by the macros
// that describe a call site.
QEL_CORE_API std::string FunctionNameOf(const char* signature);
} // namespace Detail

} // namespace Qel::Core
