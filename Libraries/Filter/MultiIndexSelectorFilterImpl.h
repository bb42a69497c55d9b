#pragma once

// Generic definitions of CMultiIndexSelectorFilter, for the units that instantiate it.

#include "Filter/IndexSelectorFilterImpl.h"
#include "Filter/MultiIndexSelectorFilter.h"

namespace Orl { namespace Ostrel { namespace Filter {

template <class TDest, class TIndex, class TSrc>
void CMultiIndexSelectorFilter::Apply(std::vector<TDest>& vecDest, const std::vector<TIndex>& vecIndices,
                                      const std::vector<TSrc>& vecStack) const
{
  static_assert(std::is_same<typename TDest::TPixel, typename TSrc::TPixel>::value,
                "dests and stack share a pixel type");
  Detail::CheckNotEmpty(vecStack, m_strName);
  Detail::CheckNotEmpty(vecDest, m_strName);
  Detail::CheckCount(vecIndices.size(), vecDest.size(), "index bands", m_strName);
  Detail::CheckSameExtent(vecDest.front(), vecDest, m_strName);
  Detail::CheckSameExtent(vecDest.front(), vecIndices, m_strName);
  Detail::CheckSameExtent(vecDest.front(), vecStack, m_strName);
  const Detail::CFilterProgress oProgress(m_pLogger, "Apply Multi Index Selector Filter",
                                          double(vecDest.front().GetHeight()) * double(vecDest.size()));
  for (std::size_t j = 0; j < vecDest.size(); ++j)
    Detail::SelectByIndex(vecDest[j], vecIndices[j], vecStack, m_pLogger,
                          "Perform Multi Index Selector Filter in several tasks");
  oProgress.End();
}

}}} // namespace Orl::Ostrel::Filter
