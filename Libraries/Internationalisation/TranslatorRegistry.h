#pragma once

#include "Foundation/Export.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <string>
#include <vector>

namespace Orl { namespace Harnel { namespace Internationalisation {

// Knows the translators of all modules of the process. One registry per process, in this library,
// while every module has its own hidden translator class: the registry reaches a translator only
// through CClient, whose virtual calls land in the module that registered it.
//
// Lock order: a module's creation lock, then the registry's lock, then a translator's own lock.
class ORL_HARNEL_API CTranslatorRegistry
{
public:
  // What the registry may ask of a registered translator. Each call takes the translator's lock.
  class ORL_HARNEL_API CClient
  {
  public:
    virtual ~CClient();
    // As CTranslator::SetLanguage: writes the old language's file back first if it was modified.
    virtual void SetLanguage(const std::string& strLanguage) = 0;
    virtual std::string GetApplicationName() const = 0;
    virtual std::string GetLanguage() const = 0;
  };

  struct SModule
  {
    std::string m_strName;
    std::string m_strLanguage;
  };

  CTranslatorRegistry(const CTranslatorRegistry&) = delete;
  CTranslatorRegistry& operator=(const CTranslatorRegistry&) = delete;
  virtual ~CTranslatorRegistry();

  // The process's registry, made on first use so that a translator created during any module's
  // static initialisation finds it, and never destroyed, so that translators of modules that are
  // finalised late at exit can still unregister. Translators keep a copy besides.
  static const boost::shared_ptr<CTranslatorRegistry>& GetInstance();

  // A translator that registers after SetLanguage is brought to that language at once.
  static void Register(CClient* pClient);
  static void Unregister(CClient* pClient);

  // Sets the language of every registered module, and of every module whose translator is made
  // later in this process (translators are made on first use, so most modules have none yet when
  // an application chooses its language).
  static void SetLanguage(const std::string& strLanguage);
  // The language given to SetLanguage; empty when it was never called.
  static std::string GetLanguage();
  // Name and language of each registered module, in the order of registration.
  static std::vector<SModule> GetModules();

private:
  CTranslatorRegistry();

  mutable boost::mutex m_oMutex;
  std::vector<CClient*> m_vecClients;
  std::string m_strLanguage;
};

}}} // namespace Orl::Harnel::Internationalisation
