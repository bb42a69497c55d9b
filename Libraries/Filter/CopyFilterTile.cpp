#include "Filter/CopyFilterImpl.h"

namespace Orl { namespace Ostrel { namespace Filter {

#define ORL_COPY_FILTER_INSTANCE(TFrom, TTo, Tag) ORL_COPY_FILTER_DECL(template, TFrom, TTo, Tag)
ORL_FOR_EACH_COPY_INSTANCE(ORL_COPY_FILTER_INSTANCE, Band::STileTag)

}}} // namespace Orl::Ostrel::Filter
