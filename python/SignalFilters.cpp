// Fourier transforms and colour conversion: filters whose bands come in twos and threes.
//
// numpy holds a complex array interleaved, the library a spectrum as separate real and imaginary
// bands, so fft and ifft pay one pass that interleaves or splits; the transform itself writes into
// arrays it owns. The spectrum is laid out as numpy.fft.fft2 lays it out (row v, column u), so
// numpy's own tools (fftshift, ifft2) apply to it.
#include "Bindings.h"

#include "Filter/ColorConversionFilter.h"
#include "Filter/FftFilter.h"

#include <pybind11/complex.h>

#include <complex>

namespace Orl { namespace Python {

namespace {

namespace Filter = Ostrel::Filter;
using TFloats = STypeList<float, double>;

py::array Fft(const py::handle& oA, const py::object& oNoData, const py::object& oProgress)
{
  return DispatchArray<TFloats>(oA, "a", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    auto oSrcArray = ContiguousArray<T>(oA, "a");
    const std::vector<py::ssize_t> vecShape{py::ssize_t(Filter::Detail::FftSize(unsigned(oSrcArray.shape(0)))),
                                            py::ssize_t(Filter::Detail::FftSize(unsigned(oSrcArray.shape(1))))};
    py::array_t<T> oRealArray(vecShape), oImagArray(vecShape);
    py::array_t<std::complex<T>> oResult(vecShape);
    auto oSrc = ArrayBand(oSrcArray), oReal = ArrayBand(oRealArray), oImag = ArrayBand(oImagArray);
    SetNoData<T>(oNoData, oSrc);
    const T* pReal = oRealArray.data();
    const T* pImag = oImagArray.data();
    std::complex<T>* pResult = oResult.mutable_data();
    const py::ssize_t nSize = oResult.size();
    RunFilter(Filter::CFftForwardFilter(), oProgress, [&](const auto& oFilter) {
      oFilter.Apply(oReal, oImag, oSrc);
      for (py::ssize_t i = 0; i < nSize; ++i)
        pResult[i] = std::complex<T>(pReal[i], pImag[i]);
    });
    return std::move(oResult);
  });
}

template <class T>
py::array InverseFft(const py::handle& oSpectrum, const py::object& oShape, const py::object& oOut,
                     const py::object& oProgress)
{
  auto oSpectrumArray = ContiguousArray<std::complex<T>>(oSpectrum, "spectrum");
  const auto vecPadded = ShapeOf(oSpectrumArray);
  const auto vecShape = oShape.is_none() ? vecPadded : CastArgument<std::vector<py::ssize_t>>(oShape, "shape", "(rows, columns)");
  if (vecShape.size() != 2 || vecShape[0] < 1 || vecShape[1] < 1 || vecShape[0] > vecPadded[0] ||
      vecShape[1] > vecPadded[1])
    throw py::value_error("shape: expected (rows, columns), at least 1 and at most the spectrum's");
  auto oOutArray = OutputArray<T>(oOut, vecShape, {oSpectrumArray});
  py::array_t<T> oRealArray(vecPadded), oImagArray(vecPadded);
  auto oDest = ArrayBand(oOutArray), oReal = ArrayBand(oRealArray), oImag = ArrayBand(oImagArray);
  const std::complex<T>* pSpectrum = oSpectrumArray.data();
  T* pReal = oRealArray.mutable_data();
  T* pImag = oImagArray.mutable_data();
  const py::ssize_t nSize = oSpectrumArray.size();
  RunFilter(Filter::CFftReverseFilter(), oProgress, [&](const auto& oFilter) {
    for (py::ssize_t i = 0; i < nSize; ++i)
    {
      pReal[i] = pSpectrum[i].real();
      pImag[i] = pSpectrum[i].imag();
    }
    oFilter.Apply(oDest, oReal, oImag);
  });
  return std::move(oOutArray);
}

py::array Ifft(const py::handle& oSpectrum, const py::object& oShape, const py::object& oOut,
               const py::object& oProgress)
{
  const auto oArray = py::array::ensure(oSpectrum);
  if (!oArray)
    throw py::type_error("spectrum: not an array");
  if (oArray.dtype().equal(py::dtype::of<std::complex<float>>()))
    return InverseFft<float>(oArray, oShape, oOut, oProgress);
  if (oArray.dtype().equal(py::dtype::of<std::complex<double>>()))
    return InverseFft<double>(oArray, oShape, oOut, oProgress);
  throw py::type_error("spectrum: dtype " + DtypeName(oArray.dtype()) + " is not one of complex64, complex128");
}

py::array ConvertColor(const py::handle& oA, const std::string& strConversion, const py::object& oNoData,
                       const py::object& oOut, const py::object& oProgress)
{
  const auto eConversion = ParseChoice<Filter::EColorConversion>(
    strConversion, "conversion",
    {{"rgb_to_hsv", Filter::eRgbToHsv}, {"hsv_to_rgb", Filter::eHsvToRgb}, {"rgb_to_hsl", Filter::eRgbToHsl},
     {"hsl_to_rgb", Filter::eHslToRgb}, {"rgb_to_ycbcr", Filter::eRgbToYCbCr}, {"ycbcr_to_rgb", Filter::eYCbCrToRgb},
     {"rgb_to_lab", Filter::eRgbToLab}, {"lab_to_rgb", Filter::eLabToRgb}, {"rgb_to_gray", Filter::eRgbToGray}});
  return DispatchArray<STypeList<unsigned char, float>>(oA, "a", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    auto oSrcArray = ContiguousArray<T>(oA, "a", 3);
    auto vecShape = ShapeOf(oSrcArray);
    if (vecShape[0] != 3)
      throw py::value_error("a: expected 3 bands along the first axis, got " + std::to_string(vecShape[0]));
    const bool bGray = eConversion == Filter::eRgbToGray;
    if (bGray)
      vecShape.erase(vecShape.begin());
    auto oOutArray = OutputArray<T>(oOut, vecShape, {oSrcArray}, !bGray);
    auto vecSrc = StackBands(oSrcArray);
    auto vecDest = bGray ? std::vector<TMemBand<T>>{ArrayBand(oOutArray)} : StackBands(oOutArray);
    SetNoData(oNoData, vecSrc);
    SetNoData(oNoData, vecDest);
    RunFilter(Filter::CColorConversionFilter(eConversion), oProgress, [&](const auto& oFilter) {
      if (bGray)
        oFilter.Apply(vecDest[0], vecSrc[0], vecSrc[1], vecSrc[2]);
      else
        oFilter.Apply(vecDest[0], vecDest[1], vecDest[2], vecSrc[0], vecSrc[1], vecSrc[2]);
    });
    return std::move(oOutArray);
  });
}

} // namespace

