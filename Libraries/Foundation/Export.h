#pragma once

// Symbols of the two layer libraries are exported explicitly, so that code compiled with hidden
// visibility (the per-module translator entry) can still reach them.
#define ORL_HARNEL_API __attribute__((visibility("default")))
#define ORL_OSTREL_API __attribute__((visibility("default")))
// Per-module objects: each shared library and executable has its own copy.
#define ORL_MODULE_LOCAL __attribute__((visibility("hidden")))
