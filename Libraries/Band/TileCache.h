#pragma once

#include "Band/MemorySize.h"
#include "Band/SpillFile.h"
#include "Band/Tile.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <cstdint>
#include <deque>
#include <exception>
#include <string>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band {

// What a user can read of a tile cache, taken at one moment.
struct STileCacheCounters
{
  std::uint64_t m_nBudgetBytes = 0;
  std::uint64_t m_nResidentBytes = 0;   // blocks of the tiles in memory
  std::uint64_t m_nTiles = 0;           // registered tiles
  std::uint64_t m_nResidentTiles = 0;
  std::uint64_t m_nSpilledTiles = 0;    // tiles whose pixels are only in the spill file
  std::uint64_t m_nRecordsWritten = 0;
  std::uint64_t m_nBytesWritten = 0;
  std::uint64_t m_nRecordsRead = 0;
  std::uint64_t m_nBytesRead = 0;
  std::uint64_t m_nFileBytes = 0;       // length of the spill file
};

// The process-wide registry of tiles. It owns every registered tile, hands tiles out by id, and moves
// tiles that only it holds out to a spill file when the tiles in memory exceed its budget.
//
// Budget. The blocks of resident tiles (their rounded allocation) count against a budget of bytes: by
// default a quarter of GetUsableMemory(), or ORL_TILE_CACHE_BYTES from the environment (a byte count as
// ParseByteCount reads it; any other value falls back to the default with one line on std::cerr).
// The budget is soft: tiles that others hold (iterators, a band's local cache) cannot leave, and when
// only such tiles are left the cache goes over the budget rather than fail. Set the process's budget
// with CScopedTileCacheBudget, or through GetGlobal().SetMemoryBudget.
//
// Spill file. One per cache, made at the first spill in the spill directory (ORL_TILE_CACHE_DIR, else
// TMPDIR, else /tmp; SetSpillDirectory before the first spill). It is anonymous: nothing is ever left
// behind, also after a crash. Records are LZ4-compressed, so constant or smooth tiles cost little disk.
//
// Threads. Every operation may be called from any thread; the cache is called with a band's lock held
// and takes its own lock after it. A tile whose record is being written or read is waited for.
//
// Background I/O. Records are written behind: a tile that has to leave is queued for the cache's I/O
// threads (one per core), which compress and write it while the caller goes on; up to an eighth of the
// budget may be on its way out, so resident memory may exceed the budget by that much. Beyond it (and
// so always with a budget of fewer than eight tiles) the caller writes itself. The first spill is the
// caller's too. SetMemoryBudget waits for the writes behind. A tile asked
// for while its write is still queued stays without a write. ReadAhead queues reloads of spilled tiles
// for the same threads, best effort: a walk asks for the tiles it reaches next.
//
// Failures. A failed write leaves the tile in memory and modified, so no pixel is lost; the
// CFileioError reaches the caller of the operation that needed room (RegisterTile, GetTile,
// SetMemoryBudget) with the file primitive's entry first and the tile's behind it, and the
// registration or reload it was making room for does not happen. A write behind that fails leaves its
// tile the same way, and its failure reaches the caller of the next of these operations. The fail handler of the file
// primitives is asked first, as for any write. A failed read leaves the tile on disk (its record is
// still the truth) and surfaces the same way; the next GetTile tries again. A spill directory where no
// file can be made raises "Failed to create the spill file of the tile cache in ...".
class ORL_OSTREL_API CTileCache
{
public:
  CTileCache();
  ~CTileCache();
  CTileCache(const CTileCache&) = delete;
  CTileCache& operator=(const CTileCache&) = delete;

  // Takes shared ownership of a tile that has its memory; the id is not 0 and unique among live tiles.
  unsigned int RegisterTile(const boost::shared_ptr<Detail::CTileBase>& pTile);
  // The tile with its pixels in memory; with bWrite the tile is marked modified.
  boost::shared_ptr<Detail::CTileBase> GetTile(unsigned int nId, bool bWrite);
  // Gives up the cache's ownership and the tile's slot; the id is dead afterwards.
  void ReleaseTile(unsigned int nId);
  // Asks the I/O threads to bring the spilled ones among nCount live tile ids back into memory, as far
  // as a quarter of the budget allows. Never raises for a failed read: GetTile meets it again.
  void ReadAhead(const unsigned int* pIds, std::size_t nCount);

  // The process's cache, made at the first call by exactly one thread; the same cache until
  // InitGlobalTileCache replaces it. Tile bands take theirs from here.
  static boost::shared_ptr<CTileCache> GetGlobal();
  // Replaces the process's cache by a new one without looking at the old one, which lives on in the
  // bands that hold it. Not for use while another thread makes its first tile band.
  static void InitGlobalTileCache();

  std::uint64_t GetMemoryBudget() const;
  // A lower budget spills at once, and raises what spilling raises.
  void SetMemoryBudget(std::uint64_t nBytes);
  // ORL_TILE_CACHE_BYTES if it is set and valid, else a quarter of GetUsableMemory().
  static std::uint64_t GetDefaultMemoryBudget();

  std::string GetSpillDirectory() const;
  // Takes effect when the spill file is made, at the first spill.
  void SetSpillDirectory(const std::string& strDirectory);
  static std::string GetDefaultSpillDirectory();

  STileCacheCounters GetCounters() const;

private:
  enum EState
  {
    eUnused,    // id free
    eResident,  // pixels in memory, in the clock ring
    eWriting,   // in memory and in the ring, its record being written outside the lock
    eSpilled,   // pixels only in the record
    eReading    // its record being read outside the lock
  };

