#include "Band/TileCache.h"

#include "Foundation/BasicException.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cassert>
#include <boost/thread/lock_guard.hpp>

#include <cstdlib>
#include <iostream>
#include <new>

// Design notes.
//
// Policy. CLOCK over the resident tiles: a hit sets the tile's reference bit, the hand clears bits as it
// passes and takes the first tile without one that only the cache holds. New and reloaded tiles come in
// without a bit, just behind the hand, so a scan of tiles that are touched once goes out again before
// tiles that are being reused; a hit is a bit set under the one lock GetTile takes anyway. Before a tile
// comes into memory (registered or reloaded) the cache spills until it fits.
//
// Slots. Each tile gets a slot of its longest buffered record (GetRecordCapacity) at its first spill and
// keeps it until ReleaseTile; a clean tile with a record leaves memory without a write. The rest of a
// slot is a hole, and space is given back as it falls free (holes punched in freed or shrunk records,
// the file cut at the end): see CSpillFile.
//
// Reading and writing use pread/pwrite (CTileBase::WriteBinaryWithBufferAt, ReadBinaryWithBufferAt over
// Fileio::WriteFileAt, ReadFileAt), not the seek-and-write primitives: records of different tiles move
// at once without a lock, and a write retried by the fail handler goes back to its own slot. The
// seek-and-write retry seeks back from the end of the file, which would put a record of a reused slot in
// the middle of the file in the wrong place.
//
// Locking. The cache's lock comes after a band's and before the allocator's. Disk I/O runs outside the
// cache's lock: the tile is marked as busy, and a GetTile or ReleaseTile of a busy tile waits until its
// I/O is over. So a tile that is re-acquired while its record is being written is never written into or
// handed out during the write; once the write is done it stays in memory, clean, and the waiter gets it
// without a reload. Nothing that the waiter holds (its band's lock) is needed to finish the I/O.
//
// Background I/O. A victim that has to be written is queued (state eWriting with m_bQueued) rather than
// written by the thread that needs the room, as long as the bytes on their way out stay within an
// eighth of the budget; the I/O threads, one per core, take queued tiles and write them as _Spill does,
// so the compression of a sweep's records runs on the other cores. Beyond the allowance the caller
// writes itself, which is the back pressure: when the writers fall behind, the caller's thread becomes
// one more of them. A queued tile that is asked for again simply leaves the queue. The first spill is
// always the caller's, so that a spill file that cannot be made is reported to it. A budget of fewer
// than eight of the tiles that leave keeps everything on the caller's thread: there is no room to
// overlap anything, and every failure reaches the operation that caused it.
//
// Read-ahead runs on the same threads after the queued writes (those free the room that the reads
// take): a reload exactly as GetTile's, with its failures dropped, since whoever needs the tile reads
// it again and meets them. A tile read ahead comes in with its clock bit set. Requests are all or
// nothing within an eighth of the budget, so that what was read ahead is not pushed out again by what
// is read behind it; a budget too small for a walk's next row of tiles gets no read-ahead.
//
// The global cache is made under a mutex of its own, a leaf taken after a band's lock: two bands that
// make the process's first tiles at once get the same cache.

