// orl.fill_holes: the linear fill-hole filter over numpy arrays.
#include "Bindings.h"

#include "Filter/LinearFillHoleFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <type_traits>

namespace Orl { namespace Python {

namespace {

using Ostrel::Filter::CLinearFillHoleFilter;
using Ostrel::Filter::SDefaultLineData;

// The wider mask type the filter has for each image type, besides unsigned char.
template <class T, bool BFloating = std::is_floating_point<T>::value>
struct SWideMask
{
  using type = T;
};
template <class T>
struct SWideMask<T, false>
{
  using type = std::make_unsigned_t<T>;
};

template <class T>
py::array FillHoles(const py::handle& oA, const py::object& oNoData, double dMaxDistance, long nMinDirections,
                    const py::object& oMask, const py::object& oMaskRange, const py::object& oOut,
                    const py::object& oProgress)
{
  auto oSrcArray = ContiguousArray<T>(oA, "a");
  const unsigned nWidth = unsigned(oSrcArray.shape(1)), nHeight = unsigned(oSrcArray.shape(0));
  if (!(dMaxDistance > 0.0 && dMaxDistance <= double(std::numeric_limits<float>::max())))
    throw py::value_error("max_distance: must be positive and finite");
  if (nMinDirections < 1 || nMinDirections > 8)
    throw py::value_error("min_directions: must lie in [1, 8]");
  if (oMask.is_none() && !oMaskRange.is_none())
    throw py::value_error("mask_range: given without a mask");
  const bool bHasNoData = !oNoData.is_none();
  const T tNoData = bHasNoData ? ToPixel<T>(oNoData, "nodata") : T(0);
  bool bUseRange = !oMaskRange.is_none();
  double dLow = 0.0, dHigh = 0.0;
  if (bUseRange)
  {
    const auto oRange = py::cast<py::tuple>(oMaskRange);
    if (oRange.size() != 2)
      throw py::value_error("mask_range: expected (low, high)");
    dLow = py::cast<double>(oRange[0]);
    dHigh = py::cast<double>(oRange[1]);
  }
  auto oOutArray = OutputArray<T>(oOut, ShapeOf(oSrcArray), {oSrcArray});
  CPythonProgress oLogger(oProgress);

  TMemBand<T> oSrc = ArrayBand(oSrcArray), oDest = ArrayBand(oOutArray);
  if (bHasNoData)
  {
    oSrc.SetNoDataValue(tNoData);
    oDest.SetNoDataValue(tNoData);
  }
  else if constexpr (std::is_floating_point<T>::value)
    oDest.SetNoDataValue(std::numeric_limits<T>::quiet_NaN());
  const T* pSrc = oSrcArray.data();
  // The filter's hole list grows with the holes it meets, so the bound costs nothing: every pixel may
  // be a hole, up to the filter's limit of 2^32 - 1, beyond which it refuses the band.
  const unsigned nHoles = unsigned(std::min<std::uint64_t>(std::uint64_t(nWidth) * nHeight,
                                                            std::numeric_limits<unsigned>::max()));

  const auto oRun = [&](auto& oMaskBand) {
    RunReleased([&] {
      const auto oFilter = bUseRange ? CLinearFillHoleFilter<SDefaultLineData>(dLow, dHigh, nHoles,
                                                                               unsigned(nMinDirections),
                                                                               float(dMaxDistance), !oMask.is_none())
                                     : CLinearFillHoleFilter<SDefaultLineData>(nHoles, unsigned(nMinDirections),
                                                                               float(dMaxDistance), !oMask.is_none());
      auto oConfigured = oFilter;
      oConfigured.SetLogger(oLogger.GetLogger());
      oConfigured.Apply(oDest, oSrc, oMaskBand);
    });
  };

  if (oMask.is_none())
  {
    // Never read without a mask, but its extent counts: the source's bytes serve as its pixels.
    TMemBand<unsigned char> oNoMask(boost::make_shared<Ostrel::Band::CMemoryBandRep<unsigned char>>(
      nWidth, nHeight, reinterpret_cast<unsigned char*>(const_cast<T*>(pSrc)), boost::shared_ptr<void>()));
    oRun(oNoMask);
  }
  else
  {
    auto oMaskObject = py::array::ensure(oMask);
    if (!oMaskObject)
      throw py::type_error("mask: not an array");
    if (oMaskObject.dtype().equal(py::dtype::of<bool>()))
    {
      oMaskObject = oMaskObject.attr("view")(py::dtype::of<unsigned char>());
      if (!bUseRange) // True marks a hole
      {
        bUseRange = true;
        dLow = dHigh = 0.0;
      }
    }
    if (oMaskObject.ndim() != 2 || oMaskObject.shape(0) != oSrcArray.shape(0) ||
        oMaskObject.shape(1) != oSrcArray.shape(1))
      throw py::value_error("mask: shape differs from the input's");
    const auto oWithMask = [&](auto tMaskPixel) {
      using M = decltype(tMaskPixel);
      auto oMaskArray = ContiguousArray<M>(oMaskObject, "mask");
      TMemBand<M> oMaskBand = ArrayBand(oMaskArray);
      oRun(oMaskBand);
    };
    using TWide = typename SWideMask<T>::type;
    if (oMaskObject.dtype().equal(py::dtype::of<unsigned char>()))
      oWithMask((unsigned char)0);
    else if (oMaskObject.dtype().equal(py::dtype::of<TWide>()))
      oWithMask(TWide(0));
    else
      throw py::type_error("mask: dtype " + DtypeName(oMaskObject.dtype()) + ", expected bool, uint8 or " +
                           DtypeName(py::dtype::of<TWide>()));
  }
  oLogger.Check();
  return std::move(oOutArray);
}

} // namespace

void BindFillHole(py::module_& oModule)
{
  oModule.def(
    "fill_holes",
    [](const py::handle& oA, const py::object& oNoData, double dMaxDistance, long nMinDirections, const py::object& oMask,
       const py::object& oMaskRange, const py::object& oOut, const py::object& oProgress) -> py::array {
      const auto oArray = py::array::ensure(oA);
      if (!oArray)
        throw py::type_error("a: not an array");
      return DispatchPixelType(oArray.dtype(), "a", [&](auto tPixel) {
        return FillHoles<decltype(tPixel)>(oArray, oNoData, dMaxDistance, nMinDirections, oMask, oMaskRange, oOut,
                                           oProgress);
      });
    },
    py::arg("a"), py::arg("nodata") = py::none(), py::arg("max_distance") = 64.0, py::arg("min_directions") = 2,
    py::arg("mask") = py::none(), py::arg("mask_range") = py::none(), py::arg("out") = py::none(),
    py::arg("progress") = py::none(),
    R"(Fill the holes of a raster by linear interpolation along eight lines.

Each hole pixel looks left, right, up, down and along both diagonals. Every line that reaches a
valid pixel within ``max_distance`` steps contributes that pixel's value with weight 1 / steps; a
hole with at least ``min_directions`` contributions gets the weighted mean (computed in float32 for
every dtype), the others stay no-data. Valid pixels are copied unchanged.

Parameters
----------
a : array_like, 2-D, dtype uint8, uint16, int16, uint32, int32, float32 or float64
    The raster. A C-contiguous array is used in place, without a copy; any other layout is copied
    once into a C-contiguous array.
nodata : scalar, optional
    The no-data value of ``a``; its pixels are holes. For float dtypes NaN and infinities are
    always holes, with or without ``nodata``. Without ``nodata`` an integer raster has no holes
    unless a mask says so.
max_distance : float, default 64.0
    Furthest reach of a line, in steps (> 0).
min_directions : int, default 2
    Fewest contributing lines for a hole to be filled, in [1, 8].
mask : array_like, 2-D, optional
    Says which pixels are holes instead of ``nodata``: with dtype bool the True pixels; with dtype
    uint8 (or the unsigned type of ``a``'s width, or ``a``'s float dtype) the pixels equal to 0, or,
    with ``mask_range``, those outside it. Pixels of ``a`` that are invalid but not selected are
    skipped: they stay no-data and do not lengthen any line. Same shape as ``a``; copied once when
    not C-contiguous.
mask_range : (float, float), optional
    ``(low, high)``, both included: holes are where the mask lies outside. Converted to the mask's
    dtype by truncation.
out : ndarray, optional
    C-contiguous, writeable array of ``a``'s dtype and shape, not overlapping ``a``; written in place
    and returned.
progress : callable, optional
    ``progress(fraction, text)``, called with the GIL held at most every 0.1 s and once at the end.
    An exception it raises is raised again when the filter has finished.

Returns
-------
ndarray
    ``out``, or a new array of ``a``'s dtype and shape. Holes that stay unfilled hold ``nodata``;
    without it NaN for float dtypes and the dtype's far end (its maximum when unsigned, else its
    minimum) for integer dtypes.

Raises
------
TypeError
    A dtype other than the seven, a mask or ``out`` of the wrong dtype.
ValueError
    Not 2-D, shapes that differ, ``out`` overlapping ``a``, a parameter out of range, or a failure
    reported by the library (its message).
MemoryError
    The working memory could not be had.

Notes
-----
The GIL is released while the filter runs, so other Python threads go on.
)");
}

}} // namespace Orl::Python
