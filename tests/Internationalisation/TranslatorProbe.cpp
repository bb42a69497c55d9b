// A program with a translator of its own, for the tests that need a whole process: its module
// file, working directory, environment and the write-back at exit. Runs its arguments as commands:
//   tr <text>            print the translation
//   all <language>       CTranslatorRegistry::SetLanguage(language)
//   info                 print name=, language=, base=, path= (search path joined by '|')
//   lib <file> <text>    load the test module <file> and print its translation of <text>
#include "Internationalisation/Translator.h"
#include "Internationalisation/TranslatorRegistry.h"

#include <dlfcn.h>

#include <cstddef>
#include <iostream>
#include <string>

using namespace Orl::Harnel::Internationalisation;

int main(int argc, char** argv)
{
  for (int i = 1; i < argc; ++i)
  {
    const std::string strCommand = argv[i];
    const auto Argument = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    if (strCommand == "tr")
      std::cout << CTranslator::Translate(Argument()) << '\n';
    else if (strCommand == "all")
      CTranslatorRegistry::SetLanguage(Argument());
    else if (strCommand == "info")
    {
      std::cout << "name=" << CTranslator::GetApplicationName() << "\nlanguage=" << CTranslator::GetLanguage()
                << "\nbase=" << CTranslator::GetBaseFilePath() << "\npath=";
      for (const std::string& strDirectory : CTranslator::GetSearchPathList())
        std::cout << (&strDirectory == &CTranslator::GetSearchPathList().front() ? "" : "|") << strDirectory;
      std::cout << '\n';
    }
    else if (strCommand == "lib")
    {
      const std::string strFile = Argument(), strText = Argument();
      typedef const char* (*TTranslate)(const char*, const void**, std::size_t*);
      void* const pHandle = dlopen(strFile.c_str(), RTLD_NOW);
      const auto fnTranslate = pHandle ? reinterpret_cast<TTranslate>(dlsym(pHandle, "TranslateInModuleV")) : nullptr;
      if (!fnTranslate)
        return std::cerr << "cannot load " << strFile << ": " << dlerror() << '\n', 3;
      const void* pTranslator = nullptr;
      std::size_t nEntries = 0;
      std::cout << fnTranslate(strText.c_str(), &pTranslator, &nEntries) << '\n';
    }
    else
      return std::cerr << "unknown command " << strCommand << '\n', 2;
  }
  return 0;
}
