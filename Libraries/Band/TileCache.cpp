#include "Band/TileCache.h"

#include "Foundation/BasicException.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <limits>
#include <new>
#include <sstream>
#include <unistd.h>

namespace Orl { namespace Ostrel { namespace Band {

boost::shared_ptr<CTileCache> g_oTileCache;

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

} // namespace Detail

namespace {

using Harnel::Internationalisation::CTranslator;

constexpr unsigned long g_nFullTileRecord = Detail::GetTileRecordCapacity(524288);

// "123", "64K", "512M", "2G" (binary multiples); false for anything else.
bool _ParseBytes(const char* pText, std::uint64_t& nBytes)
{
  if (!pText || !*pText)
    return false;
  char* pEnd = nullptr;
  errno = 0;
  const unsigned long long nValue = std::strtoull(pText, &pEnd, 10);
  if (errno != 0 || pEnd == pText || *pText == '-')
    return false;
  unsigned int nShift = 0;
  switch (*pEnd)
  {
  case '\0':
    break;
  case 'k': case 'K':
    nShift = 10;
    break;
  case 'm': case 'M':
    nShift = 20;
    break;
  case 'g': case 'G':
    nShift = 30;
    break;
  default:
    return false;
  }
  if (*pEnd && pEnd[1] != '\0')
    return false;
  if (nValue > (std::numeric_limits<std::uint64_t>::max() >> nShift))
    return false;
  nBytes = static_cast<std::uint64_t>(nValue) << nShift;
  return true;
}

// A limit file of a memory cgroup: a number, or "max" (v2) or a huge value (v1) for none.
void _ApplyLimitFile(const std::string& strPath, std::uint64_t& nLimit)
{
  std::ifstream oFile(strPath);
  std::string strValue;
  if (!(oFile >> strValue))
    return;
  std::uint64_t nValue = 0;
  if (_ParseBytes(strValue.c_str(), nValue) && nValue > 0)
    nLimit = std::min(nLimit, nValue);
}

// The limits of the process's memory cgroup and of its ancestors, v2 and v1.
std::uint64_t _GetCgroupLimit()
{
  std::uint64_t nLimit = std::numeric_limits<std::uint64_t>::max();
  std::ifstream oCgroups("/proc/self/cgroup");
  std::string strLine;
  while (std::getline(oCgroups, strLine))
  {
    // "hierarchy-id:controllers:path"; v2 has id 0 and no controllers.
    const std::string::size_type nFirst = strLine.find(':');
    const std::string::size_type nSecond = nFirst == std::string::npos ? nFirst : strLine.find(':', nFirst + 1);
    if (nSecond == std::string::npos)
      continue;
    const std::string strControllers = strLine.substr(nFirst + 1, nSecond - nFirst - 1);
    std::string strPath = strLine.substr(nSecond + 1);
    std::string strRoot, strFile;
    if (strControllers.empty())
    {
      strRoot = "/sys/fs/cgroup";
      strFile = "/memory.max";
    }
    else
    {
      std::istringstream oList(strControllers);
      std::string strController;
      bool bMemory = false;
      while (std::getline(oList, strController, ','))
        bMemory = bMemory || strController == "memory";
      if (!bMemory)
        continue;
      strRoot = "/sys/fs/cgroup/memory";
      strFile = "/memory.limit_in_bytes";
    }
    // A container often sees its own cgroup as the root, where the path from /proc does not exist; the
    // walk up to the root covers both views.
    for (;;)
    {
      _ApplyLimitFile(strRoot + (strPath == "/" ? std::string() : strPath) + strFile, nLimit);
      if (strPath.empty() || strPath == "/")
        break;
      const std::string::size_type nSlash = strPath.find_last_of('/');
      strPath = nSlash == 0 || nSlash == std::string::npos ? std::string("/") : strPath.substr(0, nSlash);
    }
  }
  return nLimit;
}

} // namespace

CTileCache::CTileCache() : m_nBudget(GetDefaultMemoryBudget()), m_strDirectory(GetDefaultSpillDirectory())
{
}

CTileCache::~CTileCache()
{
  // Tiles that others still hold all have their memory: only tiles held by nobody else are ever spilled.
  if (m_nFile >= 0)
    ::close(m_nFile);
}

void CTileCache::InitGlobalTileCache()
{
  g_oTileCache = boost::make_shared<CTileCache>();
}

std::uint64_t CTileCache::GetUsableMemory()
{
  const long nPages = ::sysconf(_SC_PHYS_PAGES);
  const long nPageSize = ::sysconf(_SC_PAGE_SIZE);
  std::uint64_t nMemory = std::numeric_limits<std::uint64_t>::max();
  if (nPages > 0 && nPageSize > 0)
    nMemory = static_cast<std::uint64_t>(nPages) * static_cast<std::uint64_t>(nPageSize);
  nMemory = std::min(nMemory, _GetCgroupLimit());
  // Neither source known: assume a small machine rather than an unlimited one.
  return nMemory == std::numeric_limits<std::uint64_t>::max() ? std::uint64_t(1) << 31 : nMemory;
}

std::uint64_t CTileCache::GetDefaultMemoryBudget()
{
  const char* pText = std::getenv("ORL_TILE_CACHE_BYTES");
  std::uint64_t nBytes = 0;
  if (pText && _ParseBytes(pText, nBytes))
    return nBytes;
  if (pText)
    std::cerr << "ORL_TILE_CACHE_BYTES=\"" << pText << "\" is not a byte count; the default budget applies\n";
  return GetUsableMemory() / 4;
}

std::string CTileCache::GetDefaultSpillDirectory()
{
  for (const char* pName : {"ORL_TILE_CACHE_DIR", "TMPDIR"})
  {
    const char* pValue = std::getenv(pName);
    if (pValue && *pValue)
      return pValue;
  }
  return "/tmp";
}

std::uint64_t CTileCache::GetMemoryBudget() const
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  return m_nBudget;
}

void CTileCache::SetMemoryBudget(std::uint64_t nBytes)
{
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    m_nBudget = nBytes;
  }
  _MakeRoom(0);
}

