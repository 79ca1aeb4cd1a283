// What the library exports: everything else in it is hidden.

#pragma once

#if defined(__GNUC__)
#define ZULRAL_EXPORT __attribute__((visibility("default")))
#else
#define ZULRAL_EXPORT
#endif
