#pragma once

#include <cstddef>

// Functions of the small test modules, each built from TranslatorModule.cpp with its own letter.
// They act on the translator of the module that defines them.
#define ORL_TEST_EXPORT extern "C" __attribute__((visibility("default")))

// Translates pText, and reports the translator's address and the size of its own table.
#define ORL_DECLARE_TEST_MODULE(letter)                                                               \
  ORL_TEST_EXPORT const char* TranslateInModule##letter(const char* pText, const void** ppTranslator,  \
                                                        std::size_t* pnEntries);                       \
  /* Init in the language "Default" with pDirectory as the only directory, keeping the name. */       \
  ORL_TEST_EXPORT void InitModule##letter(const char* pDirectory);                                     \
  ORL_TEST_EXPORT const char* LanguageOfModule##letter()

ORL_DECLARE_TEST_MODULE(A);
ORL_DECLARE_TEST_MODULE(B);
ORL_DECLARE_TEST_MODULE(V);
