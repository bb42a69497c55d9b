// The pixel-by-pixel filters: arithmetic, minimum and maximum, conversion between dtypes, masks.
// The arithmetic functions take numpy's names and are bound from one table each.
#include "Bindings.h"

#include "Filter/ArithmeticBinaryFilter.h"
#include "Filter/ArithmeticUnaryFilter.h"
#include "Filter/CopyFilter.h"
#include "Filter/MaskFilter.h"
#include "Filter/MaskRangeReplaceFilter.h"
#include "Filter/MinMaxBinaryFilter.h"

namespace Orl { namespace Python {

namespace {

namespace Filter = Ostrel::Filter;

py::array Binary(Filter::EArithmeticBinaryOperation eOperation, const py::handle& oA, const py::handle& oB,
                 const py::object& oNoData, const py::object& oOut, const py::object& oProgress)
{
  const auto oBArray = py::array::ensure(oB);
  if (oBArray && oBArray.ndim() == 0) // a scalar: the constant form
  {
    const double dConstant = py::cast<double>(py::float_(oBArray.attr("item")()));
    return DispatchArray(oA, "a", [&](auto tPixel) {
      using T = decltype(tPixel);
      return MapBand<T, T>(Filter::CArithmeticBinaryFilter(eOperation, dConstant), oA, oNoData, oOut, oProgress);
    });
  }
  return DispatchArray(oA, "a", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    auto oAArray = ContiguousArray<T>(oA, "a");
    auto oBArray = ContiguousArray<T>(oB, "b");
    if (ShapeOf(oBArray) != ShapeOf(oAArray))
      throw py::value_error("b: shape differs from a's");
    auto oOutArray = OutputArray<T>(oOut, ShapeOf(oAArray), {oAArray, oBArray}, true);
    auto oDest = ArrayBand(oOutArray), oABand = ArrayBand(oAArray), oBBand = ArrayBand(oBArray);
    SetNoData<T>(oNoData, oDest, oABand, oBBand);
    RunFilter(Filter::CArithmeticBinaryFilter(eOperation), oProgress,
              [&](const auto& oFilter) { oFilter.Apply(oDest, oABand, oBBand); });
    return std::move(oOutArray);
  });
}

py::array Unary(Filter::EArithmeticUnaryOperation eOperation, double dFirst, double dSecond, const py::handle& oA,
                const py::object& oNoData, const py::object& oOut, const py::object& oProgress)
{
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    return MapBand<T, T>(Filter::CArithmeticUnaryFilter(eOperation, dFirst, dSecond), oA, oNoData, oOut, oProgress);
  });
}

py::tuple MinMax(const py::handle& oA, const py::handle& oB, const py::object& oNoData, const py::object& oProgress)
{
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    auto oAArray = ContiguousArray<T>(oA, "a");
    auto oBArray = ContiguousArray<T>(oB, "b");
    if (ShapeOf(oBArray) != ShapeOf(oAArray))
      throw py::value_error("b: shape differs from a's");
    py::array_t<T> oMinArray(ShapeOf(oAArray)), oMaxArray(ShapeOf(oAArray));
    auto oMin = ArrayBand(oMinArray), oMax = ArrayBand(oMaxArray), oABand = ArrayBand(oAArray),
         oBBand = ArrayBand(oBArray);
    SetNoData<T>(oNoData, oMin, oMax, oABand, oBBand);
    RunFilter(Filter::CMinMaxBinaryFilter(), oProgress,
              [&](const auto& oFilter) { oFilter.Apply(oMin, oMax, oABand, oBBand); });
    return py::make_tuple(oMinArray, oMaxArray);
  });
}

py::array AsType(const py::handle& oA, const py::object& oDtype, const py::object& oNoData,
                 const py::object& oOutNoData, const py::object& oOut, const py::object& oProgress)
{
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    return DispatchPixelType(py::dtype::from_args(oDtype), "dtype", [&](auto tDest) {
      using TDest = decltype(tDest);
      // MapBand sets nodata on a destination of a's dtype; out_nodata, when given, replaces it.
      const bool bOutNoData = !oOutNoData.is_none();
      const TDest tOutNoData = bOutNoData ? ToPixel<TDest>(oOutNoData, "out_nodata") : TDest();
      return MapBand<TDest, T>(Filter::CCopyFilter(), oA, oNoData, oOut, oProgress, {},
                               [&](const auto& oFilter, auto& oDest, const auto& oSrc) {
                                 if (bOutNoData)
                                   oDest.SetNoDataValue(tOutNoData);
                                 oFilter.Apply(oDest, oSrc);
                               });
    });
  });
}

