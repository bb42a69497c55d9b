// The subcommands of the neighbourhood and whole-band filters: distance, thin, reconstruct,
// equalize, resample, fft and gradient.

#include "Commands.h"

#include "Filter/DistanceTransformFilter.h"
#include "Filter/DistanceTransformMeijsterFilter.h"
#include "Filter/FftFilter.h"
#include "Filter/GradientOrientationFilter.h"
#include "Filter/GrayscaleReconstructionFilter.h"
#include "Filter/HistogramEqualizationFilter.h"
#include "Filter/ResampleFilter.h"
#include "Filter/SkeletonGuoHallA1Filter.h"
#include "Filter/SkeletonGuoHallA2Filter.h"
#include "Filter/SkeletonSimpleFilter.h"
#include "Filter/SkeletonZhangSuenFilter.h"

#include <map>

namespace Orl { namespace Tools {

namespace {

using namespace Ostrel::Filter;

// Float results: double for double pixels, float for all others.
template <class TPixel>
struct SFloating
{
  using type = std::conditional_t<std::is_same<TPixel, double>::value, double, float>;
};

// The pixel types the gradient filter reads: its own for 8- and 16-bit integers and the floating
// types, float for 32-bit integers.
template <class TPixel>
struct SGradientSource
{
  using type = std::conditional_t<sizeof(TPixel) <= 2 || std::is_same<TPixel, double>::value, TPixel, float>;
};

// A subcommand's options, shared: CLI11 writes into them, the runner reads them.
template <class TOptions>
std::shared_ptr<TOptions> MakeOptions(CLI::App& oApp, const char* szInputs = "IN", std::size_t nMinPaths = 2,
                                      std::size_t nMaxPaths = 2)
{
  auto pOptions = std::make_shared<TOptions>();
  AddBandsArgs(oApp, pOptions->m_oArgs, szInputs, nMinPaths, nMaxPaths);
  return pOptions;
}

template <class TEnum>
CLI::Option* AddChoice(CLI::App& oApp, const char* szName, TEnum& eValue, const std::map<std::string, TEnum>& mapChoices,
                       const char* szHelp)
{
  return oApp.add_option(szName, eValue, szHelp)->transform(CLI::CheckedTransformer(mapChoices, CLI::ignore_case));
}

struct SDistanceOptions
{
  SBandsArgs m_oArgs;
  bool m_bChamfer = false;
  EDistanceTransformMode m_eMode = eDistanceTransformEuclidean;
};

struct SThinOptions
{
  SBandsArgs m_oArgs;
  int m_nAlgorithm = 0;
};

struct SPlainOptions
{
  SBandsArgs m_oArgs;
  unsigned int m_nBins = 0;
};

// --factor F or --size W H: the output size for an input of nWidth x nHeight.
struct SSizeOptions
{
  double m_dFactor = 0.0;
  std::pair<unsigned int, unsigned int> m_oSize{0, 0};

  std::pair<unsigned int, unsigned int> Get(unsigned int nWidth, unsigned int nHeight) const
  {
    if (m_oSize.first)
      return m_oSize;
    const auto fnScale = [&](unsigned int n) { return unsigned(std::max(1.0, std::round(n * m_dFactor))); };
    return {fnScale(nWidth), fnScale(nHeight)};
  }
};

struct SResampleOptions
{
  SBandsArgs m_oArgs;
  SSizeOptions m_oSize;
  EResampleKernel m_eKernel = eResampleBilinear;
};

struct SFftOptions
{
  SBandsArgs m_oArgs;
  bool m_bReverse = false;
  SSizeOptions m_oSize;
};

struct SGradientOptions
{
  SBandsArgs m_oArgs;
  unsigned int m_nCell = 1;
  int m_nNoData = 0;
};

// --factor or --size on oApp into oSize.
void AddSizeOptions(CLI::App& oApp, SSizeOptions& oSize)
{
  auto* pFactor = oApp.add_option("--factor", oSize.m_dFactor, "Output size as a multiple of the input's, e.g. 0.5")
                    ->check(CLI::PositiveNumber);
  auto* pSize = oApp.add_option("--size", oSize.m_oSize, "Output width and height in pixels")
                  ->type_name("W H")
                  ->check(CLI::Range(1u, 1u << 30));
  pFactor->excludes(pSize);
}

} // namespace

TRunner DefineDistance(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SDistanceOptions>(oApp);
  oApp.add_option("--method", pOptions->m_bChamfer, "meijster (exact, the default) or chamfer (two passes)")
    ->transform(CLI::CheckedTransformer(std::map<std::string, bool>{{"meijster", false}, {"chamfer", true}}, CLI::ignore_case));
  AddChoice(oApp, "--metric", pOptions->m_eMode,
            {{"euclidean", eDistanceTransformEuclidean}, {"squared", eDistanceTransformSquaredEuclidean},
             {"cityblock", eDistanceTransformCityBlock}, {"chessboard", eDistanceTransformChessboard}},
            "euclidean (the default), squared, cityblock or chessboard");
  oApp.footer("Zero pixels are the background, other valid pixels the foreground. Float32 output (Float64 for "
              "Float64 input).\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    RunBandFilter<SSamePixel, SFloating>("distance", pOptions->m_oArgs, oGlobal, [&](auto& oDest, const auto& oSrc, const SFilterRun& oRun) {
      if (pOptions->m_bChamfer)
        ApplyWith(CDistanceTransformFilter(pOptions->m_eMode), oRun, oDest, oSrc);
      else
        ApplyWith(CDistanceTransformMeijsterFilter(pOptions->m_eMode), oRun, oDest, oSrc);
    });
  };
}

