// A host and a module it links both ask for one singleton class and one library global.
//   host_singleton exit      leaves through main's return; the unload destroys the singleton
//   host_singleton shutdown  calls ShutdownQelCore first, then asks once more (a new instance)
#include "shared_singleton.h"

#include <cstring>

extern "C" void* ModuleSingleton();
extern "C" void* ModuleSystemGlobal();

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "exit";
    void* mine = SharedCounted::Instance();
    std::printf("%s singleton\n", mine == ModuleSingleton() ? "one" : "two");
    void* system = Qel::Core::Globals::Instance().Get<Qel::Core::System>("System");
    std::printf("%s global\n", system != nullptr && system == ModuleSystemGlobal() ? "one" : "two");
    if (std::strcmp(mode, "shutdown") == 0) {
        ShutdownQelCore();
        // Gone for both: the next request builds one new instance, again shared.
        std::printf("%s after shutdown\n", SharedCounted::IsInstantiated() ? "kept" : "gone");
        std::printf("%s rebuilt\n", SharedCounted::Instance() == ModuleSingleton() ? "one" : "two");
    }
    std::fflush(stdout);
    return 0;
}
