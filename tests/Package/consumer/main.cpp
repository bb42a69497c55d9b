// Uses the installed headers and libraries the way an application would.
#include <Band/Band.h>

#include <cstdio>

int main()
{
  using namespace Orl::Ostrel::Band;
  CBand<float, SMemoryTag> oBand(64, 32);
  oBand.Clear(1.5f);
  oBand.SetNoDataValue(-1.0f);
  double dSum = 0;
  auto oIts = static_cast<const CBand<float, SMemoryTag>&>(oBand).GetBandIterators(oBand);
  auto itRow = boost::get<0>(oIts);
  const auto itEnd = boost::get<1>(oIts);
  for (; itRow.Y != itEnd.Y; ++itRow.Y)
    for (auto it = itRow; it.X != itEnd.X; ++it.X)
      dSum += *it;
  std::printf("sum %g\n", dSum);
  return dSum == 64 * 32 * 1.5 ? 0 : 1;
}
