#pragma once

#include "Foundation/Export.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

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


// The spill file of a tile cache and its slots. The file is anonymous: nothing is left behind, also
// after a crash. Not locked: its owner locks around everything but PunchHole, which touches only the
// file and may run while the owner's lock is released.
class ORL_OSTREL_API CSpillFile
{
public:
  CSpillFile() = default;
  ~CSpillFile();
  CSpillFile(const CSpillFile&) = delete;
  CSpillFile& operator=(const CSpillFile&) = delete;

  // Makes the file in strDirectory. 0 on success, else the errno of the failure; nothing is raised,
  // so that the owner can raise outside its lock.
  int Open(const std::string& strDirectory);
  bool IsOpen() const { return m_nFile >= 0; }
  int GetDescriptor() const { return m_nFile; }

  // The offset of a slot of nSize bytes (see CSpillSlots).
  std::int64_t TakeSlot(unsigned long nSize) { return m_oSlots.Take(nSize); }
  // Frees the slot at nSlot, whose valid record is nRecordBytes long (0 for none), and gives its space
  // back as far as the file system allows.
  void FreeSlot(std::int64_t nSlot, unsigned long nRecordBytes);
  // Gives back the space of nLength bytes from nOffset while the file keeps its length; best effort.
  void PunchHole(std::int64_t nOffset, std::int64_t nLength) const;
  // The length the file needs: just behind the last slot that is taken.
  std::int64_t GetEnd() const { return m_oSlots.GetEnd(); }

private:
  int m_nFile = -1;
  CSpillSlots m_oSlots;
};

} // namespace Detail

}}} // namespace Orl::Ostrel::Band
