// A plug-in of the exit test: raises an error from code that runs after the library's unload.
#include <Infrastructure/QelCore/QelCore.h>

extern "C" __attribute__((visibility("default"))) void RaiseErrorAfterUnload()
{
    QEL_RAISE_ERROR(Qel::Core::LogicError("raised from an exit handler"), "Qel.Test.Exit");
}
