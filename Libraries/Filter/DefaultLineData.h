#pragma once

namespace Orl { namespace Ostrel { namespace Filter {

// The state of one scan line of the linear fill-hole filter: steps since its last valid pixel, the
// reach, that pixel's value, and whether the line still has a valid pixel within reach.
struct SDefaultLineData
{
  float m_fDistance;
  float m_fMaxDistance;
  float m_fValue;
  bool m_bValid;
};

}}} // namespace Orl::Ostrel::Filter
