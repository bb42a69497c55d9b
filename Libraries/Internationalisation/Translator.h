#pragma once

#include "Foundation/Export.h"
#include "Internationalisation/TranslatorData.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <list>
#include <string>

namespace Orl { namespace Harnel { namespace Internationalisation {

class CTranslatorRegistry;

// The translator of the module (shared library or executable) that this code is linked into. Every
// module has its own copy of this class and of g_oTranslator, so the same static call reaches a
// different table in each module; the class is hidden so that it never binds across modules.
class ORL_HIDDEN CTranslator
{
public:
  CTranslator(const CTranslator&) = delete;
  CTranslator& operator=(const CTranslator&) = delete;
  virtual ~CTranslator();

  // The translation of strText; an unknown text comes back unchanged and is learnt. The reference
  // points into the table and stays valid while other threads add entries.
  static const std::string& Translate(const std::string& strText);
  // Fails with std::logic_error for a null pointer, leaving the table as it was.
  static const std::string& Translate(const char* pText);

  // A snapshot of this module's tables, for tests and tools.
  static CTranslatorData GetTranslatorData();

  const std::string& _Translate(const std::string& strText);
  const std::string& _Translate(const char* pText);

private:
  CTranslator();

  // Makes the module's translator on first use. Takes m_oCreateMutex on every call: the constructor
  // runs under it, so nothing it calls may come back through a static operation.
  static CTranslator& _CreateTranslator();

  boost::shared_ptr<CTranslatorRegistry> m_pRegistry;
  CTranslatorData m_oData;
  bool m_bSearchMode; // passed as bDeep to CTranslatorData::Translate
  std::list<std::string> m_listSearchPath;
  std::string m_strBaseFilePath;
  mutable boost::recursive_mutex m_oMutex;

  static boost::mutex m_oCreateMutex;
};

// Empty until the first static call of CTranslator in this module.
extern ORL_HIDDEN boost::shared_ptr<CTranslator> g_oTranslator;

}}} // namespace Orl::Harnel::Internationalisation
