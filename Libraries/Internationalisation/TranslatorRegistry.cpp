#include "Internationalisation/TranslatorRegistry.h"

#include <boost/thread/lock_guard.hpp>

#include <algorithm>
#include <cassert>

namespace Orl { namespace Harnel { namespace Internationalisation {

CTranslatorRegistry::CClient::~CClient() = default;

CTranslatorRegistry::CTranslatorRegistry() = default;

CTranslatorRegistry::~CTranslatorRegistry() = default;

const boost::shared_ptr<CTranslatorRegistry>& CTranslatorRegistry::GetInstance()
{
  static const boost::shared_ptr<CTranslatorRegistry>& g_oTranslatorRegistry =
    *new boost::shared_ptr<CTranslatorRegistry>(new CTranslatorRegistry);
  return g_oTranslatorRegistry;
}

void CTranslatorRegistry::Register(CClient* pClient)
{
  assert(pClient);
  CTranslatorRegistry& oRegistry = *GetInstance();
  boost::lock_guard<boost::mutex> oLock(oRegistry.m_oMutex);
  oRegistry.m_vecClients.push_back(pClient);
  // The translator started with the language it found here; this catches a SetLanguage that came
  // in between.
  if (!oRegistry.m_strLanguage.empty() && pClient->GetLanguage() != oRegistry.m_strLanguage)
    pClient->SetLanguage(oRegistry.m_strLanguage);
}

void CTranslatorRegistry::Unregister(CClient* pClient)
{
  CTranslatorRegistry& oRegistry = *GetInstance();
  boost::lock_guard<boost::mutex> oLock(oRegistry.m_oMutex);
  const auto it = std::find(oRegistry.m_vecClients.begin(), oRegistry.m_vecClients.end(), pClient);
  if (it != oRegistry.m_vecClients.end())
    oRegistry.m_vecClients.erase(it);
}

void CTranslatorRegistry::SetLanguage(const std::string& strLanguage)
{
  CTranslatorRegistry& oRegistry = *GetInstance();
  boost::lock_guard<boost::mutex> oLock(oRegistry.m_oMutex);
  oRegistry.m_strLanguage = strLanguage;
  for (CClient* pClient : oRegistry.m_vecClients)
    pClient->SetLanguage(oRegistry.m_strLanguage);
}

std::string CTranslatorRegistry::GetLanguage()
{
  CTranslatorRegistry& oRegistry = *GetInstance();
  boost::lock_guard<boost::mutex> oLock(oRegistry.m_oMutex);
  return oRegistry.m_strLanguage;
}

std::vector<CTranslatorRegistry::SModule> CTranslatorRegistry::GetModules()
{
  CTranslatorRegistry& oRegistry = *GetInstance();
  boost::lock_guard<boost::mutex> oLock(oRegistry.m_oMutex);
  std::vector<SModule> vecModules;
  vecModules.reserve(oRegistry.m_vecClients.size());
  for (const CClient* pClient : oRegistry.m_vecClients)
    vecModules.push_back(SModule{pClient->GetApplicationName(), pClient->GetLanguage()});
  return vecModules;
}

}}} // namespace Orl::Harnel::Internationalisation
