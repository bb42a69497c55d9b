#pragma once

#include "Band/Tile.h"
#include "Band/TileAlloc.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Orl { namespace Test {

using Ostrel::Band::Detail::CDefaultTileAlloc;
using Ostrel::Band::Detail::CTile;
using Ostrel::Band::Detail::CTileBase;
using Ostrel::Band::Detail::CTileSourceInfo;

// Contents at byte level, the same for every pixel type: one repeated byte, which compresses to almost
// nothing, or noise, which does not compress at all.
enum class EContent
{
  eConstant,
  eNoise
};

inline std::vector<char> MakeBytes(std::size_t nBytes, std::uint64_t nSeed, EContent eContent)
{
  std::vector<char> vecBytes(nBytes);
  if (eContent == EContent::eConstant)
  {
    std::memset(vecBytes.data(), static_cast<int>(nSeed % 251) + 1, nBytes);
    return vecBytes;
  }
  std::uint64_t nState = nSeed * 0x9E3779B97F4A7C15ull + 1;
  for (std::size_t i = 0; i < nBytes; i += 8)
  {
    nState ^= nState >> 12;
    nState ^= nState << 25;
    nState ^= nState >> 27;
    const std::uint64_t nValue = nState * 0x2545F4914F6CDD1Dull;
    std::memcpy(vecBytes.data() + i, &nValue, std::min<std::size_t>(8, nBytes - i));
  }
  return vecBytes;
}

inline void Fill(CTileBase& oTile, std::uint64_t nSeed, EContent eContent)
{
  const std::vector<char> vecBytes = MakeBytes(oTile.GetMemorySize(), nSeed, eContent);
  std::memcpy(oTile.GetDataLocation(), vecBytes.data(), vecBytes.size());
}

inline bool Holds(const CTileBase& oTile, std::uint64_t nSeed, EContent eContent)
{
  const std::vector<char> vecBytes = MakeBytes(oTile.GetMemorySize(), nSeed, eContent);
  return oTile.GetDataLocation() && std::memcmp(oTile.GetDataLocation(), vecBytes.data(), vecBytes.size()) == 0;
}

template <class TPixel>
boost::shared_ptr<CTileBase> MakeTile(unsigned int nSizeX, unsigned int nSizeY)
{
  static const boost::shared_ptr<CTileSourceInfo> s_pInfo = boost::make_shared<CTileSourceInfo>(0, 0, 0);
  return boost::make_shared<CTile<TPixel, CDefaultTileAlloc<TPixel> > >(nSizeX, nSizeY, 0, 0, s_pInfo);
}

}} // namespace Orl::Test
