#pragma once

#include "Foundation/Export.h"

#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace Orl { namespace Harnel { namespace Internationalisation {

// The translations of one module in one language, with the modules it falls back on. Pure data: no
// files and no lock; the owner serialises access, also for Translate, which learns unknown keys.
// Strings are byte strings; nothing is converted.
class ORL_HARNEL_API CTranslatorData
{
public:
  CTranslatorData();
  CTranslatorData(const CTranslatorData&) = default;
  CTranslatorData(CTranslatorData&&) = default;
  CTranslatorData& operator=(const CTranslatorData&) = default;
  CTranslatorData& operator=(CTranslatorData&&) = default;
  virtual ~CTranslatorData();

  // Drops the table and all base modules and counts as unmodified. The arguments may be this
  // object's own strings.
  void Init(const std::string& strName, const std::string& strLanguage);

  void SetName(const std::string& strName);
  void SetLanguage(const std::string& strLanguage);
  const std::string& GetName() const { return m_strName; }
  const std::string& GetLanguage() const { return m_strLanguage; }

  const std::map<std::string, std::string>& GetTranslatorMap() const { return m_mapTranslations; }
  // This module's own table only.
  bool CanTranslate(const std::string& strKey) const;

  unsigned int GetNumBaseModules() const;
  bool HasBaseModule(const std::string& strName, bool bRecursive) const;
  // nIndex must be below GetNumBaseModules().
  const CTranslatorData& GetBaseModule(unsigned int nIndex) const;
  CTranslatorData& GetBaseModule(unsigned int nIndex);
  void AddBaseModule(const CTranslatorData& oBase);
  // Removes the first direct base module of that name, if any.
  void RemoveBaseModule(const std::string& strName);
  void RemoveBaseModule(unsigned int nIndex);

  void SetModifiedFlag(bool bModified) { m_bModified = bModified; }
  bool IsModified() const { return m_bModified; }

  void ClearTranslatorMap();
  // Keeps an existing value.
  void AddTranslation(const std::string& strKey, const std::string& strValue);
  void SetTranslation(const std::string& strKey, const std::string& strValue);

  // bDeep false: the nearest module that knows the key wins. bDeep true: the module farthest down
  // wins, and a module's own table counts only when its whole subtree lacks the key. An unknown key
  // is learnt as an identity entry in this module. The reference stays valid until the entry is
  // removed.
  const std::string& Translate(const std::string& strKey, bool bDeep);

private:
  // nDepth is an in-out distance to the holder of the key. Both return null when nothing is found.
  const std::string* _TranslateShallow(const std::string& strKey, std::uint32_t& nDepth) const;
  const std::string* _TranslateDeep(const std::string& strKey, std::uint32_t& nDepth) const;
  const std::string* _FindOwn(const std::string& strKey) const;

  std::map<std::string, std::string> m_mapTranslations;
  std::list<CTranslatorData> m_listBaseModules;
  std::string m_strName;
  std::string m_strLanguage;
  bool m_bModified;
};

}}} // namespace Orl::Harnel::Internationalisation
