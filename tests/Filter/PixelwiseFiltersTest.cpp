// The per-pixel filters against plain reference loops, on every pixel type and every storage kind,
// bit for bit. Inputs mix random values over the type's whole range with a block of special values
// (both ends of the type, 0, 1, 2) that meet each other pairwise, and no-data pixels.
#include "Filter/ArithmeticBinaryFilter.h"
#include "Filter/ArithmeticUnaryFilter.h"
#include "Filter/CopyFilter.h"
#include "Filter/Detail/PixelConversion.h"
#include "Filter/IndexSelectorFilter.h"
#include "Filter/MaskFilter.h"
#include "Filter/MaskMergeFilter.h"
#include "Filter/MaskRangeReplaceFilter.h"
#include "Filter/MedoidFilter.h"
#include "Filter/MinMaxBinaryFilter.h"
#include "Filter/MultiIndexSelectorFilter.h"
#include "Filter/MultiRegressionPredictor.h"
#include "Filter/MultinomialRegressionStratifier.h"
#include "Foundation/BasicException.h"
#include "Support/PixelTypes.h"
#include "Support/TileBands.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cfenv>
#include <cstring>
#include <functional>
#include <limits>
#include <random>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Ostrel::Filter;
using Orl::Test::ReadPixels;

template <class T>
using TLimits = std::numeric_limits<T>;

// One input band: pixels and an optional no-data value.
template <class T>
struct SInput
{
  std::vector<T> m_vecPixels;
  bool m_bHasNoData;
  T m_tNoData;

  bool IsNoData(std::size_t i) const { return m_bHasNoData && m_vecPixels[i] == m_tNoData; }
  template <class TTag>
  CBand<T, TTag> Band(unsigned nWidth, unsigned nHeight) const
  {
    CBand<T, TTag> oBand(nWidth, nHeight);
    Orl::Test::WritePixels(oBand, m_vecPixels);
    if (m_bHasNoData)
      oBand.SetNoDataValue(m_tNoData);
    return oBand;
  }
};

// Pixels 0..35 run through all pairs of six special values (both ends of the type, 0, 1, 2, -1):
// i / 6 for a first band (nOffset 0), i % 6 for a second (1). The rest: an eighth no-data (7), a
// sixth small integers, and values over the whole type; floating types also get NaN and quarters.
// With nMax, only integers in [0, nMax].
template <class T>
SInput<T> Random(std::mt19937& oRng, std::size_t nCount, int nOffset, bool bHasNoData = true, int nMax = 0)
{
  const T atSpecial[6] = {TLimits<T>::lowest(), TLimits<T>::max(), T(0), T(1), T(2), T(-1)};
  const double dLow = std::max(double(TLimits<T>::lowest()), -1e300),
               dHigh = std::min(double(TLimits<T>::max()), 1e300);
  std::uniform_real_distribution<double> oAny(dLow, dHigh);
  std::uniform_int_distribution<int> oSmall(std::is_signed<T>::value ? -20 : 0, 20), oKind(0, 47), oMasked(0, nMax);
  std::vector<T> vec(nCount);
  for (std::size_t i = 0; i < nCount; ++i)
  {
    const int nKind = oKind(oRng);
    if (nMax)
      vec[i] = T(oMasked(oRng));
    else if (i < 36)
      vec[i] = atSpecial[nOffset ? i % 6 : i / 6];
    else if (nKind < 6)
      vec[i] = T(7);
    else if (nKind < 14)
      vec[i] = T(oSmall(oRng));
    else if (std::is_floating_point<T>::value && nKind < 16)
      vec[i] = TLimits<T>::quiet_NaN();
    else if (std::is_floating_point<T>::value && nKind < 30)
      vec[i] = T(oSmall(oRng) / 4.0);
    else if (std::is_floating_point<T>::value && nKind < 40)
      vec[i] = T(oAny(oRng) * 1e-290);
    else
      vec[i] = T(oAny(oRng));
  }
  return {vec, bHasNoData, T(7)};
}

