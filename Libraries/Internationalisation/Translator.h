#pragma once

#include "Foundation/Export.h"
#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorRegistry.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <list>
#include <string>
#include <vector>

namespace Orl { namespace Harnel { namespace Internationalisation {

// The translator of the module (shared library or executable) that this code is linked into. Every
// module has its own copy of this class and of g_oTranslator, so the same static call reaches a
// different table in each module; the class is hidden so that it never binds across modules.
//
// The translator finds its module's file on disk and takes the module name from it: the file name
// without its last extension ("libabc.so.2" gives "libabc.so"). It looks for
// <directory>/<name><language>.trl in its search path, by default the module's directory, "./",
// the working directory and the directory in LANGUAGEPATH, reads it with its base modules, learns
// the texts it meets and writes the file back at exit (or when the language changes) if they were
// new. It starts in the language "Default", or in the one set for all modules through
// CTranslatorRegistry.
//
// A file that is found but fails to read (no permission, a wrong version, a parse error) is never
// written over: what was parsed before the fault is used, and the texts learnt on top of it are
// written beside it, to <file>.learnt (for instance "coreGerman.trl.learnt"), which the search never
// reads. Merge it by hand once the file is repaired. Only regular files are found: a FIFO or device
// named like a translation file is passed over without being opened, and never replaced.
//
// Init and SetLanguage drop the table: references returned earlier by Translate and by the getters
// are then dangling. Change the language while no translated text is in use.
class ORL_HIDDEN CTranslator
{
public:
  CTranslator(const CTranslator&) = delete;
  CTranslator& operator=(const CTranslator&) = delete;
  // Writes the file back if the table was modified. An exception here ends the process.
  virtual ~CTranslator();

  // The translation of strText; an unknown text comes back unchanged and is learnt. The reference
  // points into the table and stays valid while other threads add entries.
  static const std::string& Translate(const std::string& strText);
  // Fails with std::logic_error for a null pointer, leaving the table as it was.
  static const std::string& Translate(const char* pText);

  // Each Init drops the tables without writing them and reads the module's file anew.
  // The default search path and module name, in another language.
  static void Init(const std::string& strLanguage);
  // Module name from a file name (its last extension cut off); search path: the file's directory,
  // the working directory, LANGUAGEPATH.
  static void Init(const std::string& strFileName, const std::string& strLanguage);
  // Reads from and writes to strDirectory only.
  static void Init(const std::string& strDirectory, const std::string& strName, const std::string& strLanguage);
  // listSearchPath must not be empty; its first entry is where the file is written.
  static void Init(const std::list<std::string>& listSearchPath, const std::string& strName,
                   const std::string& strLanguage);

  // Writes the current language's file first if it was modified. Nothing happens for the current
  // language.
  static void SetLanguage(const std::string& strLanguage);
  // true: deep search (the base module farthest down wins), false: the nearest module wins.
  static void SetSearchMode(bool bDeep);
  static bool GetSearchMode();
  static const std::string& GetLanguage();
  static const std::string& GetApplicationName(); // the module name
  static const std::string& GetBaseFilePath();    // the directory that the file is written to
  static const std::list<std::string>& GetSearchPathList();

  // A snapshot of this module's tables, for tests and tools.
  static CTranslatorData GetTranslatorData();

  // Instance forms, each under m_oMutex.
  const std::string& _Translate(const std::string& strText);
  const std::string& _Translate(const char* pText);
  void _SetLanguage(const std::string& strLanguage);
  void _SetSearchMode(bool bDeep);
  bool _GetSearchMode() const;
  const std::string& _GetLanguage() const;
  const std::string& _GetApplicationName() const;
  const std::list<std::string>& _GetSearchPathList() const;
  const std::string& _GetBaseFilePath() const;
  bool CanTranslate(const std::string& strKey) const; // this module's own table only
  bool _IsInit() const;                               // the module name is known

  // Base module files read at most for one module file. Without a limit a valid set of files could
  // still take exponential time: every file may name the same base module many times.
  static const unsigned int ms_nMaxBaseModuleReads = 256;
  // Appended to the name of a file that failed to read, for the write of what was learnt meanwhile.
  static constexpr const char* ms_pLearntSuffix = ".learnt";

private:
  // Forwards the registry's calls; the registry lives in the shared library and cannot see this
  // hidden class.
  class CRegistryClient : public CTranslatorRegistry::CClient
  {
  public:
    explicit CRegistryClient(CTranslator& oTranslator) : m_oTranslator(oTranslator) {}
    void SetLanguage(const std::string& strLanguage) override;
    std::string GetApplicationName() const override;
    std::string GetLanguage() const override;

  private:
    CTranslator& m_oTranslator;
  };

  CTranslator();

  // Makes the module's translator on first use. Takes m_oCreateMutex on every call: the constructor
  // runs under it, so nothing it calls may come back through a static operation.
  static CTranslator& _CreateTranslator();

  void _Init(const std::list<std::string>& listSearchPath, const std::string& strName, const std::string& strLanguage);
  // The first directory of m_listSearchPath that holds the file goes to strDirectory.
  bool _FindFile(const std::string& strName, const std::string& strLanguage, std::string& strDirectory);
  // Reads oData's file from strDirectory and resolves its base modules along the search path; a
  // base module that cannot be read is dropped.
  bool _Read(const std::string& strDirectory, CTranslatorData& oData);
  bool _Read(const std::string& strDirectory, CTranslatorData& oData, std::vector<std::string>& vecPath,
             unsigned int& nReadsLeft);
  void _Write();

  boost::shared_ptr<CTranslatorRegistry> m_pRegistry;
  CTranslatorData m_oData;
  bool m_bSearchMode; // passed as bDeep to CTranslatorData::Translate
  std::list<std::string> m_listSearchPath;
  std::string m_strBaseFilePath;
  std::string m_strUnreadFile; // the module's own file if it was found but failed to read
  mutable boost::recursive_mutex m_oMutex;
  CRegistryClient m_oRegistryClient;

  static boost::mutex m_oCreateMutex;
};

// Empty until the first static call of CTranslator in this module.
extern ORL_HIDDEN boost::shared_ptr<CTranslator> g_oTranslator;

}}} // namespace Orl::Harnel::Internationalisation
