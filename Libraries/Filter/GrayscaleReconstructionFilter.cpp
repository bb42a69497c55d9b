// Gray-scale reconstruction by Vincent's hybrid algorithm on padded in-memory images.
//
// Mask I and marker J are read once from the bands (parallel row blocks, tile by tile) into arrays
// with a frame of one pixel; the frame and the invalid pixels hold the type's lowest value in both,
// which no max lets through and no min raises, and since I == J there, the queue never takes them.
// Each raster scan splits a row in two loops: one over the row already done (above in the forward
// scan, below in the backward one), which vectorises, and one sequential loop for the neighbour on
// the row itself. That is the same as the per-pixel scan, because min(I, max(A, B)) ==
// min(I, max(min(I, A), B)). Up to three pairs of scans run while they change something; after the
// third backward scan, a pixel enters the queue when a neighbour q already passed in that scan has
// J(q) < J(p) and J(q) < I(q); the queue then raises neighbours until nothing changes. The result is the unique reconstruction, so the order of work does not
// show in it.

#include "Filter/Detail/BandBlocks.h"
#include "Filter/GrayscaleReconstructionFilter.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

namespace {

template <class T>
void Reconstruct(T* pI, T* pJ, int nWidth, int nHeight, const Detail::CProgressLayer& oProgress)
{
  const std::ptrdiff_t s = nWidth + 2;
  std::vector<std::size_t> vecQueue;
  // The first pair of scans carries the progress: half a unit per row and scan, passed on 64 rows at
  // a time and the rest at a scan's end.
  int nRows = 0;
  auto fnRowDone = [&](bool bFirstPair) {
    if (bFirstPair && ++nRows == 64)
    {
      oProgress.Increment(32.0);
      nRows = 0;
    }
  };
  auto fnScanDone = [&] {
    oProgress.Increment(nRows / 2.0);
    nRows = 0;
  };
  // Pairs of scans while they change something, up to three: each pair is cheap and vectorised in
  // part, and takes work off the queue, whose accesses jump. The queue starts after the last one.
  for (int nPair = 0; nPair < 3; ++nPair)
  {
    const bool bLast = nPair == 2;
    std::uint8_t nChanged = 0;
    for (int y = 0; y < nHeight; ++y)
    {
      T* __restrict pRow = pJ + (y + 1) * s + 1;
      const T* __restrict pMask = pI + (y + 1) * s + 1;
      const T* __restrict pAbove = pRow - s;
      for (int x = 0; x < nWidth; ++x)
        pRow[x] = std::min(pMask[x], std::max(std::max(pRow[x], pAbove[x]), std::max(pAbove[x - 1], pAbove[x + 1])));
      for (int x = 0; x < nWidth; ++x)
        pRow[x] = std::min(pMask[x], std::max(pRow[x], pRow[x - 1]));
      fnRowDone(nPair == 0);
    }
    fnScanDone();
    for (int y = nHeight - 1; y >= 0; --y)
    {
      T* __restrict pRow = pJ + (y + 1) * s + 1;
      const T* __restrict pMask = pI + (y + 1) * s + 1;
      const T* __restrict pBelow = pRow + s;
      const T* __restrict pMaskBelow = pMask + s;
      for (int x = 0; x < nWidth; ++x)
      {
        const T t = std::min(pMask[x], std::max(std::max(pRow[x], pBelow[x]), std::max(pBelow[x - 1], pBelow[x + 1])));
        nChanged |= t != pRow[x];
        pRow[x] = t;
      }
      for (int x = nWidth - 1; x >= 0; --x)
      {
        const T t = std::min(pMask[x], std::max(pRow[x], pRow[x + 1]));
        nChanged |= t != pRow[x];
        pRow[x] = t;
      }
      for (int x = 0; x < nWidth && bLast; ++x)
      {
        const T j = pRow[x];
        auto fnRaises = [&](const T* pJq, const T* pIq, int nDx) { return pJq[x + nDx] < j && pJq[x + nDx] < pIq[x + nDx]; };
        if (fnRaises(pRow, pMask, 1) || fnRaises(pBelow, pMaskBelow, -1) || fnRaises(pBelow, pMaskBelow, 0) ||
            fnRaises(pBelow, pMaskBelow, 1))
          vecQueue.push_back(std::size_t((y + 1) * s + 1 + x));
      }
      fnRowDone(nPair == 0);
    }
    fnScanDone();
    if (!nChanged) // a backward scan that changes nothing after a forward one: stable
      return;
  }
  // Propagation.
  const std::ptrdiff_t aOffset[8] = {-s - 1, -s, -s + 1, -1, 1, s - 1, s, s + 1};
  for (std::size_t nHead = 0; nHead < vecQueue.size(); ++nHead)
  {
    const std::size_t p = vecQueue[nHead];
    const T j = pJ[p];
    for (const std::ptrdiff_t d : aOffset)
    {
      const std::ptrdiff_t q = std::ptrdiff_t(p) + d;
      if (pJ[q] < j && pI[q] != pJ[q])
      {
        pJ[q] = std::min(j, pI[q]);
        vecQueue.push_back(std::size_t(q));
      }
    }
    if (nHead > (std::size_t(1) << 20) && nHead * 2 > vecQueue.size())
    {
      vecQueue.erase(vecQueue.begin(), vecQueue.begin() + std::ptrdiff_t(nHead) + 1);
      nHead = std::size_t(-1);
    }
  }
}

} // namespace

