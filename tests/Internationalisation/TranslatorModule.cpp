#include "TranslatorModule.h"

#include "Internationalisation/Translator.h"

using namespace Orl::Harnel::Internationalisation;

const char* ORL_TEST_MODULE_FUNCTION(const char* pText, const void** ppTranslator, std::size_t* pnEntries)
{
  const char* pResult = CTranslator::Translate(pText).c_str();
  *ppTranslator = g_oTranslator.get();
  *pnEntries = CTranslator::GetTranslatorData().GetTranslatorMap().size();
  return pResult;
}