// The reference's conversion: NaN and bInvalid to tNoData, integers rounded half away from zero and
// saturated, floating types converted.
template <class TTo, class TFrom>
TTo RefPixel(TFrom x, bool bInvalid, TTo tNoData)
{
  if (bInvalid || std::isnan(x))
    return tNoData;
  if (std::is_floating_point<TTo>::value)
    return TTo(x);
  const long double r = std::round((long double)x);
  return r <= (long double)TLimits<TTo>::lowest() ? TLimits<TTo>::lowest()
         : r >= (long double)TLimits<TTo>::max()  ? TLimits<TTo>::max()
                                                  : TTo(r);
}

template <class T>
void ExpectBits(const std::vector<T>& vecExpected, const std::vector<T>& vecActual, const std::string& strWhat)
{
  ASSERT_EQ(vecExpected.size(), vecActual.size()) << strWhat;
  std::size_t nWrong = 0, nFirst = 0;
  for (std::size_t i = vecExpected.size(); i-- > 0;)
    if (std::memcmp(&vecExpected[i], &vecActual[i], sizeof(T)) != 0)
      ++nWrong, nFirst = i;
  EXPECT_EQ(nWrong, 0u) << strWhat << ": first at " << nFirst << ", expected " << +vecExpected[nFirst] << ", got "
                        << +vecActual[nFirst];
}

// fn(tag, width, height, dest no-data) on memory, IPP and tile bands; tile bands cross tile borders.
template <class TFn>
void ForEachStorage(TFn fn)
{
  fn(SMemoryTag(), 203u, 17u, false);
  fn(SIPPTag(), 61u, 5u, true);
  fn(STileTag(), Orl::Ostrel::Band::Detail::STileSize<unsigned char>::ms_nX + 11,
     Orl::Ostrel::Band::Detail::STileSize<double>::ms_nY + 3, true);
}

template <class T>
T DestNoData(bool bHas)
{
  return bHas ? T(5) : SNoDataValueHint<T>::ms_tNoDataValue;
}
template <class TBand>
TBand WithNoData(TBand oBand, bool bHas)
{
  if (bHas)
    oBand.SetNoDataValue(typename TBand::TPixel(5));
  oBand.Clear(typename TBand::TPixel(9));
  return oBand;
}

template <class T>
class PixelwiseFilterTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(PixelwiseFilterTest, Orl::Test::TAllPixelTypes);

template <class TFrom, class TTo>
void CheckCopy()
{
  ForEachStorage([](auto oTag, unsigned w, unsigned h, bool bDestNoData) {
    using TTag = decltype(oTag);
    std::mt19937 oRng(w + sizeof(TFrom) * 7 + sizeof(TTo));
    const auto oSrc = Random<TFrom>(oRng, std::size_t(w) * h, 0);
    auto oDest = WithNoData(CBand<TTo, TTag>(w, h), bDestNoData);
    CCopyFilter().Apply(oDest, oSrc.template Band<TTag>(w, h));
    std::vector<TTo> vecExpected(oSrc.m_vecPixels.size());
    for (std::size_t i = 0; i < vecExpected.size(); ++i)
      vecExpected[i] = RefPixel<TTo>((long double)oSrc.m_vecPixels[i], oSrc.IsNoData(i), DestNoData<TTo>(bDestNoData));
    ExpectBits(vecExpected, ReadPixels(oDest), "copy to " + std::to_string(sizeof(TTo)));
  });
}

template <class TFrom, class... TTo>
void CheckCopies(Orl::Harnel::STypeList<TTo...>)
{
  (CheckCopy<TFrom, TTo>(), ...);
}

