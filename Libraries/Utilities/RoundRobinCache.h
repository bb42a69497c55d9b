#pragma once

#include <deque>
#include <map>

namespace Orl { namespace Harnel { namespace Utilities {

// A size-limited map that forgets its oldest entry first. Lookups neither move an entry nor write
// anything, which is the point: they are free. No lock of its own; the owner locks.
//
// A key added twice takes two places in the order and counts twice, though it is one map entry, and it
// goes when the older place comes up; owners add only after a failed lookup.
template <class TKey, class TValue>
class CRoundRobinCache
{
public:
  // Capacity 0 is allowed; the owner raises it later.
  explicit CRoundRobinCache(unsigned int nCapacity) : m_nCapacity(nCapacity), m_nCount(0) {}
  virtual ~CRoundRobinCache() = default;

  void AddItem(const TKey& tKey, const TValue& tValue)
  {
    // Counted before the eviction, so that the entry to come has its place. With capacity 0 the new
    // entry therefore stays until the next AddItem.
    ++m_nCount;
    _Refresh();
    m_oItems.insert(std::make_pair(tKey, tValue));
    m_qOrder.push_back(tKey);
  }

  // A lower capacity takes effect at once; a higher one brings nothing back.
  void SetCapacity(unsigned int nCapacity)
  {
    m_nCapacity = nCapacity;
    _Refresh();
  }

  unsigned int GetCapacity() const { return m_nCapacity; }

  // The entry for tKey, or null. Valid until the next AddItem or SetCapacity.
  const TValue* FindItem(const TKey& tKey) const
  {
    const typename std::map<TKey, TValue>::const_iterator it = m_oItems.find(tKey);
    return it == m_oItems.end() ? nullptr : &it->second;
  }

private:
  void _Refresh()
  {
    while (m_nCount > m_nCapacity && !m_qOrder.empty())
    {
      const TKey tOldest = m_qOrder.front();
      m_qOrder.pop_front();
      --m_nCount;
      m_oItems.erase(tOldest);
    }
  }

  unsigned int m_nCapacity;
  unsigned int m_nCount;
  std::map<TKey, TValue> m_oItems;
  std::deque<TKey> m_qOrder;
};

}}} // namespace Orl::Harnel::Utilities