TRunner DefineThin(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SThinOptions>(oApp);
  AddChoice(oApp, "--algorithm", pOptions->m_nAlgorithm,
            {{"zhang-suen", 0}, {"guo-hall-a1", 1}, {"guo-hall-a2", 2}, {"simple", 3}},
            "zhang-suen (the default), guo-hall-a1, guo-hall-a2 or simple");
  return [pOptions](const SGlobalOptions& oGlobal) {
    RunBandFilter("thin", pOptions->m_oArgs, oGlobal, [&](auto& oDest, const auto& oSrc, const SFilterRun& oRun) {
      switch (pOptions->m_nAlgorithm)
      {
      case 0: return ApplyWith(CSkeletonZhangSuenFilter(), oRun, oDest, oSrc);
      case 1: return ApplyWith(CSkeletonGuoHallA1Filter(), oRun, oDest, oSrc);
      case 2: return ApplyWith(CSkeletonGuoHallA2Filter(), oRun, oDest, oSrc);
      default: return ApplyWith(CSkeletonSimpleFilter(), oRun, oDest, oSrc);
      }
    });
  };
}

TRunner DefineReconstruct(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SPlainOptions>(oApp, "MARKER MASK", 2, 3);
  oApp.footer("MARKER and MASK: two files, or the bands -b M,K of one file. The mask is read as the marker's "
              "pixel type.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    SFilterShape oShape;
    oShape.m_nInputs = 2;
    RunFilter("reconstruct", pOptions->m_oArgs, oShape, oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      ApplyWith(CGrayscaleReconstructionFilter(), oRun, vecDest[0], vecSrc[0], vecSrc[1]);
    });
  };
}

TRunner DefineEqualize(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SPlainOptions>(oApp);
  oApp.add_option("--bins", pOptions->m_nBins, "Histogram bins (the band's default without this option)")
    ->check(CLI::Range(1u, 1u << 20));
  return [pOptions](const SGlobalOptions& oGlobal) {
    RunBandFilter("equalize", pOptions->m_oArgs, oGlobal, [&](auto& oDest, auto& oSrc, const SFilterRun& oRun) {
      if (pOptions->m_nBins)
        oSrc.SetHistogramBins(pOptions->m_nBins);
      ApplyWith(CHistogramEqualizationFilter(), oRun, oDest, oSrc);
    });
  };
}

TRunner DefineResample(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SResampleOptions>(oApp);
  AddSizeOptions(oApp, pOptions->m_oSize);
  AddChoice(oApp, "--method", pOptions->m_eKernel,
            {{"nearest", eResampleNearest}, {"bilinear", eResampleBilinear}, {"cubic", eResampleCubic},
             {"lanczos3", eResampleLanczos3}, {"average", eResampleAverage}},
            "nearest, bilinear (the default), cubic, lanczos3 or average");
  return [pOptions](const SGlobalOptions& oGlobal) {
    if (!pOptions->m_oSize.m_dFactor && !pOptions->m_oSize.m_oSize.first)
      throw CToolError(Text("resample needs --factor or --size"), 2);
    SFilterShape oShape;
    oShape.m_fnSize = [pOptions](unsigned int nWidth, unsigned int nHeight) { return pOptions->m_oSize.Get(nWidth, nHeight); };
    RunFilter("resample", pOptions->m_oArgs, oShape, oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      ApplyWith(CResampleFilter(pOptions->m_eKernel), oRun, vecDest[0], vecSrc[0]);
    });
  };
}

