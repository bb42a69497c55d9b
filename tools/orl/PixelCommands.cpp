// The subcommands of the pixelwise filters: mask, calc, convert, color, medoid, select and
// merge-masks.

#include "Commands.h"

#include "Filter/ArithmeticBinaryFilter.h"
#include "Filter/ArithmeticUnaryFilter.h"
#include "Filter/ColorConversionFilter.h"
#include "Filter/CopyFilter.h"
#include "Filter/IndexSelectorFilter.h"
#include "Filter/MaskFilter.h"
#include "Filter/MaskMergeFilter.h"
#include "Filter/MedoidFilter.h"

#include <map>

namespace Orl { namespace Tools {

namespace {

using namespace Ostrel::Filter;

// The colour filter's pixel types: bytes as they are, everything else as float.
template <class TPixel>
struct SColorPixel
{
  using type = std::conditional_t<std::is_same<TPixel, unsigned char>::value, unsigned char, float>;
};

struct SMaskOptions
{
  SBandsArgs m_oArgs;
  std::pair<double, double> m_oRange;
  CLI::Option* m_pRange = nullptr;
};

// calc's operations: unary ones take one band, binary ones two bands or a band and --constant.
struct SCalcOperation
{
  bool m_bBinary;
  int m_nOperation; // EArithmeticUnaryOperation or EArithmeticBinaryOperation
};

const std::map<std::string, SCalcOperation> g_mapCalc = {
  {"neg", {false, eNegate}},   {"abs", {false, eAbsolute}},  {"sqrt", {false, eSquareRoot}},
  {"log", {false, eLogarithm}}, {"exp", {false, eExponential}}, {"scale", {false, eScaleOffset}},
  {"clamp", {false, eClamp}},   {"add", {true, eAdd}},        {"sub", {true, eSubtract}},
  {"mul", {true, eMultiply}},   {"div", {true, eDivide}},     {"pow", {true, ePower}},
  {"min", {true, eMinimum}},    {"max", {true, eMaximum}}};

struct SCalcOptions
{
  SBandsArgs m_oArgs;
  std::string m_strOperation;
  double m_dFactor = 1.0, m_dOffset = 0.0, m_dMin = 0.0, m_dMax = 0.0;
  CLI::Option* m_pConstant = nullptr;
  double m_dConstant = 0.0;
};

struct SConvertOptions
{
  SBandsArgs m_oArgs;
  std::string m_strType;
};

struct SColorOptions
{
  SBandsArgs m_oArgs;
  EColorConversion m_eConversion = eRgbToHsv;
};

struct SStackOptions
{
  SBandsArgs m_oArgs;
  std::string m_strIndex;
  std::vector<double> m_vecWeights;
};

template <class TOptions>
std::shared_ptr<TOptions> MakeOptions(CLI::App& oApp, const char* szInputs, std::size_t nMinPaths, std::size_t nMaxPaths)
{
  auto pOptions = std::make_shared<TOptions>();
  AddBandsArgs(oApp, pOptions->m_oArgs, szInputs, nMinPaths, nMaxPaths);
  return pOptions;
}

// A stack: all input bands, at least one.
SFilterShape StackShape()
{
  SFilterShape oShape;
  oShape.m_nInputs = 0;
  return oShape;
}

} // namespace

TRunner DefineMask(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SMaskOptions>(oApp, "IN MASK", 3, 3);
  pOptions->m_pRange = oApp.add_option("--range", pOptions->m_oRange, "Blank the pixels whose mask pixel is outside [LO, HI]")
                         ->type_name("LO HI");
  oApp.footer("Without --range the mask blanks where it equals its no-data value (0 without one). The mask is read "
              "as the input's pixel type.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    const bool bRange = pOptions->m_pRange->count() > 0;
    const auto oRange = pOptions->m_oRange;
    if (bRange && !(oRange.first <= oRange.second))
      throw CToolError(Text("--range: LO must not be above HI"), 2);
    SFilterShape oShape;
    oShape.m_nInputs = 2;
    RunFilter("mask", pOptions->m_oArgs, oShape, oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      if (bRange)
        ApplyWith(CMaskFilter(), oRun, vecDest[0], vecSrc[0], vecSrc[1], oRange.first, oRange.second);
      else
        ApplyWith(CMaskFilter(), oRun, vecDest[0], vecSrc[0], vecSrc[1]);
    });
  };
}

TRunner DefineCalc(CLI::App& oApp)
{
  auto pOptions = std::make_shared<SCalcOptions>();
  oApp.add_option("OP", pOptions->m_strOperation,
                  "The operation: neg, abs, sqrt, log, exp, scale and clamp on A; add, sub, mul, div, pow, min and max "
                  "on A and B, or on A and --constant")
    ->required()
    ->check(CLI::IsMember(g_mapCalc));
  AddBandsArgs(oApp, pOptions->m_oArgs, "A [B]", 2, 3);
  oApp.add_option("--factor", pOptions->m_dFactor, "scale: the factor a of a * x + b")->capture_default_str();
  oApp.add_option("--offset", pOptions->m_dOffset, "scale: the offset b of a * x + b")->capture_default_str();
  oApp.add_option("--min", pOptions->m_dMin, "clamp: the lower end");
  oApp.add_option("--max", pOptions->m_dMax, "clamp: the upper end");
  pOptions->m_pConstant = oApp.add_option("--constant", pOptions->m_dConstant, "Binary operations: B as a constant");
  oApp.footer("Results in the pixel type of A (B is read as that type), rounded and saturated; no-data in gives "
              "no-data out, as do division by 0 and logarithms and roots of negative numbers.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    const SCalcOptions& oOptions = *pOptions;
    const SCalcOperation oOperation = g_mapCalc.at(oOptions.m_strOperation);
    const bool bConstant = oOptions.m_pConstant->count() > 0;
    if (bConstant && !oOperation.m_bBinary)
      throw CToolError(Text("--constant goes with the binary operations"), 2);
    SFilterShape oShape;
    oShape.m_nInputs = oOperation.m_bBinary && !bConstant ? 2 : 1;
    RunFilter("calc " + oOptions.m_strOperation, oOptions.m_oArgs, oShape, oGlobal,
              [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      if (!oOperation.m_bBinary)
      {
        const auto eOperation = EArithmeticUnaryOperation(oOperation.m_nOperation);
        const bool bClamp = eOperation == eClamp;
        ApplyWith(CArithmeticUnaryFilter(eOperation, bClamp ? oOptions.m_dMin : oOptions.m_dFactor,
                                         bClamp ? oOptions.m_dMax : oOptions.m_dOffset),
                  oRun, vecDest[0], vecSrc[0]);
      }
      else if (bConstant)
        ApplyWith(CArithmeticBinaryFilter(EArithmeticBinaryOperation(oOperation.m_nOperation), oOptions.m_dConstant),
                  oRun, vecDest[0], vecSrc[0]);
      else
        ApplyWith(CArithmeticBinaryFilter(EArithmeticBinaryOperation(oOperation.m_nOperation)), oRun, vecDest[0],
                  vecSrc[0], vecSrc[1]);
    });
  };
}

TRunner DefineConvert(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SConvertOptions>(oApp, "IN", 2, 2);
  oApp.add_option("--ot", pOptions->m_strType, "Output pixel type (also -ot): Byte, UInt16, Int16, UInt32, Int32, "
                                               "Float32 or Float64")
    ->required()
    ->check(CLI::IsMember({"Byte", "UInt16", "Int16", "UInt32", "Int32", "Float32", "Float64"}, CLI::ignore_case));
  oApp.footer("To integer types rounded to nearest and saturated; no-data and NaN become the output type's no-data "
              "value.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    DispatchPixelType(GDALGetDataTypeByName(pOptions->m_strType.c_str()), [&](auto tDest) {
      RunBandFilter<SSamePixel, SAs<decltype(tDest)>::template SOf>(
        "convert", pOptions->m_oArgs, oGlobal,
        [&](auto& oDest, const auto& oSrc, const SFilterRun& oRun) { ApplyWith(CCopyFilter(), oRun, oDest, oSrc); });
    });
  };
}

