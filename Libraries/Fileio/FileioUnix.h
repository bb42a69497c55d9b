#pragma once

#include "Foundation/BasicException.h"

#include <boost/shared_ptr.hpp>

namespace Orl { namespace Harnel { namespace Fileio {

// Origins of SeekFile, mapped to SEEK_SET, SEEK_CUR and SEEK_END.
enum _ESeekMethod
{
  eSeekBegin,
  eSeekCurrent,
  eSeekEnd
};

// The application's hook for failed writes: WriteFile asks it before a shortfall becomes final.
class ORL_HARNEL_API CFailHandler
{
public:
  // True to try the write again (after making room, say), false to give up.
  virtual bool OnWriteFailed(int nFile) = 0;
  virtual ~CFailHandler() = default;
};

// Empty means no handler. Read without a lock on every pass of the write loop, so a handler may reset
// it from inside OnWriteFailed; set it before other threads use files.
extern ORL_HARNEL_API boost::shared_ptr<CFailHandler> g_oFailHandler;

// Single-shot wrappers over the descriptor calls. Every shortfall is a CFileioError with a translated
// message; callers never look at return values. None of them opens or closes a file.

// One read() for the whole count; a short count is final, an interrupted call is not retried.
ORL_HARNEL_API void ReadFile(int nFile, void* pDest, unsigned long nBytes);

// write() for the whole count, then, while it falls short and a handler says so, again. A partial write
// is taken to have extended the file: the retry seeks that many bytes back from the end of the file (not
// from the position) and writes the whole buffer there. That holds for appends only; a short write in
// the middle of a file moves the retry to a place relative to the end all the same. Kept as it is.
ORL_HARNEL_API void WriteFile(int nFile, const void* pSource, unsigned long nBytes);

ORL_HARNEL_API void SeekFile(int nFile, long nPosition, _ESeekMethod eMethod);

// Positional counterparts (pread/pwrite) with the same messages and the same fail handler loop. They
// leave the descriptor's position alone, so records at different offsets of one file may be read and
// written from several threads at once, and a retried write goes back to its own offset, wherever it is.
ORL_HARNEL_API void ReadFileAt(int nFile, void* pDest, unsigned long nBytes, long long nOffset);
ORL_HARNEL_API void WriteFileAt(int nFile, const void* pSource, unsigned long nBytes, long long nOffset);

}}} // namespace Orl::Harnel::Fileio