TRunner DefineFft(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SFftOptions>(oApp, "IN", 2, 3);
  oApp.add_flag("--reverse", pOptions->m_bReverse, "The reverse transform of a real and an imaginary band");
  AddSizeOptions(oApp, pOptions->m_oSize);
  oApp.footer("Forward: one band in; out a Float32 (Float64 for Float64 input) raster of two bands, the real and "
              "the imaginary part, each axis padded to a power of two, without georeferencing. Reverse: bands 1 "
              "and 2 of IN (or -b R,I, or two files) in; out one band of the padded size, or --size W H (the "
              "forward input's size) or --factor.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    SFilterShape oShape;
    oShape.m_bGeoreferenced = pOptions->m_bReverse;
    if (pOptions->m_bReverse)
    {
      oShape.m_nInputs = 2;
      if (pOptions->m_oSize.m_dFactor || pOptions->m_oSize.m_oSize.first)
        oShape.m_fnSize = [pOptions](unsigned int nWidth, unsigned int nHeight) { return pOptions->m_oSize.Get(nWidth, nHeight); };
      RunFilter<SFloating>("fft", pOptions->m_oArgs, oShape, oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
        ApplyWith(CFftReverseFilter(), oRun, vecDest[0], vecSrc[0], vecSrc[1]);
      });
      return;
    }
    if (pOptions->m_oSize.m_dFactor || pOptions->m_oSize.m_oSize.first)
      throw CToolError(Text("--size and --factor go with --reverse"), 2);
    oShape.m_nOutputs = 2;
    oShape.m_vecBandNames = {"real", "imaginary"};
    oShape.m_fnSize = [](unsigned int nWidth, unsigned int nHeight) {
      return std::make_pair(CFftForwardFilter::GetFftSize(nWidth), CFftForwardFilter::GetFftSize(nHeight));
    };
    RunFilter<SFloating>("fft", pOptions->m_oArgs, oShape, oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      ApplyWith(CFftForwardFilter(), oRun, vecDest[0], vecDest[1], vecSrc[0]);
    });
  };
}

TRunner DefineGradient(CLI::App& oApp)
{
  auto pOptions = MakeOptions<SGradientOptions>(oApp);
  oApp.add_option("--cell", pOptions->m_nCell, "Output pixels average cells of N x N input pixels")
    ->check(CLI::Range(1u, 1u << 16))
    ->capture_default_str();
  AddChoice(oApp, "--no-data", pOptions->m_nNoData, {{"invalidate", 0}, {"skip", 1}, {"ignore", 2}},
            "invalidate (the default: no gradient next to no-data), skip (no-data neighbours take the centre's "
            "value) or ignore (no-data values are plain values)");
  oApp.footer("Float32 radians (Float64 for Float64 input); Int32 and UInt32 input is read as Float32.\n" +
              oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    SFilterShape oShape;
    const unsigned int nCell = pOptions->m_nCell;
    oShape.m_fnSize = [nCell](unsigned int nWidth, unsigned int nHeight) {
      return std::make_pair((nWidth + nCell - 1) / nCell, (nHeight + nCell - 1) / nCell);
    };
    RunFilter<SGradientSource, SFloating>("gradient", pOptions->m_oArgs, oShape, oGlobal,
                                         [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      CGradientOrientationFilter oFilter;
      oFilter.SetLogger(oRun.m_pLogger);
      switch (pOptions->m_nNoData)
      {
      case 0: return oFilter.Apply<SInvalidatePolicy>(vecDest[0], vecSrc[0]);
      case 1: return oFilter.Apply<SSkipNonCenterNoDataPolicy>(vecDest[0], vecSrc[0]);
      default: return oFilter.Apply<SIgnoreNoDataPolicy>(vecDest[0], vecSrc[0]);
      }
    });
  };
}

}} // namespace Orl::Tools
