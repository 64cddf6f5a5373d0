// Warnings: raised, broadcast unless silenced, and the caller goes on.
#include "Infrastructure/QelCore/Error.h"

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Globals.h"

namespace Qel::Core {

namespace Detail {
void WriteAlertToStandardError(AlertInfo& alert, const std::string& circumstance);

void SetMaxWarnings(const std::string& typeName, unsigned long maxWarnings, bool overwrite)
{
    StandIns::SetMaxWarnings(typeName, maxWarnings, overwrite);
}

void ResetWarningCount(const std::string& typeName)
{
    StandIns::ResetWarningCount(typeName);
}
} // namespace Detail

Warning::Warning() = default;
Warning::~Warning() = default;

void Warning::RaiseWarning(const CodeContext& context, const std::string& logName)
{
    PushContext(context);
    SetData(sLOG_NAME, logName);
    if (IsUnloading()) {
        Detail::WriteAlertToStandardError(*this, "Warning During QelCore Shutdown");
        return;
    }
    if (!StandIns::ShouldDoWarningBroadcast(TypeName(typeid(*this)))) return;
    StandIns::BroadcastWarningRaised(*this);
}

std::string Warning::XMLElementName() const
{
    return "Warning";
}

} // namespace Qel::Core
