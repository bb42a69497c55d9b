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

}}}} // namespace Orl::Ostrel::Filter::Detail
