#pragma once

// Floating values into pixel types, as the filters store what they compute: truncation toward zero,
// not rounding, no clamping; integers keep the low bits of the truncated value. Every input, NaN and
// values out of range included, has one defined answer on every platform: the x86 one (the smallest
// value of the 32- or 64-bit integer). Results of bands written this way depend on it bit for bit.

#include <cstdint>
#include <limits>
#include <type_traits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

inline std::int32_t TruncateToInt32(float f)
{
#if defined(__x86_64__)
  return _mm_cvtt_ss2si(_mm_set_ss(f));
#else
  return (f >= -2147483648.0f && f < 2147483648.0f) ? std::int32_t(f) : std::numeric_limits<std::int32_t>::min();
#endif
}

inline std::int64_t TruncateToInt64(float f)
{
#if defined(__x86_64__)
  return _mm_cvttss_si64(_mm_set_ss(f));
#else
  return (f >= -9223372036854775808.0f && f < 9223372036854775808.0f) ? std::int64_t(f)
                                                                        : std::numeric_limits<std::int64_t>::min();
#endif
}

inline std::int64_t TruncateToInt64(double d)
{
#if defined(__x86_64__)
  return _mm_cvttsd_si64(_mm_set_sd(d));
#else
  return (d >= -9223372036854775808.0 && d < 9223372036854775808.0) ? std::int64_t(d)
                                                                      : std::numeric_limits<std::int64_t>::min();
#endif
}

// A value computed in float, in a pixel type: 8- and 16-bit types and int through the 32-bit
// truncation, unsigned int through the 64-bit one (its low 32 bits), float as it is, double widened.
template <class TPixel>
TPixel FloatToPixel(float f)
{
  if constexpr (std::is_floating_point<TPixel>::value)
    return TPixel(f);
  else if constexpr (std::is_same<TPixel, unsigned int>::value)
    return static_cast<unsigned int>(std::uint64_t(TruncateToInt64(f)));
  else
  {
    static_assert(sizeof(TPixel) <= 4, "a pixel type");
    return static_cast<TPixel>(TruncateToInt32(f));
  }
}

// A parameter given as double, in a pixel type: integers through the 64-bit truncation (low bits
// kept), float rounded to nearest, double as it is.
template <class TPixel>
TPixel DoubleToPixel(double d)
{
  if constexpr (std::is_floating_point<TPixel>::value)
    return TPixel(d);
  else
    return static_cast<TPixel>(std::uint64_t(TruncateToInt64(d)));
}

// Rounding to integer pixels, independent of the current rounding mode (std::nearbyint and lrint
// follow it): halves go away from zero, results saturate at both ends of TTo, infinities included.
// The work happens in TRoundWide<TTo> lanes, as wide as a float, so that loops over float values
// vectorise without narrowing their masks; only unsigned int needs the 64-bit integer.
template <class TTo>
using TRoundWide = typename std::conditional<std::is_same<TTo, unsigned int>::value, std::int64_t, std::int32_t>::type;

// x rounded and saturated, as a TRoundWide<TTo> in [lowest, max] of TTo; NaN gives lowest. Exact: the
// truncation is a conversion and x - trunc(x) has no rounding error, so only the fraction's two
// comparisons decide; float values for 32-bit integers go through double. Branch-free: the clamp is
// a maximum and a minimum, the step a compare mask.
template <class TTo, class TFrom>
inline TRoundWide<TTo> RoundToWide(TFrom x)
{
  static_assert(std::is_integral<TTo>::value && std::is_floating_point<TFrom>::value, "a value to an integer");
  if constexpr (sizeof(TTo) > 2 && sizeof(TFrom) == 4)
    return RoundToWide<TTo>(double(x)); // float cannot hold the bounds of 32-bit integers
  else
  {
    using TWide = TRoundWide<TTo>;
    constexpr TFrom tLow = TFrom(std::numeric_limits<TTo>::lowest());
    constexpr TFrom tHigh = TFrom(std::numeric_limits<TTo>::max());
    static_assert(TFrom(TTo(tHigh)) == tHigh, "the bounds of TTo must be exact in TFrom");
    x = x > tLow ? x : tLow; // NaN to tLow
    x = x < tHigh ? x : tHigh;
    const TWide t = TWide(x);
    const TFrom tFraction = x - TFrom(t);
    return t + TWide(tFraction >= TFrom(0.5)) - TWide(tFraction <= TFrom(-0.5));
  }
}

// x as a pixel of TTo: integers rounded half away from zero and saturated (NaN gives lowest),
// floating types converted as they are.
template <class TTo, class TFrom>
inline TTo RoundToPixel(TFrom x)
{
  if constexpr (std::is_floating_point<TTo>::value)
    return TTo(x);
  else
    return TTo(RoundToWide<TTo>(x));
}

}}}} // namespace Orl::Ostrel::Filter::Detail
