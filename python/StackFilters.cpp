// The filters of band stacks: mask merge, medoid, index selection, regression. A stack is an array
// with the bands along its first axis; a C-contiguous one is used in place, each band a slice of it.
#include "Bindings.h"

#include "Filter/IndexSelectorFilter.h"
#include "Filter/MaskMergeFilter.h"
#include "Filter/MedoidFilter.h"
#include "Filter/MultiIndexSelectorFilter.h"
#include "Filter/MultiRegressionPredictor.h"
#include "Filter/MultinomialRegressionStratifier.h"

#include <boost/numeric/ublas/matrix.hpp>
#include <boost/numeric/ublas/vector.hpp>

namespace Orl { namespace Python {

namespace {

namespace Filter = Ostrel::Filter;

// The shape of one band of a stack: its last two axes.
std::vector<py::ssize_t> BandShape(const py::array& oStack)
{
  const auto vecShape = ShapeOf(oStack);
  return {vecShape[vecShape.size() - 2], vecShape.back()};
}

py::array MaskMerge(const py::handle& oMasks, const py::object& oWeights, const py::object& oNoData,
                    const py::object& oOut, const py::object& oProgress)
{
  Filter::CMaskMergeFilter oFilter;
  if (!oWeights.is_none())
    oFilter.SetWeights(CastArgument<std::vector<double>>(oWeights, "weights", "a sequence of numbers"));
  return DispatchArray(oMasks, "masks", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    auto oMaskArray = ContiguousArray<T>(oMasks, "masks", 3);
    auto oOutArray = OutputArray<T>(oOut, BandShape(oMaskArray), {oMaskArray});
    auto vecMasks = StackBands(oMaskArray);
    auto oDest = ArrayBand(oOutArray);
    if (!oNoData.is_none()) // the marker; without it 0, also for float masks (NaN would set them all)
    {
      SetNoData(oNoData, vecMasks);
      SetNoData<T>(oNoData, oDest);
    }
    RunFilter(oFilter, oProgress, [&](const auto& oRun) { oRun.Apply(oDest, vecMasks); });
    return std::move(oOutArray);
  });
}

py::array Medoid(const py::handle& oStack, const py::object& oNoData, const py::object& oOut,
                 const py::object& oProgress)
{
  return DispatchArray(oStack, "stack", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    const auto oArray = py::array::ensure(oStack);
    const bool bVector = oArray.ndim() == 4;
    auto oStackArray = ContiguousArray<T>(oArray, "stack", bVector ? 4 : 3);
    auto vecShape = ShapeOf(oStackArray);
    vecShape.erase(vecShape.begin());
    auto oOutArray = OutputArray<T>(oOut, vecShape, {oStackArray});
    auto vecMembers = StackBands(oStackArray);
    auto vecDest = bVector ? StackBands(oOutArray) : std::vector<TMemBand<T>>{ArrayBand(oOutArray)};
    SetNoData(oNoData, vecMembers);
    SetNoData(oNoData, vecDest);
    RunFilter(Filter::CMedoidFilter(), oProgress, [&](const auto& oFilter) {
      if (bVector)
        oFilter.Apply(vecDest, vecMembers);
      else
        oFilter.Apply(vecDest[0], vecMembers);
    });
    return std::move(oOutArray);
  });
}

py::array SelectIndex(const py::handle& oIndex, const py::handle& oStack, const py::object& oNoData,
                      const py::object& oOut, const py::object& oProgress)
{
  return DispatchArray<STypeList<unsigned char, unsigned short>>(oIndex, "index", [&](auto tIndex) {
    using TIndex = decltype(tIndex);
    return DispatchArray(oStack, "stack", [&](auto tPixel) -> py::array {
      using T = decltype(tPixel);
      const auto oIndexObject = py::array::ensure(oIndex);
      const bool bMulti = oIndexObject.ndim() == 3;
      auto oIndexArray = ContiguousArray<TIndex>(oIndexObject, "index", bMulti ? 3 : 2);
      auto oStackArray = ContiguousArray<T>(oStack, "stack", 3);
      auto oOutArray = OutputArray<T>(oOut, ShapeOf(oIndexArray), {oIndexArray, oStackArray});
      auto vecStack = StackBands(oStackArray);
      auto vecIndices = bMulti ? StackBands(oIndexArray) : std::vector<TMemBand<TIndex>>{ArrayBand(oIndexArray)};
      auto vecDest = bMulti ? StackBands(oOutArray) : std::vector<TMemBand<T>>{ArrayBand(oOutArray)};
      SetNoData(oNoData, vecStack);
      SetNoData(oNoData, vecDest);
      if (bMulti)
        RunFilter(Filter::CMultiIndexSelectorFilter(), oProgress,
                  [&](const auto& oFilter) { oFilter.Apply(vecDest, vecIndices, vecStack); });
      else
        RunFilter(Filter::CIndexSelectorFilter(), oProgress,
                  [&](const auto& oFilter) { oFilter.Apply(vecDest[0], vecIndices[0], vecStack); });
      return std::move(oOutArray);
    });
  });
}

py::array Predict(const py::handle& oStack, const std::vector<double>& vecCoefficients, const py::object& oTarget,
                  const py::object& oBounds, const py::object& oNoData, const py::object& oOut,
                  const py::object& oProgress)
{
  boost::numeric::ublas::vector<double> vecModel(vecCoefficients.size());
  std::copy(vecCoefficients.begin(), vecCoefficients.end(), vecModel.begin());
  const unsigned nTarget = oTarget.is_none() ? ~0u : CastArgument<unsigned>(oTarget, "target", "a band number");
  const auto oRange = oBounds.is_none() ? std::pair<double, double>(1.0, 0.0)
                                        : CastArgument<std::pair<double, double>>(oBounds, "bounds", "(low, high)");
  if (!oBounds.is_none() && !(oRange.first <= oRange.second))
    throw py::value_error("bounds: expected (low, high) with low <= high");
  const Filter::CMultiRegressionPredictor oFilter(vecModel, nTarget, oRange.first, oRange.second);
  return DispatchArray(oStack, "stack", [&](auto tPixel) -> py::array {
    using T = decltype(tPixel);
    auto oStackArray = ContiguousArray<T>(oStack, "stack", 3);
    auto oOutArray = OutputArray<T>(oOut, BandShape(oStackArray), {oStackArray});
    auto vecBands = StackBands(oStackArray);
    auto oDest = ArrayBand(oOutArray);
    SetNoData(oNoData, vecBands);
    SetNoData<T>(oNoData, oDest);
    RunFilter(oFilter, oProgress, [&](const auto& oRun) { oRun.Apply(oDest, vecBands); });
    return std::move(oOutArray);
  });
}

py::array Stratify(const py::handle& oStack, const py::handle& oCoefficients, const py::object& oClasses,
                   const py::object& oDtype, const py::object& oNoData, const py::object& oOut,
                   const py::object& oProgress)
{
  const auto oModel = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(oCoefficients);
  if (!oModel || oModel.ndim() != 2)
    throw py::value_error("coefficients: expected a 2-D array (classes, bands + 1)");
  boost::numeric::ublas::matrix<double> matModel(std::size_t(oModel.shape(0)), std::size_t(oModel.shape(1)));
  std::copy(oModel.data(), oModel.data() + oModel.size(), matModel.data().begin());
  const auto vecClasses = oClasses.is_none() ? std::vector<unsigned>() : CastArgument<std::vector<unsigned>>(oClasses, "classes", "a sequence of non-negative integers");
  const Filter::CMultinomialRegressionStratifier oFilter(matModel, vecClasses);
  return DispatchPixelType<STypeList<unsigned char, unsigned short>>(
    py::dtype::from_args(oDtype), "dtype", [&](auto tClass) {
      using TClass = decltype(tClass);
      return DispatchArray(oStack, "stack", [&](auto tPixel) -> py::array {
        using T = decltype(tPixel);
        auto oStackArray = ContiguousArray<T>(oStack, "stack", 3);
        auto oOutArray = OutputArray<TClass>(oOut, BandShape(oStackArray), {oStackArray});
        auto vecBands = StackBands(oStackArray);
        auto oDest = ArrayBand(oOutArray);
        SetNoData(oNoData, vecBands);
        RunFilter(oFilter, oProgress, [&](const auto& oRun) { oRun.Apply(oDest, vecBands); });
        return std::move(oOutArray);
      });
    });
}

} // namespace