TYPED_TEST(PixelwiseFilterTest, CopyToEveryTypeRoundsAndSaturates)
{
  CheckCopies<TypeParam>(Orl::Harnel::TPixelTypes());

  // Halves and both ends, from float and double, under every rounding mode: integers round half
  // away from zero whatever the mode.
  using T = TypeParam;
  const double adValues[] = {0.5, -0.5, 1.5, -1.5, 2.5, -2.5, 0.49999997, 126.5, -127.5, 254.5, 32767.5, -32768.5,
                             65534.5, double(TLimits<T>::lowest()) - 0.5, double(TLimits<T>::max()) + 0.5,
                             -TLimits<double>::infinity(), TLimits<double>::infinity()};
  const int nDefaultMode = std::fegetround();
  for (int nMode : {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO})
  {
    std::fesetround(nMode);
    for (double d : adValues)
    {
      using Orl::Ostrel::Filter::Detail::RoundToPixel;
      EXPECT_EQ(+RoundToPixel<T>(d), +RefPixel<T>(d, false, T(0))) << d << " mode " << nMode;
      EXPECT_EQ(+RoundToPixel<T>(float(d)), +RefPixel<T>(float(d), false, T(0))) << d << " mode " << nMode;
    }
  }
  std::fesetround(nDefaultMode);
}

// The arithmetic filters in the type the filters compute in.
template <class T>
using TCompute = typename std::conditional<std::is_same<T, float>::value, float, double>::type;

TYPED_TEST(PixelwiseFilterTest, ArithmeticEqualsTheReference)
{
  using T = TypeParam;
  using C = TCompute<T>;
  const std::vector<std::pair<EArithmeticBinaryOperation, std::function<C(C, C)>>> vecBinary{
    {eAdd, [](C a, C b) { return a + b; }},
    {eSubtract, [](C a, C b) { return a - b; }},
    {eMultiply, [](C a, C b) { return a * b; }},
    {eDivide, [](C a, C b) { return b == 0 ? C(NAN) : a / b; }},
    {ePower, [](C a, C b) { return std::pow(a, b); }},
    {eMinimum, [](C a, C b) { return std::min(a, b); }},
    {eMaximum, [](C a, C b) { return std::max(a, b); }}};
  const C a = C(-3), b = C(2.5);
  const std::vector<std::pair<EArithmeticUnaryOperation, std::function<C(C)>>> vecUnary{
    {eNegate, [](C x) { return -x; }},
    {eAbsolute, [](C x) { return std::fabs(x); }},
    {eSquareRoot, [](C x) { return std::sqrt(x); }},
    {eLogarithm, [](C x) { return std::log(x); }},
    {eExponential, [](C x) { return std::exp(x); }},
    {eScaleOffset, [=](C x) { return a * x + b; }},
    {eClamp, [=](C x) { return std::min(std::max(x, a), b); }}};

  ForEachStorage([&](auto oTag, unsigned w, unsigned h, bool bDestNoData) {
    using TTag = decltype(oTag);
    std::mt19937 oRng(w + sizeof(T));
    const auto oA = Random<T>(oRng, std::size_t(w) * h, 0), oB = Random<T>(oRng, std::size_t(w) * h, 1, w < 100);
    const auto oBandA = oA.template Band<TTag>(w, h), oBandB = oB.template Band<TTag>(w, h);
    auto oDest = WithNoData(CBand<T, TTag>(w, h), bDestNoData), oMin = oDest,
         oMax = WithNoData(CBand<T, TTag>(w, h), false);
    const T tNoData = DestNoData<T>(bDestNoData);
    std::vector<T> vecExpected(oA.m_vecPixels.size()), vecMin(vecExpected), vecMax(vecExpected);
    const auto fnValue = [](const SInput<T>& o, std::size_t i) {
      return o.IsNoData(i) || std::isnan(C(o.m_vecPixels[i]));
    };
    for (const auto& oOp : vecBinary)
    {
      for (int nConstant = 0; nConstant < 2; ++nConstant)
      {
        const C tConstant = C(oOp.first == ePower ? 0.5 : 3.0);
        for (std::size_t i = 0; i < vecExpected.size(); ++i)
        {
          const C tB = nConstant ? tConstant : C(oB.m_vecPixels[i]);
          vecExpected[i] = RefPixel<T>(oOp.second(C(oA.m_vecPixels[i]), tB),
                                       fnValue(oA, i) || (!nConstant && fnValue(oB, i)), tNoData);
        }
        if (nConstant)
          CArithmeticBinaryFilter(oOp.first, double(tConstant)).Apply(oDest, oBandA);
        else
          CArithmeticBinaryFilter(oOp.first).Apply(oDest, oBandA, oBandB);
        ExpectBits(vecExpected, ReadPixels(oDest),
                   "binary " + std::to_string(oOp.first) + " " + std::to_string(nConstant));
      }
    }
    for (const auto& oOp : vecUnary)
    {
      for (std::size_t i = 0; i < vecExpected.size(); ++i)
        vecExpected[i] = RefPixel<T>(oOp.second(C(oA.m_vecPixels[i])), fnValue(oA, i), tNoData);
      CArithmeticUnaryFilter(oOp.first, double(a), double(b)).Apply(oDest, oBandA);
      ExpectBits(vecExpected, ReadPixels(oDest), "unary " + std::to_string(oOp.first));
    }
    for (std::size_t i = 0; i < vecExpected.size(); ++i)
    {
      const bool bInvalid = fnValue(oA, i) || fnValue(oB, i);
      const T tA = oA.m_vecPixels[i], tB = oB.m_vecPixels[i];
      vecMin[i] = bInvalid ? tNoData : std::min(tA, tB);
      vecMax[i] = bInvalid ? SNoDataValueHint<T>::ms_tNoDataValue : std::max(tA, tB);
    }
    CMinMaxBinaryFilter().Apply(oMin, oMax, oBandA, oBandB);
    ExpectBits(vecMin, ReadPixels(oMin), "min");
    ExpectBits(vecMax, ReadPixels(oMax), "max");

    // In place: dest is the first source.
    auto oInPlace = oA.template Band<TTag>(w, h);
    CArithmeticBinaryFilter(eMultiply).Apply(oInPlace, oInPlace, oBandB);
    for (std::size_t i = 0; i < vecExpected.size(); ++i)
      vecExpected[i] = RefPixel<T>(C(oA.m_vecPixels[i]) * C(oB.m_vecPixels[i]), fnValue(oA, i) || fnValue(oB, i), T(7));
    ExpectBits(vecExpected, ReadPixels(oInPlace), "in place");
  });
}

