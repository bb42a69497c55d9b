#pragma once

#include <cstddef>

// Functions of the small test modules, each built from TranslatorModule.cpp with its own letter; they act
// on the module's own translator. Translate reports the translator's address and the size of its table;
// Init takes the language "Default" with pDirectory as the only directory, keeping the name.
#define ORL_DECLARE_TEST_MODULE(letter)                                                                          \
  extern "C" __attribute__((visibility("default"))) const char* TranslateInModule##letter(                       \
    const char* pText, const void** ppTranslator, std::size_t* pnEntries);                                       \
  extern "C" __attribute__((visibility("default"))) void InitModule##letter(const char* pDirectory);             \
  extern "C" __attribute__((visibility("default"))) const char* LanguageOfModule##letter()

ORL_DECLARE_TEST_MODULE(A);
ORL_DECLARE_TEST_MODULE(B);
ORL_DECLARE_TEST_MODULE(V);