std::string CTileCache::GetSpillDirectory() const
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  return m_strDirectory;
}

void CTileCache::SetSpillDirectory(const std::string& strDirectory)
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  m_strDirectory = strDirectory;
}

STileCacheCounters CTileCache::GetCounters() const
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  STileCacheCounters oCounters = m_oCounters;
  oCounters.m_nBudgetBytes = m_nBudget;
  oCounters.m_nFileBytes = static_cast<std::uint64_t>(m_oSlots.GetEnd());
  return oCounters;
}

bool CTileCache::_IsLive(unsigned int nId) const
{
  return nId != 0 && nId <= m_vecEntries.size() && m_vecEntries[nId - 1].m_eState != eUnused;
}

unsigned int CTileCache::RegisterTile(const boost::shared_ptr<Detail::CTileBase>& pTile)
{
  assert(pTile && pTile->GetDataLocation());
  // Room first: if spilling fails, nothing is registered and the caller still owns its tile.
  _MakeRoom(pTile->GetAllocBytes());

  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  unsigned int nId;
  if (!m_vecFreeIds.empty())
  {
    nId = m_vecFreeIds.back();
    m_vecFreeIds.pop_back();
  }
  else
  {
    m_vecEntries.emplace_back();
    nId = static_cast<unsigned int>(m_vecEntries.size());
  }
  SEntry& oEntry = _GetEntry(nId);
  oEntry.m_pTile = pTile;
  oEntry.m_eState = eResident;
  oEntry.m_nBytes = pTile->GetAllocBytes();
  _RingInsert(nId);
  m_oCounters.m_nResidentBytes += oEntry.m_nBytes;
  ++m_oCounters.m_nResidentTiles;
  ++m_oCounters.m_nTiles;
  return nId;
}

