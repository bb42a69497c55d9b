#pragma once

#include "Foundation/PixelTypes.h"

#include <gtest/gtest.h>

namespace Orl { namespace Test {

template <class TList>
struct SToGTestTypes;

template <class... T>
struct SToGTestTypes<Harnel::STypeList<T...>>
{
  using type = ::testing::Types<T...>;
};

// The seven pixel types, for TYPED_TEST_SUITE.
using TAllPixelTypes = SToGTestTypes<Harnel::TPixelTypes>::type;

}} // namespace Orl::Test
