#pragma once

#include "Foundation/PixelTypes.h"

#include <gtest/gtest.h>

#include <utility>

namespace Orl { namespace Test {

template <class... T>
::testing::Types<T...> ToGTestTypes(Harnel::STypeList<T...>);

// The seven pixel types, for TYPED_TEST_SUITE.
using TAllPixelTypes = decltype(ToGTestTypes(std::declval<Harnel::TPixelTypes>()));

}} // namespace Orl::Test
