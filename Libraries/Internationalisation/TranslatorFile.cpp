// Translators of different modules may read their files at the same time, and classic Spirit keeps
// its grammar definitions in statics unless told to keep them per thread. This must come before the
// first Spirit header.
#define BOOST_SPIRIT_THREADSAFE

// g++ 12 misreads two things in classic Spirit: the self-owning grammar helper (a shared pointer to
// itself, released in its destructor) as a use after free, and, in the sanitizer build, the empty
// boost::optional of a failed match as read uninitialised.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic ignored "-Wuse-after-free"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "Internationalisation/TranslatorFile.h"

#include "Internationalisation/TranslatorData.h"

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/spirit/include/classic_actor.hpp>
#include <boost/spirit/include/classic_chset.hpp>
#include <boost/spirit/include/classic_core.hpp>

#include <cstdint>
#include <iostream>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Orl { namespace Harnel { namespace Internationalisation {

namespace {

namespace sp = boost::spirit::classic;

// Parses everything after the header "TF(<n>)". Actions take effect as soon as their entry has
// matched, so a failed parse leaves in the data what came before the error.
struct STranslatorFileGrammar : public sp::grammar<STranslatorFileGrammar>
{
  struct SState
  {
    explicit SState(CTranslatorData& oData) : m_oData(oData) {}

    CTranslatorData& m_oData;
    std::string m_strCurrent; // the quoted string parsed last
    std::string m_strKey;
    std::string m_strValue;
    std::vector<std::string> m_vecBaseModules;
  };

  struct _SSetNameAction
  {
    SState& m_oState;
    template <typename TIterator>
    void operator()(TIterator, TIterator) const { m_oState.m_oData.SetName(m_oState.m_strCurrent); }
  };

  struct _SSetLanguageAction
  {
    SState& m_oState;
    template <typename TIterator>
    void operator()(TIterator, TIterator) const { m_oState.m_oData.SetLanguage(m_oState.m_strCurrent); }
  };

  struct _SSetBaseModuleAction
  {
    SState& m_oState;
    template <typename TIterator>
    void operator()(TIterator, TIterator) const
    {
      // Empty stubs in the language just parsed; the translator fills them from their own files.
      for (const std::string& strName : m_oState.m_vecBaseModules)
      {
        CTranslatorData oBase;
        oBase.Init(strName, m_oState.m_oData.GetLanguage());
        m_oState.m_oData.AddBaseModule(oBase);
      }
    }
  };

  struct _SAddTranslationAction
  {
    SState& m_oState;
    template <typename TIterator>
    void operator()(TIterator, TIterator) const
    {
      m_oState.m_oData.AddTranslation(m_oState.m_strKey, m_oState.m_strValue);
    }
  };

  explicit STranslatorFileGrammar(SState& oState) : m_oState(oState) {}

  template <typename TScanner>
  struct definition
  {
    explicit definition(const STranslatorFileGrammar& oSelf)
    {
      using sp::ch_p;
      using sp::str_p;
      SState& oState = oSelf.m_oState;
      // The escape actions keep references to these bytes, so they live in the grammar object.
      const std::string& strLetters = oSelf.m_strEscapeLetters;
      const std::string& strTargets = oSelf.m_strEscapeTargets;
      std::string& strCurrent = oState.m_strCurrent;

      Ws = *sp::space_p;

      EscapeSequence = ch_p('\\') >>
        (ch_p(strLetters[0])[sp::push_back_a(strCurrent, strTargets[0])] |
         ch_p(strLetters[1])[sp::push_back_a(strCurrent, strTargets[1])] |
         ch_p(strLetters[2])[sp::push_back_a(strCurrent, strTargets[2])] |
         ch_p(strLetters[3])[sp::push_back_a(strCurrent, strTargets[3])] |
         ch_p(strLetters[4])[sp::push_back_a(strCurrent, strTargets[4])] |
         ch_p(strLetters[5])[sp::push_back_a(strCurrent, strTargets[5])] |
         ch_p(strLetters[6])[sp::push_back_a(strCurrent, strTargets[6])] |
         ch_p(strLetters[7])[sp::push_back_a(strCurrent, strTargets[7])]);
      QuotedString = Ws >> ch_p('"')[sp::clear_a(strCurrent)] >>
                     *((~sp::chset<char>("\\\""))[sp::push_back_a(strCurrent)] | EscapeSequence) >> ch_p('"');

      ModuleNameEntry = (Ws >> str_p("ModuleName") >> Ws >> ch_p('(') >> Ws >> QuotedString >> Ws >>
                         ch_p(')'))[_SSetNameAction{oState}];
      LanguageEntry = (Ws >> str_p("Language") >> Ws >> ch_p('(') >> Ws >> QuotedString >> Ws >>
                       ch_p(')'))[_SSetLanguageAction{oState}];
      BaseModuleList = (QuotedString[sp::push_back_a(oState.m_vecBaseModules, strCurrent)] >> Ws) % ch_p(',');
      BaseModulesEntry = (Ws >> str_p("BaseModules") >> Ws >> ch_p('(') >>
                          ((Ws >> ch_p(')')) | (BaseModuleList >> Ws >> ch_p(')'))))[_SSetBaseModuleAction{oState}];
      SettingsBlock = Ws >> str_p("Settings") >> Ws >> ch_p('(') >> ModuleNameEntry >> LanguageEntry >>
                      BaseModulesEntry >> Ws >> ch_p(')');

      TranslationEntry = (QuotedString[sp::assign_a(oState.m_strKey, strCurrent)] >> Ws >> ch_p('=') >>
                          QuotedString[sp::assign_a(oState.m_strValue, strCurrent)])[_SAddTranslationAction{oState}];
      TranslationsBlock = Ws >> str_p("Translations") >> Ws >> ch_p('(') >> *TranslationEntry >> Ws >> ch_p(')');

      TranslationFile = SettingsBlock >> TranslationsBlock >> Ws >> sp::end_p;
    }

