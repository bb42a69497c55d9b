// The sweeps reach rows through SRowAccess. Memory iterators have their own specialisation; any other
// iterator, such as a tile iterator, goes through the generic one, which copies rows in and out of
// buffers with the X mover. Iterators derived from the memory ones take that generic path here.
#include "FillHoleReference.h"
#include "Filter/LinearFillHoleFilterImpl.h"

#include <gtest/gtest.h>

namespace {

using namespace Orl::Ostrel::Band;
using namespace Orl::Test::FillHole;

template <class TBase>
struct SOtherIterator : TBase
{
  explicit SOtherIterator(const TBase& it) : TBase(it) {}
};

// A memory band whose iterators are not the memory iterators.
template <class TPixel>
class COtherIteratorBand : public CBand<TPixel, SMemoryTag>
{
  using TBase = CBand<TPixel, SMemoryTag>;

public:
  using TBase::TBase;

  auto GetBandIterators(const typename TBase::TRect& oRect)
  {
    return _Wrapped(TBase::GetBandIterators(oRect));
  }
  auto GetBandIterators(const typename TBase::TRect& oRect) const
  {
    return _Wrapped(TBase::GetBandIterators(oRect));
  }

private:
  template <class TIt>
  static auto _Wrapped(const boost::tuples::tuple<TIt, TIt>& oIts)
  {
    return boost::make_tuple(SOtherIterator<TIt>(boost::get<0>(oIts)), SOtherIterator<TIt>(boost::get<1>(oIts)));
  }
};

template <class TPixel, class TMask>
void ExpectGenericAccessEqualsReference()
{
  ForEachRandomCase<TPixel, TMask>([](const SCase<TPixel, TMask>& oCase, const SParams& oParams,
                                      unsigned int nMaxHoles, const std::string& strWhat) {
    ExpectSame(Reference(oCase, oParams),
               RunOn<COtherIteratorBand<TPixel>, COtherIteratorBand<TMask>>(oCase, oParams, nMaxHoles), strWhat);
  });
}

TEST(LinearFillHoleGenericAccess, EqualsTheReference)
{
  static_assert(!std::is_same<Orl::Ostrel::Filter::Detail::SRowAccess<
                                SOtherIterator<Detail::CMemoryBandIterator<float, int>>>::TBuffer,
                              Orl::Ostrel::Filter::Detail::SRowAccess<Detail::CMemoryBandIterator<float, int>>::TBuffer>::value,
                "the generic row access is under test");
  ExpectGenericAccessEqualsReference<float, float>();
  ExpectGenericAccessEqualsReference<unsigned short, unsigned char>();
}

} // namespace
