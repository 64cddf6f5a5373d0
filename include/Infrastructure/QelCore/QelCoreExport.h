// Export macro of the QelCore shared library.
//
// The library is built with hidden visibility: only what is marked QEL_CORE_API is part of its
// binary interface. Classes that are thrown, caught or cast across the library boundary carry the
// mark so that their type information is shared with the host.
#pragma once

#if defined(QELCORE_BUILDING_LIBRARY)
#define QEL_CORE_API __attribute__((visibility("default")))
#else
#define QEL_CORE_API __attribute__((visibility("default")))
#endif

// Marks a symbol that stays inside the library even where a class around it is exported.
#define QEL_CORE_LOCAL __attribute__((visibility("hidden")))
