#include "Foundation/ConsoleProgressSink.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Orl { namespace Harnel { namespace Progress {

CConsoleProgressSink::CConsoleProgressSink(std::ostream& oStream, unsigned int nBarWidth)
  : m_oStream(oStream), m_nBarWidth(nBarWidth)
{
}

CConsoleProgressSink::~CConsoleProgressSink()
{
  if (!m_strLine.empty())
    m_oStream << '\n' << std::flush;
}

void CConsoleProgressSink::OnProgress(double dFraction, const std::string& strText)
{
  m_strText = strText;
  _Draw(_Format(dFraction, strText));
}

void CConsoleProgressSink::OnMessage(_EVerbosityLevel /*eLevel*/, const std::string& strText)
{
  if (m_strLine.empty())
  {
    m_oStream << strText << '\n' << std::flush;
    return;
  }
  // Overwrite the bar with the message, then draw the bar again on the next line.
  m_oStream << '\r' << strText;
  if (strText.size() < m_strLine.size())
    m_oStream << std::string(m_strLine.size() - strText.size(), ' ');
  m_oStream << '\n' << m_strLine << std::flush;
}

void CConsoleProgressSink::OnFinished()
{
  _Draw(_Format(1.0, m_strText));
  m_oStream << '\n' << std::flush;
  m_strLine.clear();
}

std::string CConsoleProgressSink::_Format(double dFraction, const std::string& strText) const
{
  dFraction = std::clamp(dFraction, 0.0, 1.0);
  // The small bias keeps fractions such as 0.57, which are a hair below in binary, on their percent.
  const auto nBar = static_cast<unsigned int>(std::floor(dFraction * m_nBarWidth + 1e-9));
  const auto nPercent = static_cast<int>(std::floor(dFraction * 100.0 + 1e-9));
  char szPercent[8];
  std::snprintf(szPercent, sizeof szPercent, "%3d%%", nPercent);
  return '[' + std::string(nBar, '#') + std::string(m_nBarWidth - nBar, ' ') + "] " + szPercent + ' ' + strText;
}

void CConsoleProgressSink::_Draw(const std::string& strLine)
{
  if (strLine == m_strLine)
    return;
  m_oStream << '\r' << strLine;
  if (strLine.size() < m_strLine.size())
    m_oStream << std::string(m_strLine.size() - strLine.size(), ' ');
  m_oStream << std::flush;
  m_strLine = strLine;
}

}}} // namespace Orl::Harnel::Progress
