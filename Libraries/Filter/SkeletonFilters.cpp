// Thinning for the four skeleton filters.
//
// The band is copied once into a byte image with a background frame, thinned there, and written back
// once: the walks over the band are the parallel row-block walks of BandBlocks.h, tile by tile, and the
// thinning itself never touches the band. Memory: two bytes per pixel (image and flags) plus the
// candidate list.
//
// Every algorithm here decides a pixel's deletion from its 8-neighbourhood alone, so each
// subiteration is a table of 256 entries indexed by the neighbourhood code (bit 0 north, then
// clockwise: 1 north-east, 2 east, 3 south-east, 4 south, 5 south-west, 6 west, 7 north-west). The
// tables are built from the conditions as written in the filters' headers.
//
// Only border pixels can change: a pixel with all eight neighbours in the foreground has C = 0 and
// B = 8 and is deleted by no table. The first pass collects the border pixels; after that a pixel is
// looked at again only when a neighbour was deleted. Each pixel carries one "pending" bit per
// subiteration kind: set when it enters the list or a neighbour goes, cleared when that kind has
// tested it. A subiteration tests the pending pixels of the list and decides all deletions on the
// picture before it (the decisions go to a list first, then the pixels are cleared), which makes the
// result that of the parallel algorithm whatever the order of the list. Stable once as many
// subiterations in a row as there are kinds have deleted nothing.

#include "Filter/Detail/BandBlocks.h"
#include "Filter/Detail/Thinning.h"
#include "Filter/FilterBase.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <array>
#include <atomic>
#include <cassert>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

namespace {

using TTable = std::array<std::uint8_t, 256>;

struct SNeighbours
{
  // Zhang-Suen numbering: P2 north, clockwise to P9 north-west.
  int P[10];
  // Guo-Hall numbering: x1 east, counter-clockwise to x8 south-east; x[9] = x[1].
  int x[10];
  int B;

