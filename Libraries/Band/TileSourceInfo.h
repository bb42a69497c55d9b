#pragma once

#include <boost/shared_ptr.hpp>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// Where the pixels of a tile come from when they are not in memory. Only the tile band's kind exists:
// its tiles live in the process's tile cache, which reads and writes their records itself, so the
// adapters carry nothing yet.
class CFileDriverAdapterBase
{
public:
  virtual ~CFileDriverAdapterBase() = default;
};

class CTileCacheFileDriverAdapter : public CFileDriverAdapterBase
{
};

// One per tile band, shared by all its tiles.
class CTileSourceInfo
{
public:
  // nSourceKey is opaque here; tile bands pass 0.
  CTileSourceInfo(unsigned int nWidth, unsigned int nHeight, unsigned int nSourceKey)
    : m_nWidth(nWidth), m_nHeight(nHeight), m_nSourceKey(nSourceKey)
  {
  }

  unsigned int GetWidth() const { return m_nWidth; }
  unsigned int GetHeight() const { return m_nHeight; }
  unsigned int GetSourceKey() const { return m_nSourceKey; }

  void SetFileDriver(const boost::shared_ptr<CFileDriverAdapterBase>& pDriver) { m_pFileDriver = pDriver; }
  const boost::shared_ptr<CFileDriverAdapterBase>& GetFileDriver() const { return m_pFileDriver; }

private:
  unsigned int m_nWidth;
  unsigned int m_nHeight;
  unsigned int m_nSourceKey;
  boost::shared_ptr<CFileDriverAdapterBase> m_pFileDriver;
};

}}}} // namespace Orl::Ostrel::Band::Detail
