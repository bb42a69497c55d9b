// The filters of shapes and neighbourhoods: distance transforms, skeletons, reconstruction,
// equalization, resampling and gradient orientation.
#include "Bindings.h"

#include "Filter/DistanceTransformFilter.h"
#include "Filter/DistanceTransformMeijsterFilter.h"
#include "Filter/GradientOrientationFilter.h"
#include "Filter/GrayscaleReconstructionFilter.h"
#include "Filter/HistogramEqualizationFilter.h"
#include "Filter/ResampleFilter.h"
#include "Filter/SkeletonGuoHallA1Filter.h"
#include "Filter/SkeletonGuoHallA2Filter.h"
#include "Filter/SkeletonSimpleFilter.h"
#include "Filter/SkeletonZhangSuenFilter.h"

namespace Orl { namespace Python {

namespace {

namespace Filter = Ostrel::Filter;

// (rows, columns) of a shape argument, each in [1, 2^32 - 1].
std::vector<py::ssize_t> ShapeArgument(const py::object& oShape, const char* pArgument)
{
  const auto vecShape = CastArgument<std::vector<py::ssize_t>>(oShape, pArgument, "(rows, columns)");
  if (vecShape.size() != 2 || vecShape[0] < 1 || vecShape[1] < 1 || vecShape[0] > 0xffffffffL ||
      vecShape[1] > 0xffffffffL)
    throw py::value_error(std::string(pArgument) + ": expected (rows, columns), both at least 1");
  return vecShape;
}

py::array DistanceTransform(const py::handle& oA, const std::string& strMode, const std::string& strMethod,
                            const py::object& oDtype, const py::object& oNoData, const py::object& oOut,
                            const py::object& oProgress)
{
  const auto eMode = ParseChoice<Filter::EDistanceTransformMode>(
    strMode, "mode",
    {{"euclidean", Filter::eDistanceTransformEuclidean}, {"squared", Filter::eDistanceTransformSquaredEuclidean},
     {"cityblock", Filter::eDistanceTransformCityBlock}, {"chessboard", Filter::eDistanceTransformChessboard}});
  const bool bExact = ParseChoice<bool>(strMethod, "method", {{"exact", true}, {"chamfer", false}});
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    const py::dtype oDest = oDtype.is_none() ? py::dtype::of<float>() : py::dtype::from_args(oDtype);
    const auto oRun = [&](auto tDest) {
      using TDest = decltype(tDest);
      if (bExact)
        return MapBand<TDest, T>(Filter::CDistanceTransformMeijsterFilter(eMode), oA, oNoData, oOut, oProgress);
      return MapBand<TDest, T>(Filter::CDistanceTransformFilter(eMode), oA, oNoData, oOut, oProgress);
    };
    if (oDest.equal(py::dtype::of<float>()))
      return oRun(0.0f);
    if (oDest.equal(py::dtype::of<T>()))
      return oRun(tPixel);
    throw py::type_error("dtype: " + DtypeName(oDest) + ", expected float32 or the input's dtype");
  });
}

py::array Skeleton(const py::handle& oA, const std::string& strMethod, const py::object& oNoData,
                   const py::object& oOut, const py::object& oProgress)
{
  enum EMethod { eZhangSuen, eGuoHallA1, eGuoHallA2, eSimple };
  const auto eMethod = ParseChoice<EMethod>(
    strMethod, "method",
    {{"zhang_suen", eZhangSuen}, {"guo_hall_a1", eGuoHallA1}, {"guo_hall_a2", eGuoHallA2}, {"simple", eSimple}});
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    switch (eMethod)
    {
    case eZhangSuen:
      return MapBand<T, T>(Filter::CSkeletonZhangSuenFilter(), oA, oNoData, oOut, oProgress);
    case eGuoHallA1:
      return MapBand<T, T>(Filter::CSkeletonGuoHallA1Filter(), oA, oNoData, oOut, oProgress);
    case eGuoHallA2:
      return MapBand<T, T>(Filter::CSkeletonGuoHallA2Filter(), oA, oNoData, oOut, oProgress);
    default:
      return MapBand<T, T>(Filter::CSkeletonSimpleFilter(), oA, oNoData, oOut, oProgress);
    }
  });
}