namespace Orl { namespace Ostrel { namespace Band {

boost::shared_ptr<CTileCache> g_oTileCache;

namespace {

using Harnel::Internationalisation::CTranslator;

constexpr unsigned long g_nFullTileRecord = Detail::GetTileRecordCapacity(524288);
constexpr unsigned int g_nMaxIoThreads = 8;

} // namespace

CTileCache::CTileCache() : m_nBudget(GetDefaultMemoryBudget()), m_strDirectory(GetDefaultSpillDirectory())
{
}

// Tiles that others still hold all have their memory (only tiles held by nobody else are ever
// spilled), so the spill file can go with the cache. Queued writes are dropped with their tiles.
CTileCache::~CTileCache()
{
  {
    boost::unique_lock<boost::mutex> oLock(m_oMutex);
    m_bStopping = true;
  }
  m_oIoWork.notify_all();
  for (const boost::shared_ptr<boost::thread>& pThread : m_vecIoThreads)
    pThread->join();
}

namespace {

// Made on first use, so that a band built by another module's static initialiser finds it.
boost::mutex& _GlobalCacheMutex()
{
  static boost::mutex s_oMutex;
  return s_oMutex;
}

} // namespace

boost::shared_ptr<CTileCache> CTileCache::GetGlobal()
{
  boost::lock_guard<boost::mutex> oLock(_GlobalCacheMutex());
  if (!g_oTileCache)
    g_oTileCache = boost::make_shared<CTileCache>();
  return g_oTileCache;
}

void CTileCache::InitGlobalTileCache()
{
  boost::shared_ptr<CTileCache> pNew = boost::make_shared<CTileCache>();
  boost::lock_guard<boost::mutex> oLock(_GlobalCacheMutex());
  g_oTileCache.swap(pNew); // the old cache dies outside the lock if nobody holds it
}

CScopedTileCacheBudget::CScopedTileCacheBudget(std::uint64_t nBytes)
  : m_pCache(CTileCache::GetGlobal()), m_nPrevious(m_pCache->GetMemoryBudget())
{
  // A spill that fails while making room leaves by an exception and no object: the previous budget
  // comes back here, as the destructor will not run.
  try
  {
    m_pCache->SetMemoryBudget(nBytes);
  }
  catch (...)
  {
    try
    {
      m_pCache->SetMemoryBudget(m_nPrevious);
    }
    catch (...)
    {
    }
    throw;
  }
}

CScopedTileCacheBudget::~CScopedTileCacheBudget()
{
  try
  {
    m_pCache->SetMemoryBudget(m_nPrevious);
  }
  catch (...)
  {
    // The budget is set before the spill that failed; the next tile to come in spills and reports.
  }
}

std::uint64_t CTileCache::GetDefaultMemoryBudget()
{
  const char* pText = std::getenv("ORL_TILE_CACHE_BYTES");
  std::uint64_t nBytes = 0;
  if (pText && ParseByteCount(pText, nBytes))
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
    // Writes behind end first, so that a lower budget holds when this returns.
    while (m_nBehindBytes != 0)
    {
      ++m_nWaiters;
      m_oIoDone.wait(oLock);
      --m_nWaiters;
    }
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
  oCounters.m_nFileBytes = static_cast<std::uint64_t>(m_oSpillFile.GetEnd());
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
      if (oEntry.m_bQueued)
      {
        _Unqueue(oEntry);
        continue;
      }
      _WaitForIo(oLock, oEntry);
      continue;
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

  const boost::shared_ptr<Detail::CTileBase> pTile = _Reload(oLock, nId);
  if (bWrite)
    pTile->SetModified(true);
  return pTile;
}

boost::shared_ptr<Detail::CTileBase> CTileCache::_Reload(boost::unique_lock<boost::mutex>& oLock, unsigned int nId)
{
  SEntry& oEntry = _GetEntry(nId);
  assert(oEntry.m_eState == eSpilled);
  const boost::shared_ptr<Detail::CTileBase> pTile = oEntry.m_pTile;
  // Everything that can fail comes before the tile is marked busy: a busy tile has to be released by
  // the code that marked it.
  std::vector<char> vecBuffer = _TakeBuffer(pTile->GetRecordCapacity());
  if (oEntry.m_bAhead)
  {
    oEntry.m_bAhead = false;
    m_nAheadBytes -= oEntry.m_nBytes;
  }
  oEntry.m_eState = eReading;
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
  _IoDone(oRead);
  _GiveBuffer(std::move(vecBuffer));
  return pTile;
}

void CTileCache::ReadAhead(const unsigned int* pIds, std::size_t nCount)
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  if (!m_oSpillFile.IsOpen())
    return;
  // A request that does not fit into an eighth of the budget with what is already on its way would
  // push out what it reads before the walk gets there, and read it twice: it is not made at all.
  std::uint64_t nAsked = m_nAheadBytes;
  for (std::size_t i = 0; i < nCount; ++i)
    if (_IsLive(pIds[i]) && _GetEntry(pIds[i]).m_eState == eSpilled && !_GetEntry(pIds[i]).m_bAhead)
      nAsked += _GetEntry(pIds[i]).m_nBytes;
  if (nAsked > m_nBudget / 8)
    return;
  bool bQueued = false;
  for (std::size_t i = 0; i < nCount; ++i)
  {
    const unsigned int nId = pIds[i];
    if (!_IsLive(nId))
      continue;
    SEntry& oEntry = _GetEntry(nId);
    if (oEntry.m_eState != eSpilled || oEntry.m_bAhead)
      continue;
    _StartIoThreads();
    if (m_bNoIoThreads)
      return;
    try
    {
      m_dqReads.push_back(nId);
    }
    catch (const std::bad_alloc&)
    {
      break;
    }
    oEntry.m_bAhead = true;
    m_nAheadBytes += oEntry.m_nBytes;
    bQueued = true;
  }
  if (bQueued)
    m_oIoWork.notify_all();
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
    {
      if (_GetEntry(nId).m_bQueued)
        _Unqueue(_GetEntry(nId));
      else
        _WaitForIo(oLock, _GetEntry(nId));
    }

