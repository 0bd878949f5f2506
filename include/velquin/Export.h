// VELQUIN_EXPORT marks the classes and functions of the public API. The
// shared library is built with every other symbol hidden, so only what carries
// this mark can be linked against. Builds of the static library define
// VELQUIN_STATIC, and then the mark is empty.
#pragma once

#if defined(VELQUIN_STATIC)
#define VELQUIN_EXPORT
#else
#define VELQUIN_EXPORT __attribute__((visibility("default")))
#endif