py::array Reconstruction(const py::handle& oMarker, const py::handle& oMask, const py::object& oNoData,
                         const py::object& oOut, const py::object& oProgress)
{
  return DispatchArray(oMarker, "marker", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    auto oMarkerArray = ContiguousArray<T>(oMarker, "marker");
    auto oMaskArray = ContiguousArray<T>(oMask, "mask");
    if (ShapeOf(oMaskArray) != ShapeOf(oMarkerArray))
      throw py::value_error("mask: shape differs from the marker's");
    auto oOutArray = OutputArray<T>(oOut, ShapeOf(oMarkerArray), {oMarkerArray, oMaskArray});
    auto oDest = ArrayBand(oOutArray), oMarkerBand = ArrayBand(oMarkerArray), oMaskBand = ArrayBand(oMaskArray);
    SetNoData<T>(oNoData, oDest, oMarkerBand, oMaskBand);
    RunFilter(Filter::CGrayscaleReconstructionFilter(), oProgress,
              [&](const auto& oFilter) { oFilter.Apply(oDest, oMarkerBand, oMaskBand); });
    return std::move(oOutArray);
  });
}

py::array Equalize(const py::handle& oA, unsigned nBins, const py::object& oNoData, const py::object& oOut,
                   const py::object& oProgress)
{
  if (nBins < 1)
    throw py::value_error("bins: must be at least 1");
  const auto oApply = [nBins](const auto& oFilter, auto& oDest, auto& oSrc) {
    oSrc.SetHistogramBins(nBins);
    oFilter.Apply(oDest, oSrc);
  };
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    return MapBand<T, T>(Filter::CHistogramEqualizationFilter(), oA, oNoData, oOut, oProgress, {}, oApply);
  });
}

py::array Resample(const py::handle& oA, const py::object& oShape, const std::string& strKernel,
                   const py::object& oNoData, const py::object& oOut, const py::object& oProgress)
{
  const auto eKernel = ParseChoice<Filter::EResampleKernel>(
    strKernel, "kernel",
    {{"nearest", Filter::eResampleNearest}, {"bilinear", Filter::eResampleBilinear}, {"cubic", Filter::eResampleCubic},
     {"lanczos3", Filter::eResampleLanczos3}, {"average", Filter::eResampleAverage}});
  const auto vecShape = ShapeArgument(oShape, "shape");
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    return MapBand<T, T>(Filter::CResampleFilter(eKernel), oA, oNoData, oOut, oProgress, vecShape);
  });
}

template <class TPolicy>
struct SApplyGradient
{
  template <class TDest, class TSrc>
  void operator()(const Filter::CGradientOrientationFilter& oFilter, TDest& oDest, const TSrc& oSrc) const
  {
    oFilter.Apply<TPolicy>(oDest, oSrc);
  }
};

py::array GradientOrientation(const py::handle& oA, const py::object& oShape, const std::string& strNoDataPolicy,
                              const py::object& oNoData, const py::object& oOut, const py::object& oProgress)
{
  enum EPolicy { eInvalidate, eSkip, eIgnore };
  const auto ePolicy = ParseChoice<EPolicy>(strNoDataPolicy, "nodata_policy",
                                            {{"invalidate", eInvalidate}, {"skip", eSkip}, {"ignore", eIgnore}});
  const auto vecShape = oShape.is_none() ? std::vector<py::ssize_t>() : ShapeArgument(oShape, "shape");
  using TSources = STypeList<unsigned char, unsigned short, short, float, double>;
  return DispatchArray<TSources>(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    using TDest = std::conditional_t<std::is_same<T, double>::value, double, float>;
    const Filter::CGradientOrientationFilter oFilter;
    switch (ePolicy)
    {
    case eInvalidate:
      return MapBand<TDest, T>(oFilter, oA, oNoData, oOut, oProgress, vecShape,
                               SApplyGradient<Filter::SInvalidatePolicy>());
    case eSkip:
      return MapBand<TDest, T>(oFilter, oA, oNoData, oOut, oProgress, vecShape,
                               SApplyGradient<Filter::SSkipNonCenterNoDataPolicy>());
    default:
      return MapBand<TDest, T>(oFilter, oA, oNoData, oOut, oProgress, vecShape,
                               SApplyGradient<Filter::SIgnoreNoDataPolicy>());
    }
  });
}

} // namespace

