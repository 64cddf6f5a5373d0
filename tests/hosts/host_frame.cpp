// A host linked against the library at build time.
//   host_frame noinit      calls no entry point at all
//   host_frame init-twice  calls InitializeQelCore and ShutdownQelCore twice each
#include <Infrastructure/QelCore/QelCore.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "noinit";
    if (std::strcmp(mode, "init-twice") == 0) {
        InitializeQelCore();
        InitializeQelCore();
        ShutdownQelCore();
        ShutdownQelCore();
    }
    std::printf("host done\n");
    return 0;
}