    const sp::rule<TScanner>& start() const { return TranslationFile; }

    sp::rule<TScanner> Ws, EscapeSequence, QuotedString;
    sp::rule<TScanner> ModuleNameEntry, LanguageEntry, BaseModuleList, BaseModulesEntry, SettingsBlock;
    sp::rule<TScanner> TranslationEntry, TranslationsBlock, TranslationFile;
  };

  SState& m_oState;
  // A backslash followed by m_strEscapeLetters[i] stands for m_strEscapeTargets[i]; tried in this order.
  const std::string m_strEscapeLetters{'b', 'r', 'n', 't', 'f', '\\', '"', '\''};
  const std::string m_strEscapeTargets{'\b', '\r', '\n', '\t', '\f', '\\', '"', '\''};
};

// A shared read-only mapping of a whole regular file. The file is opened with O_NONBLOCK: a FIFO or
// device that took the file's name after the caller looked (or that the caller never looked at)
// answers at once instead of waiting for a writer, and is then refused as not regular. An empty file
// cannot be mapped and is refused as well.
class CReadOnlyMapping
{
public:
  explicit CReadOnlyMapping(const std::string& strFileName)
  {
    const int nFile = ::open(strFileName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (nFile < 0)
      return;
    struct stat oStat;
    if (::fstat(nFile, &oStat) == 0 && S_ISREG(oStat.st_mode) && oStat.st_size > 0)
    {
      void* const pData = ::mmap(nullptr, static_cast<std::size_t>(oStat.st_size), PROT_READ, MAP_SHARED, nFile, 0);
      if (pData != MAP_FAILED)
      {
        m_pFirst = static_cast<const char*>(pData);
        m_nSize = static_cast<std::size_t>(oStat.st_size);
      }
    }
    ::close(nFile);
  }
  ~CReadOnlyMapping()
  {
    if (m_pFirst)
      ::munmap(const_cast<char*>(m_pFirst), m_nSize);
  }
  CReadOnlyMapping(const CReadOnlyMapping&) = delete;
  CReadOnlyMapping& operator=(const CReadOnlyMapping&) = delete;

  const char* First() const { return m_pFirst; }
  const char* Last() const { return m_pFirst + m_nSize; }

private:
  const char* m_pFirst = nullptr;
  std::size_t m_nSize = 0;
};

} // namespace

CTranslatorFile::CTranslatorFile(const std::string& strFileName) : m_strFileName(strFileName) {}

CTranslatorFile::~CTranslatorFile() = default;

std::string CTranslatorFile::BuildFileName(const std::string& strDirectory, const std::string& strName,
                                           const std::string& strLanguage)
{
  const std::string strJoined = strDirectory + "/" + strName + strLanguage + ".trl";
  // Replacing "//" by "/" until none is left is the same as collapsing every run of slashes.
  std::string strResult;
  strResult.reserve(strJoined.size());
  for (const char c : strJoined)
    if (c != '/' || strResult.empty() || strResult.back() != '/')
      strResult.push_back(c);
  return strResult;
}

// Opening a FIFO for reading waits for a writer, possibly forever: only stat is asked.
bool CTranslatorFile::Exists(const std::string& strFileName)
{
  struct stat oStat;
  return ::stat(strFileName.c_str(), &oStat) == 0 && S_ISREG(oStat.st_mode);
}

bool CTranslatorFile::Read(CTranslatorData& oData)
{
  // Parsed straight from the mapping, with no copy of the file.
  const CReadOnlyMapping oMapping(m_strFileName);
  if (!oMapping.First())
    return false;
  typedef const char* TIterator;
  const TIterator itFirst = oMapping.First(), itLast = oMapping.Last();

  std::uint32_t nVersion = 0;
  const sp::parse_info<TIterator> oHeader = sp::parse(
    itFirst, itLast,
    sp::str_p("TF(") >> sp::uint_parser<std::uint32_t, 10, 1, -1>()[sp::assign_a(nVersion)] >> sp::ch_p(')'));
  if (!oHeader.hit)
    return false;
  if (nVersion != 1)
  {
    std::cerr << "Invalid file version (TF(0001) expected)" << std::endl;
    return false;
  }

  STranslatorFileGrammar::SState oState(oData);
  const STranslatorFileGrammar oGrammar(oState);
  const sp::parse_info<TIterator> oBody = sp::parse(oHeader.stop, itLast, oGrammar);
  if (oBody.full)
    return true;
  // Counted from the end of the header, and deliberately 32-bit signed.
  std::cerr << "Parse Error at position " << static_cast<std::int32_t>(oBody.stop - oHeader.stop) << std::endl;
  return false;
}

// The file is written beside its final name and renamed over it: a process that has the old file
// mapped for reading keeps a whole file (truncating a mapped file under a reader would kill it), and a
// failed write leaves the old file as it was.
bool CTranslatorFile::Write(const CTranslatorData& oData) const
{
  struct stat oStat;
  if (::stat(m_strFileName.c_str(), &oStat) == 0 && !S_ISREG(oStat.st_mode))
    return false; // a FIFO, device or directory of that name is not ours to replace
  const boost::filesystem::path oFinal(m_strFileName);
  boost::filesystem::path oTemp(oFinal);
  oTemp += ".tmp" + std::to_string(::getpid());
  {
    boost::filesystem::ofstream oStream(oTemp, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!oStream.is_open())
      return false;
    oStream << "TF(0001)\nSettings\n(\n"
            << "\tModuleName(" << _BuildQuotedString(oData.GetName()) << ")\n"
            << "\tLanguage(" << _BuildQuotedString(oData.GetLanguage()) << ")\n"
            << "\tBaseModules( ";
    for (unsigned int n = 0; n < oData.GetNumBaseModules(); ++n)
      oStream << (n == 0 ? "" : ", ") << _BuildQuotedString(oData.GetBaseModule(n).GetName());
    oStream << " )\n)\nTranslations\n(\n";
    for (const auto& oEntry : oData.GetTranslatorMap())
      oStream << _BuildQuotedString(oEntry.first) << '=' << _BuildQuotedString(oEntry.second) << '\n';
    oStream << ")\n";
    oStream.close();
    if (oStream.good())
    {
      boost::system::error_code oError;
      boost::filesystem::rename(oTemp, oFinal, oError);
      if (!oError)
        return true;
    }
  }
  boost::system::error_code oIgnored;
  boost::filesystem::remove(oTemp, oIgnored);
  return false;
}

std::string CTranslatorFile::_BuildQuotedString(const std::string& strText)
{
  std::string strResult;
  strResult.reserve(strText.size() + 2);
  strResult.push_back('"');
  for (const char c : strText)
  {
    switch (c)
    {
    case '\b': strResult += "\\b"; break;
    case '\t': strResult += "\\t"; break;
    case '\n': strResult += "\\n"; break;
    case '\f': strResult += "\\f"; break;
    case '\r': strResult += "\\r"; break;
    case '"': strResult += "\\\""; break;
    case '\'': strResult += "\\'"; break;
    case '\\': strResult += "\\\\"; break;
    default: strResult.push_back(c);
    }
  }
  strResult.push_back('"');
  return strResult;
}

}}} // namespace Orl::Harnel::Internationalisation