boost::shared_ptr<Detail::CTileBase> CTileCache::GetTile(unsigned int nId, bool bWrite)
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  assert(_IsLive(nId));
  if (!_IsLive(nId))
    return boost::shared_ptr<Detail::CTileBase>();

  for (;;)
  {
    SEntry& oEntry = _GetEntry(nId);
    switch (oEntry.m_eState)
    {
    case eResident:
    {
      oEntry.m_bReferenced = true;
      if (bWrite)
        oEntry.m_pTile->SetModified(true);
      return oEntry.m_pTile;
    }
    case eWriting:
    case eReading:
      _WaitForIo(oLock, oEntry);
      continue;
    case eSpilled:
      break;
    case eUnused:
    default:
      assert(false);
      return boost::shared_ptr<Detail::CTileBase>();
    }

    // Room first, so that a failure leaves the tile where it was. Others may have moved the tile in
    // the meantime: look again.
    const std::uint64_t nIncoming = oEntry.m_nBytes;
    oLock.unlock();
    _MakeRoom(nIncoming);
    oLock.lock();
    if (_GetEntry(nId).m_eState != eSpilled)
      continue;
    break;
  }

  const boost::shared_ptr<Detail::CTileBase> pTile = _GetEntry(nId).m_pTile;
  // Everything that can fail comes before the tile is marked busy: a busy tile has to be released by
  // the code that marked it.
  std::vector<char> vecBuffer = _TakeBuffer(pTile->GetRecordCapacity());
  _GetEntry(nId).m_eState = eReading;
  oLock.unlock();

  try
  {
    pTile->ReadBinaryWithBufferAt(vecBuffer.data());
  }
  catch (...)
  {
    // The record is still the truth: drop the memory of undefined contents and stay on disk.
    oLock.lock();
    pTile->FreeMemory();
    SEntry& oFailed = _GetEntry(nId);
    oFailed.m_eState = eSpilled;
    _IoDone(oFailed);
    _GiveBuffer(std::move(vecBuffer));
    throw;
  }

  oLock.lock();
  SEntry& oRead = _GetEntry(nId);
  oRead.m_eState = eResident;
  oRead.m_nBytes = pTile->GetAllocBytes();
  _RingInsert(nId);
  m_oCounters.m_nResidentBytes += oRead.m_nBytes;
  ++m_oCounters.m_nResidentTiles;
  --m_oCounters.m_nSpilledTiles;
  ++m_oCounters.m_nRecordsRead;
  m_oCounters.m_nBytesRead += Detail::g_nTileRecordAlign + Detail::GetTileRecordRest(vecBuffer.data(), pTile->GetMemorySize());
  if (bWrite)
    pTile->SetModified(true);
  _IoDone(oRead);
  _GiveBuffer(std::move(vecBuffer));
  return pTile;
}

void CTileCache::ReleaseTile(unsigned int nId)
{
  boost::shared_ptr<Detail::CTileBase> pDying;
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    assert(_IsLive(nId));
    if (!_IsLive(nId))
      return;
    while (_GetEntry(nId).m_eState == eWriting || _GetEntry(nId).m_eState == eReading)
      _WaitForIo(oLock, _GetEntry(nId));

    SEntry& oEntry = _GetEntry(nId);
    if (oEntry.m_eState == eResident)
    {
      _RingRemove(nId);
      m_oCounters.m_nResidentBytes -= oEntry.m_nBytes;
      --m_oCounters.m_nResidentTiles;
    }
    else
      --m_oCounters.m_nSpilledTiles;
    if (oEntry.m_nSlot >= 0)
      _FreeSlot(oEntry.m_nSlot, oEntry.m_nRecordBytes);
    --m_oCounters.m_nTiles;
    // The tile dies outside the lock if nobody else holds it.
    pDying.swap(oEntry.m_pTile);
    oEntry = SEntry();
    m_vecFreeIds.push_back(nId);
  }
}

void CTileCache::_RingInsert(unsigned int nId)
{
  SEntry& oEntry = _GetEntry(nId);
  oEntry.m_bReferenced = false;
  if (m_nHand == 0)
  {
    oEntry.m_nPrev = oEntry.m_nNext = nId;
    m_nHand = nId;
    return;
  }
  // Just behind the hand: the last place it reaches.
  SEntry& oHand = _GetEntry(m_nHand);
  oEntry.m_nNext = m_nHand;
  oEntry.m_nPrev = oHand.m_nPrev;
  _GetEntry(oHand.m_nPrev).m_nNext = nId;
  oHand.m_nPrev = nId;
}

