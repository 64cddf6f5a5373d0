// A module of a host: it asks for the shared singleton and a library global on its own.
#include "shared_singleton.h"

extern "C" __attribute__((visibility("default"))) void* ModuleSingleton()
{
    return SharedCounted::Instance();
}

extern "C" __attribute__((visibility("default"))) void* ModuleSystemGlobal()
{
    return Qel::Core::Globals::Instance().Get<Qel::Core::System>("System");
}