  explicit SNeighbours(unsigned nCode)
  {
    for (int i = 0; i < 8; ++i)
      P[i + 2] = (nCode >> i) & 1;
    // bits: 0 N, 1 NE, 2 E, 3 SE, 4 S, 5 SW, 6 W, 7 NW
    const int aBit[9] = {0, 2, 1, 0, 7, 6, 5, 4, 3};
    for (int i = 1; i <= 8; ++i)
      x[i] = (nCode >> aBit[i]) & 1;
    x[9] = x[1];
    x[0] = 0;
    P[0] = P[1] = 0;
    B = 0;
    for (int i = 0; i < 8; ++i)
      B += (nCode >> i) & 1;
  }
  int A() const
  {
    int n = 0;
    for (int i = 2; i <= 9; ++i)
      n += (P[i] == 0 && P[i == 9 ? 2 : i + 1] == 1);
    return n;
  }
  int C() const
  {
    int n = 0;
    for (int i = 1; i <= 4; ++i)
      n += (!x[2 * i - 1]) & (x[2 * i] | x[2 * i + 1]);
    return n;
  }
  int N() const
  {
    const int n1 = (x[1] | x[2]) + (x[3] | x[4]) + (x[5] | x[6]) + (x[7] | x[8]);
    const int n2 = (x[2] | x[3]) + (x[4] | x[5]) + (x[6] | x[7]) + (x[8] | x[1]);
    return n1 < n2 ? n1 : n2;
  }
};

struct SAlgorithm
{
  int m_nKinds;
  bool m_bSubfields; // kind k tests only pixels with (x + y) % 2 == k
  TTable m_aTable[4];
};

SAlgorithm MakeAlgorithm(EThinning eAlgorithm)
{
  SAlgorithm o{};
  o.m_nKinds = eAlgorithm == EThinning::eSimple ? 4 : 2;
  o.m_bSubfields = eAlgorithm == EThinning::eGuoHallA2;
  for (unsigned nCode = 0; nCode < 256; ++nCode)
  {
    const SNeighbours n(nCode);
    const auto& P = n.P;
    const auto& x = n.x;
    switch (eAlgorithm)
    {
    case EThinning::eZhangSuen:
    {
      const bool bCommon = n.B >= 2 && n.B <= 6 && n.A() == 1;
      o.m_aTable[0][nCode] = bCommon && P[2] * P[4] * P[6] == 0 && P[4] * P[6] * P[8] == 0;
      o.m_aTable[1][nCode] = bCommon && P[2] * P[4] * P[8] == 0 && P[2] * P[6] * P[8] == 0;
      break;
    }
    case EThinning::eGuoHallA1:
    {
      const bool bCommon = n.C() == 1 && n.N() >= 2 && n.N() <= 3;
      o.m_aTable[0][nCode] = bCommon && ((x[2] | x[3] | !x[8]) & x[1]) == 0;
      o.m_aTable[1][nCode] = bCommon && ((x[6] | x[7] | !x[4]) & x[5]) == 0;
      break;
    }
    case EThinning::eGuoHallA2:
      o.m_aTable[0][nCode] = o.m_aTable[1][nCode] = n.C() == 1 && n.B >= 2;
      break;
    case EThinning::eSimple:
    {
      const bool bCommon = n.C() == 1 && n.B >= 2;
      o.m_aTable[0][nCode] = bCommon && !P[2]; // north
      o.m_aTable[1][nCode] = bCommon && !P[6]; // south
      o.m_aTable[2][nCode] = bCommon && !P[4]; // east
      o.m_aTable[3][nCode] = bCommon && !P[8]; // west
      break;
    }
    }
    assert(nCode != 255 || !(o.m_aTable[0][nCode] | o.m_aTable[1][nCode] | o.m_aTable[2][nCode] | o.m_aTable[3][nCode]));
  }
  return o;
}

constexpr std::uint8_t g_nInList = 0x80;

class CThinning
{
public:
  CThinning(EThinning eAlgorithm, std::uint8_t* pImage, int nWidth, int nHeight)
    : m_oAlgorithm(MakeAlgorithm(eAlgorithm)), m_pImage(pImage), m_nStride(nWidth + 2),
      m_vecFlags(std::size_t(nWidth + 2) * std::size_t(nHeight + 2), 0)
  {
    const std::ptrdiff_t s = m_nStride;
    const std::ptrdiff_t aOffset[8] = {-s, -s + 1, 1, s + 1, s, s - 1, -1, -s - 1};
    std::copy(aOffset, aOffset + 8, m_aOffset);
    m_nAllKinds = std::uint8_t((1u << m_oAlgorithm.m_nKinds) - 1);
    m_dInvStride = 1.0 / double(m_nStride);

  }

  unsigned Code(std::ptrdiff_t i) const
  {
    const std::uint8_t* p = m_pImage + i;
    unsigned n = 0;
    for (int k = 0; k < 8; ++k)
      n |= unsigned(p[m_aOffset[k]] == 1) << k;
    return n;
  }

  // The border pixels of rows [nY0, nY1) (band rows), in row order.
  void CollectBorder(int nY0, int nY1, int nWidth, std::vector<std::uint32_t>& vecOut)
  {
    for (int y = nY0; y < nY1; ++y)
    {
      const std::ptrdiff_t nRow = std::ptrdiff_t(y + 1) * m_nStride + 1;
      for (int x = 0; x < nWidth; ++x)
      {
        const std::ptrdiff_t i = nRow + x;
        if (m_pImage[i] != 1)
          continue;
        const std::uint8_t* p = m_pImage + i;
        if ((p[-m_nStride - 1] & p[-m_nStride] & p[-m_nStride + 1] & p[-1] & p[1] & p[m_nStride - 1] & p[m_nStride] &
             p[m_nStride + 1] & 1) == 0 ||
            p[-m_nStride - 1] == 2 || p[-m_nStride] == 2 || p[-m_nStride + 1] == 2 || p[-1] == 2 || p[1] == 2 ||
            p[m_nStride - 1] == 2 || p[m_nStride] == 2 || p[m_nStride + 1] == 2)
        {
          vecOut.push_back(std::uint32_t(i));
          m_vecFlags[i] = std::uint8_t(g_nInList | m_nAllKinds);
        }
      }
    }
  }

