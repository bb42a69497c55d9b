#pragma once

#include "Band/Tile.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Orl { namespace Ostrel { namespace Band {

namespace Detail {

// The slots of a spill file. A slot keeps its offset and size for the life of its tile; a free slot is
// reused by the next tile of the same size, lowest offset first, so that the file stays packed towards
// its start and free slots gather at its end, where they are cut off. Not locked: its owner locks.
class ORL_OSTREL_API CSpillSlots
{
public:
  // The offset of a slot of nSize bytes: a free one if there is one, else a new one at the end.
  std::int64_t Take(unsigned long nSize);
  // Frees the slot at nOffset. Returns true when the end of the file moved back: every free slot that
  // reached the end has been dropped.
  bool Give(std::int64_t nOffset);
  unsigned long GetSize(std::int64_t nOffset) const;
  // The offset just behind the last slot that is taken.
  std::int64_t GetEnd() const { return m_nEnd; }

private:
  struct SSlot
  {
    unsigned long m_nSize;
    bool m_bFree;
  };
  std::map<std::int64_t, SSlot> m_oSlots;
  std::map<unsigned long, std::set<std::int64_t> > m_oFree;
  std::int64_t m_nEnd = 0;
};

} // namespace Detail

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
// default a quarter of the usable memory, the smaller of the physical memory and the limit of the
// process's memory cgroup, or ORL_TILE_CACHE_BYTES from the environment (bytes, or with a suffix K, M
// or G). Before a tile comes into memory (registered or reloaded) the cache spills until it fits. The
// budget is soft: tiles that others hold cannot leave, and when only such tiles are left the cache goes
// over the budget rather than fail.
//
// Policy. CLOCK over the resident tiles: a hit sets the tile's reference bit, the hand clears bits as it
// passes and takes the first tile without one that only the cache holds. New and reloaded tiles come in
// without a bit, just behind the hand, so a scan of tiles that are touched once goes out again before
// tiles that are being reused; a hit is a bit set under the one lock GetTile takes anyway.
//
// Spill file. One per cache, made at the first spill in the spill directory (ORL_TILE_CACHE_DIR, else
// TMPDIR, else /tmp; SetSpillDirectory before the first spill) as an anonymous O_TMPFILE, or, where the
// file system has none, made and unlinked at once: nothing is ever left behind, also after a crash.
// Each tile gets a slot of its longest buffered record (GetRecordCapacity) at its first spill and keeps
// it until ReleaseTile; a clean tile with a record leaves memory without a write. Records are buffered
// (LZ4), so constant or smooth tiles write one 512-byte block; the rest of a slot is a hole, and space
// is given back as it falls free (holes punched in freed or shrunk records, the file cut at the end).
//
// Reading and writing use pread/pwrite (CTileBase::WriteBinaryWithBufferAt, ReadBinaryWithBufferAt
// over Fileio::WriteFileAt, ReadFileAt), not the seek-and-write primitives: records of different tiles
// move at once without a lock, and a write retried by the fail handler goes back to its own slot. The
// seek-and-write retry seeks back from the end of the file, which would put a record of a reused slot
// in the middle of the file in the wrong place. The failure model is the same: the fail handler is
// asked, and failures carry the primitive's entry first and the tile's behind it.
//
// Locking. Called with a band's lock held; the cache's lock comes next, then the allocator's. Disk I/O
// runs outside the cache's lock: the tile is marked as busy, and a GetTile or ReleaseTile of a busy
// tile waits until its I/O is over. So a tile that is re-acquired while its record is being written
// is never written into or handed out during the write; once the write is done it stays in memory,
// clean, and the waiter gets it without a reload. Nothing that the waiter holds (its band's lock) is
// needed to finish the I/O.
//
// Failures. A failed write leaves the tile in memory and modified; the CFileioError reaches the caller
// of the operation that needed room (RegisterTile, GetTile, SetMemoryBudget) with the primitive's entry
// first and the tile's behind it, and the registration or reload it was making room for does not
// happen. A failed read leaves the tile on disk (its record is still the truth) and surfaces the same
// way; the next GetTile tries again.
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

  // Replaces g_oTileCache by a new cache without looking at the old one.
  static void InitGlobalTileCache();

  std::uint64_t GetMemoryBudget() const;
  // A lower budget spills at once, and raises what spilling raises.
  void SetMemoryBudget(std::uint64_t nBytes);
  // ORL_TILE_CACHE_BYTES if it is set and valid, else a quarter of GetUsableMemory().
  static std::uint64_t GetDefaultMemoryBudget();
  // The smaller of the physical memory and the memory limit of the process's cgroup.
  static std::uint64_t GetUsableMemory();

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

  // Spills until nIncoming more bytes fit in the budget. Takes and leaves the lock.
  void _MakeRoom(std::uint64_t nIncoming);
  // Writes one record outside the lock and frees the tile's memory unless someone wants it.
  void _Spill(boost::unique_lock<boost::mutex>& oLock, unsigned int nId);
  void _Evict(SEntry& oEntry);
  void _OpenSpillFile(boost::unique_lock<boost::mutex>& oLock);
  void _FreeSlot(std::int64_t nSlot, unsigned long nRecordBytes);
  void _PunchHole(std::int64_t nOffset, std::int64_t nLength) const;
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
  int m_nFile = -1;
  Detail::CSpillSlots m_oSlots;
  std::vector<std::vector<char> > m_vecBuffers;  // work buffers not in use
  STileCacheCounters m_oCounters;
};

// The process's tile cache; empty until the first tile is made. Bands keep their own pointer to it, so
// the cache lives until the last of them.
extern ORL_OSTREL_API boost::shared_ptr<CTileCache> g_oTileCache;

}}} // namespace Orl::Ostrel::Band
