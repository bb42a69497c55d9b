#pragma once

#include <cstddef>

// Translates pText with the translator of the module that defines the function, and reports that
// translator's address and the size of its table.
#define ORL_DECLARE_TEST_MODULE_FUNCTION(name)                                                        \
  extern "C" __attribute__((visibility("default"))) const char* name(                                 \
    const char* pText, const void** ppTranslator, std::size_t* pnEntries)

ORL_DECLARE_TEST_MODULE_FUNCTION(TranslateInModuleA);
ORL_DECLARE_TEST_MODULE_FUNCTION(TranslateInModuleB);