py::array Mask(const py::handle& oA, const py::handle& oMask, const py::object& oMaskRange,
               const py::object& oNoData, const py::object& oOut, const py::object& oProgress)
{
  auto oMaskObject = py::array::ensure(oMask);
  if (!oMaskObject)
    throw py::type_error("mask: not an array");
  bool bRange = !oMaskRange.is_none();
  std::pair<double, double> oRange(0.0, 0.0);
  if (bRange)
    oRange = CastArgument<std::pair<double, double>>(oMaskRange, "mask_range", "(low, high)");
  if (oMaskObject.dtype().equal(py::dtype::of<bool>()))
  {
    oMaskObject = oMaskObject.attr("view")(py::dtype::of<unsigned char>());
    bRange = true; // True blanks: outside [0, 0]
  }
  return DispatchArray(oA, "a", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    const auto oWithMask = [&](auto tMaskPixel) -> py::array {
      using M = decltype(tMaskPixel);
      auto oSrcArray = ContiguousArray<T>(oA, "a");
      auto oMaskArray = ContiguousArray<M>(oMaskObject, "mask");
      if (ShapeOf(oMaskArray) != ShapeOf(oSrcArray))
        throw py::value_error("mask: shape differs from a's");
      auto oOutArray = OutputArray<T>(oOut, ShapeOf(oSrcArray), {oSrcArray, oMaskArray});
      auto oDest = ArrayBand(oOutArray), oSrc = ArrayBand(oSrcArray);
      auto oMaskBand = ArrayBand(oMaskArray);
      SetNoData<T>(oNoData, oDest, oSrc);
      RunFilter(Filter::CMaskFilter(), oProgress, [&](const auto& oFilter) {
        if (bRange)
          oFilter.Apply(oDest, oSrc, oMaskBand, oRange.first, oRange.second);
        else
          oFilter.Apply(oDest, oSrc, oMaskBand);
      });
      return std::move(oOutArray);
    };
    if (oMaskObject.dtype().equal(py::dtype::of<unsigned char>()))
      return oWithMask((unsigned char)0);
    if (oMaskObject.dtype().equal(py::dtype::of<T>()))
      return oWithMask(tPixel);
    throw py::type_error("mask: dtype " + DtypeName(oMaskObject.dtype()) + ", expected bool, uint8 or " +
                         DtypeName(py::dtype::of<T>()));
  });
}

py::array RangeReplace(const py::handle& oA, double dLow, double dHigh, const py::object& oValue, bool bInside,
                       const py::object& oNoData, const py::object& oOut, const py::object& oProgress)
{
  const auto oFilter = oValue.is_none() ? Filter::CMaskRangeReplaceFilter(dLow, dHigh, bInside)
                                        : Filter::CMaskRangeReplaceFilter(dLow, dHigh, bInside, py::cast<double>(oValue));
  return DispatchArray(oA, "a", [&](auto tPixel) {
    using T = decltype(tPixel);
    return MapBand<T, T>(oFilter, oA, oNoData, oOut, oProgress);
  });
}

constexpr const char* g_pBinaryDoc =
  "Parameters\n----------\n"
  "a : array_like, 2-D, any of the seven dtypes\n"
  "b : array_like of a's dtype and shape, or a scalar" ORL_PY_COMMON_DOC
  "out may be a or b itself.\n\n"
  "Computed in float32 for float32, in float64 otherwise, rounded half away from zero and saturated\n"
  "for integer dtypes (7 / 2 gives 4). No-data or NaN in an input, division by zero and a NaN\n"
  "result give no-data.\n";

constexpr const char* g_pUnaryDoc =
  "Parameters\n----------\n"
  "a : array_like, 2-D, any of the seven dtypes" ORL_PY_COMMON_DOC
  "out may be a itself.\n\n"
  "Computed in float32 for float32, in float64 otherwise, rounded half away from zero and saturated\n"
  "for integer dtypes. No-data and NaN in a, and a NaN result, give no-data.\n";

} // namespace