TYPED_TEST(PixelwiseFilterTest, MasksEqualTheReference)
{
  using T = TypeParam;
  ForEachStorage([&](auto oTag, unsigned w, unsigned h, bool bDestNoData) {
    using TTag = decltype(oTag);
    std::mt19937 oRng(w + sizeof(T) * 3);
    const std::size_t n = std::size_t(w) * h;
    const auto oSrc = Random<T>(oRng, n, 0);
    const T tNoData = DestNoData<T>(bDestNoData);
    auto oDest = WithNoData(CBand<T, TTag>(w, h), bDestNoData);
    std::vector<SInput<T>> vecMasks{Random<T>(oRng, n, 0, false, 3), Random<T>(oRng, n, 0, true, 9),
                                    Random<T>(oRng, n, 1, true, 9)};
    std::vector<CBand<T, TTag>> vecMaskBands;
    for (const auto& oMask : vecMasks)
      vecMaskBands.push_back(oMask.template Band<TTag>(w, h));
    std::vector<T> vecExpected(n);

    // Marker 0 on the first mask (no no-data value), 7 on the second; the range [1, 2.5].
    for (int nCase = 0; nCase < 3; ++nCase)
    {
      const SInput<T>& oMask = vecMasks[std::min(nCase, 1)];
      for (std::size_t i = 0; i < n; ++i)
      {
        const T m = oMask.m_vecPixels[i];
        const bool bBlank = nCase < 2 ? m == (nCase ? T(7) : T(0)) : (double(m) < 1.0 || double(m) > 2.5);
        vecExpected[i] = bBlank || oSrc.IsNoData(i) ? tNoData : oSrc.m_vecPixels[i];
      }
      if (nCase < 2)
        CMaskFilter().Apply(oDest, oSrc.template Band<TTag>(w, h), vecMaskBands[nCase]);
      else
        CMaskFilter().Apply(oDest, oSrc.template Band<TTag>(w, h), vecMaskBands[1], 1.0, 2.5);
      ExpectBits(vecExpected, ReadPixels(oDest), "mask " + std::to_string(nCase));
    }

    // Replacing inside [1, 2.5] by 4, and outside by no-data.
    for (bool bInside : {true, false})
    {
      for (std::size_t i = 0; i < n; ++i)
      {
        const T v = oSrc.m_vecPixels[i];
        const bool bHit = bInside ? (double(v) >= 1.0 && double(v) <= 2.5) : (double(v) < 1.0 || double(v) > 2.5);
        vecExpected[i] = oSrc.IsNoData(i) ? tNoData : bHit ? (bInside ? T(4) : tNoData) : v;
      }
      (bInside ? CMaskRangeReplaceFilter(1.0, 2.5, true, 4.0) : CMaskRangeReplaceFilter(1.0, 2.5, false))
        .Apply(oDest, oSrc.template Band<TTag>(w, h));
      ExpectBits(vecExpected, ReadPixels(oDest), "range replace");
    }

    // Merging with weights 1, 1, 1 and 3, -1, 0.5; the dest is the first mask.
    CMaskMergeFilter oMerge;
    for (const std::vector<double>& vecWeights : {std::vector<double>(), std::vector<double>{3.0, -1.0, 0.5}})
    {
      oMerge.SetWeights(vecWeights);
      const std::vector<double> vecW = vecWeights.empty() ? std::vector<double>(3, 1.0) : vecWeights;
      for (std::size_t i = 0; i < n; ++i)
      {
        double dVote = 0.0;
        for (std::size_t k = 0; k < 3; ++k)
          dVote += vecMasks[k].m_vecPixels[i] != (k ? T(7) : T(0)) ? vecW[k] : 0.0;
        vecExpected[i] = dVote >= 0.5 * (vecW[0] + vecW[1] + vecW[2]) ? T(1) : T(0);
      }
      auto oFirst = vecMasks[0].template Band<TTag>(w, h);
      auto vecBands = vecMaskBands;
      vecBands[0] = oFirst;
      oMerge.Apply(oFirst, vecBands);
      ExpectBits(vecExpected, ReadPixels(oFirst), "merge");
    }
  });
}

