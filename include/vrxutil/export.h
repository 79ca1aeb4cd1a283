// What the library exports: everything else in it is hidden.

#pragma once

#if defined(__GNUC__)
#define VRXUTIL_EXPORT __attribute__((visibility("default")))
#else
#define VRXUTIL_EXPORT
#endif
