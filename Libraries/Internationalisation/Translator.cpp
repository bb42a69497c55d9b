#include "Internationalisation/Translator.h"

#include "Internationalisation/TranslatorFile.h"

#include <boost/thread/lock_guard.hpp>

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <stdexcept>

namespace Orl { namespace Harnel { namespace Internationalisation {

boost::shared_ptr<CTranslator> g_oTranslator;
boost::mutex CTranslator::m_oCreateMutex;

namespace {

typedef boost::lock_guard<boost::recursive_mutex> TLock;

// The file of the loaded object that holds pAddress. The main program is asked of /proc instead:
// for it dladdr only repeats argv[0], which may be a bare name found through PATH or a path
// relative to a directory that the process has left.
std::string _GetSONameForAddress(const void* pAddress)
{
  Dl_info oInfo;
  link_map* pMap = nullptr;
  if (dladdr1(pAddress, &oInfo, reinterpret_cast<void**>(&pMap), RTLD_DL_LINKMAP) != 0 && oInfo.dli_fname &&
      !(pMap && pMap->l_name && pMap->l_name[0] == '\0'))
    return oInfo.dli_fname;

  const std::string strExe = "/proc/" + std::to_string(getpid()) + "/exe";
  char* pPath = realpath(strExe.c_str(), nullptr);
  if (!pPath)
    throw std::logic_error("basic_string::_M_construct null not valid");
  const std::string strPath(pPath);
  std::free(pPath);
  return strPath;
}

// Appends the module's directory and "./" to listPath, and takes the module name from the file
// name. Only the last extension is cut: "libabc.so.1.2" gives "libabc.so.1". A path without a
// directory leaves strName as it was.
void _AddApplicationPathAndName(std::list<std::string>& listPath, std::string& strName)
{
  const std::string strPath = _GetSONameForAddress(&g_oTranslator);
  const std::string::size_type nSlash = strPath.find_last_of("/\\");
  if (nSlash != std::string::npos)
  {
    listPath.push_back(strPath.substr(0, nSlash));
    strName = strPath.substr(nSlash + 1);
    const std::string::size_type nDot = strName.rfind('.');
    if (nDot != std::string::npos)
      strName.erase(nDot);
  }
  listPath.push_back("./");
}

void _AddCurrentPath(std::list<std::string>& listPath)
{
  char aBuffer[1023];
  if (getcwd(aBuffer, sizeof(aBuffer)))
    listPath.push_back(aBuffer);
}

// LANGUAGEPATH is one directory: the value is not split at any separator.
void _AddEnvironmentPath(std::list<std::string>& listPath)
{
  if (const char* pPath = std::getenv("LANGUAGEPATH"))
    listPath.push_back(pPath);
}

// The module's own directory, then the working directory, then LANGUAGEPATH; "./" if none is known.
void _BuildDefaultSearchPath(std::list<std::string>& listPath, std::string& strName)
{
  _AddApplicationPathAndName(listPath, strName);
  _AddCurrentPath(listPath);
  _AddEnvironmentPath(listPath);
  if (listPath.empty())
    listPath.push_back("./");
}

} // namespace

// --- creation and destruction ---------------------------------------------------------------

CTranslator::CTranslator() : m_bSearchMode(true), m_oRegistryClient(*this)
{
  std::list<std::string> listPath;
  std::string strName;
  _BuildDefaultSearchPath(listPath, strName);
  // "Default" unless the application has chosen a language for all modules.
  const std::string strLanguage = CTranslatorRegistry::GetLanguage();
  _Init(listPath, strName, strLanguage.empty() ? "Default" : strLanguage);
  CTranslatorRegistry::Register(&m_oRegistryClient);
  m_pRegistry = CTranslatorRegistry::GetInstance();
}

CTranslator::~CTranslator()
{
  {
    TLock oLock(m_oMutex);
    if (m_oData.IsModified())
      _Write();
  }
  CTranslatorRegistry::Unregister(&m_oRegistryClient);
}

CTranslator& CTranslator::_CreateTranslator()
{
  boost::lock_guard<boost::mutex> oLock(m_oCreateMutex);
  if (!g_oTranslator)
    g_oTranslator.reset(new CTranslator);
  return *g_oTranslator;
}

// --- static operations ----------------------------------------------------------------------

const std::string& CTranslator::Translate(const std::string& strText)
{
  return _CreateTranslator()._Translate(strText);
}

const std::string& CTranslator::Translate(const char* pText)
{
  return _CreateTranslator()._Translate(pText);
}

void CTranslator::Init(const std::string& strLanguage)
{
  CTranslator& oTranslator = _CreateTranslator();
  std::list<std::string> listPath;
  std::string strName;
  _BuildDefaultSearchPath(listPath, strName);
  oTranslator._Init(listPath, strName, strLanguage);
}

void CTranslator::Init(const std::string& strFileName, const std::string& strLanguage)
{
  CTranslator& oTranslator = _CreateTranslator();
  std::list<std::string> listPath;
  std::string strName = strFileName;
  const std::string::size_type nSlash = strFileName.find_last_of("/\\");
  if (nSlash != std::string::npos)
  {
    listPath.push_back(strFileName.substr(0, nSlash));
    strName.erase(0, nSlash + 1);
  }
  const std::string::size_type nDot = strName.rfind('.');
  if (nDot != std::string::npos)
    strName.erase(nDot);
  _AddCurrentPath(listPath);
  _AddEnvironmentPath(listPath);
  if (listPath.empty())
    listPath.push_back("./");
  oTranslator._Init(listPath, strName, strLanguage);
}

void CTranslator::Init(const std::string& strDirectory, const std::string& strName, const std::string& strLanguage)
{
  _CreateTranslator()._Init(std::list<std::string>(1, strDirectory), strName, strLanguage);
}

void CTranslator::Init(const std::list<std::string>& listSearchPath, const std::string& strName,
                       const std::string& strLanguage)
{
  _CreateTranslator()._Init(listSearchPath, strName, strLanguage);
}

void CTranslator::SetLanguage(const std::string& strLanguage)
{
  _CreateTranslator()._SetLanguage(strLanguage);
}

void CTranslator::SetSearchMode(bool bDeep)
{
  _CreateTranslator()._SetSearchMode(bDeep);
}

bool CTranslator::GetSearchMode()
{
  return _CreateTranslator()._GetSearchMode();
}

const std::string& CTranslator::GetLanguage()
{
  return _CreateTranslator()._GetLanguage();
}

const std::string& CTranslator::GetApplicationName()
{
  return _CreateTranslator()._GetApplicationName();
}

const std::string& CTranslator::GetBaseFilePath()
{
  return _CreateTranslator()._GetBaseFilePath();
}

const std::list<std::string>& CTranslator::GetSearchPathList()
{
  return _CreateTranslator()._GetSearchPathList();
}

CTranslatorData CTranslator::GetTranslatorData()
{
  CTranslator& oTranslator = _CreateTranslator();
  TLock oLock(oTranslator.m_oMutex);
  return oTranslator.m_oData;
}

// --- instance operations --------------------------------------------------------------------

const std::string& CTranslator::_Translate(const std::string& strText)
{
  TLock oLock(m_oMutex);
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

void CTranslator::_SetLanguage(const std::string& strLanguage)
{
  TLock oLock(m_oMutex);
  if (strLanguage == m_oData.GetLanguage())
    return;
  const std::string strNewLanguage(strLanguage); // may refer to something that _Init drops
  if (m_oData.IsModified())
    _Write(); // to the old language's file
  _Init(m_listSearchPath, m_oData.GetName(), strNewLanguage);
}

void CTranslator::_SetSearchMode(bool bDeep)
{
  TLock oLock(m_oMutex);
  m_bSearchMode = bDeep;
}

bool CTranslator::_GetSearchMode() const
{
  TLock oLock(m_oMutex);
  return m_bSearchMode;
}

const std::string& CTranslator::_GetLanguage() const
{
  TLock oLock(m_oMutex);
  return m_oData.GetLanguage();
}

const std::string& CTranslator::_GetApplicationName() const
{
  TLock oLock(m_oMutex);
  return m_oData.GetName();
}

const std::list<std::string>& CTranslator::_GetSearchPathList() const
{
  TLock oLock(m_oMutex);
  return m_listSearchPath;
}

const std::string& CTranslator::_GetBaseFilePath() const
{
  TLock oLock(m_oMutex);
  return m_strBaseFilePath;
}

bool CTranslator::CanTranslate(const std::string& strKey) const
{
  TLock oLock(m_oMutex);
  return m_oData.CanTranslate(strKey);
}

bool CTranslator::_IsInit() const
{
  TLock oLock(m_oMutex);
  return !m_oData.GetName().empty();
}

// --- files ----------------------------------------------------------------------------------

void CTranslator::_Init(const std::list<std::string>& listSearchPath, const std::string& strName,
                        const std::string& strLanguage)
{
  TLock oLock(m_oMutex);
  assert(!listSearchPath.empty());
  if (&listSearchPath != &m_listSearchPath)
    m_listSearchPath = listSearchPath;
  m_strBaseFilePath = m_listSearchPath.front();
  // The old tables go without a write: only SetLanguage and the destructor write back.
  m_oData.Init(strName, strLanguage);
  m_strUnreadFile.clear();
  if (_FindFile(m_oData.GetName(), m_oData.GetLanguage(), m_strBaseFilePath))
  {
    // A file that is there but cannot be read (no permission, a wrong version, a parse error) would
    // lose everything behind its fault if it were written back. It stays as it is; what was parsed
    // before the fault is kept, and only texts learnt from now on make a write, beside it.
    if (!_Read(m_strBaseFilePath, m_oData) && !m_strUnreadFile.empty())
      m_oData.SetModifiedFlag(false);
  }
  else
    m_oData.SetModifiedFlag(true); // so that the first write creates the file in the first directory
}

bool CTranslator::_FindFile(const std::string& strName, const std::string& strLanguage, std::string& strDirectory)
{
  TLock oLock(m_oMutex);
  for (const std::string& strCandidate : m_listSearchPath)
    if (CTranslatorFile::Exists(CTranslatorFile::BuildFileName(strCandidate, strName, strLanguage)))
    {
      strDirectory = strCandidate;
      return true;
    }
  return false;
}

bool CTranslator::_Read(const std::string& strDirectory, CTranslatorData& oData)
{
  std::vector<std::string> vecPath;
  unsigned int nReadsLeft = ms_nMaxBaseModuleReads;
  return _Read(strDirectory, oData, vecPath, nReadsLeft);
}

// Files that name one another as base modules are an invalid set, and so is a file that names
// itself; they must still not make the recursion endless. A base module whose name is already on
// the path from the top module down to this one is dropped like one without a file, and so is every
// base module beyond the read limit. Only the top module is ever written back, and a drop alone
// does not mark it modified.
bool CTranslator::_Read(const std::string& strDirectory, CTranslatorData& oData, std::vector<std::string>& vecPath,
                        unsigned int& nReadsLeft)
{
  TLock oLock(m_oMutex);
  const std::string strName(oData.GetName()), strLanguage(oData.GetLanguage());
  const std::string strFile = CTranslatorFile::BuildFileName(strDirectory, strName, strLanguage);
  if (!CTranslatorFile(strFile).Read(oData))
  {
    if (vecPath.empty()) // the module's own file; base modules are never written
      m_strUnreadFile = strFile;
    return false;
  }
  // A file that calls itself something else keeps its names in oData, and its bases stay unread.
  if (oData.GetName() != strName || oData.GetLanguage() != strLanguage)
    return false;

  vecPath.push_back(strName);
  for (unsigned int nIndex = 0; nIndex < oData.GetNumBaseModules();)
  {
    CTranslatorData& oBase = oData.GetBaseModule(nIndex);
    bool bRead = false;
    if (nReadsLeft > 0 && std::find(vecPath.begin(), vecPath.end(), oBase.GetName()) == vecPath.end())
    {
      --nReadsLeft;
      std::string strBaseDirectory;
      bRead = _FindFile(oBase.GetName(), strLanguage, strBaseDirectory) &&
              _Read(strBaseDirectory, oBase, vecPath, nReadsLeft);
    }
    if (bRead)
      ++nIndex;
    else
      oData.RemoveBaseModule(nIndex); // the next one moves up to this index
  }
  vecPath.pop_back();
  oData.SetModifiedFlag(false);
  return true;
}

void CTranslator::_Write()
{
  TLock oLock(m_oMutex);
  const std::string strFile =
    m_strUnreadFile.empty() ? CTranslatorFile::BuildFileName(m_strBaseFilePath, m_oData.GetName(), m_oData.GetLanguage())
                            : m_strUnreadFile + ms_pLearntSuffix;
  CTranslatorFile(strFile).Write(m_oData); // a translator that cannot write its file says nothing
}

// --- registry client ------------------------------------------------------------------------

void CTranslator::CRegistryClient::SetLanguage(const std::string& strLanguage)
{
  m_oTranslator._SetLanguage(strLanguage);
}

std::string CTranslator::CRegistryClient::GetApplicationName() const
{
  TLock oLock(m_oTranslator.m_oMutex); // copy under the lock: the string may change right after
  return m_oTranslator.m_oData.GetName();
}

std::string CTranslator::CRegistryClient::GetLanguage() const
{
  TLock oLock(m_oTranslator.m_oMutex);
  return m_oTranslator.m_oData.GetLanguage();
}

}}} // namespace Orl::Harnel::Internationalisation