TYPED_TEST(PixelwiseFilterTest, StackFiltersEqualTheReference)
{
  using T = TypeParam;
  using C = TCompute<T>;
  ForEachStorage([&](auto oTag, unsigned w, unsigned h, bool bDestNoData) {
    using TTag = decltype(oTag);
    std::mt19937 oRng(w + sizeof(T) * 5);
    const std::size_t n = std::size_t(w) * h, nMembers = 6;
    const T tNoData = DestNoData<T>(bDestNoData);
    std::vector<SInput<T>> vecStack;
    std::vector<CBand<T, TTag>> vecBands;
    for (std::size_t m = 0; m < nMembers; ++m)
    {
      vecStack.push_back(Random<T>(oRng, n, int(m % 2), true, m < 3 ? 0 : 40));
      vecStack.back().m_vecPixels[0] = T(7); // no valid member at pixel 0
      vecBands.push_back(vecStack.back().template Band<TTag>(w, h));
    }
    const auto fnValid = [&](std::size_t m, std::size_t i) {
      return !vecStack[m].IsNoData(i) && !std::isnan(C(vecStack[m].m_vecPixels[i]));
    };
    std::vector<T> vecExpected(n);
    auto oDest = WithNoData(CBand<T, TTag>(w, h), bDestNoData);

    // Medoid, scalar: the first member between the lower and upper median of the sorted valid
    // values; vector, members of two bands (pairs 0-1, 2-3, 4-5): the least sum of distances in
    // double, sums that overflow (the type's ends meeting) ranking last but still chosen.
    for (std::size_t nBands : {1, 2})
    {
      std::vector<std::vector<T>> vecOut(nBands, std::vector<T>(n));
      const std::size_t nCount = nMembers / nBands;
      for (std::size_t i = 0; i < n; ++i)
      {
        const auto fnMemberValid = [&](std::size_t m) {
          return fnValid(m * nBands, i) && fnValid(m * nBands + nBands - 1, i);
        };
        const auto fnValue = [&](std::size_t m, std::size_t b) { return vecStack[m * nBands + b].m_vecPixels[i]; };
        std::vector<T> vecSorted;
        for (std::size_t m = 0; m < nCount; ++m)
          if (fnMemberValid(m))
            vecSorted.push_back(fnValue(m, 0));
        std::sort(vecSorted.begin(), vecSorted.end());
        const std::size_t k = vecSorted.size();
        int nBest = -1;
        double dBest = TLimits<double>::infinity();
        for (std::size_t m = 0; m < nCount && k != 0; ++m)
        {
          double dSum = 0;
          for (std::size_t o = 0; o < nCount; ++o)
          {
            double dSquares = 0;
            for (std::size_t b = 0; b < nBands; ++b)
              dSquares += (double(fnValue(m, b)) - fnValue(o, b)) * (double(fnValue(m, b)) - fnValue(o, b));
            dSum += fnMemberValid(o) ? std::sqrt(dSquares) : 0.0;
          }
          dSum = std::isnan(dSum) ? TLimits<double>::infinity() : dSum;
          const bool bBetter = nBands == 1 ? nBest < 0 && !(fnValue(m, 0) < vecSorted[(k - 1) / 2]) &&
                                               !(vecSorted[k / 2] < fnValue(m, 0))
                                           : nBest < 0 || dSum < dBest;
          if (fnMemberValid(m) && bBetter)
            dBest = dSum, nBest = int(m);
        }
        for (std::size_t b = 0; b < nBands; ++b)
          vecOut[b][i] = nBest < 0 ? (b ? SNoDataValueHint<T>::ms_tNoDataValue : tNoData) : fnValue(nBest, b);
      }
      if (nBands == 1)
        CMedoidFilter().Apply(oDest, vecBands);
      else
      {
        std::vector<CBand<T, TTag>> vecDest{oDest, WithNoData(CBand<T, TTag>(w, h), false)};
        CMedoidFilter().Apply(vecDest, vecBands);
        ExpectBits(vecOut[1], ReadPixels(vecDest[1]), "medoid band 1");
      }
      ExpectBits(vecOut[0], ReadPixels(oDest), "medoid " + std::to_string(nBands));
    }

    // Index selection: indices beyond the stack and no-data indices give no-data.
    const auto oIndex = Random<unsigned char>(oRng, n, 0, true, int(nMembers) + 2);
    const auto oIndex2 = Random<unsigned short>(oRng, n, 0, false, int(nMembers) + 2);
    const auto fnSelect = [&](const auto& oIndexInput) {
      for (std::size_t i = 0; i < n; ++i)
      {
        const std::size_t k = oIndexInput.m_vecPixels[i];
        vecExpected[i] =
          oIndexInput.IsNoData(i) || k >= nMembers || vecStack[k].IsNoData(i) ? tNoData : vecStack[k].m_vecPixels[i];
      }
    };
    fnSelect(oIndex);
    CIndexSelectorFilter().Apply(oDest, oIndex.template Band<TTag>(w, h), vecBands);
    ExpectBits(vecExpected, ReadPixels(oDest), "index");
    fnSelect(oIndex2);
    std::vector<CBand<T, TTag>> vecDests{WithNoData(CBand<T, TTag>(w, h), bDestNoData)};
    CMultiIndexSelectorFilter().Apply(
      vecDests, std::vector<CBand<unsigned short, TTag>>{oIndex2.template Band<TTag>(w, h)}, vecBands);
    ExpectBits(vecExpected, ReadPixels(vecDests[0]), "multi index");

    // Regression over three bands: the stratifier's three classes, the predictor for band 1.
    const std::vector<SInput<T>*> vecUsed{&vecStack[3], &vecStack[4], &vecStack[1]};
    std::vector<CBand<T, TTag>> vecRegression{vecBands[3], vecBands[4], vecBands[1]};
    boost::numeric::ublas::matrix<double> matCoefficients(3, 4);
    const double adM[12] = {0.5, -1, 2, 3, -0.25, 1, 1, 0, 1, 1, -1, 4};
    std::copy(adM, adM + 12, matCoefficients.data().begin());
    boost::numeric::ublas::vector<double> vecCoefficients(4);
    for (int b = 0; b < 4; ++b)
      vecCoefficients(b) = adM[b] * 1.5;
    std::vector<unsigned char> vecClasses(n);
    const unsigned char aClasses[3] = {40, 0, 200};
    for (std::size_t i = 0; i < n; ++i)
    {
      bool bInvalid = false;
      double adScore[3], dPrediction = vecCoefficients(3);
      for (int k = 0; k < 3; ++k)
      {
        adScore[k] = adM[k * 4 + 3];
        for (int b = 0; b < 3; ++b)
          adScore[k] += adM[k * 4 + b] * double(vecUsed[b]->m_vecPixels[i]);
      }
      for (int b = 0; b < 3; ++b)
      {
        const bool bValid = !vecUsed[b]->IsNoData(i) && !std::isnan(vecUsed[b]->m_vecPixels[i]);
        bInvalid |= !bValid;
        if (b != 2)
          dPrediction += vecCoefficients(b) * double(vecUsed[b]->m_vecPixels[i]);
      }
      const int nBest = int(std::max_element(adScore, adScore + 3) - adScore);
      vecClasses[i] = bInvalid ? 255 : aClasses[nBest];
      const bool bPredictionInvalid = (!fnValid(3, i) || !fnValid(4, i));
      vecExpected[i] = fnValid(1, i)
                         ? vecStack[1].m_vecPixels[i]
                         : RefPixel<T>(std::min(std::max(dPrediction, -10.0), 1e6), bPredictionInvalid, tNoData);
    }
    CBand<unsigned char, TTag> oClasses(w, h);
    CMultinomialRegressionStratifier(matCoefficients, {40, 0, 200}).Apply(oClasses, vecRegression);
    ExpectBits(vecClasses, ReadPixels(oClasses), "stratifier");
    CMultiRegressionPredictor(vecCoefficients, 2, -10.0, 1e6).Apply(oDest, vecRegression);
    ExpectBits(vecExpected, ReadPixels(oDest), "predictor");
  });
}

