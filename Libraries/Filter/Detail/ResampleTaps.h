#pragma once

// The weights of one axis of a resampling: for each destination index, the source indices it reads
// and their weights. Shared by the resample and gradient orientation filters.
//
// Pixel-is-area: pixel i covers [i, i + 1), its centre at i + 0.5. Destination pixel x of a
// destination nDest long over a source nSrc long has its centre at source position
// (x + 0.5) * nSrc / nDest, i.e. u = (x + 0.5) * s - 0.5 in index units, s = nSrc / nDest.
// - nearest: the source pixel that holds the centre;
// - interpolating kernels (bilinear, cubic with a = -0.5, Lanczos-3): k((i - u) / f), with
//   f = max(1, s), so a reduction widens the kernel by its factor and smooths before it samples;
// - average: the overlap of [x s, (x + 1) s) with each source pixel.
// Taps outside the source are dropped and the weights renormalised to sum 1 (the border behaves as
// if the band were mirrored into a constant). Zero weights at the ends are trimmed, so that at the
// identity size every kernel reads exactly one pixel with weight 1.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

enum EResampleKernel
{
  eResampleNearest,
  eResampleBilinear,
  eResampleCubic,
  eResampleLanczos3,
  eResampleAverage
};

namespace Detail {

template <class TWeight>
struct SResampleTaps
{
  std::vector<int> m_vecStart; // first source index, per destination index
  std::vector<int> m_vecCount; // taps, per destination index
  std::vector<TWeight> m_vecWeights; // m_nStride per destination index
  int m_nStride = 0;

  const TWeight* Weights(int nDest) const { return m_vecWeights.data() + std::size_t(nDest) * m_nStride; }
  // The source indices [first, last) that destination indices [nBegin, nEnd) read.
  std::pair<int, int> SourceSpan(int nBegin, int nEnd) const
  {
    int nFirst = m_vecStart[nBegin], nLast = 0;
    for (int i = nBegin; i < nEnd; ++i)
    {
      nFirst = std::min(nFirst, m_vecStart[i]);
      nLast = std::max(nLast, m_vecStart[i] + m_vecCount[i]);
    }
    return {nFirst, nLast};
  }
};

inline double ResampleKernel(EResampleKernel eKernel, double t)
{
  t = std::abs(t);
  const double dNearest = std::round(t);
  if (std::abs(t - dNearest) < 1e-9) // at the sample points exactly 1 and 0, not sin(pi) and its kin
    return dNearest == 0.0 ? 1.0 : 0.0;
  switch (eKernel)
  {
  case eResampleBilinear: return t < 1.0 ? 1.0 - t : 0.0;
  case eResampleCubic:
  {
    const double a = -0.5;
    if (t < 1.0)
      return ((a + 2.0) * t - (a + 3.0)) * t * t + 1.0;
    return t < 2.0 ? ((a * t - 5.0 * a) * t + 8.0 * a) * t - 4.0 * a : 0.0;
  }
  case eResampleLanczos3:
  {
    if (t >= 3.0)
      return 0.0;
    const double dPi = 3.14159265358979323846;
    return 3.0 * std::sin(dPi * t) * std::sin(dPi * t / 3.0) / (dPi * dPi * t * t);
  }
  default: return 0.0;
  }
}

inline double ResampleRadius(EResampleKernel eKernel)
{
  return eKernel == eResampleLanczos3 ? 3.0 : eKernel == eResampleCubic ? 2.0 : 1.0;
}

template <class TWeight>
SResampleTaps<TWeight> MakeResampleTaps(EResampleKernel eKernel, int nSrc, int nDest)
{
  assert(nSrc > 0 && nDest > 0);
  const double s = double(nSrc) / double(nDest);
  std::vector<std::vector<double>> vecAll(static_cast<std::size_t>(nDest));
  SResampleTaps<TWeight> oTaps;
  oTaps.m_vecStart.resize(std::size_t(nDest));
  oTaps.m_vecCount.resize(std::size_t(nDest));
  for (int x = 0; x < nDest; ++x)
  {
    int nFirst = 0;
    std::vector<double>& vecW = vecAll[std::size_t(x)];
    if (eKernel == eResampleNearest)
    {
      nFirst = std::min(nSrc - 1, int(std::floor((x + 0.5) * s)));
      vecW.assign(1, 1.0);
    }
    else if (eKernel == eResampleAverage)
    {
      const double dLow = x * s, dHigh = (x + 1) * s;
      nFirst = std::min(nSrc - 1, int(std::floor(dLow)));
      const int nLast = std::min(nSrc - 1, std::max(nFirst, int(std::ceil(dHigh)) - 1));
      for (int i = nFirst; i <= nLast; ++i)
        vecW.push_back(std::max(0.0, std::min(dHigh, i + 1.0) - std::max(dLow, double(i))));
    }
    else
    {
      const double u = (x + 0.5) * s - 0.5, f = std::max(1.0, s), dReach = ResampleRadius(eKernel) * f;
      nFirst = std::max(0, int(std::ceil(u - dReach)));
      const int nLast = std::min(nSrc - 1, int(std::floor(u + dReach)));
      for (int i = nFirst; i <= nLast; ++i)
        vecW.push_back(ResampleKernel(eKernel, (i - u) / f));
    }
    while (vecW.size() > 1 && vecW.back() == 0.0)
      vecW.pop_back();
    while (vecW.size() > 1 && vecW.front() == 0.0)
      vecW.erase(vecW.begin()), ++nFirst;
    double dSum = 0.0;
    for (double w : vecW)
      dSum += w;
    for (double& w : vecW)
      w /= dSum;
    oTaps.m_vecStart[std::size_t(x)] = nFirst;
    oTaps.m_vecCount[std::size_t(x)] = int(vecW.size());
    oTaps.m_nStride = std::max(oTaps.m_nStride, int(vecW.size()));
  }
  oTaps.m_vecWeights.assign(std::size_t(nDest) * oTaps.m_nStride, TWeight(0));
  for (int x = 0; x < nDest; ++x)
    std::copy(vecAll[std::size_t(x)].begin(), vecAll[std::size_t(x)].end(),
              oTaps.m_vecWeights.begin() + std::ptrdiff_t(x) * oTaps.m_nStride);
  return oTaps;
}

// Applies one axis's taps to a row: pOut[x] = sum of weights times pIn[start + k].
template <class TWeight, class TValue>
inline void ApplyTaps(const SResampleTaps<TWeight>& oTaps, const TValue* pIn, TValue* pOut, int nDest)
{
  for (int x = 0; x < nDest; ++x)
  {
    const TValue* p = pIn + oTaps.m_vecStart[std::size_t(x)];
    const TWeight* w = oTaps.Weights(x);
    TValue tSum = 0;
    for (int k = 0, n = oTaps.m_vecCount[std::size_t(x)]; k < n; ++k)
      tSum += w[k] * p[k];
    pOut[x] = tSum;
  }
}

}}}} // namespace Orl::Ostrel::Filter::Detail
