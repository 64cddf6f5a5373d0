// A host that loads the library at run time and unloads it again.
//   host_dlopen LIBRARY noinit      loads and unloads without calling an entry point
//   host_dlopen LIBRARY init-twice  calls InitializeQelCore and ShutdownQelCore twice each
// "unloaded" is printed after dlclose returns, so the output shows whether the unload work ran
// at dlclose.
#include <cstdio>
#include <cstring>
#include <dlfcn.h>

int main(int argc, char** argv)
{
    if (argc < 3) return 2;
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
        return 3;
    }
    if (std::strcmp(argv[2], "init-twice") == 0) {
        auto initialize = reinterpret_cast<void (*)()>(dlsym(library, "InitializeQelCore"));
        auto shutdown = reinterpret_cast<void (*)()>(dlsym(library, "ShutdownQelCore"));
        auto isDebug = reinterpret_cast<bool (*)()>(dlsym(library, "IsQelCoreDebug"));
        if (initialize == nullptr || shutdown == nullptr || isDebug == nullptr) return 4;
        if (isDebug()) return 5;
        initialize();
        initialize();
        shutdown();
        shutdown();
    }
    std::fflush(stdout);
    if (dlclose(library) != 0) return 6;
    std::fprintf(stderr, "unloaded\n");
    std::printf("host done\n");
    return 0;
}