TRunner DefineColor(CLI::App& oApp)
{
  auto pOptions = std::make_shared<SColorOptions>();
  oApp.add_option("CONVERSION", pOptions->m_eConversion,
                  "rgb2hsv, hsv2rgb, rgb2hsl, hsl2rgb, rgb2ycbcr, ycbcr2rgb, rgb2lab, lab2rgb or rgb2gray")
    ->required()
    ->transform(CLI::CheckedTransformer(
      std::map<std::string, EColorConversion>{{"rgb2hsv", eRgbToHsv}, {"hsv2rgb", eHsvToRgb}, {"rgb2hsl", eRgbToHsl},
                                              {"hsl2rgb", eHslToRgb}, {"rgb2ycbcr", eRgbToYCbCr}, {"ycbcr2rgb", eYCbCrToRgb},
                                              {"rgb2lab", eRgbToLab}, {"lab2rgb", eLabToRgb}, {"rgb2gray", eRgbToGray}},
      CLI::ignore_case));
  AddBandsArgs(oApp, pOptions->m_oArgs, "IN", 2, 4);
  oApp.footer("Three bands in: bands 1 to 3 of IN, -b with three bands of it, or three files. Three bands out (one "
              "for rgb2gray). Byte as Byte (0 to 255), every other type as Float32 (RGB in [0, 1]).\n" +
              oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    SFilterShape oShape;
    oShape.m_nInputs = 3;
    const EColorConversion eConversion = pOptions->m_eConversion;
    oShape.m_nOutputs = eConversion == eRgbToGray ? 1 : 3;
    RunFilter<SColorPixel>("color", pOptions->m_oArgs, oShape, oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      if (eConversion == eRgbToGray)
        ApplyWith(CColorConversionFilter(eConversion), oRun, vecDest[0], vecSrc[0], vecSrc[1], vecSrc[2]);
      else
        ApplyWith(CColorConversionFilter(eConversion), oRun, vecDest[0], vecDest[1], vecDest[2], vecSrc[0], vecSrc[1],
                  vecSrc[2]);
    });
  };
}

