#pragma once

// Generic definitions of CArithmeticUnaryFilter, for the units that instantiate it.

#include "Filter/ArithmeticUnaryFilter.h"
#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"

#include <cmath>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// The operations on a computed value x, with the filter's two numbers a and b.
template <class T>
struct SNegateOperation
{
  T a, b;
  T operator()(T x) const { return -x; }
};
template <class T>
struct SAbsoluteOperation
{
  T a, b;
  T operator()(T x) const { return std::fabs(x); }
};
template <class T>
struct SSquareRootOperation
{
  T a, b;
  T operator()(T x) const { return std::sqrt(x); }
};
template <class T>
struct SLogarithmOperation
{
  T a, b;
  T operator()(T x) const { return std::log(x); }
};
template <class T>
struct SExponentialOperation
{
  T a, b;
  T operator()(T x) const { return std::exp(x); }
};
template <class T>
struct SScaleOffsetOperation
{
  T a, b;
  T operator()(T x) const { return a * x + b; }
};
template <class T>
struct SClampOperation
{
  T a, b;
  T operator()(T x) const { return x < a ? a : (x > b ? b : x); }
};

template <class TPixel, class TOperation>
struct SUnaryKernel
{
  SNoDataTest<TPixel> m_oSrcNoData;
  TPixel m_tNoData;
  TOperation m_oOperation;

  // No __restrict: dest may be src.
  void operator()(int n, TPixel* pDest, const TPixel* pSrc) const
  {
    using TCompute = TComputeOf<TPixel>;
    const SNoDataTest<TPixel> oNoData = m_oSrcNoData;
    const TPixel tNoData = m_tNoData;
    const TOperation oOperation = m_oOperation;
    for (int i = 0; i < n; ++i)
    {
      const TPixel tValue = pSrc[i];
      const bool bInvalid = oNoData(tValue) | (tValue != tValue);
      pDest[i] = ToPixel<TPixel>(oOperation(TCompute(tValue)), bInvalid, tNoData);
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc>
void CArithmeticUnaryFilter::Apply(TDest& oDest, const TSrc& oSrc) const
{
  static_assert(std::is_same<typename TDest::TPixel, typename TSrc::TPixel>::value, "dest and src share a pixel type");
  Detail::CheckSameExtent(oDest, oSrc, m_strName);
  switch (m_eOperation)
  {
  case eNegate: return _Apply<Detail::SNegateOperation>(oDest, oSrc);
  case eAbsolute: return _Apply<Detail::SAbsoluteOperation>(oDest, oSrc);
  case eSquareRoot: return _Apply<Detail::SSquareRootOperation>(oDest, oSrc);
  case eLogarithm: return _Apply<Detail::SLogarithmOperation>(oDest, oSrc);
  case eExponential: return _Apply<Detail::SExponentialOperation>(oDest, oSrc);
  case eScaleOffset: return _Apply<Detail::SScaleOffsetOperation>(oDest, oSrc);
  case eClamp: return _Apply<Detail::SClampOperation>(oDest, oSrc);
  }
  Detail::ThrowFilterError(__FILE__, __LINE__, Detail::FormatMessage("%1%: unknown operation %2%", m_strName,
                                                                     int(m_eOperation)));
}

template <template <class> class TOperation, class TDest, class TSrc>
void CArithmeticUnaryFilter::_Apply(TDest& oDest, const TSrc& oSrc) const
{
  using TPixel = typename TDest::TPixel;
  using TCompute = Detail::TComputeOf<TPixel>;
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Arithmetic Unary Filter", oDest.GetHeight());
  const Detail::SUnaryKernel<TPixel, TOperation<TCompute>> oKernel{
    Detail::NoDataTest(oSrc), Detail::GetOutputNoDataValue(oDest), {TCompute(m_dFirst), TCompute(m_dSecond)}};
  Detail::WalkPixelwise(oDest, oKernel, m_pLogger, "Perform Arithmetic Unary Filter in several tasks", oSrc);
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
