// A host whose static object outlives the library: it is built before the library is loaded, so
// its destructor runs after the library's unload handler and static destructors, and raises an
// error through a plug-in linked against the library. The process must end normally.
#include <cstdio>
#include <dlfcn.h>

namespace {
using RaiseFunction = void (*)();
RaiseFunction g_pRaise = nullptr;

struct RaiseAtExit
{
    ~RaiseAtExit()
    {
        if (g_pRaise != nullptr) g_pRaise();
        std::fprintf(stderr, "after raise\n");
    }
};
} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) return 2;
    static RaiseAtExit s_RaiseAtExit; // registered with exit before the library loads
    void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
        return 3;
    }
    g_pRaise = reinterpret_cast<RaiseFunction>(dlsym(plugin, "RaiseErrorAfterUnload"));
    return g_pRaise == nullptr ? 4 : 0;
}