// Bands of many tiles under a small budget: the walk's blocks come back from the spill file.
TEST(PixelwiseWalk, SpillingTileBandsGiveTheMemoryResult)
{
  using Orl::Ostrel::Band::Detail::STileSize;
  const unsigned w = 5 * STileSize<float>::ms_nX + 7, h = 3 * STileSize<float>::ms_nY + 1;
  std::mt19937 oRng(4);
  const auto oA = Random<float>(oRng, std::size_t(w) * h, 0), oB = Random<float>(oRng, std::size_t(w) * h, 1);
  CBand<float, SMemoryTag> oMemory(w, h);
  CArithmeticBinaryFilter(eDivide).Apply(oMemory, oA.Band<SMemoryTag>(w, h), oB.Band<SMemoryTag>(w, h));
  const Orl::Test::CTileBudget oBudget(4u << 20);
  const auto nReadBefore = Orl::Test::TileCache().GetCounters().m_nRecordsRead;
  const auto oTileA = oA.Band<STileTag>(w, h), oTileB = oB.Band<STileTag>(w, h);
  CBand<float, STileTag> oTile(w, h);
  const auto pLogger = boost::make_shared<Orl::Harnel::Progress::CLogger>();
  CArithmeticBinaryFilter oFilter(eDivide);
  oFilter.SetLogger(pLogger);
  oFilter.Apply(oTile, oTileA, oTileB);
  EXPECT_EQ(pLogger->GetDepth(), 0u);
  ExpectBits(ReadPixels(oMemory), ReadPixels(oTile), "spilled");
  EXPECT_GT(Orl::Test::TileCache().GetCounters().m_nRecordsRead, nReadBefore);
}

