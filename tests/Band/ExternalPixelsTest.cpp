#include "Band/Band.h"
#include "Foundation/BasicException.h"
#include "Support/PixelTypes.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <vector>

namespace {

using namespace Orl::Ostrel::Band;

template <class TPixel>
class ExternalPixelsTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(ExternalPixelsTest, Orl::Test::TAllPixelTypes);

// A band over caller-owned pixels reads and writes them in place, its statistics see the caller's
// values, and the owner handle is released with the last band, never earlier; the pixels are not freed.
TYPED_TEST(ExternalPixelsTest, UsesCallerPixelsAndReleasesOwnerWithLastBand)
{
  using TBand = CBand<TypeParam, SMemoryTag>;
  auto pPixels = boost::make_shared<std::vector<TypeParam>>(std::vector<TypeParam>{1, 2, 3, 4, 5, 6});
  boost::weak_ptr<std::vector<TypeParam>> pWatch = pPixels;
  {
    TBand oCopy(1, 1);
    {
      TBand oBand(boost::make_shared<CMemoryBandRep<TypeParam>>(3, 2, pPixels->data(), pPixels));
      EXPECT_FALSE(oBand.GetRep().OwnsPixels());
      EXPECT_EQ(oBand.GetWidth(), 3u);
      EXPECT_EQ(oBand.GetHeight(), 2u);
      pPixels.reset();
      TypeParam tMin, tMax;
      oBand.GetMinMax(tMin, tMax);
      EXPECT_EQ(tMin, TypeParam(1));
      EXPECT_EQ(tMax, TypeParam(6));
      oBand.GetRep().GetDataLocation()[4] = TypeParam(9); // also drops the cached extremes
      oBand.GetMinMax(tMin, tMax);
      EXPECT_EQ(tMax, TypeParam(9));
      oCopy = oBand;
    }
    ASSERT_FALSE(pWatch.expired());
    oCopy.Clear(TypeParam(7));
    EXPECT_EQ(*pWatch.lock(), std::vector<TypeParam>(6, TypeParam(7)));
  }
  EXPECT_TRUE(pWatch.expired());
}

TEST(ExternalPixelsTest, EmptyBandKeepsNoPointerAndNonEmptyOneNeedsPixels)
{
  unsigned char aPixel[1] = {0};
  CMemoryBandRep<unsigned char> oRep(0, 5, aPixel, boost::shared_ptr<void>());
  EXPECT_EQ(oRep.GetDataLocation(), nullptr);
  EXPECT_THROW(CMemoryBandRep<unsigned char>(2, 5, nullptr, boost::shared_ptr<void>()), Orl::Harnel::CBasicException);
  using TBand = CBand<unsigned char, SMemoryTag>;
  EXPECT_THROW(TBand(boost::shared_ptr<CMemoryBandRep<unsigned char>>()), Orl::Harnel::CBasicException);
}

} // namespace
