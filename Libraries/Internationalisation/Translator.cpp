#include "Internationalisation/Translator.h"

#include <boost/thread/lock_guard.hpp>

#include <stdexcept>

namespace Orl { namespace Harnel { namespace Internationalisation {

boost::shared_ptr<CTranslator> g_oTranslator;
boost::mutex CTranslator::m_oCreateMutex;

CTranslator::CTranslator() : m_bSearchMode(true) {}

CTranslator::~CTranslator() = default;

CTranslator& CTranslator::_CreateTranslator()
{
  boost::lock_guard<boost::mutex> oLock(m_oCreateMutex);
  if (!g_oTranslator)
    g_oTranslator.reset(new CTranslator);
  return *g_oTranslator;
}

const std::string& CTranslator::Translate(const std::string& strText)
{
  return _CreateTranslator()._Translate(strText);
}

const std::string& CTranslator::Translate(const char* pText)
{
  return _CreateTranslator()._Translate(pText);
}

CTranslatorData CTranslator::GetTranslatorData()
{
  CTranslator& oTranslator = _CreateTranslator();
  boost::lock_guard<boost::recursive_mutex> oLock(oTranslator.m_oMutex);
  return oTranslator.m_oData;
}

const std::string& CTranslator::_Translate(const std::string& strText)
{
  boost::lock_guard<boost::recursive_mutex> oLock(m_oMutex);
  return m_oData.Translate(strText, m_bSearchMode);
}

const std::string& CTranslator::_Translate(const char* pText)
{
  // Callers see the message of the traditional std::string check; newer standard libraries word
  // their own one differently.
  if (!pText)
    throw std::logic_error("basic_string::_M_construct null not valid");
  return _Translate(std::string(pText));
}

}}} // namespace Orl::Harnel::Internationalisation