void BindPixelFilters(py::module_& oModule)
{
  const struct
  {
    const char* m_pName;
    Filter::EArithmeticBinaryOperation m_eOperation;
    const char* m_pSummary;
  } aBinary[] = {{"add", Filter::eAdd, "a + b per pixel."},
                 {"subtract", Filter::eSubtract, "a - b per pixel."},
                 {"multiply", Filter::eMultiply, "a * b per pixel."},
                 {"divide", Filter::eDivide, "a / b per pixel; division by zero gives no-data."},
                 {"power", Filter::ePower, "a to the power b per pixel; a NaN result gives no-data."},
                 {"minimum", Filter::eMinimum, "The smaller of a and b per pixel."},
                 {"maximum", Filter::eMaximum, "The larger of a and b per pixel."}};
  for (const auto& oEntry : aBinary)
  {
    const auto eOperation = oEntry.m_eOperation;
    oModule.def(
      oEntry.m_pName,
      [eOperation](const py::handle& oA, const py::handle& oB, const py::object& oNoData, const py::object& oOut,
                   const py::object& oProgress) { return Binary(eOperation, oA, oB, oNoData, oOut, oProgress); },
      py::arg("a"), py::arg("b"), ORL_PY_NODATA_OUT_PROGRESS,
      (std::string(oEntry.m_pSummary) + "\n\n" + g_pBinaryDoc).c_str());
  }

  const struct
  {
    const char* m_pName;
    Filter::EArithmeticUnaryOperation m_eOperation;
    const char* m_pSummary;
  } aUnary[] = {{"negative", Filter::eNegate, "-a per pixel."},
                {"absolute", Filter::eAbsolute, "|a| per pixel."},
                {"sqrt", Filter::eSquareRoot, "Square root per pixel; negative pixels give no-data."},
                {"log", Filter::eLogarithm, "Natural logarithm per pixel; negative pixels give no-data, 0 -inf."},
                {"exp", Filter::eExponential, "e to the a per pixel."}};
  for (const auto& oEntry : aUnary)
  {
    const auto eOperation = oEntry.m_eOperation;
    oModule.def(
      oEntry.m_pName,
      [eOperation](const py::handle& oA, const py::object& oNoData, const py::object& oOut,
                   const py::object& oProgress) { return Unary(eOperation, 1.0, 0.0, oA, oNoData, oOut, oProgress); },
      py::arg("a"), ORL_PY_NODATA_OUT_PROGRESS, (std::string(oEntry.m_pSummary) + "\n\n" + g_pUnaryDoc).c_str());
  }
  oModule.def(
    "scale_offset",
    [](const py::handle& oA, double dScale, double dOffset, const py::object& oNoData, const py::object& oOut,
       const py::object& oProgress) {
      return Unary(Filter::eScaleOffset, dScale, dOffset, oA, oNoData, oOut, oProgress);
    },
    py::arg("a"), py::arg("scale") = 1.0, py::arg("offset") = 0.0, ORL_PY_NODATA_OUT_PROGRESS,
    (std::string("scale * a + offset per pixel.\n\n") + g_pUnaryDoc).c_str());
  oModule.def(
    "clip",
    [](const py::handle& oA, double dLow, double dHigh, const py::object& oNoData, const py::object& oOut,
       const py::object& oProgress) { return Unary(Filter::eClamp, dLow, dHigh, oA, oNoData, oOut, oProgress); },
    py::arg("a"), py::arg("low"), py::arg("high"), ORL_PY_NODATA_OUT_PROGRESS,
    (std::string("a limited to [low, high] per pixel.\n\n") + g_pUnaryDoc).c_str());

  oModule.def("min_max", &MinMax, py::arg("a"), py::arg("b"), py::arg("nodata") = py::none(),
              py::arg("progress") = py::none(),
              "The pixelwise minimum and maximum of a and b in one pass.\n\n"
              "Parameters\n----------\n"
              "a, b : array_like, 2-D, one dtype and shape\n"
              "nodata, progress\n    As for the other functions.\n\n"
              "Returns\n-------\n(ndarray, ndarray)\n    (minimum, maximum); no-data or NaN in a or b gives no-data in both.\n");

  oModule.def("astype", &AsType, py::arg("a"), py::arg("dtype"), py::arg("nodata") = py::none(),
              py::arg("out_nodata") = py::none(), py::arg("out") = py::none(), py::arg("progress") = py::none(),
              "a converted to dtype: rounded half away from zero and saturated into integer dtypes.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "dtype : any of the seven dtypes\n"
              "nodata : scalar, optional\n    a's no-data value.\n"
              "out_nodata : scalar, optional\n"
              "    The result's no-data value, which a's no-data pixels and NaN become (default: nodata when\n"
              "    the dtype is a's, else the dtype's hint: NaN, or the integer dtype's maximum when unsigned,\n"
              "    minimum when signed). A valid value that converts to it stays.\n"
              "out : ndarray, optional\n    C-contiguous destination of dtype and a's shape, not overlapping a.\n"
              "progress : callable, optional\n");

  oModule.def("mask", &Mask, py::arg("a"), py::arg("mask"), py::arg("mask_range") = py::none(),
              ORL_PY_NODATA_OUT_PROGRESS,
              "a with the pixels a mask blanks set to no-data.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "mask : array_like of a's shape: bool, uint8 or a's dtype\n"
              "    bool: True blanks. Otherwise 0 blanks, or with mask_range every value outside it.\n"
              "mask_range : (low, high), optional\n    Both included; NaN is not outside." ORL_PY_COMMON_DOC);

  oModule.def("mask_range_replace", &RangeReplace, py::arg("a"), py::arg("low"), py::arg("high"),
              py::arg("value") = py::none(), py::arg("inside") = true, ORL_PY_NODATA_OUT_PROGRESS,
              "Replace the pixels inside (or outside) [low, high] by value, or by no-data.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, any of the seven dtypes\n"
              "low, high : float\n    The range, both ends included, compared in float64; NaN is never hit.\n"
              "value : float, optional\n"
              "    Rounded and saturated to a's dtype; None (or NaN) replaces by no-data.\n"
              "inside : bool, default True\n    Replace inside the range, else outside it." ORL_PY_COMMON_DOC
              "out may be a itself.\n");
}

}} // namespace Orl::Python
