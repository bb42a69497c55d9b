#include "Band/SpillFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <iterator>

namespace Orl { namespace Ostrel { namespace Band {

namespace Detail {

std::int64_t CSpillSlots::Take(unsigned long nSize)
{
  const auto itFree = m_oFree.find(nSize);
  if (itFree != m_oFree.end() && !itFree->second.empty())
  {
    const std::int64_t nOffset = *itFree->second.begin();
    itFree->second.erase(itFree->second.begin());
    m_oSlots[nOffset].m_bFree = false;
    return nOffset;
  }
  const std::int64_t nOffset = m_nEnd;
  m_oSlots.emplace(nOffset, SSlot{nSize, false});
  m_nEnd += static_cast<std::int64_t>(nSize);
  return nOffset;
}

bool CSpillSlots::Give(std::int64_t nOffset)
{
  const auto itSlot = m_oSlots.find(nOffset);
  assert(itSlot != m_oSlots.end() && !itSlot->second.m_bFree);
  itSlot->second.m_bFree = true;
  m_oFree[itSlot->second.m_nSize].insert(nOffset);

  bool bShrunk = false;
  while (!m_oSlots.empty() && m_oSlots.rbegin()->second.m_bFree)
  {
    const auto itLast = std::prev(m_oSlots.end());
    m_oFree[itLast->second.m_nSize].erase(itLast->first);
    m_nEnd = itLast->first;
    m_oSlots.erase(itLast);
    bShrunk = true;
  }
  return bShrunk;
}

unsigned long CSpillSlots::GetSize(std::int64_t nOffset) const
{
  const auto itSlot = m_oSlots.find(nOffset);
  assert(itSlot != m_oSlots.end());
  return itSlot->second.m_nSize;
}

CSpillFile::~CSpillFile()
{
  if (m_nFile >= 0)
    ::close(m_nFile);
}

int CSpillFile::Open(const std::string& strDirectory)
{
  assert(m_nFile < 0);
  int nFile = ::open(strDirectory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (nFile < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL))
  {
    // No anonymous files on this file system: a named one, unlinked before anybody can see it stay.
    std::string strPath = strDirectory + "/orl-tiles-XXXXXX";
    nFile = ::mkostemp(&strPath[0], O_CLOEXEC);
    if (nFile >= 0)
      ::unlink(strPath.c_str());
  }
  if (nFile < 0)
    return errno;
  m_nFile = nFile;
  return 0;
}

// A slot that reached the end of the file cuts the file; one in the middle has its record's space
// punched out. Both are best effort: a file that stays longer costs only disk.
void CSpillFile::FreeSlot(std::int64_t nSlot, unsigned long nRecordBytes)
{
  const unsigned long nSize = m_oSlots.GetSize(nSlot);
  if (m_oSlots.Give(nSlot))
    (void)::ftruncate(m_nFile, m_oSlots.GetEnd());
  else if (nRecordBytes != 0)
    PunchHole(nSlot, static_cast<std::int64_t>(std::min(nSize, nRecordBytes)));
}

void CSpillFile::PunchHole(std::int64_t nOffset, std::int64_t nLength) const
{
  // Not every file system punches holes.
  (void)::fallocate(m_nFile, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, nOffset, nLength);
}

} // namespace Detail

}}} // namespace Orl::Ostrel::Band
