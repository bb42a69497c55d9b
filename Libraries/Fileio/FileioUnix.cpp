#include "Fileio/FileioUnix.h"

#include "Internationalisation/Translator.h"

#include <cerrno>
#include <unistd.h>

namespace Orl { namespace Harnel { namespace Fileio {

using Internationalisation::CTranslator;

boost::shared_ptr<CFailHandler> g_oFailHandler;

namespace {

// errno is taken by the caller before anything else runs: translating may itself touch it.
[[noreturn]] void _Raise(const char* pFile, int nLine, const char* pMessage, int nErrorCode)
{
  throw CFileioError(pFile, nLine, CTranslator::Translate(pMessage), nErrorCode, CTranslator::Translate(""));
}

int _ToWhence(_ESeekMethod eMethod)
{
  switch (eMethod)
  {
  case eSeekCurrent:
    return SEEK_CUR;
  case eSeekEnd:
    return SEEK_END;
  case eSeekBegin:
  default:
    return SEEK_SET;
  }
}

void _CheckRead(long long nResult, unsigned long nBytes)
{
  const int nError = errno;
  if (nResult < 0)
    _Raise(__FILE__, __LINE__, "Failed to read from a file", nError);
  // Nothing failed here, but errno is passed as it stands all the same.
  if (static_cast<unsigned long long>(nResult) < nBytes)
    _Raise(__FILE__, __LINE__, "Failed to read enough bytes from a file", nError);
}

void _CheckWrite(long long nResult, unsigned long nBytes)
{
  const int nError = errno;
  if (nResult < 0)
    _Raise(__FILE__, __LINE__, "Failed to write to a file", nError);
  if (static_cast<unsigned long long>(nResult) < nBytes)
    _Raise(__FILE__, __LINE__, "Failed to write enough data to a file", 0);
}

bool _FellShort(long long nResult, unsigned long nBytes)
{
  return nResult < 0 || static_cast<unsigned long long>(nResult) < nBytes;
}

// A fresh copy of the handle on every pass: the handler may remove itself while it runs.
bool _AskHandler(int nFile)
{
  const boost::shared_ptr<CFailHandler> pHandler = g_oFailHandler;
  return pHandler && pHandler->OnWriteFailed(nFile);
}

} // namespace

void ReadFile(int nFile, void* pDest, unsigned long nBytes)
{
  _CheckRead(::read(nFile, pDest, nBytes), nBytes);
}

void WriteFile(int nFile, const void* pSource, unsigned long nBytes)
{
  long long nResult = ::write(nFile, pSource, nBytes);
  while (_FellShort(nResult, nBytes) && _AskHandler(nFile))
  {
    if (nResult > 0 && ::lseek64(nFile, -static_cast<off64_t>(nResult), SEEK_END) < 0)
      _Raise(__FILE__, __LINE__, "Failed to seek within a file", errno);
    nResult = ::write(nFile, pSource, nBytes);
  }
  _CheckWrite(nResult, nBytes);
}

void SeekFile(int nFile, long nPosition, _ESeekMethod eMethod)
{
  if (::lseek64(nFile, nPosition, _ToWhence(eMethod)) < 0)
    _Raise(__FILE__, __LINE__, "Failed to seek within a file", errno);
}

void ReadFileAt(int nFile, void* pDest, unsigned long nBytes, long long nOffset)
{
  _CheckRead(::pread64(nFile, pDest, nBytes, nOffset), nBytes);
}

void WriteFileAt(int nFile, const void* pSource, unsigned long nBytes, long long nOffset)
{
  long long nResult = ::pwrite64(nFile, pSource, nBytes, nOffset);
  while (_FellShort(nResult, nBytes) && _AskHandler(nFile))
    nResult = ::pwrite64(nFile, pSource, nBytes, nOffset);
  _CheckWrite(nResult, nBytes);
}

}}} // namespace Orl::Harnel::Fileio
