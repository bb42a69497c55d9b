#include "TranslatorModule.h"

#include "Internationalisation/Translator.h"

using namespace Orl::Harnel::Internationalisation;

#define ORL_TEST_CONCAT2(a, b) a##b
#define ORL_TEST_CONCAT(a, b) ORL_TEST_CONCAT2(a, b)

const char* ORL_TEST_CONCAT(TranslateInModule, ORL_TEST_MODULE)(const char* pText, const void** ppTranslator,
                                                                std::size_t* pnEntries)
{
  const char* pResult = CTranslator::Translate(pText).c_str();
  *ppTranslator = g_oTranslator.get();
  *pnEntries = CTranslator::GetTranslatorData().GetTranslatorMap().size();
  return pResult;
}

void ORL_TEST_CONCAT(InitModule, ORL_TEST_MODULE)(const char* pDirectory)
{
  const std::string strName = CTranslator::GetApplicationName();
  CTranslator::Init(std::string(pDirectory), strName, "Default");
}

const char* ORL_TEST_CONCAT(LanguageOfModule, ORL_TEST_MODULE)()
{
  return CTranslator::GetLanguage().c_str();
}