template <class TDest, class TMarker, class TMask>
void CGrayscaleReconstructionFilter::Apply(TDest& oDest, const TMarker& oMarker, const TMask& oMask) const
{
  using T = typename TMask::TPixel;
  static_assert(std::is_same<T, typename TMarker::TPixel>::value && std::is_same<T, typename TDest::TPixel>::value,
                "one pixel type for the three bands");
  const char* const pAction = "Apply Grayscale Reconstruction Filter";
  Detail::CheckSameSize(oDest, oMarker, pAction);
  Detail::CheckSameSize(oDest, oMask, pAction);
  const int nWidth = int(oDest.GetWidth()), nHeight = int(oDest.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  const Detail::CProgressLayer oProgress(m_pLogger, pAction, 4.0 * nHeight);
  const std::ptrdiff_t s = nWidth + 2;
  const T tLowest = std::numeric_limits<T>::lowest();
  const std::size_t nSize = std::size_t(s) * std::size_t(nHeight + 2);
  std::vector<T> vecI(nSize, tLowest), vecJ(nSize, tLowest);
  std::vector<std::uint8_t> vecOut(std::size_t(nWidth) * std::size_t(nHeight));
  const Detail::SValidTest<T> oMaskValid(oMask), oMarkerValid(oMarker);
  Detail::ParallelRuns(oMask, oProgress, [&](int nX, int nY, const T* pRun, int nRun) {
    T* pTo = vecI.data() + (nY + 1) * s + nX + 1;
    std::uint8_t* pOut = vecOut.data() + std::ptrdiff_t(nY) * nWidth + nX;
    for (int i = 0; i < nRun; ++i)
    {
      pOut[i] = !oMaskValid(pRun[i]);
      pTo[i] = pOut[i] ? tLowest : pRun[i];
    }
  });
  std::atomic<bool> bInvalid(false);
  Detail::ParallelRuns(oMarker, oProgress, [&](int nX, int nY, const T* pRun, int nRun) {
    const std::ptrdiff_t nAt = (nY + 1) * s + nX + 1;
    T* pI = vecI.data() + nAt;
    T* pJ = vecJ.data() + nAt;
    std::uint8_t* pOut = vecOut.data() + std::ptrdiff_t(nY) * nWidth + nX;
    bool bAny = false;
    for (int i = 0; i < nRun; ++i)
    {
      pOut[i] |= !oMarkerValid(pRun[i]);
      if (pOut[i])
        pI[i] = tLowest;
      pJ[i] = pOut[i] ? tLowest : std::min(pRun[i], pI[i]);
      bAny |= pOut[i] != 0;
    }
    if (bAny)
      bInvalid.store(true, std::memory_order_relaxed);
  });

  Reconstruct(vecI.data(), vecJ.data(), nWidth, nHeight, oProgress);

  const T tNoData = Detail::GetOutputNoDataValue(oDest);
  Detail::ParallelRuns(oDest, oProgress, [&](int nX, int nY, T* pRun, int nRun) {
    const T* pFrom = vecJ.data() + (nY + 1) * s + nX + 1;
    const std::uint8_t* pOut = vecOut.data() + std::ptrdiff_t(nY) * nWidth + nX;
    for (int i = 0; i < nRun; ++i)
      pRun[i] = pOut[i] ? tNoData : pFrom[i];
  });
  if (bInvalid && !oDest.HasNoDataValue())
    oDest.SetNoDataValue(tNoData);
  oProgress.Done();
}

#define ORL_RECONSTRUCTION_MEMORY(TPixel) template ORL_RECONSTRUCTION_APPLY(TPixel, Band::SMemoryTag)
#define ORL_RECONSTRUCTION_IPP(TPixel) template ORL_RECONSTRUCTION_APPLY(TPixel, Band::SIPPTag)
#define ORL_RECONSTRUCTION_TILE(TPixel) template ORL_RECONSTRUCTION_APPLY(TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_RECONSTRUCTION_TILE)

}}} // namespace Orl::Ostrel::Filter
