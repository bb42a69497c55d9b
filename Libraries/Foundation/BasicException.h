#pragma once

#include "Foundation/Export.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace Orl { namespace Harnel {

// The root of the library's own failures. It carries a stack of entries: the raiser writes the first,
// and each layer that adds context appends one and rethrows the same object, so that the reader at the
// top sees the whole chain with source positions. Deliberately not derived from std::exception: a
// handler that wants it names it.
class ORL_HARNEL_API CBasicException
{
public:
  struct SExceptionInfo
  {
    std::string m_strFile;
    int m_nLine;
    std::string m_strMessage;  // already translated
    int m_nErrorCode;          // errno where meaningful, else 0
    std::string m_strDetail;
  };

  CBasicException(const std::string& strFile, int nLine, const std::string& strMessage, int nErrorCode,
                  const std::string& strDetail);

  void AddMessage(const std::string& strFile, int nLine, const std::string& strMessage, int nErrorCode,
                  const std::string& strDetail);

  // The stack, oldest entry (the raiser's) first; never empty.
  const std::vector<SExceptionInfo>& GetInfos() const { return m_vInfos; }
  std::size_t GetInfoCount() const { return m_vInfos.size(); }
  const SExceptionInfo& GetInfo(std::size_t nIndex) const { return m_vInfos.at(nIndex); }

  // One line per entry, oldest first, later entries indented:
  //   Failed to write to a file [FileioUnix.cpp:80] (error 28: No space left on device)
  //     Failed to write to the disk tile cache [Tile.h:240]
  // The detail follows the message after " - " when it is not empty.
  void Print(std::ostream& oStream) const;
  std::string ToString() const;

private:
  std::vector<SExceptionInfo> m_vInfos;
};

ORL_HARNEL_API std::ostream& operator<<(std::ostream& oStream, const CBasicException& oException);

namespace Fileio {

// Failures of the file primitives, so that they can be caught apart from others.
class ORL_HARNEL_API CFileioError : public CBasicException
{
public:
  using CBasicException::CBasicException;
};

} // namespace Fileio

}} // namespace Orl::Harnel
