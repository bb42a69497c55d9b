#include "Foundation/BasicException.h"

#include <ostream>
#include <sstream>
#include <system_error>

namespace Orl { namespace Harnel {

CBasicException::CBasicException(const std::string& strFile, int nLine, const std::string& strMessage,
                                 int nErrorCode, const std::string& strDetail)
{
  AddMessage(strFile, nLine, strMessage, nErrorCode, strDetail);
}

void CBasicException::AddMessage(const std::string& strFile, int nLine, const std::string& strMessage,
                                 int nErrorCode, const std::string& strDetail)
{
  m_vInfos.push_back(SExceptionInfo{strFile, nLine, strMessage, nErrorCode, strDetail});
}

void CBasicException::Print(std::ostream& oStream) const
{
  for (std::size_t i = 0; i < m_vInfos.size(); ++i)
  {
    const SExceptionInfo& oInfo = m_vInfos[i];
    // Source paths are long and absolute in most builds; the file name and line are what a reader needs.
    const std::string::size_type nSlash = oInfo.m_strFile.find_last_of('/');
    const std::string strFile =
      nSlash == std::string::npos ? oInfo.m_strFile : oInfo.m_strFile.substr(nSlash + 1);

    if (i > 0)
      oStream << "\n  ";
    oStream << oInfo.m_strMessage;
    if (!oInfo.m_strDetail.empty())
      oStream << " - " << oInfo.m_strDetail;
    oStream << " [" << strFile << ':' << oInfo.m_nLine << ']';
    if (oInfo.m_nErrorCode != 0)
      oStream << " (error " << oInfo.m_nErrorCode << ": "
              << std::error_code(oInfo.m_nErrorCode, std::generic_category()).message() << ')';
  }
}

std::string CBasicException::ToString() const
{
  std::ostringstream oStream;
  Print(oStream);
  return oStream.str();
}

std::ostream& operator<<(std::ostream& oStream, const CBasicException& oException)
{
  oException.Print(oStream);
  return oStream;
}

}} // namespace Orl::Harnel
