#pragma once

// Processor features asked at run time. Nothing in the project is built with -march: loops that gain
// from wider vectors are compiled a second time with __attribute__((target("avx2"))) and chosen by
// these checks, so the libraries run on any x86-64.

namespace Orl { namespace Harnel { namespace Math { namespace Detail {

#if defined(__x86_64__) && defined(__GNUC__)
#define ORL_HAS_AVX2_DISPATCH 1

inline bool HasAvx2()
{
  static const bool s_bHasAvx2 = __builtin_cpu_supports("avx2");
  return s_bHasAvx2;
}
#endif

}}}} // namespace Orl::Harnel::Math::Detail
