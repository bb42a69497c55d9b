#pragma once

#include "Band/Tile.h"
#include "Band/TileAlloc.h"
#include "Foundation/BasicException.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <random>
#include <vector>

namespace Orl { namespace Test {

using Ostrel::Band::Detail::CDefaultTileAlloc;
using Ostrel::Band::Detail::CTile;
using Ostrel::Band::Detail::CTileBase;
using Ostrel::Band::Detail::CTileSourceInfo;

// Contents at byte level, the same for every pixel type: one repeated byte, which compresses to almost
// nothing, or noise, which does not compress at all.
enum class EContent { eConstant, eNoise };

inline std::vector<char> MakeBytes(std::size_t nBytes, std::uint64_t nSeed, EContent eContent)
{
  std::vector<char> vecBytes(nBytes, static_cast<char>(nSeed % 251 + 1));
  std::mt19937_64 oRandom(nSeed);
  for (std::size_t i = 0; eContent == EContent::eNoise && i < nBytes; i += 8)
  {
    const std::uint64_t nValue = oRandom();
    std::memcpy(vecBytes.data() + i, &nValue, std::min<std::size_t>(8, nBytes - i));
  }
  return vecBytes;
}

inline void Fill(CTileBase& oTile, std::uint64_t nSeed, EContent eContent)
{
  std::memcpy(oTile.GetDataLocation(), MakeBytes(oTile.GetMemorySize(), nSeed, eContent).data(), oTile.GetMemorySize());
}

inline bool Holds(const CTileBase& oTile, std::uint64_t nSeed, EContent eContent)
{
  return oTile.GetDataLocation() &&
         std::memcmp(oTile.GetDataLocation(), MakeBytes(oTile.GetMemorySize(), nSeed, eContent).data(), oTile.GetMemorySize()) == 0;
}

// The raised file error's first entry (with its code where asked), last entry and count, or "nothing raised".
template <class TBody>
std::string Entries(TBody fnBody, bool bWithCode = true)
{
  try
  {
    fnBody();
  }
  catch (const Harnel::Fileio::CFileioError& oError)
  {
    const auto& oFirst = oError.GetInfo(0);
    return oFirst.m_strMessage + (bWithCode ? " (" + std::to_string(oFirst.m_nErrorCode) + ")" : "") + " / " +
           oError.GetInfo(oError.GetInfoCount() - 1).m_strMessage + " / " + std::to_string(oError.GetInfoCount());
  }
  return "nothing raised";
}

template <class TPixel>
boost::shared_ptr<CTileBase> MakeTile(unsigned int nSizeX, unsigned int nSizeY)
{
  static const boost::shared_ptr<CTileSourceInfo> s_pInfo = boost::make_shared<CTileSourceInfo>(0, 0, 0);
  return boost::make_shared<CTile<TPixel, CDefaultTileAlloc<TPixel> > >(nSizeX, nSizeY, 0, 0, s_pInfo);
}

}} // namespace Orl::Test
