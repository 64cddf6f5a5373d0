// Warnings: raised, broadcast unless silenced, and the caller goes on.
#include "Infrastructure/QelCore/Error.h"

#include "Infrastructure/QelCore/AlertManager.h"

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Globals.h"

namespace Qel::Core {

namespace Detail {
void WriteAlertToStandardError(AlertInfo& alert, const std::string& circumstance);

void SetMaxWarnings(const std::string& typeName, unsigned long maxWarnings, bool overwrite)
{
    if (AlertManager* manager = AlertManager::Instance()) manager->SetMaxWarnings(typeName, maxWarnings, overwrite);
}

void ResetWarningCount(const std::string& typeName)
{
    if (AlertManager* manager = AlertManager::Instance()) manager->ResetWarningCount(typeName);
}
} // namespace Detail

Warning::Warning() = default;
Warning::~Warning() = default;

void Warning::RaiseWarning(const CodeContext& context, const char* logName)
{
    std::string name;
    try {
        if (logName != nullptr) name = logName;
    } catch (...) {
        // No memory for the logger's name: the warning goes on without it.
    }
    RaiseWarning(context, name);
}

void Warning::RaiseWarning(const CodeContext& context, const std::string& logName)
{
    PushContext(context);
    SetData(sLOG_NAME, logName);
    if (IsUnloading()) {
        Detail::WriteAlertToStandardError(*this, "Warning During QelCore Shutdown");
        return;
    }
    AlertManager* manager = AlertManager::Instance();
    if (manager == nullptr) return;
    bool broadcast = true;
    try {
        broadcast = manager->ShouldDoWarningBroadcast(TypeName(typeid(*this)));
    } catch (...) {
        // No memory to look the limit up: the warning is told rather than lost.
    }
    if (!broadcast) return;
    Qel::Core::WarningRaised notification(*this);
    manager->Broadcast(notification);
}

std::string Warning::XMLElementName() const
{
    return "Warning";
}

} // namespace Qel::Core