// Every check happens before a pixel is written: dest keeps its 9s.
TEST(PixelwiseFilters, WrongArgumentsThrowBeforeWriting)
{
  using TBand = CBand<float, SMemoryTag>;
  TBand oDest(4, 3), oSmall(3, 3), oOther(4, 3);
  CBand<unsigned char, SMemoryTag> oClasses(4, 3);
  oDest.Clear(9.0f);
  oClasses.Clear(9);
  oOther.Clear(1.0f);
  const std::vector<TBand> vecTwo{oOther, oOther}, vecNone;
  CMaskMergeFilter oMerge;
  oMerge.SetWeights({1.0});
  const std::vector<std::pair<const char*, std::function<void()>>> vecCases{
    {"extent", [&] { CCopyFilter().Apply(oDest, oSmall); }},
    {"extent of a mask", [&] { CMaskFilter().Apply(oDest, oOther, CBand<unsigned char, SMemoryTag>(4, 2)); }},
    {"no constant", [&] { CArithmeticBinaryFilter(eAdd).Apply(oDest, oOther); }},
    {"extent of the second operand", [&] { CArithmeticBinaryFilter(eAdd).Apply(oDest, oOther, oSmall); }},
    {"extent of a min-max output", [&] { CMinMaxBinaryFilter().Apply(oDest, oSmall, oOther, oOther); }},
    {"weight count", [&] { oMerge.Apply(oDest, vecTwo); }},
    {"empty stack", [&] { CMedoidFilter().Apply(oDest, vecNone); }},
    {"members not whole",
     [&] {
       std::vector<TBand> v{oDest, oOther};
       CMedoidFilter().Apply(v, std::vector<TBand>{oOther, oOther, oOther});
     }},
    {"index extent", [&] { CIndexSelectorFilter().Apply(oDest, CBand<unsigned char, SMemoryTag>(3, 3), vecTwo); }},
    {"index count",
     [&] {
       std::vector<TBand> v{oDest};
       CMultiIndexSelectorFilter().Apply(v, std::vector<CBand<unsigned char, SMemoryTag>>(), vecTwo);
     }},
    {"empty matrix", [&] { CMultinomialRegressionStratifier({}, {}).Apply(oClasses, vecTwo); }},
    {"matrix columns",
     [&] {
       CMultinomialRegressionStratifier(boost::numeric::ublas::matrix<double>(2, 2), {}).Apply(oClasses, vecTwo);
     }},
    {"class count",
     [&] {
       CMultinomialRegressionStratifier(boost::numeric::ublas::matrix<double>(2, 3), {1}).Apply(oClasses, vecTwo);
     }},
    {"empty coefficients", [&] { CMultiRegressionPredictor({}, 0, 0, 1).Apply(oDest, vecTwo); }}};
  for (const auto& oCase : vecCases)
  {
    EXPECT_THROW(oCase.second(), Orl::Harnel::CBasicException) << oCase.first;
    EXPECT_EQ(ReadPixels(oDest), std::vector<float>(12, 9.0f)) << oCase.first;
    EXPECT_EQ(ReadPixels(oClasses), std::vector<unsigned char>(12, 9)) << oCase.first;
  }
}

} // namespace