TRunner DefineMedoid(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SStackOptions>(oApp, "IN...", 2, 0);
  oApp.footer("The stack: all bands of one IN, -b with bands of it, or band -b (1) of several files; all read as "
              "the first one's pixel type.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    RunFilter("medoid", pOptions->m_oArgs, StackShape(), oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      ApplyWith(CMedoidFilter(), oRun, vecDest[0], vecSrc);
    });
  };
}

TRunner DefineSelect(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SStackOptions>(oApp, "IN...", 2, 0);
  oApp.add_option("--index", pOptions->m_strIndex, "A raster whose first band names, per pixel, the stack band "
                                                   "to take (from 0), read as UInt16")
    ->required();
  oApp.footer("The stack as for medoid.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    RunFilter("select", pOptions->m_oArgs, StackShape(), oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      using TTag = typename std::decay_t<decltype(vecSrc[0])>::TTagType;
      const CInput oIndex(pOptions->m_strIndex, 1);
      if (oIndex.m_nWidth != oRun.m_oInput.m_nWidth || oIndex.m_nHeight != oRun.m_oInput.m_nHeight)
        throw CToolError(Text("%1% is %2% x %3% pixels, %4% %5% x %6%", oIndex.m_strPath, oIndex.m_nWidth,
                              oIndex.m_nHeight, oRun.m_oInput.m_strPath, oRun.m_oInput.m_nWidth, oRun.m_oInput.m_nHeight));
      if (oIndex.m_eType != GDT_Byte)
        NoteConversion(oIndex, GDT_UInt16, "select");
      std::uint64_t nInvalid = 0;
      const auto oIndexBand = ReadInput<unsigned short, TTag>(oIndex, oRun.m_pLogger, nInvalid);
      CIndexSelectorFilter oFilter;
      oFilter.SetLogger(oRun.m_pLogger);
      oFilter.Apply(vecDest[0], oIndexBand, vecSrc);
    });
  };
}

TRunner DefineMergeMasks(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SStackOptions>(oApp, "MASK...", 2, 0);
  oApp.add_option("--weights", pOptions->m_vecWeights, "One weight per mask, e.g. 2,1,1 (all 1 by default)")
    ->delimiter(',')
    ->allow_extra_args(false);
  oApp.footer("A mask pixel is set where it differs from its no-data value (0 without one); OUT is set (1) where "
              "the set masks carry at least half of the weight. The masks as the stack of medoid.\n" +
              oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    RunFilter("merge-masks", pOptions->m_oArgs, StackShape(), oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      CMaskMergeFilter oFilter;
      oFilter.SetWeights(pOptions->m_vecWeights);
      ApplyWith(oFilter, oRun, vecDest[0], vecSrc);
    });
  };
}

}} // namespace Orl::Tools
