#include "Filter/MultiRegressionPredictorImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_PREDICTOR_INSTANCE(TPixel)                                                                  \
  ORL_PREDICTOR_DECL(template, TPixel, Band::SMemoryTag)                                               \
  ORL_PREDICTOR_DECL(template, TPixel, Band::SIPPTag)                                                  \
  ORL_PREDICTOR_DECL(template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_PREDICTOR_INSTANCE)

}}} // namespace Orl::Ostrel::Filter
