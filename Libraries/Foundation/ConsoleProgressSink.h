#pragma once

#include "Foundation/Logger.h"

#include <iostream>
#include <string>

namespace Orl { namespace Harnel { namespace Progress {

// Draws the progress of a CLogger as one terminal line,
//   [#######      ]  57% Apply Linear Fill Hole Filter
// rewritten in place with '\r' whenever it changes (the logger already limits how often it reports),
// and ended with a newline when the outermost layer pops. Messages go on lines of their own above
// the bar. Like every sink it relies on its logger to serialise the calls.
class CConsoleProgressSink : public CLoggerSink
{
public:
  explicit CConsoleProgressSink(std::ostream& oStream = std::cerr, unsigned int nBarWidth = 40);
  // Ends a bar line that is still open, e.g. after an exception left layers behind.
  ~CConsoleProgressSink() override;

  void OnProgress(double dFraction, const std::string& strText) override;
  void OnMessage(_EVerbosityLevel eLevel, const std::string& strText) override;
  void OnFinished() override;

private:
  std::string _Format(double dFraction, const std::string& strText) const;
  void _Draw(const std::string& strLine);

  std::ostream& m_oStream;
  const unsigned int m_nBarWidth;
  std::string m_strLine; // the bar line now on screen; empty when none is open
  std::string m_strText; // the last text shown, for the final line
};

}}} // namespace Orl::Harnel::Progress