  struct SEntry
  {
    boost::shared_ptr<Detail::CTileBase> m_pTile;
    EState m_eState = eUnused;
    bool m_bReferenced = false;  // the clock bit
    bool m_bWanted = false;      // someone waits for the I/O on this tile to end
    bool m_bQueued = false;      // eWriting: in the write queue, not yet taken by an I/O thread
    bool m_bAhead = false;       // eSpilled: in the read-ahead queue
    unsigned int m_nPrev = 0;    // the clock ring, by id
    unsigned int m_nNext = 0;
    unsigned int m_nBytes = 0;   // the block counted while resident
    std::int64_t m_nSlot = -1;
    unsigned long m_nRecordBytes = 0;  // length of a valid record in the slot, 0 for none
  };

  SEntry& _GetEntry(unsigned int nId) { return m_vecEntries[nId - 1]; }
  bool _IsLive(unsigned int nId) const;

  void _RingInsert(unsigned int nId);
  void _RingRemove(unsigned int nId);
  unsigned int _FindVictim();

  // Spills until nIncoming more bytes fit in the budget. Takes and leaves the lock. With bReport the
  // failure of an earlier write behind is raised first.
  void _MakeRoom(std::uint64_t nIncoming, bool bReport = true);
  // Writes one record outside the lock and frees the tile's memory unless someone wants it. With
  // bBehind a failure is kept for the next _MakeRoom instead of raised.
  void _Spill(boost::unique_lock<boost::mutex>& oLock, unsigned int nId, bool bBehind = false);
  // Queues the tile for an I/O thread if the write-behind allowance takes it; false when it does not.
  bool _QueueWrite(boost::unique_lock<boost::mutex>& oLock, unsigned int nId);
  // Takes a queued tile back out of the write queue, resident as before.
  void _Unqueue(SEntry& oEntry);
  // Reads a spilled tile back, with room made; under the lock, which it releases for the read.
  boost::shared_ptr<Detail::CTileBase> _Reload(boost::unique_lock<boost::mutex>& oLock, unsigned int nId);
  void _StartIoThreads();
  void _IoLoop();
  void _ReadAheadOne(boost::unique_lock<boost::mutex>& oLock, unsigned int nId);
  void _Evict(SEntry& oEntry);
  void _OpenSpillFile(boost::unique_lock<boost::mutex>& oLock);
  void _WaitForIo(boost::unique_lock<boost::mutex>& oLock, SEntry& oEntry);
  void _IoDone(SEntry& oEntry);

  std::vector<char> _TakeBuffer(unsigned long nSize);
  void _GiveBuffer(std::vector<char>&& vecBuffer);

  mutable boost::mutex m_oMutex;
  boost::condition_variable m_oIoDone;
  std::vector<SEntry> m_vecEntries;      // by id - 1
  std::vector<unsigned int> m_vecFreeIds;
  unsigned int m_nHand = 0;              // the clock hand, an id in the ring, 0 when it is empty
  std::uint64_t m_nBudget;
  std::uint64_t m_nLeavingBytes = 0;     // resident bytes whose records are being written
  unsigned int m_nWaiters = 0;
  std::string m_strDirectory;
  Detail::CSpillFile m_oSpillFile;
  std::vector<std::vector<char> > m_vecBuffers;  // work buffers not in use
  STileCacheCounters m_oCounters;

  // Background I/O: ids may appear again or be stale; the entry's flags tell whether a job is live.
  boost::condition_variable m_oIoWork;
  std::deque<unsigned int> m_dqWrites;
  std::deque<unsigned int> m_dqReads;
  std::uint64_t m_nBehindBytes = 0;      // bytes queued or being written by the I/O threads
  std::uint64_t m_nAheadBytes = 0;       // bytes queued for read-ahead
  std::exception_ptr m_pBehindError;     // the first failure of a write behind, not yet reported
  bool m_bStopping = false;
  bool m_bNoIoThreads = false;           // they could not be started: everything is done in the caller
  std::vector<boost::shared_ptr<boost::thread> > m_vecIoThreads;
};

// The process's tile cache; empty until the first tile band makes a tile or GetGlobal is called.
// Bands keep their own pointer to it, so the cache lives until the last of them. Read it through
// CTileCache::GetGlobal, which makes it race-free.
extern ORL_OSTREL_API boost::shared_ptr<CTileCache> g_oTileCache;

// Sets the memory budget of the process's tile cache for the life of the object and restores the one
// before at its end, in the manner of tbb::global_control:
//
//   {
//     CScopedTileCacheBudget oBudget(256 << 20); // 256 MiB while this scope runs
//     ...
//   }
//
// Scopes nest; each restores what it found, so end them in reverse order. A lower budget spills at
// once, and the constructor raises what spilling raises. The restore at the end does not throw: a
// spill that it would need and that fails is left to the next tile that comes into memory.
class ORL_OSTREL_API CScopedTileCacheBudget
{
public:
  explicit CScopedTileCacheBudget(std::uint64_t nBytes);
  ~CScopedTileCacheBudget();
  CScopedTileCacheBudget(const CScopedTileCacheBudget&) = delete;
  CScopedTileCacheBudget& operator=(const CScopedTileCacheBudget&) = delete;

private:
  boost::shared_ptr<CTileCache> m_pCache; // the cache whose budget was set, even if it was replaced since
  std::uint64_t m_nPrevious;
};

}}} // namespace Orl::Ostrel::Band