void CTileCache::_RingRemove(unsigned int nId)
{
  SEntry& oEntry = _GetEntry(nId);
  if (oEntry.m_nNext == nId)
    m_nHand = 0;
  else
  {
    _GetEntry(oEntry.m_nPrev).m_nNext = oEntry.m_nNext;
    _GetEntry(oEntry.m_nNext).m_nPrev = oEntry.m_nPrev;
    if (m_nHand == nId)
      m_nHand = oEntry.m_nNext;
  }
  oEntry.m_nPrev = oEntry.m_nNext = 0;
}

unsigned int CTileCache::_FindVictim()
{
  // Two rounds: the first may only clear bits.
  for (std::uint64_t nSteps = 2 * m_oCounters.m_nResidentTiles + 1; m_nHand != 0 && nSteps > 0; --nSteps)
  {
    const unsigned int nId = m_nHand;
    SEntry& oEntry = _GetEntry(nId);
    m_nHand = oEntry.m_nNext;
    // Iterators keep plain pointers into the pixels of the tiles they hold: a tile with any holder
    // besides the cache stays. Under the lock nobody can get a new reference to a tile that only the
    // cache holds.
    if (oEntry.m_eState != eResident || oEntry.m_pTile.use_count() != 1)
      continue;
    if (oEntry.m_bReferenced)
      oEntry.m_bReferenced = false;
    else
      return nId;
  }
  return 0;
}

void CTileCache::_MakeRoom(std::uint64_t nIncoming)
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  while (m_oCounters.m_nResidentBytes - m_nLeavingBytes + nIncoming > m_nBudget)
  {
    const unsigned int nId = _FindVictim();
    if (nId == 0)
      return;  // everything left is in use
    SEntry& oEntry = _GetEntry(nId);
    if (oEntry.m_nRecordBytes != 0 && !oEntry.m_pTile->IsModified())
      _Evict(oEntry);
    else
      _Spill(oLock, nId);
  }
}

void CTileCache::_Spill(boost::unique_lock<boost::mutex>& oLock, unsigned int nId)
{
  if (m_nFile < 0)
    _OpenSpillFile(oLock);

  const boost::shared_ptr<Detail::CTileBase> pTile = _GetEntry(nId).m_pTile;
  const unsigned long nCapacity = pTile->GetRecordCapacity();
  // Everything that can fail comes before the tile is marked busy.
  std::vector<char> vecBuffer = _TakeBuffer(nCapacity);
  SEntry& oEntry = _GetEntry(nId);
  if (oEntry.m_nSlot < 0)
  {
    oEntry.m_nSlot = m_oSlots.Take(nCapacity);
    pTile->SetFileLocation(m_nFile, oEntry.m_nSlot);
  }
  const std::int64_t nSlot = oEntry.m_nSlot;
  const unsigned long nOldRecord = oEntry.m_nRecordBytes;
  const unsigned int nBytes = oEntry.m_nBytes;
  oEntry.m_eState = eWriting;
  // Whatever happens now, the slot's old record is no longer to be trusted.
  oEntry.m_nRecordBytes = 0;
  m_nLeavingBytes += nBytes;
  oLock.unlock();

  unsigned long nRecord = 0;
  try
  {
    pTile->WriteBinaryWithBufferAt(vecBuffer.data());
    nRecord = Detail::g_nTileRecordAlign + Detail::GetTileRecordRest(vecBuffer.data(), pTile->GetMemorySize());
    // A shorter record than the last leaves its tail behind: give that space back.
    if (nRecord < nOldRecord)
      _PunchHole(nSlot + static_cast<std::int64_t>(nRecord), static_cast<std::int64_t>(nOldRecord - nRecord));
  }
  catch (...)
  {
    // The tile keeps its memory and its modified flag: no pixel is lost.
    oLock.lock();
    m_nLeavingBytes -= nBytes;
    SEntry& oFailed = _GetEntry(nId);
    oFailed.m_eState = eResident;
    _IoDone(oFailed);
    _GiveBuffer(std::move(vecBuffer));
    throw;
  }

  oLock.lock();
  m_nLeavingBytes -= nBytes;
  _GiveBuffer(std::move(vecBuffer));
  ++m_oCounters.m_nRecordsWritten;
  m_oCounters.m_nBytesWritten += nRecord;
  SEntry& oWritten = _GetEntry(nId);
  oWritten.m_nRecordBytes = nRecord;
  oWritten.m_eState = eResident;
  // Someone asked for the tile during the write: it stays, clean, and counts as used.
  if (oWritten.m_bWanted)
    oWritten.m_bReferenced = true;
  else
    _Evict(oWritten);
  _IoDone(oWritten);
}

