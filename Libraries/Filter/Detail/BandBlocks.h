#pragma once

// Helpers for filters that work on whole-band buffers in memory: a size check that throws before
// anything is written, the progress layer of one Apply, and parallel walks that hand every pixel of a
// band to a callback as row runs, block of rows by block of rows. Inside a block the runs come as
// tile-wide column strips (Band::Detail::WalkRectRunStrips), so a tile band is read or written one
// tile at a time, each tile once, whatever the cache's budget; a memory band's strip is its rows.
// The callbacks see plain arrays: results do not depend on the storage kind.

#include "Band/Detail/RowRuns.h"
#include "Foundation/BasicException.h"
#include "Foundation/Logger.h"
#include "Internationalisation/Translator.h"

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/tuple/tuple.hpp>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// Throws unless both bands have the same width and height.
template <class TBandA, class TBandB>
void CheckSameSize(const TBandA& oA, const TBandB& oB, const char* pWhat)
{
  if (oA.GetWidth() == oB.GetWidth() && oA.GetHeight() == oB.GetHeight())
    return;
  namespace I18n = Harnel::Internationalisation;
  throw Harnel::CBasicException(
    __FILE__, __LINE__,
    (boost::format(I18n::CTranslator::Translate("%1%: band sizes differ: %2% x %3% and %4% x %5%")) % pWhat %
     oA.GetWidth() % oA.GetHeight() % oB.GetWidth() % oB.GetHeight())
      .str(),
    0, std::string());
}

// The progress layer of one Apply: Message and Push on construction, Pop by Done() on the normal path
// only (an exception leaves the layer pushed). Everything is a no-op without a logger.
class CProgressLayer
{
public:
  CProgressLayer(const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger, const char* pAction, double dTotal)
    : m_pLogger(pLogger.get())
  {
    using namespace Harnel::Progress;
    if (!m_pLogger)
      return;
    const std::string& strText = Harnel::Internationalisation::CTranslator::Translate(pAction);
    m_pLogger->Message(_EVerbosityLevel(4), strText, std::string());
    m_pLogger->Push(strText, 1.0, dTotal, 0.0, false, ELayerClass(0), ELayerSecrecy(0), std::string());
  }
  void Increment(double dWork) const
  {
    if (m_pLogger)
      m_pLogger->IncrementProgress(dWork);
  }
  void Done() const
  {
    if (m_pLogger)
      m_pLogger->Pop();
  }
  Harnel::Progress::CLogger* Get() const { return m_pLogger; }

private:
  Harnel::Progress::CLogger* m_pLogger;
};

// Whether a pixel is valid: not the band's no-data value and, for floating types, finite.
template <class TPixel>
struct SValidTest
{
  template <class TBand>
  explicit SValidTest(const TBand& oBand)
    : m_tNoData(oBand.HasNoDataValue() ? oBand.GetNoDataValue() : TPixel()), m_bHasNoData(oBand.HasNoDataValue())
  {
  }
  bool operator()(TPixel tPixel) const
  {
    if constexpr (std::is_floating_point<TPixel>::value)
      return (std::fabs(tPixel) <= std::numeric_limits<TPixel>::max()) & !(m_bHasNoData & (tPixel == m_tNoData));
    else
      return !(m_bHasNoData & (tPixel == m_tNoData));
  }

  TPixel m_tNoData;
  bool m_bHasNoData;
};

// Rows per block of the parallel walks: a few blocks per tile row of any pixel type, enough blocks
// for all cores on a band of a few hundred rows.
constexpr int g_nBlockRows = 64;

// For each block of g_nBlockRows rows, in parallel: fnBlock(nY0, nRows) on the block's thread, which
// returns the run function of that block, then fnRun(nX, nY, pRun, nRun) for every run of the block's
// pixels, (nX, nY) the run's first pixel counted from the band's top-left corner. One progress unit
// per row. TBand may be const (read) or not (write). The band has at least one pixel.
template <class TBand, class TBlockFn>
void ParallelBlockRuns(TBand& oBand, const CProgressLayer& oProgress, TBlockFn&& fnBlock)
{
  const int nWidth = int(oBand.GetWidth()), nHeight = int(oBand.GetHeight());
  const int nBlocks = (nHeight + g_nBlockRows - 1) / g_nBlockRows;
  // The iterators are taken once, on the calling thread: granting mutable ones drops the band's cached
  // statistics, a write that must not happen from several tasks at once.
  const auto itBegin = boost::get<0>(oBand.GetBandIterators(oBand.GetRect()));
  tbb::parallel_for(tbb::blocked_range<int>(0, nBlocks, 1), [&](const tbb::blocked_range<int>& oRange) {
    for (int nBlock = oRange.begin(); nBlock != oRange.end(); ++nBlock)
    {
      const int nY0 = nBlock * g_nBlockRows, nRows = std::min(g_nBlockRows, nHeight - nY0);
      auto fnRun = fnBlock(nY0, nRows);
      auto itBlock = itBegin;
      if (nY0 != 0)
        itBlock += Pravik::GraphObject2d::CPoint<int>(0, nY0);
      int nX = 0, nRow = 0;
      Band::Detail::WalkRectRunStrips(itBlock, nWidth, nRows,
                                      [&](auto* pRun, int nRun) {
                                        fnRun(nX, nY0 + nRow, pRun, nRun);
                                        if (++nRow == nRows)
                                        {
                                          nRow = 0;
                                          nX += nRun;
                                        }
                                      });
      oProgress.Increment(double(nRows));
    }
  });
}

// The same with one run function for all blocks; fn must be safe to call from several threads on
// different runs.
template <class TBand, class TFn>
void ParallelRuns(TBand& oBand, const CProgressLayer& oProgress, TFn&& fn)
{
  ParallelBlockRuns(oBand, oProgress, [&](int, int) { return [&](int nX, int nY, auto* pRun, int nRun) { fn(nX, nY, pRun, nRun); }; });
}

}}}} // namespace Orl::Ostrel::Filter::Detail
