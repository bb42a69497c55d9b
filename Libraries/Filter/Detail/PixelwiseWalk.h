#pragma once

// The one parallel walk of the per-pixel filters: destination bands and source bands of one extent,
// visited together in row runs, each run handed to a compile-time kernel as plain arrays.
//
// WalkPixelwise(nWidth, nHeight, vecDest, vecStack, oKernel, pLogger, pLayerText, itSrc...)
//   nWidth x nHeight   the extent, walked from every iterator's position on
//   vecDest            begin iterators of the destinations (mutable, one pixel type, at least one)
//   vecStack           begin iterators of a stack of sources of one pixel type (may be empty)
//   itSrc...           begin iterators of further sources, each of its own pixel type
//   oKernel            oKernel(n, ppDest, ppStack, pSrc...) const, called for each run of n pixels with
//                      TDestPixel* const* ppDest, const TStackPixel* const* ppStack and
//                      const TSrcPixel* pSrc per further source: n pixels from each pointer on
//   pLogger            may be empty; otherwise a nested layer named pLayerText is pushed, one
//                      IncrementProgress(pixels) per block, and popped on the normal path
//
// WalkPixelwise(oDest, oKernel, pLogger, pLayerText, oSrc...) is the common form for one destination
// band and fixed sources: oKernel(n, pDest, pSrc...). The bands' extents must be equal (the callers
// check that before).
//
// Required of every iterator: SRowRuns (Band/Detail/RowRuns.h), copy, it += CPoint<int>,
// GetBlockHintX(), GetBlockHintY(). Memory and tile band iterators of every pixel type qualify.
//
// The extent is cut into blocks aligned at multiples of the destination's block hint (the smaller
// of the hints of all bands on each axis), so that a tile band's block covers at most two by two of
// its tiles and each iterator finds them in its own tile slots row after row. Blocks run in parallel
// through tbb::parallel_for. Within a block, a run ends where any band's tile row ends. Kernels
// must read every input of a pixel before writing its destination when a destination may also be a
// source (the filters whose AllowDestIsSrc is true); with distinct bands, runs never overlap.
//
// Exceptions from a block (a tile load) reach the caller after the running blocks have finished;
// the progress layer then stays pushed.

#include "Band/Detail/RowRuns.h"
#include "Foundation/Logger.h"
#include "Foundation/Point.h"
#include "Internationalisation/Translator.h"

#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>
#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

using TFilterLoggerPtr = boost::shared_ptr<Harnel::Progress::CLogger>;

template <class TIterator>
using TRunPixelPointer = decltype(Band::Detail::SRowRuns<TIterator>::Pointer(std::declval<const TIterator&>()));

// Asks for the cache lines of p[0, n) to be read; n <= 0 asks for none.
template <class TPixel>
inline void Prefetch(const TPixel* p, int n)
{
  const char* pByte = reinterpret_cast<const char*>(p);
  for (std::ptrdiff_t nOffset = 0; nOffset < std::ptrdiff_t(n) * std::ptrdiff_t(sizeof(TPixel)); nOffset += 64)
    __builtin_prefetch(pByte + nOffset);
}

template <class TDestIt, class TStackIt, class TKernel, class... TSrcIts>
class CPixelwiseBlocks
{
public:
  CPixelwiseBlocks(int nWidth, int nHeight, int nBlockX, int nBlockY, const std::vector<TDestIt>& vecDest,
                   const std::vector<TStackIt>& vecStack, const TKernel& oKernel, const TFilterLoggerPtr& pLogger,
                   const std::tuple<TSrcIts...>& oSrcs)
    : m_nWidth(nWidth), m_nHeight(nHeight), m_nBlockX(nBlockX), m_nBlockY(nBlockY), m_vecDest(vecDest),
      m_vecStack(vecStack), m_oKernel(oKernel), m_pLogger(pLogger), m_oSrcs(oSrcs)
  {
  }

