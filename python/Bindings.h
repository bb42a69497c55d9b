#pragma once

// What every function of the Python module shares: bands over numpy arrays, the dispatch from a
// dtype to a pixel type, the progress sink that calls back into Python, and running library work
// with the GIL released.
//
// Adding a filter: write <Filter>.cpp with a `void Bind<Filter>(pybind11::module_&)` that checks its
// arguments, dispatches with DispatchPixelType, builds bands with ArrayBand / OutputArray, and runs
// the filter inside RunReleased; declare it below and call it from Module.cpp.

#include "Band/Band.h"
#include "Foundation/Logger.h"

#include <boost/shared_ptr.hpp>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Orl { namespace Python {

namespace py = pybind11;

template <class TPixel>
using TMemBand = Ostrel::Band::CBand<TPixel, Ostrel::Band::SMemoryTag>;

inline std::string DtypeName(const py::dtype& oDtype)
{
  return py::cast<std::string>(oDtype.attr("name"));
}

// Calls oFunction(TPixel()) for the pixel type of dtype; TypeError for a dtype the library lacks.
template <class TFunction>
decltype(auto) DispatchPixelType(const py::dtype& oDtype, const char* pArgument, TFunction&& oFunction)
{
  if (oDtype.equal(py::dtype::of<unsigned char>()))
    return oFunction((unsigned char)0);
  if (oDtype.equal(py::dtype::of<unsigned short>()))
    return oFunction((unsigned short)0);
  if (oDtype.equal(py::dtype::of<short>()))
    return oFunction(short(0));
  if (oDtype.equal(py::dtype::of<unsigned int>()))
    return oFunction(0u);
  if (oDtype.equal(py::dtype::of<int>()))
    return oFunction(0);
  if (oDtype.equal(py::dtype::of<float>()))
    return oFunction(0.0f);
  if (oDtype.equal(py::dtype::of<double>()))
    return oFunction(0.0);
  throw py::type_error(std::string(pArgument) + ": dtype " + DtypeName(oDtype) +
                       " is not one of uint8, uint16, int16, uint32, int32, float32, float64");
}

// A 2-D array of pixel type TPixel, C-contiguous: the caller's own array when it already is one,
// else one copy. TypeError for another dtype, ValueError for another number of dimensions or a
// side beyond 2^32 - 1.
template <class TPixel>
py::array_t<TPixel> ContiguousArray(const py::handle& oObject, const char* pArgument)
{
  const auto oArray = py::array::ensure(oObject);
  if (!oArray)
    throw py::type_error(std::string(pArgument) + ": not an array");
  if (!oArray.dtype().equal(py::dtype::of<TPixel>()))
    throw py::type_error(std::string(pArgument) + ": dtype " + DtypeName(oArray.dtype()) + ", expected " +
                         DtypeName(py::dtype::of<TPixel>()));
  if (oArray.ndim() != 2)
    throw py::value_error(std::string(pArgument) + ": expected a 2-D array, got " + std::to_string(oArray.ndim()) +
                          " dimensions");
  if (oArray.shape(0) > 0xffffffffL || oArray.shape(1) > 0xffffffffL)
    throw py::value_error(std::string(pArgument) + ": a side is longer than 4294967295 pixels");
  return py::array_t<TPixel, py::array::c_style>::ensure(oArray); // a copy only when not C-contiguous
}

// A memory band over the pixels of a C-contiguous array, which the band keeps alive. The reference
// is dropped under the GIL, whichever thread releases the last band.
template <class TPixel>
TMemBand<TPixel> ArrayBand(py::array_t<TPixel>& oArray)
{
  auto* pKeep = new py::object(oArray);
  const boost::shared_ptr<void> pOwner(pKeep, [](void* p) {
    py::gil_scoped_acquire oGil;
    delete static_cast<py::object*>(p);
  });
  auto* pPixels = oArray.writeable() ? oArray.mutable_data() : const_cast<TPixel*>(oArray.data());
  return TMemBand<TPixel>(boost::make_shared<Ostrel::Band::CMemoryBandRep<TPixel>>(
    unsigned(oArray.shape(1)), unsigned(oArray.shape(0)), pPixels, pOwner));
}

// The destination of a filter: out when given (checked for dtype, shape, layout, writability and
// overlap with oSource), else a new array of the source's shape.
template <class TPixel>
py::array_t<TPixel> OutputArray(const py::object& oOut, const py::array_t<TPixel>& oSource)
{
  if (oOut.is_none())
    return py::array_t<TPixel>({oSource.shape(0), oSource.shape(1)});
  if (!py::isinstance<py::array>(oOut))
    throw py::type_error("out: not a numpy array");
  const auto oArray = py::reinterpret_borrow<py::array>(oOut);
  if (!oArray.dtype().equal(py::dtype::of<TPixel>()))
    throw py::type_error("out: dtype " + DtypeName(oArray.dtype()) + ", expected " +
                         DtypeName(py::dtype::of<TPixel>()));
  if (oArray.ndim() != 2 || oArray.shape(0) != oSource.shape(0) || oArray.shape(1) != oSource.shape(1))
    throw py::value_error("out: shape differs from the input's");
  if (!(oArray.flags() & py::array::c_style) || !oArray.writeable())
    throw py::value_error("out: must be C-contiguous and writeable");
  const auto pSharesMemory = py::module_::import("numpy").attr("shares_memory");
  if (pSharesMemory(oArray, oSource).template cast<bool>())
    throw py::value_error("out: must not overlap the input");
  return py::reinterpret_borrow<py::array_t<TPixel>>(oOut);
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

void RegisterExceptionTranslator();
void BindFillHole(py::module_& oModule);
void BindStatistics(py::module_& oModule);

}} // namespace Orl::Python
