// What the library exports: everything else in it is hidden.

#pragma once

#if defined(__GNUC__)
#define VRXCOMN_EXPORT __attribute__((visibility("default")))
#else
#define VRXCOMN_EXPORT
#endif
