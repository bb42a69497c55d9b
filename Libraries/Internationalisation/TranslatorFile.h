#pragma once

#include "Foundation/Export.h"

#include <string>

namespace Orl { namespace Harnel { namespace Internationalisation {

class CTranslatorData;

// One translation file (".trl"): module name, language, the names of the base modules and the table.
// The base modules' tables live in files of their own; the translator follows the names.
//
// Reader and writer are deliberately not mirror images. The writer always produces the canonical
// layout ("TF(0001)", fixed line breaks, every special byte escaped, keys unique and sorted); the
// reader also takes hand-edited files: any spelling of version 1, white space between all tokens,
// raw tabs, line ends and single quotes inside strings, keys in any order (the first of a duplicate
// wins). Both directions copy bytes as they are: no encoding is assumed.
class ORL_HARNEL_API CTranslatorFile
{
public:
  explicit CTranslatorFile(const std::string& strFileName);
  virtual ~CTranslatorFile();

  // strDirectory + "/" + strName + strLanguage + ".trl", with every run of slashes collapsed to one,
  // so an empty directory yields a path from the root.
  static std::string BuildFileName(const std::string& strDirectory, const std::string& strName,
                                   const std::string& strLanguage);
  // True for a regular file (or a link to one), found without opening it: a FIFO or device of that
  // name never blocks the caller. A regular file that cannot be read still counts as there.
  static bool Exists(const std::string& strFileName);

  // Merges the file into oData through its mutators; the caller hands in a freshly initialised
  // object. Never throws for a bad file: false, and for a file with a valid header one line on
  // std::cerr. What was parsed before an error stays in oData. Anything but a non-empty regular file
  // is refused without waiting: a FIFO is opened without blocking.
  bool Read(CTranslatorData& oData);
  // Creates or replaces the file (written beside it and renamed over it). False when the stream did
  // not end in a good state, or when something other than a regular file has the name; no message.
  bool Write(const CTranslatorData& oData) const;

  const std::string& GetFileName() const { return m_strFileName; }

private:
  static std::string _BuildQuotedString(const std::string& strText);

  std::string m_strFileName;
};

}}} // namespace Orl::Harnel::Internationalisation