  void Run(int nWidth, int nHeight, const CProgressLayer& oProgress)
  {
    // The border, in parallel over row blocks, joined in row order.
    const int nBlocks = (nHeight + g_nBlockRows - 1) / g_nBlockRows;
    std::vector<std::vector<std::uint32_t>> vecParts(nBlocks);
    tbb::parallel_for(0, nBlocks, [&](int b) {
      CollectBorder(b * g_nBlockRows, std::min(nHeight, (b + 1) * g_nBlockRows), nWidth, vecParts[b]);
      oProgress.Increment(double(std::min(nHeight, (b + 1) * g_nBlockRows) - b * g_nBlockRows) / 2);
    });
    std::vector<std::uint32_t> vecList;
    for (auto& vec : vecParts)
      vecList.insert(vecList.end(), vec.begin(), vec.end());
    vecParts.clear();

    std::vector<std::uint32_t> vecDelete, vecSorted;
    std::vector<std::uint8_t> vecDecision;
    const std::size_t nFirst = vecList.size();
    double dReported = 0.0;
    for (int nKind = 0, nQuiet = 0; nQuiet < m_oAlgorithm.m_nKinds && !vecList.empty();
         nKind = (nKind + 1) % m_oAlgorithm.m_nKinds)
    {
      const std::uint8_t nBit = std::uint8_t(1u << nKind);
      const TTable& aTable = m_oAlgorithm.m_aTable[nKind];
      // Decisions on the picture before the subiteration: in parallel, each entry its own flags.
      vecDecision.resize(vecList.size());
      auto fnDecide = [&](std::size_t nBegin, std::size_t nEnd) {
        for (std::size_t n = nBegin; n < nEnd; ++n)
        {
          const std::uint32_t i = vecList[n];
          bool bDelete = false;
          if (m_vecFlags[i] & nBit)
          {
            m_vecFlags[i] &= std::uint8_t(~nBit);
            bDelete = (!m_oAlgorithm.m_bSubfields || int((i + Row(i) * std::uint32_t(m_nStride - 1)) & 1) == nKind) && aTable[Code(i)];
          }
          vecDecision[n] = bDelete;
        }
      };
      if (vecList.size() < 16384)
        fnDecide(0, vecList.size());
      else
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, vecList.size(), 8192),
                          [&](const tbb::blocked_range<std::size_t>& r) { fnDecide(r.begin(), r.end()); });
      vecDelete.clear();
      for (std::size_t n = 0; n < vecList.size(); ++n)
        if (vecDecision[n])
          vecDelete.push_back(vecList[n]);
      if (vecDelete.empty())
      {
        ++nQuiet;
        continue;
      }
      nQuiet = 0;
      for (const std::uint32_t i : vecDelete)
        m_pImage[i] = 0;
      for (const std::uint32_t i : vecDelete)
        for (int k = 0; k < 8; ++k)
        {
          const std::ptrdiff_t j = std::ptrdiff_t(i) + m_aOffset[k];
          if (m_pImage[j] != 1)
            continue;
          if (!(m_vecFlags[j] & g_nInList))
            vecList.push_back(std::uint32_t(j));
          m_vecFlags[j] = std::uint8_t(g_nInList | m_nAllKinds);
        }
      // Keep the foreground pixels with a test still to come.
      std::size_t nKept = 0;
      for (const std::uint32_t i : vecList)
      {
        if (m_pImage[i] == 1 && (m_vecFlags[i] & m_nAllKinds))
          vecList[nKept++] = i;
        else
          m_vecFlags[i] = 0;
      }
      vecList.resize(nKept);
      SortByRow(vecList, vecSorted, nHeight);
      // Progress: the second half of the units, by the share of the first border that is done.
      const double dDone = nFirst ? std::min(1.0, 1.0 - double(vecList.size()) / double(nFirst)) * nHeight / 2 : 0.0;
      if (dDone > dReported)
      {
        oProgress.Increment(dDone - dReported);
        dReported = dDone;
      }
    }
    if (dReported < nHeight / 2.0)
      oProgress.Increment(nHeight / 2.0 - dReported);
  }

