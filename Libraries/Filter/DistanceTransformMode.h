#pragma once

namespace Orl { namespace Ostrel { namespace Filter {

// The metric of the distance transform filters.
enum EDistanceTransformMode
{
  eDistanceTransformEuclidean,        // sqrt(dx^2 + dy^2)
  eDistanceTransformSquaredEuclidean, // dx^2 + dy^2
  eDistanceTransformCityBlock,        // |dx| + |dy|
  eDistanceTransformChessboard        // max(|dx|, |dy|)
};

}}} // namespace Orl::Ostrel::Filter
