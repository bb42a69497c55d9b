#pragma once

// What every function of the Python module shares: bands over numpy arrays, the dispatch from a
// dtype to a pixel type, the progress sink that calls back into Python, and running library work
// with the GIL released.
//
// Adding a filter: most take one array to one array, and their binding is a dispatch on the dtype
// (DispatchArray, limited to the filter's instances by a STypeList) around MapBand. Others build
// their bands with ContiguousArray, ArrayBand / StackBands and OutputArray, and run the filter with
// RunFilter. Each unit binds a group with a `void Bind...(pybind11::module_&)` declared below and
// called from Module.cpp; keep the groups a few, so the module builds in parallel.

#include "Band/Band.h"
#include "Foundation/Logger.h"

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h> // in every unit, so that all agree on how a std::vector converts

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Orl { namespace Python {

namespace py = pybind11;

template <class TPixel>
using TMemBand = Ostrel::Band::CBand<TPixel, Ostrel::Band::SMemoryTag>;

inline std::string DtypeName(const py::dtype& oDtype)
{
  return py::cast<std::string>(oDtype.attr("name"));
}

// The pixel types a filter has instances for, in the order a dtype is tried.
template <class... TPixels>
struct STypeList
{
};
using TAllPixels = STypeList<unsigned char, unsigned short, short, unsigned int, int, float, double>;

namespace Detail {

template <class... TPixels>
std::string DtypeNames(STypeList<TPixels...>)
{
  std::string strNames;
  for (const auto& strName : {DtypeName(py::dtype::of<TPixels>())...})
    strNames += (strNames.empty() ? "" : ", ") + strName;
  return strNames;
}

template <class TFunction, class TFirst, class... TRest, class TList>
decltype(auto) Dispatch(const py::dtype& oDtype, const char* pArgument, TFunction& oFunction,
                        STypeList<TFirst, TRest...>, TList oAll)
{
  if (oDtype.equal(py::dtype::of<TFirst>()))
    return oFunction(TFirst());
  if constexpr (sizeof...(TRest) == 0)
    throw py::type_error(std::string(pArgument) + ": dtype " + DtypeName(oDtype) + " is not one of " +
                         DtypeNames(oAll));
  else
    return Dispatch(oDtype, pArgument, oFunction, STypeList<TRest...>(), oAll);
}

} // namespace Detail

// Calls oFunction(TPixel()) for the pixel type of dtype, one of TList; TypeError for another dtype.
// Every branch returns the same type.
template <class TList = TAllPixels, class TFunction>
decltype(auto) DispatchPixelType(const py::dtype& oDtype, const char* pArgument, TFunction&& oFunction)
{
  return Detail::Dispatch(oDtype, pArgument, oFunction, TList(), TList());
}

// DispatchPixelType on the dtype of an array_like (a list becomes an array first).
template <class TList = TAllPixels, class TFunction>
decltype(auto) DispatchArray(const py::handle& oObject, const char* pArgument, TFunction&& oFunction)
{
  const auto oArray = py::array::ensure(oObject);
  if (!oArray)
    throw py::type_error(std::string(pArgument) + ": not an array");
  return DispatchPixelType<TList>(oArray.dtype(), pArgument, oFunction);
}

// An array of pixel type TPixel with nDims dimensions, C-contiguous: the caller's own array when it
// already is one, else one copy. TypeError for another dtype, ValueError for another number of
// dimensions or a side beyond 2^32 - 1.
template <class TPixel>
py::array_t<TPixel> ContiguousArray(const py::handle& oObject, const char* pArgument, int nDims = 2)
{
  const auto oArray = py::array::ensure(oObject);
  if (!oArray)
    throw py::type_error(std::string(pArgument) + ": not an array");
  if (!oArray.dtype().equal(py::dtype::of<TPixel>()))
    throw py::type_error(std::string(pArgument) + ": dtype " + DtypeName(oArray.dtype()) + ", expected " +
                         DtypeName(py::dtype::of<TPixel>()));
  if (oArray.ndim() != nDims)
    throw py::value_error(std::string(pArgument) + ": expected a " + std::to_string(nDims) + "-D array, got " +
                          std::to_string(oArray.ndim()) + " dimensions");
  for (int i = nDims - 2; i < nDims; ++i)
    if (oArray.shape(i) > 0xffffffffL)
      throw py::value_error(std::string(pArgument) + ": a side is longer than 4294967295 pixels");
  return py::array_t<TPixel, py::array::c_style>::ensure(oArray); // a copy only when not C-contiguous
}

// A memory band over the nWidth x nHeight pixels at pPixels, inside oArray, which the band keeps
// alive. The reference is dropped under the GIL, whichever thread releases the last band.
template <class TPixel>
TMemBand<TPixel> BandOver(const py::array& oArray, TPixel* pPixels, unsigned nWidth, unsigned nHeight)
{
  auto* pKeep = new py::object(oArray);
  const boost::shared_ptr<void> pOwner(pKeep, [](void* p) {
    py::gil_scoped_acquire oGil;
    delete static_cast<py::object*>(p);
  });
  return TMemBand<TPixel>(
    boost::make_shared<Ostrel::Band::CMemoryBandRep<TPixel>>(nWidth, nHeight, pPixels, pOwner));
}

template <class TPixel>
TPixel* PixelsOf(py::array_t<TPixel>& oArray)
{
  return oArray.writeable() ? oArray.mutable_data() : const_cast<TPixel*>(oArray.data());
}

// A memory band over the pixels of a C-contiguous 2-D array.
template <class TPixel>
TMemBand<TPixel> ArrayBand(py::array_t<TPixel>& oArray)
{
  return BandOver(oArray, PixelsOf(oArray), unsigned(oArray.shape(1)), unsigned(oArray.shape(0)));
}

// One band per 2-D slice of a C-contiguous array of three or more dimensions, in C order.
template <class TPixel>
std::vector<TMemBand<TPixel>> StackBands(py::array_t<TPixel>& oArray)
{
  const int nDims = int(oArray.ndim());
  const unsigned nWidth = unsigned(oArray.shape(nDims - 1)), nHeight = unsigned(oArray.shape(nDims - 2));
  const std::size_t nBands = std::size_t(oArray.size()) / std::max<std::size_t>(std::size_t(nWidth) * nHeight, 1);
  std::vector<TMemBand<TPixel>> vecBands;
  vecBands.reserve(nBands);
  for (std::size_t i = 0; i < nBands; ++i)
    vecBands.push_back(BandOver(oArray, PixelsOf(oArray) + i * nWidth * nHeight, nWidth, nHeight));
  return vecBands;
}

inline std::vector<py::ssize_t> ShapeOf(const py::array& oArray)
{
  return std::vector<py::ssize_t>(oArray.shape(), oArray.shape() + oArray.ndim());
}

// The destination of a filter: out when given, else a new array of shape vecShape. out must have
// the dtype and shape, be C-contiguous and writeable, and share no memory with the inputs, except
// that with bMayBeInput it may be one of them exactly (a filter that writes over its source).
template <class TPixel>
py::array_t<TPixel> OutputArray(const py::object& oOut, const std::vector<py::ssize_t>& vecShape,
                                std::initializer_list<py::array> listInputs, bool bMayBeInput = false)
{
  if (oOut.is_none())
    return py::array_t<TPixel>(vecShape);
  if (!py::isinstance<py::array>(oOut))
    throw py::type_error("out: not a numpy array");
  const auto oArray = py::reinterpret_borrow<py::array>(oOut);
  if (!oArray.dtype().equal(py::dtype::of<TPixel>()))
    throw py::type_error("out: dtype " + DtypeName(oArray.dtype()) + ", expected " +
                         DtypeName(py::dtype::of<TPixel>()));
  if (ShapeOf(oArray) != vecShape)
    throw py::value_error("out: shape " + std::string(py::str(oArray.attr("shape"))) + ", expected " +
                          std::string(py::str(py::tuple(py::cast(vecShape)))));
  if (!(oArray.flags() & py::array::c_style) || !oArray.writeable())
    throw py::value_error("out: must be C-contiguous and writeable");
  const auto pSharesMemory = py::module_::import("numpy").attr("shares_memory");
  for (const auto& oInput : listInputs)
  {
    const bool bSame = bMayBeInput && oInput.data() == oArray.data() && oInput.nbytes() == oArray.nbytes() &&
                       oInput.dtype().equal(oArray.dtype());
    if (!bSame && pSharesMemory(oArray, oInput).template cast<bool>())
      throw py::value_error(bMayBeInput ? "out: overlaps an input without being it" : "out: must not overlap an input");
  }
  return py::reinterpret_borrow<py::array_t<TPixel>>(oOut);
}

// A Python number as a pixel value: ValueError when an integer type cannot hold it exactly.
template <class TPixel>
TPixel ToPixel(const py::object& oValue, const char* pArgument)
{
  const double dValue = py::cast<double>(py::float_(oValue));
  if constexpr (std::is_integral<TPixel>::value)
  {
    if (!(dValue >= double(std::numeric_limits<TPixel>::lowest()) &&
          dValue <= double(std::numeric_limits<TPixel>::max()) && dValue == std::floor(dValue)))
      throw py::value_error(std::string(pArgument) + ": " + std::string(py::str(oValue)) +
                            " is not a value of the array's dtype");
    return TPixel(py::cast<long long>(py::int_(oValue)));
  }
  return TPixel(dValue);
}

// Sets nodata as the no-data value of the bands. Without one, float bands get NaN, so that pixels a
// filter leaves without a value read as NaN in numpy (the library's own hint is the lowest value);
// integer bands keep the hint.
template <class TPixel, class... TBands>
void SetNoData(const py::object& oNoData, TBands&... oBands)
{
  if (oNoData.is_none() && !std::is_floating_point<TPixel>::value)
    return;
  const TPixel tValue = oNoData.is_none() ? std::numeric_limits<TPixel>::quiet_NaN() : ToPixel<TPixel>(oNoData, "nodata");
  (oBands.SetNoDataValue(tValue), ...);
}

template <class TBand>
void SetNoData(const py::object& oNoData, std::vector<TBand>& vecBands)
{
  for (auto& oBand : vecBands)
    SetNoData<typename TBand::TPixel>(oNoData, oBand);
}

// A Python argument as T (a sequence as a std::vector, a pair as a std::pair); TypeError naming the
// argument instead of pybind11's RuntimeError.
template <class T>
T CastArgument(const py::handle& oValue, const char* pArgument, const char* pExpected)
{
  try
  {
    return py::cast<T>(oValue);
  }
  catch (const py::cast_error&)
  {
    throw py::type_error(std::string(pArgument) + ": expected " + pExpected + ", got " +
                         std::string(py::str(oValue)));
  }
}

// One of the names of a choice argument, as its enumerator; ValueError naming the choices.
template <class TEnum>
TEnum ParseChoice(const std::string& strValue, const char* pArgument,
                  std::initializer_list<std::pair<const char*, TEnum>> listChoices)
{
  std::string strNames;
  for (const auto& oChoice : listChoices)
  {
    if (strValue == oChoice.first)
      return oChoice.second;
    strNames += (strNames.empty() ? "'" : ", '") + std::string(oChoice.first) + "'";
  }
  throw py::value_error(std::string(pArgument) + ": '" + strValue + "' is not one of " + strNames);
}

// A logger whose sink calls progress(fraction, text) with the GIL held, at most every 100 ms (plus
// the start and the end). The first exception the callback raises stops further calls and is raised
// again by Check() once the library has returned.
class CPythonProgress
{
public:
  explicit CPythonProgress(py::object oCallback);
  ~CPythonProgress();
  CPythonProgress(const CPythonProgress&) = delete;
  CPythonProgress& operator=(const CPythonProgress&) = delete;

  // Empty when no callback was given: the library then reports nothing.
  const boost::shared_ptr<Harnel::Progress::CLogger>& GetLogger() const { return m_pLogger; }
  void Check();

private:
  class CSink;
  boost::shared_ptr<CSink> m_pSink;
  boost::shared_ptr<Harnel::Progress::CLogger> m_pLogger;
};

// Runs oWork with the GIL released.
template <class TWork>
decltype(auto) RunReleased(TWork&& oWork)
{
  py::gil_scoped_release oRelease;
  return oWork();
}

// Runs oApply(oFilter) with the GIL released and the progress callback as the filter's logger; an
// exception the callback raised comes back afterwards.
template <class TFilter, class TApply>
void RunFilter(TFilter oFilter, const py::object& oProgress, TApply&& oApply)
{
  CPythonProgress oLogger(oProgress);
  oFilter.SetLogger(oLogger.GetLogger());
  RunReleased([&] { oApply(static_cast<const TFilter&>(oFilter)); });
  oLogger.Check();
}

struct SApplyDestSrc
{
  template <class TFilter, class TDest, class TSrc>
  void operator()(const TFilter& oFilter, TDest& oDest, const TSrc& oSrc) const
  {
    oFilter.Apply(oDest, oSrc);
  }
};

// The shape of most bindings: the 2-D array a of pixel type TSrc, used in place, to a destination of
// pixel type TDest and shape vecShape (a's when empty), out or a new array. nodata is set on the
// source, and on the destination when it has the source's pixel type (else the destination gets
// NaN when it is float); oApply(filter, dest, src)
// runs with the GIL released.
template <class TDest, class TSrc, class TFilter, class TApply = SApplyDestSrc>
py::array MapBand(const TFilter& oFilter, const py::handle& oA, const py::object& oNoData, const py::object& oOut,
                  const py::object& oProgress, std::vector<py::ssize_t> vecShape = {}, TApply oApply = TApply())
{
  auto oSrcArray = ContiguousArray<TSrc>(oA, "a");
  if (vecShape.empty())
    vecShape = ShapeOf(oSrcArray);
  auto oOutArray = OutputArray<TDest>(oOut, vecShape, {oSrcArray}, oFilter.AllowDestIsSrc());
  auto oSrc = ArrayBand(oSrcArray);
  auto oDest = ArrayBand(oOutArray);
  SetNoData<TSrc>(oNoData, oSrc);
  if constexpr (std::is_same<TDest, TSrc>::value)
    SetNoData<TSrc>(oNoData, oDest);
  else
    SetNoData<TDest>(py::none(), oDest);
  RunFilter(oFilter, oProgress, [&](const TFilter& oRun) { oApply(oRun, oDest, oSrc); });
  return std::move(oOutArray);
}

// The trailing arguments every filter binding takes, and their documentation.
#define ORL_PY_NODATA_OUT_PROGRESS                                                                       \
  py::arg("nodata") = py::none(), py::arg("out") = py::none(), py::arg("progress") = py::none()
#define ORL_PY_COMMON_DOC                                                                                \
  "\nnodata : scalar, optional\n"                                                                        \
  "    The no-data value of the inputs (and of a destination of their dtype). Float NaN is always\n"   \
  "    no-data. Destination pixels without a value get nodata, or without it NaN for floats, the\n"    \
  "    maximum for unsigned and the minimum for signed integer dtypes.\n"                              \
  "out : ndarray, optional\n"                                                                            \
  "    C-contiguous, writeable destination of the result's dtype and shape, written in place and\n"     \
  "    returned; it must not overlap an input (unless noted below).\n"                                  \
  "progress : callable, optional\n"                                                                      \
  "    progress(fraction, text), called with the GIL held; its exception is raised at the end.\n"       \
  "\nInputs are used in place when C-contiguous, else copied once. The GIL is released while the\n"  \
  "filter runs. A failure the library reports raises ValueError with its message.\n"

void RegisterExceptionTranslator();
void BindFillHole(py::module_& oModule);
void BindStatistics(py::module_& oModule);
void BindShapeFilters(py::module_& oModule);
void BindSignalFilters(py::module_& oModule);
void BindPixelFilters(py::module_& oModule);
void BindStackFilters(py::module_& oModule);

}} // namespace Orl::Python