private:
  // The row of padded index i; a multiplication instead of a division, corrected by one step.
  std::uint32_t Row(std::uint32_t i) const
  {
    std::uint32_t y = std::uint32_t(double(i) * m_dInvStride);
    y -= std::ptrdiff_t(y) * m_nStride > std::ptrdiff_t(i);
    y += std::ptrdiff_t(y + 1) * m_nStride <= std::ptrdiff_t(i);
    return y;
  }

  // Puts the list in row order (a counting sort), so that the next passes go through the picture
  // from top to bottom instead of jumping: the list grows in the order of deletions.
  void SortByRow(std::vector<std::uint32_t>& vecList, std::vector<std::uint32_t>& vecTemp, int nHeight) const
  {
    m_vecCount.assign(std::size_t(nHeight) + 3, 0);
    for (const std::uint32_t i : vecList)
      ++m_vecCount[Row(i) + 1];
    for (std::size_t n = 1; n < m_vecCount.size(); ++n)
      m_vecCount[n] += m_vecCount[n - 1];
    vecTemp.resize(vecList.size());
    for (const std::uint32_t i : vecList)
      vecTemp[m_vecCount[Row(i)]++] = i;
    vecList.swap(vecTemp);
  }

  SAlgorithm m_oAlgorithm;
  std::uint8_t* m_pImage;
  std::ptrdiff_t m_nStride;
  std::ptrdiff_t m_aOffset[8];
  std::uint8_t m_nAllKinds;
  std::vector<std::uint8_t> m_vecFlags;
  double m_dInvStride;
  mutable std::vector<std::uint32_t> m_vecCount;
};

} // namespace

template <class TDest, class TSrc>
void ApplyThinning(EThinning eAlgorithm, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                   const char* pAction, TDest& oDest, const TSrc& oSrc)
{
  using TPixel = typename TSrc::TPixel;
  CheckSameSize(oDest, oSrc, pAction);
  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  const CProgressLayer oProgress(pLogger, pAction, 3.0 * nHeight);
  const std::size_t nStride = std::size_t(nWidth) + 2;
  std::vector<std::uint8_t> vecImage(nStride * std::size_t(nHeight + 2), 0);
  const SValidTest<TPixel> oValid(oSrc);
  ParallelRuns(oSrc, oProgress, [&](int nX, int nY, const TPixel* pRun, int nRun) {
    std::uint8_t* pTo = vecImage.data() + std::size_t(nY + 1) * nStride + std::size_t(nX + 1);
    for (int i = 0; i < nRun; ++i)
      pTo[i] = oValid(pRun[i]) ? std::uint8_t(pRun[i] != TPixel(0)) : std::uint8_t(2);
  });

  CThinning oThinning(eAlgorithm, vecImage.data(), nWidth, nHeight);
  oThinning.Run(nWidth, nHeight, oProgress);

  const typename TDest::TPixel tNoData = GetOutputNoDataValue(oDest);
  std::atomic<bool> bNoData(false);
  ParallelRuns(oDest, oProgress, [&](int nX, int nY, typename TDest::TPixel* pRun, int nRun) {
    const std::uint8_t* pFrom = vecImage.data() + std::size_t(nY + 1) * nStride + std::size_t(nX + 1);
    bool bAny = false;
    for (int i = 0; i < nRun; ++i)
    {
      pRun[i] = pFrom[i] == 2 ? tNoData : typename TDest::TPixel(pFrom[i]);
      bAny |= pFrom[i] == 2;
    }
    if (bAny)
      bNoData.store(true, std::memory_order_relaxed);
  });
  if (bNoData && !oDest.HasNoDataValue())
    oDest.SetNoDataValue(tNoData);
  oProgress.Done();
}

#define ORL_THINNING_MEMORY(TPixel) template ORL_THINNING_APPLY(TPixel, Band::SMemoryTag)
#define ORL_THINNING_IPP(TPixel) template ORL_THINNING_APPLY(TPixel, Band::SIPPTag)
#define ORL_THINNING_TILE(TPixel) template ORL_THINNING_APPLY(TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_TILE)

}}}} // namespace Orl::Ostrel::Filter::Detail