  void operator()(const tbb::blocked_range2d<int, int>& oBlocks) const
  {
    for (int nBY = oBlocks.rows().begin(); nBY != oBlocks.rows().end(); ++nBY)
      for (int nBX = oBlocks.cols().begin(); nBX != oBlocks.cols().end(); ++nBX)
      {
        const int nX = nBX * m_nBlockX, nY = nBY * m_nBlockY;
        const int nW = std::min(m_nBlockX, m_nWidth - nX), nH = std::min(m_nBlockY, m_nHeight - nY);
        _Block(Pravik::GraphObject2d::CPoint<int>(nX, nY), nW, nH, std::index_sequence_for<TSrcIts...>());
        if (m_pLogger)
          m_pLogger->IncrementProgress(double(nW) * double(nH));
      }
  }

private:
  template <class TIterator>
  static int _Length(const TIterator& it)
  {
    return Band::Detail::SRowRuns<TIterator>::Length(it);
  }
  template <class TIterator>
  static void _Advance(TIterator& it, int nCount)
  {
    Band::Detail::SRowRuns<TIterator>::Advance(it, nCount);
  }
  template <class TIterator>
  static auto _Pointer(const TIterator& it)
  {
    return Band::Detail::SRowRuns<TIterator>::Pointer(it);
  }

  template <std::size_t... I>
  void _Block(const Pravik::GraphObject2d::CPoint<int>& oStart, int nW, int nH, std::index_sequence<I...>) const
  {
    using Pravik::GraphObject2d::CPoint;
    std::vector<TDestIt> vecDest(m_vecDest);
    std::vector<TStackIt> vecStack(m_vecStack);
    std::tuple<TSrcIts...> oSrcs(m_oSrcs);
    for (auto& it : vecDest)
      it += oStart;
    for (auto& it : vecStack)
      it += oStart;
    (void)std::initializer_list<int>{((std::get<I>(oSrcs) += oStart), 0)...};
    std::vector<TRunPixelPointer<TDestIt>> vecDestPtr(vecDest.size());
    std::vector<TRunPixelPointer<TStackIt>> vecStackPtr(vecStack.size());
    const CPoint<int> oNextRow(1 - nW, 1);
    for (int nRow = 0; nRow < nH; ++nRow)
    {
      if (nRow != 0)
      {
        for (auto& it : vecDest)
          it += oNextRow;
        for (auto& it : vecStack)
          it += oNextRow;
        (void)std::initializer_list<int>{((std::get<I>(oSrcs) += oNextRow), 0)...};
      }
      for (int nLeft = nW; nLeft > 0;)
      {
        int nRun = nLeft;
        for (const auto& it : vecDest)
          nRun = std::min(nRun, _Length(it));
        for (const auto& it : vecStack)
          nRun = std::min(nRun, _Length(it));
        (void)std::initializer_list<int>{(nRun = std::min(nRun, _Length(std::get<I>(oSrcs))))...};
        const std::tuple<TRunPixelPointer<TSrcIts>...> oSrcPtr(_Pointer(std::get<I>(oSrcs))...);
        (void)oSrcPtr; // unused when the kernel has no further sources
        for (int nDone = 0; nDone < nRun; nDone += ms_nChunk)
        {
          const int nChunk = std::min(ms_nChunk, nRun - nDone);
          const int nAhead = std::min(ms_nChunk, nRun - nDone - nChunk);
          for (std::size_t k = 0; k < vecDest.size(); ++k)
            vecDestPtr[k] = _Pointer(vecDest[k]) + nDone;
          for (std::size_t k = 0; k < vecStack.size(); ++k)
          {
            vecStackPtr[k] = _Pointer(vecStack[k]) + nDone;
            Prefetch(vecStackPtr[k] + nChunk, nAhead);
          }
          (void)std::initializer_list<int>{(Prefetch(std::get<I>(oSrcPtr) + nDone + nChunk, nAhead), 0)...};
          m_oKernel(nChunk, vecDestPtr.data(), vecStackPtr.data(), (std::get<I>(oSrcPtr) + nDone)...);
        }
        nLeft -= nRun;
        // The last run of a row stops on its last pixel: a step beyond would fetch a tile for nothing.
        const int nStep = nLeft == 0 ? nRun - 1 : nRun;
        for (auto& it : vecDest)
          _Advance(it, nStep);
        for (auto& it : vecStack)
          _Advance(it, nStep);
        (void)std::initializer_list<int>{(_Advance(std::get<I>(oSrcs), nStep), 0)...};
      }
    }
  }

  // Runs go to the kernel in chunks, each while the sources' next chunk is prefetched: a kernel with a
  // long body per pixel keeps too few cache lines in flight for the processor's own prefetcher to
  // stream the bands (a rounding copy from float ran 4 times slower than memory allows without it).
  // Prefetching the destinations too made the short kernels slower.
  static constexpr int ms_nChunk = 512;

  int m_nWidth, m_nHeight, m_nBlockX, m_nBlockY;
  const std::vector<TDestIt>& m_vecDest;
  const std::vector<TStackIt>& m_vecStack;
  const TKernel& m_oKernel;
  const TFilterLoggerPtr& m_pLogger;
  const std::tuple<TSrcIts...>& m_oSrcs;
};

