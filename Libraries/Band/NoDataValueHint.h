#pragma once

#include <limits>

namespace Orl { namespace Ostrel { namespace Band {

// The no-data value a filter falls back on when a band has none of its own.
//
// Each is the far end of its type from where real measurements sit, the convention most raster
// formats follow: the largest value for unsigned types (255, 65535, 4294967295), the smallest for
// signed integers (-32768, -2147483648) and the lowest finite value for floating types (-FLT_MAX,
// -DBL_MAX). Floating types deliberately avoid NaN: no-data is detected by equality, and NaN never
// equals itself.
template <class TPixel>
struct SNoDataValueHint
{
  static constexpr TPixel ms_tNoDataValue =
    std::numeric_limits<TPixel>::is_signed ? std::numeric_limits<TPixel>::lowest() : std::numeric_limits<TPixel>::max();
};

}}} // namespace Orl::Ostrel::Band