void BindSignalFilters(py::module_& oModule)
{
  oModule.def("fft", &Fft, py::arg("a"), py::arg("nodata") = py::none(), py::arg("progress") = py::none(),
              "2-D discrete Fourier transform of a real raster, zero-padded to powers of two.\n\n"
              "Parameters\n----------\n"
              "a : array_like, 2-D, float32 or float64\n"
              "nodata : scalar, optional\n"
              "    No-data pixels (and NaN) count as 0.\n"
              "progress : callable, optional\n    As for the other functions.\n\n"
              "Returns\n-------\n"
              "ndarray, complex64 (complex128 for float64)\n"
              "    Shape (next power of two of rows, of columns); element [v, u] is\n"
              "    sum s[y, x] exp(-2 pi i (u x / Nx + v y / Ny)), the layout of numpy.fft.fft2 on the padded\n"
              "    array, unscaled. The library writes real and imaginary parts apart; interleaving them\n"
              "    costs one extra pass. Global: single-machine only.\n");

  oModule.def("ifft", &Ifft, py::arg("spectrum"), py::arg("shape") = py::none(), py::arg("out") = py::none(),
              py::arg("progress") = py::none(),
              "Inverse of fft: the real raster of a spectrum, cropped to shape.\n\n"
              "Parameters\n----------\n"
              "spectrum : array_like, 2-D, complex64 or complex128, each side a power of two\n"
              "    Taken to be the spectrum of a real raster, as fft writes it: only columns 0 to Nx / 2 are\n"
              "    read. Split into real and imaginary arrays once.\n"
              "shape : (rows, columns), optional\n"
              "    The result's shape, no larger than the spectrum's (default: the spectrum's).\n"
              "out : ndarray, optional\n"
              "    float32 (float64 for complex128) destination of that shape.\n"
              "progress : callable, optional\n\n"
              "Returns\n-------\n"
              "ndarray\n    Scaled by 1 / (Nx Ny), so that ifft(fft(a), a.shape) is a within rounding.\n");

  oModule.def("convert_color", &ConvertColor, py::arg("a"), py::arg("conversion"), ORL_PY_NODATA_OUT_PROGRESS,
              "Colour conversion of a 3-band image between RGB and HSV, HSL, YCbCr (BT.601), CIE L*a*b* (D65).\n\n"
              "Parameters\n----------\n"
              "a : array_like, (3, rows, columns), uint8 or float32\n"
              "    The bands along the first axis. float: RGB in [0, 1], H in degrees, S, V, L in [0, 1], Y in\n"
              "    [0, 1], Cb, Cr in [-0.5, 0.5], L* in [0, 100]. uint8: every component scaled to 0..255\n"
              "    (H 255 for 360; Cb, Cr, a*, b* offset by 128; L* * 255 / 100).\n"
              "conversion : {'rgb_to_hsv', 'hsv_to_rgb', 'rgb_to_hsl', 'hsl_to_rgb', 'rgb_to_ycbcr',\n"
              "              'ycbcr_to_rgb', 'rgb_to_lab', 'lab_to_rgb', 'rgb_to_gray'}" ORL_PY_COMMON_DOC
              "out may be a itself (not for rgb_to_gray). A pixel no-data in any band is no-data in all.\n\n"
              "Returns\n-------\nndarray\n    (3, rows, columns); (rows, columns) for 'rgb_to_gray'.\n");
}

}} // namespace Orl::Python