    SEntry& oEntry = _GetEntry(nId);
    if (oEntry.m_bAhead)
      m_nAheadBytes -= oEntry.m_nBytes;
    if (oEntry.m_eState == eResident)
    {
      _RingRemove(nId);
      m_oCounters.m_nResidentBytes -= oEntry.m_nBytes;
      --m_oCounters.m_nResidentTiles;
    }
    else
      --m_oCounters.m_nSpilledTiles;
    if (oEntry.m_nSlot >= 0)
      m_oSpillFile.FreeSlot(oEntry.m_nSlot, oEntry.m_nRecordBytes);
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

void CTileCache::_MakeRoom(std::uint64_t nIncoming, bool bReport)
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  if (bReport && m_pBehindError)
  {
    std::exception_ptr pError;
    std::swap(pError, m_pBehindError);
    oLock.unlock();
    std::rethrow_exception(pError);
  }
  while (m_oCounters.m_nResidentBytes - m_nLeavingBytes + nIncoming > m_nBudget)
  {
    const unsigned int nId = _FindVictim();
    if (nId == 0)
      return;  // everything left is in use
    SEntry& oEntry = _GetEntry(nId);
    if (oEntry.m_nRecordBytes != 0 && !oEntry.m_pTile->IsModified())
      _Evict(oEntry);
    else if (!_QueueWrite(oLock, nId))
      _Spill(oLock, nId);
  }
}

bool CTileCache::_QueueWrite(boost::unique_lock<boost::mutex>&, unsigned int nId)
{
  SEntry& oEntry = _GetEntry(nId);
  if (!m_oSpillFile.IsOpen() || m_nBehindBytes + oEntry.m_nBytes > m_nBudget / 8)
    return false;
  _StartIoThreads();
  if (m_bNoIoThreads)
    return false;
  // What can fail comes first; it reaches the caller as a failure of its own spill would.
  if (oEntry.m_nSlot < 0)
  {
    const unsigned long nCapacity = oEntry.m_pTile->GetRecordCapacity();
    oEntry.m_nSlot = m_oSpillFile.TakeSlot(nCapacity);
    oEntry.m_pTile->SetFileLocation(m_oSpillFile.GetDescriptor(), oEntry.m_nSlot);
  }
  m_dqWrites.push_back(nId);
  oEntry.m_eState = eWriting;
  oEntry.m_bQueued = true;
  m_nLeavingBytes += oEntry.m_nBytes;
  m_nBehindBytes += oEntry.m_nBytes;
  m_oIoWork.notify_one();
  return true;
}

void CTileCache::_Unqueue(SEntry& oEntry)
{
  assert(oEntry.m_eState == eWriting && oEntry.m_bQueued);
  oEntry.m_bQueued = false;
  oEntry.m_eState = eResident;
  m_nLeavingBytes -= oEntry.m_nBytes;
  m_nBehindBytes -= oEntry.m_nBytes;
  if (m_nWaiters != 0)
    m_oIoDone.notify_all();
}

void CTileCache::_StartIoThreads()
{
  if (!m_vecIoThreads.empty() || m_bNoIoThreads)
    return;
  const unsigned int nThreads = std::min(std::max(1u, boost::thread::hardware_concurrency()), g_nMaxIoThreads);
  try
  {
    m_vecIoThreads.reserve(nThreads);
    for (unsigned int i = 0; i < nThreads; ++i)
      m_vecIoThreads.push_back(boost::make_shared<boost::thread>([this] { _IoLoop(); }));
  }
  catch (...)
  {
    // Fewer threads still work; none means the callers do everything.
    m_bNoIoThreads = m_vecIoThreads.empty();
  }
}

void CTileCache::_IoLoop()
{
  boost::unique_lock<boost::mutex> oLock(m_oMutex);
  while (!m_bStopping)
  {
    if (!m_dqWrites.empty())
    {
      const unsigned int nId = m_dqWrites.front();
      m_dqWrites.pop_front();
      // Taken back by GetTile or ReleaseTile since, or an id queued again after its first job ended.
      if (!_IsLive(nId) || !_GetEntry(nId).m_bQueued)
        continue;
      _GetEntry(nId).m_bQueued = false;
      _Spill(oLock, nId, true);
    }
    else if (!m_dqReads.empty())
    {
      const unsigned int nId = m_dqReads.front();
      m_dqReads.pop_front();
      _ReadAheadOne(oLock, nId);
    }
    else
      m_oIoWork.wait(oLock);
  }
}

void CTileCache::_ReadAheadOne(boost::unique_lock<boost::mutex>& oLock, unsigned int nId)
{
  if (!_IsLive(nId) || !_GetEntry(nId).m_bAhead)
    return;
  SEntry& oEntry = _GetEntry(nId);
  oEntry.m_bAhead = false;
  m_nAheadBytes -= oEntry.m_nBytes;
  if (oEntry.m_eState != eSpilled)
    return;
  const std::uint64_t nIncoming = oEntry.m_nBytes;
  oLock.unlock();
  try
  {
    // A failure here is the callers' to meet when they need room or the tile; nothing is lost.
    _MakeRoom(nIncoming, false);
  }
  catch (...)
  {
    oLock.lock();
    return;
  }
  oLock.lock();
  if (!_IsLive(nId) || _GetEntry(nId).m_eState != eSpilled)
    return;
  try
  {
    _Reload(oLock, nId);
    // Wanted soon: the hand passes it once before it may go.
    _GetEntry(nId).m_bReferenced = true;
  }
  catch (...)
  {
  }
}

void CTileCache::_Spill(boost::unique_lock<boost::mutex>& oLock, unsigned int nId, bool bBehind)
{
  const boost::shared_ptr<Detail::CTileBase> pTile = _GetEntry(nId).m_pTile;
  const unsigned int nBytes = _GetEntry(nId).m_nBytes;
  // A tile whose record was not written stays resident with its memory and its modified flag. Behind
  // the caller, the failure waits for the next _MakeRoom. Runs in a handler, under the lock.
  const auto fnFailed = [&] {
    m_nLeavingBytes -= nBytes;
    if (bBehind)
    {
      m_nBehindBytes -= nBytes;
      if (!m_pBehindError)
        m_pBehindError = std::current_exception();
    }
    SEntry& oFailed = _GetEntry(nId);
    oFailed.m_eState = eResident;
    _IoDone(oFailed);
  };

  std::vector<char> vecBuffer;
  if (bBehind)
  {
    // Queued by _QueueWrite: busy, counted as leaving, with its slot.
    try
    {
      vecBuffer = _TakeBuffer(pTile->GetRecordCapacity());
    }
    catch (...)
    {
      fnFailed();
      return;
    }
  }
  else
  {
    if (!m_oSpillFile.IsOpen())
      _OpenSpillFile(oLock);
    const unsigned long nCapacity = pTile->GetRecordCapacity();
    // Everything that can fail comes before the tile is marked busy.
    vecBuffer = _TakeBuffer(nCapacity);
    SEntry& oEntry = _GetEntry(nId);
    if (oEntry.m_nSlot < 0)
    {
      oEntry.m_nSlot = m_oSpillFile.TakeSlot(nCapacity);
      pTile->SetFileLocation(m_oSpillFile.GetDescriptor(), oEntry.m_nSlot);
    }
    oEntry.m_eState = eWriting;
    m_nLeavingBytes += nBytes;
  }
  SEntry& oEntry = _GetEntry(nId);
  const std::int64_t nSlot = oEntry.m_nSlot;
  const unsigned long nOldRecord = oEntry.m_nRecordBytes;
  // Whatever happens now, the slot's old record is no longer to be trusted.
  oEntry.m_nRecordBytes = 0;
  oLock.unlock();

  unsigned long nRecord = 0;
  try
  {
    pTile->WriteBinaryWithBufferAt(vecBuffer.data());
    nRecord = Detail::g_nTileRecordAlign + Detail::GetTileRecordRest(vecBuffer.data(), pTile->GetMemorySize());
    // A shorter record than the last leaves its tail behind: give that space back.
    if (nRecord < nOldRecord)
      m_oSpillFile.PunchHole(nSlot + static_cast<std::int64_t>(nRecord), static_cast<std::int64_t>(nOldRecord - nRecord));
  }
  catch (...)
  {
    // The tile keeps its memory and its modified flag: no pixel is lost.
    oLock.lock();
    fnFailed();
    _GiveBuffer(std::move(vecBuffer));
    if (bBehind)
      return;
    throw;
  }

  oLock.lock();
  m_nLeavingBytes -= nBytes;
  if (bBehind)
    m_nBehindBytes -= nBytes;
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
  const int nError = m_oSpillFile.Open(m_strDirectory);
  if (nError == 0)
    return;
  const std::string strDirectory = m_strDirectory;
  // Raised outside the lock: translating takes locks of its own.
  oLock.unlock();
  throw Harnel::Fileio::CFileioError(
    __FILE__, __LINE__,
    (boost::format(CTranslator::Translate("Failed to create the spill file of the tile cache in \"%1%\"")) %
     strDirectory)
      .str(),
    nError, CTranslator::Translate(""));
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
  // Besides the tile's waiters, SetMemoryBudget may wait for the writes behind to end.
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
