#pragma once

// Generic definitions of CArithmeticBinaryFilter, for the units that instantiate it.

#include "Filter/ArithmeticBinaryFilter.h"
#include "Filter/Detail/PixelwiseSupport.h"
#include "Filter/Detail/PixelwiseWalk.h"

#include <cmath>

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// The operations on computed values; Invalid(b) marks the operands without a result.
struct SNoInvalidOperands
{
  template <class T>
  static bool Invalid(T)
  {
    return false;
  }
};
template <class T>
struct SAddOperation : SNoInvalidOperands
{
  T operator()(T a, T b) const { return a + b; }
};
template <class T>
struct SSubtractOperation : SNoInvalidOperands
{
  T operator()(T a, T b) const { return a - b; }
};
template <class T>
struct SMultiplyOperation : SNoInvalidOperands
{
  T operator()(T a, T b) const { return a * b; }
};
template <class T>
struct SDivideOperation
{
  static bool Invalid(T b) { return b == T(0); }
  // b = 0 gives an infinity or NaN, masked by Invalid; the filters are built without trapping math.
  T operator()(T a, T b) const { return a / b; }
};
template <class T>
struct SPowerOperation : SNoInvalidOperands
{
  T operator()(T a, T b) const { return std::pow(a, b); }
};
template <class T>
struct SMinimumOperation : SNoInvalidOperands
{
  T operator()(T a, T b) const { return b < a ? b : a; }
};
template <class T>
struct SMaximumOperation : SNoInvalidOperands
{
  T operator()(T a, T b) const { return a < b ? b : a; }
};

template <class TPixel, class TOperation>
struct SBinaryKernel
{
  using TCompute = TComputeOf<TPixel>;
  SNoDataTest<TPixel> m_oNoDataA;
  SNoDataTest<TPixel> m_oNoDataB;
  TPixel m_tNoData;
  TCompute m_tConstant;

  static TPixel _One(TCompute a, TCompute b, bool bInvalid, TPixel tNoData)
  {
    bInvalid |= (a != a) | (b != b) | TOperation::Invalid(b);
    return ToPixel<TPixel>(TOperation()(a, b), bInvalid, tNoData);
  }

  // No __restrict: dest may be a source. The fields go to locals first: dest could alias them.
  void operator()(int n, TPixel* pDest, const TPixel* pA, const TPixel* pB) const
  {
    const SNoDataTest<TPixel> oNoDataA = m_oNoDataA, oNoDataB = m_oNoDataB;
    const TPixel tNoData = m_tNoData;
    for (int i = 0; i < n; ++i)
    {
      const TPixel a = pA[i], b = pB[i];
      pDest[i] = _One(TCompute(a), TCompute(b), oNoDataA(a) | oNoDataB(b), tNoData);
    }
  }
  void operator()(int n, TPixel* pDest, const TPixel* pA) const
  {
    const SNoDataTest<TPixel> oNoDataA = m_oNoDataA;
    const TPixel tNoData = m_tNoData;
    const TCompute tConstant = m_tConstant;
    for (int i = 0; i < n; ++i)
    {
      const TPixel a = pA[i];
      pDest[i] = _One(TCompute(a), tConstant, oNoDataA(a), tNoData);
    }
  }
};

} // namespace Detail

template <class TDest, class TSrc>
void CArithmeticBinaryFilter::Apply(TDest& oDest, const TSrc& oA, const TSrc& oB) const
{
  Detail::CheckSameExtent(oDest, oA, m_strName);
  Detail::CheckSameExtent(oDest, oB, m_strName);
  _Dispatch(oDest, oA, oB);
}

template <class TDest, class TSrc>
void CArithmeticBinaryFilter::Apply(TDest& oDest, const TSrc& oA) const
{
  Detail::CheckSameExtent(oDest, oA, m_strName);
  if (!m_bConstant)
    Detail::ThrowFilterError(__FILE__, __LINE__,
                             Detail::FormatMessage("%1%: one band needs a filter made with a constant", m_strName));
  _Dispatch(oDest, oA);
}

template <class TDest, class... TSrcs>
void CArithmeticBinaryFilter::_Dispatch(TDest& oDest, const TSrcs&... oSrcs) const
{
  switch (m_eOperation)
  {
  case eAdd: return _Apply<Detail::SAddOperation>(oDest, oSrcs...);
  case eSubtract: return _Apply<Detail::SSubtractOperation>(oDest, oSrcs...);
  case eMultiply: return _Apply<Detail::SMultiplyOperation>(oDest, oSrcs...);
  case eDivide: return _Apply<Detail::SDivideOperation>(oDest, oSrcs...);
  case ePower: return _Apply<Detail::SPowerOperation>(oDest, oSrcs...);
  case eMinimum: return _Apply<Detail::SMinimumOperation>(oDest, oSrcs...);
  case eMaximum: return _Apply<Detail::SMaximumOperation>(oDest, oSrcs...);
  }
  Detail::ThrowFilterError(__FILE__, __LINE__, Detail::FormatMessage("%1%: unknown operation %2%", m_strName,
                                                                     int(m_eOperation)));
}

template <template <class> class TOperation, class TDest, class... TSrcs>
void CArithmeticBinaryFilter::_Apply(TDest& oDest, const TSrcs&... oSrcs) const
{
  using TPixel = typename TDest::TPixel;
  using TCompute = Detail::TComputeOf<TPixel>;
  const auto& oA = std::get<0>(std::tie(oSrcs...));
  const auto& oB = std::get<sizeof...(TSrcs) - 1>(std::tie(oSrcs...));
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Arithmetic Binary Filter", oDest.GetHeight());
  const Detail::SBinaryKernel<TPixel, TOperation<TCompute>> oKernel{
    Detail::NoDataTest(oA), Detail::NoDataTest(oB), Detail::GetOutputNoDataValue(oDest), TCompute(m_dConstant)};
  Detail::WalkPixelwise(oDest, oKernel, m_pLogger, "Perform Arithmetic Binary Filter in several tasks", oSrcs...);
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
