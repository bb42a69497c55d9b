#pragma once

// Refusing a caller's mistake: what a public entry point throws when an argument it can check in
// O(1) (a size, a bound, a count) is out of its range, before any pixel is written.

#include "Foundation/BasicException.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>

namespace Orl { namespace Harnel {

// Throws CBasicException at (pFile, nLine) whose message is pMessage translated by the calling
// module's translator, with "%1%", "%2%", ... filled from tArgs. Error code 0, no detail.
template <class... TArgs>
[[noreturn]] void ThrowBadArgument(const char* pFile, int nLine, const char* pMessage, const TArgs&... tArgs)
{
  boost::format oFormat(Internationalisation::CTranslator::Translate(pMessage));
  (void)(oFormat % ... % tArgs);
  throw CBasicException(pFile, nLine, oFormat.str(), 0, Internationalisation::CTranslator::Translate(""));
}

}} // namespace Orl::Harnel
