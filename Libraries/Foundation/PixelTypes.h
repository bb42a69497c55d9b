#pragma once

// The one list of pixel types. Explicit instantiations, typed tests and benchmarks all draw from it.

namespace Orl { namespace Harnel {

template <class... T>
struct STypeList
{
};

using TPixelTypes = STypeList<unsigned char, unsigned short, short, unsigned int, int, float, double>;

}} // namespace Orl::Harnel

// ORL_FOR_EACH_PIXEL_TYPE(M) expands M(T) once for each pixel type; used for explicit instantiation
// (with `template`) in the libraries and for the matching `extern template` declarations in headers.
#define ORL_FOR_EACH_PIXEL_TYPE(M)                                                                       \
  M(unsigned char)                                                                                       \
  M(unsigned short)                                                                                      \
  M(short)                                                                                               \
  M(unsigned int)                                                                                        \
  M(int)                                                                                                 \
  M(float)                                                                                               \
  M(double)