void CTileCache::_Evict(SEntry& oEntry)
{
  const unsigned int nId = static_cast<unsigned int>(&oEntry - m_vecEntries.data()) + 1;
  _RingRemove(nId);
  oEntry.m_pTile->FreeMemory();
  oEntry.m_eState = eSpilled;
  m_oCounters.m_nResidentBytes -= oEntry.m_nBytes;
  --m_oCounters.m_nResidentTiles;
  ++m_oCounters.m_nSpilledTiles;
}

void CTileCache::_OpenSpillFile(boost::unique_lock<boost::mutex>& oLock)
{
  const std::string strDirectory = m_strDirectory;
  int nFile = ::open(strDirectory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (nFile < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL))
  {
    // No anonymous files on this file system: a named one, unlinked before anybody can see it stay.
    std::string strPath = strDirectory + "/orl-tiles-XXXXXX";
    nFile = ::mkostemp(&strPath[0], O_CLOEXEC);
    if (nFile >= 0)
      ::unlink(strPath.c_str());
  }
  if (nFile >= 0)
  {
    m_nFile = nFile;
    return;
  }
  const int nError = errno;
  // Raised outside the lock: translating takes locks of its own.
  oLock.unlock();
  throw Harnel::Fileio::CFileioError(
    __FILE__, __LINE__,
    (boost::format(CTranslator::Translate("Failed to create the spill file of the tile cache in \"%1%\"")) %
     strDirectory)
      .str(),
    nError, CTranslator::Translate(""));
}

void CTileCache::_FreeSlot(std::int64_t nSlot, unsigned long nRecordBytes)
{
  const unsigned long nSize = m_oSlots.GetSize(nSlot);
  if (m_oSlots.Give(nSlot))
  {
    // Giving space back is best effort; a file that stays longer costs only disk.
    if (::ftruncate(m_nFile, m_oSlots.GetEnd()) != 0)
      return;
  }
  else if (nRecordBytes != 0)
    _PunchHole(nSlot, static_cast<std::int64_t>(std::min(nSize, nRecordBytes)));
}

void CTileCache::_PunchHole(std::int64_t nOffset, std::int64_t nLength) const
{
  // Best effort as well: not every file system punches holes.
  (void)::fallocate(m_nFile, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, nOffset, nLength);
}

void CTileCache::_WaitForIo(boost::unique_lock<boost::mutex>& oLock, SEntry& oEntry)
{
  oEntry.m_bWanted = true;
  ++m_nWaiters;
  m_oIoDone.wait(oLock);
  --m_nWaiters;
}

void CTileCache::_IoDone(SEntry& oEntry)
{
  oEntry.m_bWanted = false;
  if (m_nWaiters != 0)
    m_oIoDone.notify_all();
}

std::vector<char> CTileCache::_TakeBuffer(unsigned long nSize)
{
  for (std::vector<char>& vecBuffer : m_vecBuffers)
    if (vecBuffer.size() >= nSize)
    {
      std::vector<char> vecTaken(std::move(vecBuffer));
      vecBuffer.swap(m_vecBuffers.back());
      m_vecBuffers.pop_back();
      return vecTaken;
    }
  return std::vector<char>(std::max(nSize, g_nFullTileRecord));
}

void CTileCache::_GiveBuffer(std::vector<char>&& vecBuffer)
{
  // Runs on failure paths too: a buffer that cannot be kept is simply dropped.
  try
  {
    m_vecBuffers.push_back(std::move(vecBuffer));
  }
  catch (const std::bad_alloc&)
  {
  }
}

}}} // namespace Orl::Ostrel::Band
