#pragma once

// What the two distance transform filters share: the generic Apply and its instances. The bodies are
// in DistanceTransformFilters.cpp.

#include "Band/Band.h"
#include "Filter/DistanceTransformMode.h"
#include "Foundation/Logger.h"
#include "Foundation/PixelTypes.h"

#include <boost/shared_ptr.hpp>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

enum class EDistanceMethod
{
  eMeijster,
  eChamfer
};

// The distance transform of oSrc into oDest (one size; they may be one band); see the filters.
template <class TDest, class TSrc>
void ApplyDistanceTransform(EDistanceMethod eMethod, EDistanceTransformMode eMode,
                            const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger, const char* pAction,
                            TDest& oDest, const TSrc& oSrc);

// The instances: every source pixel type into its own type, and every other type into float.
// ORL_FOR_EACH_DISTANCE_INSTANCE(M, Tag) expands M(destination pixel, source pixel, Tag) for each.
#define ORL_FOR_EACH_DISTANCE_INSTANCE(M, Tag)                                                          \
  M(unsigned char, unsigned char, Tag)                                                                  \
  M(unsigned short, unsigned short, Tag)                                                                \
  M(short, short, Tag)                                                                                  \
  M(unsigned int, unsigned int, Tag)                                                                    \
  M(int, int, Tag)                                                                                      \
  M(float, float, Tag)                                                                                  \
  M(double, double, Tag)                                                                                \
  M(float, unsigned char, Tag)                                                                          \
  M(float, unsigned short, Tag)                                                                         \
  M(float, short, Tag)                                                                                  \
  M(float, unsigned int, Tag)                                                                           \
  M(float, int, Tag)                                                                                    \
  M(float, double, Tag)

#define ORL_DISTANCE_APPLY(TDestPixel, TSrcPixel, Tag)                                                  \
  void ApplyDistanceTransform<Band::CBand<TDestPixel, Tag>, Band::CBand<TSrcPixel, Tag>>(             \
    EDistanceMethod, EDistanceTransformMode, const boost::shared_ptr<Harnel::Progress::CLogger>&,       \
    const char*, Band::CBand<TDestPixel, Tag>&, const Band::CBand<TSrcPixel, Tag>&);

#define ORL_DISTANCE_EXTERN(TDestPixel, TSrcPixel, Tag) extern template ORL_DISTANCE_APPLY(TDestPixel, TSrcPixel, Tag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_DISTANCE_INSTANCE(ORL_DISTANCE_EXTERN, Band::STileTag)
#undef ORL_DISTANCE_EXTERN

}}}} // namespace Orl::Ostrel::Filter::Detail