template <class TIterator>
void NarrowBlockHint(const TIterator& it, std::uint32_t& nHintX, std::uint32_t& nHintY)
{
  nHintX = std::min<std::uint32_t>(nHintX, it.GetBlockHintX());
  nHintY = std::min<std::uint32_t>(nHintY, it.GetBlockHintY());
}

template <class TDestIt, class TStackIt, class TKernel, class... TSrcIts>
void WalkPixelwise(int nWidth, int nHeight, const std::vector<TDestIt>& vecDest, const std::vector<TStackIt>& vecStack,
                   const TKernel& oKernel, const TFilterLoggerPtr& pLogger, const char* pLayerText,
                   const TSrcIts&... itSrcs)
{
  static_assert(Band::Detail::SRowRuns<TDestIt>::value && Band::Detail::SRowRuns<TStackIt>::value,
                "the walk reads and writes row runs");
  if (pLogger)
    pLogger->Push(Harnel::Internationalisation::CTranslator::Translate(pLayerText), double(nHeight),
                  double(nWidth) * double(nHeight), 0.0, false, Harnel::Progress::eLayerParallel,
                  Harnel::Progress::eLayerPublic, std::string());
  if (nWidth > 0 && nHeight > 0 && !vecDest.empty())
  {
    std::uint32_t nHintX = UINT32_MAX, nHintY = UINT32_MAX;
    for (const auto& it : vecDest)
      NarrowBlockHint(it, nHintX, nHintY);
    for (const auto& it : vecStack)
      NarrowBlockHint(it, nHintX, nHintY);
    (void)std::initializer_list<int>{(NarrowBlockHint(itSrcs, nHintX, nHintY), 0)...};
    const int nBlockX = int(std::max<std::uint32_t>(1, std::min<std::uint32_t>(nHintX, std::uint32_t(nWidth))));
    const int nBlockY = int(std::max<std::uint32_t>(1, std::min<std::uint32_t>(nHintY, std::uint32_t(nHeight))));
    const std::tuple<TSrcIts...> oSrcs(itSrcs...);
    const CPixelwiseBlocks<TDestIt, TStackIt, TKernel, TSrcIts...> oBody(nWidth, nHeight, nBlockX, nBlockY, vecDest,
                                                                         vecStack, oKernel, pLogger, oSrcs);
    tbb::parallel_for(tbb::blocked_range2d<int, int>(0, (nHeight + nBlockY - 1) / nBlockY, 1, 0,
                                                     (nWidth + nBlockX - 1) / nBlockX, 1),
                      oBody);
  }
  if (pLogger)
    pLogger->Pop();
}

// A band's begin iterator over its whole extent.
template <class TBand>
auto BeginOf(TBand& oBand)
{
  return boost::get<0>(oBand.GetBandIterators(oBand.GetRect()));
}

// The begin iterators of a stack of bands.
template <class TBand>
auto BeginsOf(const std::vector<TBand>& vecBands)
{
  std::vector<decltype(BeginOf(vecBands.front()))> vecBegins;
  vecBegins.reserve(vecBands.size());
  for (const TBand& oBand : vecBands)
    vecBegins.push_back(BeginOf(oBand));
  return vecBegins;
}

template <class TKernel>
struct SSingleDestKernel
{
  TKernel m_oKernel;

  template <class TDestPixel, class TUnused, class... TSrcPixels>
  void operator()(int n, TDestPixel* const* ppDest, TUnused, const TSrcPixels*... pSrcs) const
  {
    m_oKernel(n, ppDest[0], pSrcs...);
  }
};

// One destination band, fixed sources: oKernel(n, pDest, pSrc...).
template <class TDestBand, class TKernel, class... TSrcBands>
void WalkPixelwise(TDestBand& oDest, const TKernel& oKernel, const TFilterLoggerPtr& pLogger, const char* pLayerText,
                   const TSrcBands&... oSrcs)
{
  const std::vector<decltype(BeginOf(oDest))> vecDest{BeginOf(oDest)};
  WalkPixelwise(int(oDest.GetWidth()), int(oDest.GetHeight()), vecDest, decltype(vecDest)(),
                SSingleDestKernel<TKernel>{oKernel}, pLogger, pLayerText, BeginOf(oSrcs)...);
}

}}}} // namespace Orl::Ostrel::Filter::Detail
