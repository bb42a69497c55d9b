#pragma once

// Symbol visibility for the layer libraries. The translator entry is compiled with hidden visibility
// into every module, so whatever it uses from a layer library must say explicitly that it is exported;
// and the entry's own classes say that they are hidden, so that a consumer compiled with default
// visibility still keeps its own copy.
#define ORL_HARNEL_API __attribute__((visibility("default")))
#define ORL_OSTREL_API __attribute__((visibility("default")))
#define ORL_HIDDEN __attribute__((visibility("hidden")))
