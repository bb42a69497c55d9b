#pragma once

#include "Band/NoDataValueHint.h"
#include "Foundation/Logger.h"

#include <boost/shared_ptr.hpp>

#include <string>
#include <utility>

namespace Orl { namespace Ostrel { namespace Filter {

// What a filter may do with no-data pixels in its neighbourhood. Filters that take one of these as a
// type argument decide what it does to a result; SUseNoDataTraits says whether it looks at the
// no-data value at all.
struct SInvalidatePolicy
{
};
struct SSkipNoDataPolicy
{
};
struct SSkipNonCenterNoDataPolicy
{
};
struct SWeightingNoDataPolicy
{
};
struct SIgnoreNoDataPolicy
{
};

namespace Detail {

template <class TPolicy>
struct SUseNoDataTraits
{
  static constexpr bool ms_bUseNoData = true;
};

template <>
struct SUseNoDataTraits<SIgnoreNoDataPolicy>
{
  static constexpr bool ms_bUseNoData = false;
};

// Mask comparators: whether a mask pixel selects the pixel at its position. A NaN pixel selects
// nothing with either of them, and a NaN m_tValue selects nothing at all.
template <class TPixel>
struct SEqualComparator
{
  TPixel m_tValue;

  bool operator()(TPixel tPixel) const { return tPixel == m_tValue; }
};

// Both bounds belong to the inside.
template <class TPixel>
struct SOutsideRangeComparator
{
  TPixel m_tLow;
  TPixel m_tHigh;

  bool operator()(TPixel tPixel) const { return tPixel < m_tLow || tPixel > m_tHigh; }
};

// What a filter writes where it has to write no-data: the band's own value, else the type's hint.
template <class TBand>
typename TBand::TPixel GetOutputNoDataValue(const TBand& oBand)
{
  return oBand.HasNoDataValue() ? oBand.GetNoDataValue() : Band::SNoDataValueHint<typename TBand::TPixel>::ms_tNoDataValue;
}

// The marker of selected pixels when a mask band's no-data value plays that part: 0 without one.
template <class TBand>
typename TBand::TPixel GetMaskMarker(const TBand& oMask)
{
  return oMask.HasNoDataValue() ? oMask.GetNoDataValue() : typename TBand::TPixel(0);
}

// The state every filter shares: where progress goes and the display name. No virtual operations:
// filters are used through their own types and never deleted through this base, hence the protected
// destructor. Members are destroyed name first, then logger.
class CBandFilterBase
{
public:
  // An empty pointer (the default) means the filter reports nothing. Takes effect from the next Apply.
  void SetLogger(boost::shared_ptr<Harnel::Progress::CLogger> pLogger) { m_pLogger = std::move(pLogger); }
  const boost::shared_ptr<Harnel::Progress::CLogger>& GetLogger() const { return m_pLogger; }
  const std::string& GetName() const { return m_strName; }

protected:
  CBandFilterBase() = default;
  CBandFilterBase(const CBandFilterBase&) = default;
  CBandFilterBase& operator=(const CBandFilterBase&) = default;
  ~CBandFilterBase() = default;

  boost::shared_ptr<Harnel::Progress::CLogger> m_pLogger;
  std::string m_strName; // assigned once, by the derived class's constructor
};

// The same for filters that combine several input bands.
class CMultiBandFilterBase
{
public:
  void SetLogger(boost::shared_ptr<Harnel::Progress::CLogger> pLogger) { m_pLogger = std::move(pLogger); }
  const boost::shared_ptr<Harnel::Progress::CLogger>& GetLogger() const { return m_pLogger; }
  const std::string& GetName() const { return m_strName; }

protected:
  CMultiBandFilterBase() = default;
  CMultiBandFilterBase(const CMultiBandFilterBase&) = default;
  CMultiBandFilterBase& operator=(const CMultiBandFilterBase&) = default;
  ~CMultiBandFilterBase() = default;

  boost::shared_ptr<Harnel::Progress::CLogger> m_pLogger;
  std::string m_strName;
};

} // namespace Detail
}}} // namespace Orl::Ostrel::Filter