void BindShapeFilters(py::module_& oModule)
{
  oModule.def("distance_transform", &DistanceTransform, py::arg("a"), py::arg("mode") = "euclidean",
              py::arg("method") = "exact", py::arg("dtype") = py::none(), ORL_PY_NODATA_OUT_PROGRESS,
              "Distance of every pixel to the nearest valid zero pixel.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "    Valid zero pixels are the background, valid non-zero ones the foreground; no-data pixels\n"
              "    are neither (distances run across them) and get no-data.\n"
              "mode : {'euclidean', 'squared', 'cityblock', 'chessboard'}\n"
              "method : {'exact', 'chamfer'}\n"
              "    'exact' (linear time, parallel) is exact in every mode; 'chamfer' (two sequential passes)\n"
              "    is exact for cityblock and chessboard and within 2 % of the Euclidean distance.\n"
              "dtype : float32 (default) or a's dtype\n"
              "    Integer results are rounded and saturate at the dtype's maximum." ORL_PY_COMMON_DOC
              "\nA raster without background is no-data everywhere. Global: single-machine only.\n");

  oModule.def("skeleton", &Skeleton, py::arg("a"), py::arg("method") = "zhang_suen", ORL_PY_NODATA_OUT_PROGRESS,
              "Thin the valid non-zero pixels to skeletons one pixel wide: 1 on the skeleton, 0 elsewhere.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "method : {'zhang_suen', 'guo_hall_a1', 'guo_hall_a2', 'simple'}\n"
              "    Zhang-Suen may delete 2 x 2 squares; the others keep components and holes." ORL_PY_COMMON_DOC
              "out may be a itself. No-data pixels are background and get no-data.\n");

  oModule.def("grayscale_reconstruction", &Reconstruction, py::arg("marker"), py::arg("mask"),
              ORL_PY_NODATA_OUT_PROGRESS,
              "Morphological reconstruction by dilation of marker under mask, 8-connected.\n\n"
              "Parameters\n----------\n"
              "marker, mask : array_like, 2-D, one dtype and shape\n"
              "    A marker above the mask is clipped to it; no-data pixels of either take no part and get\n"
              "    no-data." ORL_PY_COMMON_DOC "\nGlobal: single-machine only.\n");

  oModule.def("equalize_histogram", &Equalize, py::arg("a"), py::arg("bins") = 1024, ORL_PY_NODATA_OUT_PROGRESS,
              "Histogram equalization: each valid pixel mapped through the cumulative histogram.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "    uint8, uint16 and int16 results span the dtype's range; the others a's minimum to maximum.\n"
              "bins : int, default 1024\n"
              "    Histogram bins (integer ranges narrower than that get one bin per value)." ORL_PY_COMMON_DOC
              "\nMonotone. Global (one histogram of the whole raster): single-machine only.\n");

  oModule.def("resample", &Resample, py::arg("a"), py::arg("shape"), py::arg("kernel") = "bilinear",
              ORL_PY_NODATA_OUT_PROGRESS,
              "Resample a to shape, any ratio on either axis.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "shape : (rows, columns)\n"
              "kernel : {'nearest', 'bilinear', 'cubic', 'lanczos3', 'average'}\n"
              "    Pixels are areas with centres at +0.5; interpolating kernels widen when reducing. No-data\n"
              "    pixels take no part; the weights renormalise over the valid ones." ORL_PY_COMMON_DOC
              "out has the shape `shape`. Integer results are rounded and clamped.\n");

  oModule.def("gradient_orientation", &GradientOrientation, py::arg("a"), py::arg("shape") = py::none(),
              py::arg("nodata_policy") = "invalidate", ORL_PY_NODATA_OUT_PROGRESS,
              "Sobel gradient orientation in radians in [0, pi), averaged over the cells of shape.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, uint8, uint16, int16, float32 or float64\n"
              "shape : (rows, columns), optional\n"
              "    The result's shape, a's by default; each cell averages the doubled-angle gradients of the\n"
              "    pixels it covers, weighted by squared magnitude.\n"
              "nodata_policy : {'invalidate', 'skip', 'ignore'}\n"
              "    No-data in the 3 x 3 neighbourhood: no gradient; neighbours take the centre's value;\n"
              "    plain values." ORL_PY_COMMON_DOC
              "\nReturns float32 (float64 for float64 input). orl.dask.gradient_orientation runs it on chunks.\n");
}

}} // namespace Orl::Python
