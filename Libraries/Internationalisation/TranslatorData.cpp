#include "Internationalisation/TranslatorData.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace Orl { namespace Harnel { namespace Internationalisation {

CTranslatorData::CTranslatorData() : m_bModified(false) {}

CTranslatorData::~CTranslatorData() = default;

void CTranslatorData::Init(const std::string& strName, const std::string& strLanguage)
{
  // Copy first: the arguments may alias our names, or the name of a base module about to go.
  std::string strNewName(strName), strNewLanguage(strLanguage);
  m_strName.swap(strNewName);
  m_strLanguage.swap(strNewLanguage);
  m_mapTranslations.clear();
  m_listBaseModules.clear();
  m_bModified = false;
}

void CTranslatorData::SetName(const std::string& strName)
{
  if (strName == m_strName)
    return;
  m_strName = strName;
  m_bModified = true;
}

void CTranslatorData::SetLanguage(const std::string& strLanguage)
{
  if (strLanguage == m_strLanguage)
    return;
  m_strLanguage = strLanguage;
  m_bModified = true;
}

bool CTranslatorData::CanTranslate(const std::string& strKey) const
{
  return m_mapTranslations.count(strKey) != 0;
}

unsigned int CTranslatorData::GetNumBaseModules() const
{
  return static_cast<unsigned int>(m_listBaseModules.size());
}

bool CTranslatorData::HasBaseModule(const std::string& strName, bool bRecursive) const
{
  for (const CTranslatorData& oBase : m_listBaseModules)
    if (oBase.m_strName == strName || (bRecursive && oBase.HasBaseModule(strName, true)))
      return true;
  return false;
}

const CTranslatorData& CTranslatorData::GetBaseModule(unsigned int nIndex) const
{
  assert(nIndex < m_listBaseModules.size());
  return *std::next(m_listBaseModules.begin(), nIndex);
}

CTranslatorData& CTranslatorData::GetBaseModule(unsigned int nIndex)
{
  assert(nIndex < m_listBaseModules.size());
  return *std::next(m_listBaseModules.begin(), nIndex);
}

void CTranslatorData::AddBaseModule(const CTranslatorData& oBase)
{
  // Copy before touching the list: oBase may be this object or one of its base modules.
  CTranslatorData oCopy(oBase);
  m_listBaseModules.push_back(std::move(oCopy));
  m_bModified = true;
}

void CTranslatorData::RemoveBaseModule(const std::string& strName)
{
  const auto it = std::find_if(m_listBaseModules.begin(), m_listBaseModules.end(),
                               [&](const CTranslatorData& oBase) { return oBase.m_strName == strName; });
  if (it == m_listBaseModules.end())
    return;
  m_listBaseModules.erase(it);
  m_bModified = true;
}

void CTranslatorData::RemoveBaseModule(unsigned int nIndex)
{
  assert(nIndex < m_listBaseModules.size());
  m_listBaseModules.erase(std::next(m_listBaseModules.begin(), nIndex));
  m_bModified = true;
}

void CTranslatorData::ClearTranslatorMap()
{
  if (m_mapTranslations.empty())
    return;
  m_mapTranslations.clear();
  m_bModified = true;
}

void CTranslatorData::AddTranslation(const std::string& strKey, const std::string& strValue)
{
  m_mapTranslations.emplace(strKey, strValue);
  m_bModified = true;
}

void CTranslatorData::SetTranslation(const std::string& strKey, const std::string& strValue)
{
  m_mapTranslations[strKey] = strValue;
  m_bModified = true;
}

const std::string& CTranslatorData::Translate(const std::string& strKey, bool bDeep)
{
  std::uint32_t nDepth = 0;
  if (const std::string* pValue = bDeep ? _TranslateDeep(strKey, nDepth) : _TranslateShallow(strKey, nDepth))
    return *pValue;
  // Only the module that was asked learns; the identity entry lists the text for a translator.
  AddTranslation(strKey, strKey);
  return m_mapTranslations.find(strKey)->second;
}

const std::string* CTranslatorData::_FindOwn(const std::string& strKey) const
{
  const auto it = m_mapTranslations.find(strKey);
  return it == m_mapTranslations.end() ? nullptr : &it->second;
}

const std::string* CTranslatorData::_TranslateShallow(const std::string& strKey, std::uint32_t& nDepth) const
{
  if (const std::string* pOwn = _FindOwn(strKey))
    return pOwn;
  std::uint32_t nBest = 0xFFFFFFFF;
  const std::string* pResult = nullptr;
  for (const CTranslatorData& oBase : m_listBaseModules)
  {
    std::uint32_t n = 1;
    if (const std::string* pValue = oBase._TranslateShallow(strKey, n))
    {
      if (n < nBest)
        pResult = pValue;
      nBest = std::min(nBest, n);
    }
  }
  // Deliberately unsigned 32-bit: when nothing was found this wraps to nDepth - 1, a value that no
  // caller looks at because the result is null.
  nDepth += nBest;
  return pResult;
}

const std::string* CTranslatorData::_TranslateDeep(const std::string& strKey, std::uint32_t& nDepth) const
{
  std::uint32_t nBest = 0;
  const std::string* pResult = nullptr;
  for (const CTranslatorData& oBase : m_listBaseModules)
  {
    std::uint32_t n = 1;
    const std::string* pValue = oBase._TranslateDeep(strKey, n);
    if (pValue && n > nBest)
    {
      pResult = pValue;
      nBest = n;
    }
  }
  if (pResult)
  {
    nDepth += nBest;
    return pResult;
  }
  return _FindOwn(strKey); // nBest is 0 here, so nDepth stays as it is
}

}}} // namespace Orl::Harnel::Internationalisation