void BindStackFilters(py::module_& oModule)
{
  oModule.def("mask_merge", &MaskMerge, py::arg("masks"), py::arg("weights") = py::none(),
              ORL_PY_NODATA_OUT_PROGRESS,
              "Merge masks by a weighted majority vote.\n\n"
              "Parameters\n----------\n"
              "masks : array_like, (n, rows, columns), any of the seven dtypes\n"
              "    A mask is set where it differs from its marker (nodata, else 0).\n"
              "weights : sequence of n floats, optional\n    One per mask; all 1 by default." ORL_PY_COMMON_DOC
              "\nReturns\n-------\nndarray, (rows, columns)\n"
              "    1 where twice the weight of the set masks reaches the total weight (ties set), else the\n"
              "    marker.\n");

  oModule.def("medoid", &Medoid, py::arg("stack"), ORL_PY_NODATA_OUT_PROGRESS,
              "Per pixel, the medoid of a stack: the member nearest to all others (time-series compositing).\n\n"
              "Parameters\n----------\n"
              "stack : array_like, (members, rows, columns) or (members, bands, rows, columns)\n"
              "    3-D: scalar members, distance |x - y|, the medoid is a median member. 4-D: vector members,\n"
              "    Euclidean distance. A member with no-data or NaN in any band does not take part; the\n"
              "    first in stack order wins a tie." ORL_PY_COMMON_DOC
              "\nReturns\n-------\nndarray, (rows, columns) or (bands, rows, columns)\n");

  oModule.def("select_index", &SelectIndex, py::arg("index"), py::arg("stack"), ORL_PY_NODATA_OUT_PROGRESS,
              "Per pixel, the pixel of the stack band that index names: stack[index[y, x], y, x].\n\n"
              "Parameters\n----------\n"
              "index : array_like, uint8 or uint16, (rows, columns) or (k, rows, columns)\n"
              "    With k index bands, k selections. An index beyond the stack gives no-data.\n"
              "stack : array_like, (n, rows, columns), any of the seven dtypes" ORL_PY_COMMON_DOC
              "nodata is the stack's and the result's.\n");

  oModule.def("predict_regression", &Predict, py::arg("stack"), py::arg("coefficients"),
              py::arg("target") = py::none(), py::arg("bounds") = py::none(), ORL_PY_NODATA_OUT_PROGRESS,
              "Per pixel, the linear prediction c[n] + sum c[b] * stack[b], computed in float64.\n\n"
              "Parameters\n----------\n"
              "stack : array_like, (n, rows, columns), any of the seven dtypes\n"
              "coefficients : sequence of n + 1 floats\n    The last is the intercept.\n"
              "target : int, optional\n"
              "    Gap filling: where stack[target] is valid the result is that pixel, elsewhere the\n"
              "    prediction from the other bands. None predicts every pixel from all bands.\n"
              "bounds : (low, high), optional\n    Limits of the prediction." ORL_PY_COMMON_DOC
              "\nRounded half away from zero and saturated for integer dtypes.\n");

  oModule.def("stratify", &Stratify, py::arg("stack"), py::arg("coefficients"), py::arg("classes") = py::none(),
              py::arg("dtype") = py::dtype::of<unsigned char>(), ORL_PY_NODATA_OUT_PROGRESS,
              "Per pixel, the class of the highest linear score (a multinomial regression's argmax).\n\n"
              "Parameters\n----------\n"
              "stack : array_like, (n, rows, columns), any of the seven dtypes\n"
              "coefficients : array_like, (k, n + 1)\n"
              "    Row j scores class j: sum M[j, b] * stack[b] + M[j, n]; the first row wins a tie.\n"
              "classes : sequence of k ints, optional\n    The value written for each row; the row number by default.\n"
              "dtype : uint8 (default) or uint16\n    The result's dtype; classes saturate to it." ORL_PY_COMMON_DOC
              "nodata is the stack's.\n");
}

}} // namespace Orl::Python
