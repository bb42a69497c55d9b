// The orl tool end to end: files made through GDAL, the built executable run on them, its output
// read back and compared with the library's result on the same pixels.
#include "Filter/ArithmeticBinaryFilter.h"
#include "Filter/ArithmeticUnaryFilter.h"
#include "Filter/ColorConversionFilter.h"
#include "Filter/CopyFilter.h"
#include "Filter/DistanceTransformFilter.h"
#include "Filter/DistanceTransformMeijsterFilter.h"
#include "Filter/FftFilter.h"
#include "Filter/GradientOrientationFilter.h"
#include "Filter/GrayscaleReconstructionFilter.h"
#include "Filter/HistogramEqualizationFilter.h"
#include "Filter/IndexSelectorFilter.h"
#include "Filter/LinearFillHoleFilter.h"
#include "Filter/MaskFilter.h"
#include "Filter/MaskMergeFilter.h"
#include "Filter/MedoidFilter.h"
#include "Filter/ResampleFilter.h"
#include "Filter/SkeletonGuoHallA2Filter.h"
#include "Support/PixelTypes.h"
#include "Support/ScratchFiles.h"

#include <boost/property_tree/json_parser.hpp>
#include <gdal.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <sys/wait.h>

namespace {

using namespace Orl::Ostrel;
using Orl::Test::CScratchDirectory;

constexpr unsigned int g_nWidth = 301, g_nHeight = 203; // several GDAL blocks and tiles, none whole
const double g_adTransform[6] = {500000.0, 2.0, 0.0, 4600000.0, 0.0, -2.0};

struct SResult
{
  int m_nStatus;
  std::string m_strErrors;
};

SResult RunOrl(const CScratchDirectory& oDir, const std::string& strArgs)
{
  const std::string strErrors = oDir.GetPath() + "/../orl-test-stderr-" + std::to_string(::getpid());
  const int nRaw = std::system(("cd " + oDir.GetPath() + " && " ORL_TOOL " " + strArgs + " 2>" + strErrors).c_str());
  std::ifstream oFile(strErrors);
  std::stringstream oText;
  oText << oFile.rdbuf();
  std::remove(strErrors.c_str());
  return {WIFEXITED(nRaw) ? WEXITSTATUS(nRaw) : -1, oText.str()};
}

template <class TPixel>
GDALDataType GdalType()
{
  return GDALDataType(std::is_same<TPixel, unsigned char>::value ? GDT_Byte : std::is_same<TPixel, unsigned short>::value ? GDT_UInt16
                      : std::is_same<TPixel, short>::value ? GDT_Int16 : std::is_same<TPixel, unsigned int>::value ? GDT_UInt32
                      : std::is_same<TPixel, int>::value ? GDT_Int32 : std::is_same<TPixel, float>::value ? GDT_Float32 : GDT_Float64);
}

// A GeoTIFF with georeferencing, projection, band description and, when bNoData, no-data 7.
template <class TPixel>
void WriteTiff(const std::string& strPath, const std::vector<TPixel>& vecPixels, bool bNoData = true,
               const char* szOptions = "TILED=YES")
{
  char* apszOptions[] = {const_cast<char*>(szOptions), nullptr};
  const int nBands = int(vecPixels.size() / (std::size_t(g_nWidth) * g_nHeight)); // band after band
  GDALDatasetH hDataset = GDALCreate(GDALGetDriverByName("GTiff"), strPath.c_str(), g_nWidth, g_nHeight, nBands,
                                     GdalType<TPixel>(), apszOptions);
  ASSERT_NE(hDataset, nullptr);
  GDALSetGeoTransform(hDataset, const_cast<double*>(g_adTransform));
  GDALSetProjection(hDataset, "EPSG:32633");
  GDALRasterBandH hBand = GDALGetRasterBand(hDataset, 1);
  GDALSetDescription(hBand, "elevation");
  if (bNoData)
    GDALSetRasterNoDataValue(hBand, 7.0);
  ASSERT_EQ(GDALDatasetRasterIO(hDataset, GF_Write, 0, 0, g_nWidth, g_nHeight, const_cast<TPixel*>(vecPixels.data()),
                                g_nWidth, g_nHeight, GdalType<TPixel>(), nBands, nullptr, 0, 0, 0), CE_None);
  GDALClose(hDataset);
}

template <class TPixel>
std::vector<TPixel> ReadTiff(const std::string& strPath, double* pNoData = nullptr, std::string* pGeo = nullptr)
{
  std::vector<TPixel> vecPixels(std::size_t(g_nWidth) * g_nHeight);
  GDALDatasetH hDataset = GDALOpen(strPath.c_str(), GA_ReadOnly);
  EXPECT_NE(hDataset, nullptr);
  if (!hDataset)
    return {};
  GDALRasterBandH hBand = GDALGetRasterBand(hDataset, 1);
  EXPECT_EQ(GDALRasterIO(hBand, GF_Read, 0, 0, g_nWidth, g_nHeight, vecPixels.data(), g_nWidth, g_nHeight,
                         GdalType<TPixel>(), 0, 0), CE_None);
  if (pNoData)
    *pNoData = GDALGetRasterNoDataValue(hBand, nullptr);
  double adTransform[6] = {};
  GDALGetGeoTransform(hDataset, adTransform);
  if (pGeo)
    *pGeo = std::string(GDALGetDescription(hBand)) + " " + std::to_string(adTransform[0]) + " " +
            std::to_string(adTransform[5]) + " " + GDALGetProjectionRef(hDataset);
  GDALClose(hDataset);
  return vecPixels;
}

// A slope with holes: single pixels, a 9 x 6 block, and for floating types NaN and infinity.
template <class TPixel>
std::vector<TPixel> MakePixels()
{
  std::vector<TPixel> vecPixels(std::size_t(g_nWidth) * g_nHeight);
  for (unsigned int y = 0; y < g_nHeight; ++y)
    for (unsigned int x = 0; x < g_nWidth; ++x)
    {
      const bool bHole = (x * 7 + y * 13) % 17 == 0 || (x >= 40 && x < 49 && y >= 100 && y < 106);
      vecPixels[std::size_t(y) * g_nWidth + x] = bHole ? TPixel(7) : TPixel(10 + (x + 2 * y) % 200);
    }
  if (std::is_floating_point<TPixel>::value)
    vecPixels[5] = std::numeric_limits<TPixel>::quiet_NaN(), vecPixels[9] = std::numeric_limits<TPixel>::infinity();
  return vecPixels;
}

template <class TPixel>
class COrlFillTest : public ::testing::Test
{
};
TYPED_TEST_SUITE(COrlFillTest, Orl::Test::TAllPixelTypes);

// Memory path and tile path (a budget far below the bands) both give the library's result, with the
// georeferencing, projection, description and no-data carried over.
TYPED_TEST(COrlFillTest, EqualsLibraryOnBothStorages)
{
  using TPixel = TypeParam;
  CScratchDirectory oDir;
  const std::vector<TPixel> vecIn = MakePixels<TPixel>();
  WriteTiff(oDir.GetPath() + "/in.tif", vecIn);
  for (const char* szArgs : {"fill in.tif mem.tif -d 20", "fill in.tif tile.tif -d 20 -q --memory 64K -co COMPRESS=NONE"})
    ASSERT_EQ(RunOrl(oDir, szArgs).m_nStatus, 0) << szArgs;

  Band::CBand<TPixel, Band::SMemoryTag> oSrc(g_nWidth, g_nHeight), oDest(g_nWidth, g_nHeight);
  Band::CBand<unsigned char, Band::SMemoryTag> oNoMask(g_nWidth, g_nHeight);
  std::copy(vecIn.begin(), vecIn.end(), oSrc.GetRep().GetDataLocation());
  oSrc.SetNoDataValue(TPixel(7));
  oDest.SetNoDataValue(TPixel(7));
  Filter::CLinearFillHoleFilter<Filter::SDefaultLineData>(g_nWidth * g_nHeight, 2, 20.0f, false).Apply(oDest, oSrc, oNoMask);
  const TPixel* pExpected = oDest.GetRep().GetDataLocation();

  std::string strGeo;
  double dNoData = 0.0;
  const std::vector<TPixel> vecMemory = ReadTiff<TPixel>(oDir.GetPath() + "/mem.tif", &dNoData, &strGeo);
  EXPECT_TRUE(std::equal(vecMemory.begin(), vecMemory.end(), pExpected, [](TPixel a, TPixel b) { return a == b || (a != a && b != b); }));
  EXPECT_EQ(ReadTiff<TPixel>(oDir.GetPath() + "/tile.tif"), vecMemory);
  EXPECT_EQ(dNoData, 7.0);
  EXPECT_EQ(strGeo.substr(0, 40), "elevation 500000.000000 -2.000000 PROJCS");
  EXPECT_NE(strGeo.find("UTM zone 33N"), std::string::npos);
}

// Holes from a Byte mask (its zeros): the library's answer with the same mask.
TEST(COrlTool, FillWithMaskEqualsLibrary)
{
  CScratchDirectory oDir;
  std::vector<float> vecIn = MakePixels<float>();
  std::vector<unsigned char> vecMask(vecIn.size(), 1);
  for (std::size_t i = 0; i < vecMask.size(); i += 11)
    vecMask[i] = 0;
  WriteTiff(oDir.GetPath() + "/in.tif", vecIn);
  WriteTiff(oDir.GetPath() + "/mask.tif", vecMask, false);
  ASSERT_EQ(RunOrl(oDir, "fill in.tif out.tif --mask mask.tif").m_nStatus, 0);
  Band::CBand<float, Band::SMemoryTag> oSrc(g_nWidth, g_nHeight), oDest(g_nWidth, g_nHeight);
  Band::CBand<unsigned char, Band::SMemoryTag> oMask(g_nWidth, g_nHeight);
  std::copy(vecIn.begin(), vecIn.end(), oSrc.GetRep().GetDataLocation());
  std::copy(vecMask.begin(), vecMask.end(), oMask.GetRep().GetDataLocation());
  oSrc.SetNoDataValue(7.0f);
  oDest.SetNoDataValue(7.0f);
  Filter::CLinearFillHoleFilter<Filter::SDefaultLineData>(g_nWidth * g_nHeight, 2, 100.0f, true).Apply(oDest, oSrc, oMask);
  const std::vector<float> vecOut = ReadTiff<float>(oDir.GetPath() + "/out.tif");
  EXPECT_TRUE(std::equal(vecOut.begin(), vecOut.end(), oDest.GetRep().GetDataLocation(),
                         [](float a, float b) { return a == b || (a != a && b != b); }));
}

// stats --json parses and carries the band's own statistics, exact and approximate.
TEST(COrlTool, StatsJsonMatchesBand)
{
  CScratchDirectory oDir;
  const std::vector<int> vecIn = MakePixels<int>();
  WriteTiff(oDir.GetPath() + "/in.tif", vecIn);
  Band::CBand<int, Band::SMemoryTag> oBand(g_nWidth, g_nHeight);
  std::copy(vecIn.begin(), vecIn.end(), oBand.GetRep().GetDataLocation());
  oBand.SetNoDataValue(7);
  ASSERT_EQ(RunOrl(oDir, "stats in.tif --json --percentiles 10,90 > out.json").m_nStatus, 0);
  boost::property_tree::ptree oJson;
  boost::property_tree::read_json(oDir.GetPath() + "/out.json", oJson);
  unsigned long nValid = 0, nInvalid = 0;
  oBand.GetCounts(nValid, nInvalid);
  int nMin = 0, nMax = 0;
  oBand.GetMinMax(nMin, nMax);
  double dMean = 0.0, dVariance = 0.0;
  oBand.GetMeanVariance(dMean, dVariance);
  EXPECT_EQ(oJson.get<unsigned long>("valid"), nValid);
  EXPECT_EQ(oJson.get<unsigned long>("invalid"), nInvalid);
  EXPECT_EQ(oJson.get<int>("min"), nMin);
  EXPECT_EQ(oJson.get<int>("max"), nMax);
  EXPECT_DOUBLE_EQ(oJson.get<double>("mean"), dMean);
  EXPECT_DOUBLE_EQ(oJson.get<double>("std_dev"), std::sqrt(dVariance));
  EXPECT_DOUBLE_EQ(oJson.get<double>("median"), oBand.GetMedian());
  EXPECT_DOUBLE_EQ(oJson.get<double>("percentiles.90"), oBand.GetPercentile(90.0));
  EXPECT_EQ(oJson.get<double>("no_data"), 7.0);
}

// A band of a file read as TPixel, with the file's no-data value, as the tool reads it.
template <class TPixel>
Band::CBand<TPixel, Band::SMemoryTag> Load(const std::string& strPath, int nBand = 1)
{
  Band::CBand<TPixel, Band::SMemoryTag> oBand(g_nWidth, g_nHeight);
  GDALDatasetH hDataset = GDALOpen(strPath.c_str(), GA_ReadOnly);
  GDALRasterBandH hBand = GDALGetRasterBand(hDataset, nBand);
  EXPECT_EQ(GDALRasterIO(hBand, GF_Read, 0, 0, g_nWidth, g_nHeight, oBand.GetRep().GetDataLocation(), g_nWidth,
                         g_nHeight, GdalType<TPixel>(), 0, 0), CE_None);
  int bNoData = 0;
  const double dNoData = GDALGetRasterNoDataValue(hBand, &bNoData);
  if (bNoData)
    oBand.SetNoDataValue(TPixel(dNoData));
  GDALClose(hDataset);
  return oBand;
}

// A band of the size given, with the source's no-data value.
template <class TPixel>
Band::CBand<TPixel, Band::SMemoryTag> Like(const Band::CBand<TPixel, Band::SMemoryTag>& oSrc, unsigned int nWidth = g_nWidth,
                                          unsigned int nHeight = g_nHeight)
{
  Band::CBand<TPixel, Band::SMemoryTag> oBand(nWidth, nHeight);
  if (oSrc.HasNoDataValue())
    oBand.SetNoDataValue(oSrc.GetNoDataValue());
  return oBand;
}

// Pixels as doubles, then the no-data value (NaN for none), per band.
using TValues = std::vector<std::vector<double>>;

template <class... TBands>
TValues Values(const TBands&... oBands)
{
  TValues vecValues;
  (void)std::initializer_list<int>{(vecValues.push_back(std::vector<double>(oBands.GetRep().GetDataLocation(),
                                      oBands.GetRep().GetDataLocation() + std::size_t(oBands.GetWidth()) * oBands.GetHeight())),
                                    vecValues.back().push_back(oBands.HasNoDataValue() ? double(oBands.GetNoDataValue())
                                                                                       : std::nan("")), 0)...};
  return vecValues;
}

TValues ReadAll(const std::string& strPath)
{
  TValues vecValues;
  GDALDatasetH hDataset = GDALOpen(strPath.c_str(), GA_ReadOnly);
  if (!hDataset)
    return vecValues;
  const int nWidth = GDALGetRasterXSize(hDataset), nHeight = GDALGetRasterYSize(hDataset);
  for (int i = 1; i <= GDALGetRasterCount(hDataset); ++i)
  {
    GDALRasterBandH hBand = GDALGetRasterBand(hDataset, i);
    vecValues.emplace_back(std::size_t(nWidth) * nHeight);
    EXPECT_EQ(GDALRasterIO(hBand, GF_Read, 0, 0, nWidth, nHeight, vecValues.back().data(), nWidth, nHeight, GDT_Float64,
                           0, 0), CE_None);
    int bNoData = 0;
    const double dNoData = GDALGetRasterNoDataValue(hBand, &bNoData);
    vecValues.back().push_back(bNoData ? dNoData : std::nan(""));
  }
  GDALClose(hDataset);
  return vecValues;
}

// A subcommand's output equals the library's result on the same pixels, through memory bands and
// through tile bands. Inputs: f.tif and g.tif, Float32 slopes with holes (no-data 7 in f.tif); bin.tif,
// Byte shapes of 0 and 1; rgb.tif, three Byte bands.
struct SFilterCase
{
  const char* m_szName;
  const char* m_szArgs; // OUT is out.tif
  std::function<TValues(const std::string& strDir)> m_fnExpected;
  double m_dTolerance = 0.0; // FFTW's plans, timed in each process, may round differently
};

class COrlFilterTest : public ::testing::TestWithParam<SFilterCase>
{
};

TEST_P(COrlFilterTest, EqualsLibrary)
{
  CScratchDirectory oDir;
  const std::string strDir = oDir.GetPath() + "/";
  std::vector<float> vecF = MakePixels<float>(), vecG(vecF.size());
  std::vector<unsigned char> vecBin(vecF.size()), vecRgb(3 * vecF.size());
  for (std::size_t i = 0; i < vecF.size(); ++i)
  {
    const std::size_t x = i % g_nWidth, y = i / g_nWidth;
    vecG[i] = float((x * y) % 97) - 20.0f;
    vecBin[i] = (x / 23 + y / 17) % 3 != 0 && (x % 23) > 3;
    for (std::size_t c = 0; c < 3; ++c)
      vecRgb[c * vecF.size() + i] = (unsigned char)((x * (c + 1) + y * (3 - c)) % 256);
  }
  WriteTiff(strDir + "f.tif", vecF);
  WriteTiff(strDir + "g.tif", vecG, false);
  WriteTiff(strDir + "bin.tif", vecBin, false);
  WriteTiff(strDir + "rgb.tif", vecRgb, false);
  const TValues vecExpected = GetParam().m_fnExpected(strDir);
  for (const char* szStorage : {"", " -q --memory 64K"})
  {
    const std::string strArgs = std::string(GetParam().m_szArgs) + " out.tif --overwrite" + szStorage;
    const SResult oResult = RunOrl(oDir, strArgs);
    ASSERT_EQ(oResult.m_nStatus, 0) << strArgs << ": " << oResult.m_strErrors;
    const TValues vecOut = ReadAll(strDir + "out.tif");
    ASSERT_EQ(vecOut.size(), vecExpected.size()) << strArgs;
    for (std::size_t i = 0; i < vecOut.size(); ++i)
      EXPECT_TRUE(std::equal(vecOut[i].begin(), vecOut[i].end(), vecExpected[i].begin(), vecExpected[i].end(),
                             [&](double a, double b) { return a == b || std::abs(a - b) <= GetParam().m_dTolerance || (a != a && b != b); }))
        << strArgs << ", band " << i + 1;
  }
}

using FBand = Band::CBand<float, Band::SMemoryTag>;
using BBand = Band::CBand<unsigned char, Band::SMemoryTag>;

INSTANTIATE_TEST_SUITE_P(
  Subcommands, COrlFilterTest,
  ::testing::Values(
    SFilterCase{"DistanceExact", "distance bin.tif", [](const std::string& d) {
      FBand oDest(g_nWidth, g_nHeight);
      Filter::CDistanceTransformMeijsterFilter(Filter::eDistanceTransformEuclidean).Apply(oDest, Load<unsigned char>(d + "bin.tif"));
      return Values(oDest); }},
    SFilterCase{"DistanceChamferCityBlock", "distance bin.tif --method chamfer --metric cityblock", [](const std::string& d) {
      FBand oDest(g_nWidth, g_nHeight);
      Filter::CDistanceTransformFilter(Filter::eDistanceTransformCityBlock).Apply(oDest, Load<unsigned char>(d + "bin.tif"));
      return Values(oDest); }},
    SFilterCase{"ThinGuoHallA2", "thin bin.tif --algorithm guo-hall-a2", [](const std::string& d) {
      BBand oDest(g_nWidth, g_nHeight);
      Filter::CSkeletonGuoHallA2Filter().Apply(oDest, Load<unsigned char>(d + "bin.tif"));
      return Values(oDest); }},
    SFilterCase{"Reconstruct", "reconstruct g.tif f.tif", [](const std::string& d) {
      const FBand oMarker = Load<float>(d + "g.tif");
      FBand oDest = Like(oMarker);
      Filter::CGrayscaleReconstructionFilter().Apply(oDest, oMarker, Load<float>(d + "f.tif"));
      return Values(oDest); }},
    SFilterCase{"Equalize", "equalize f.tif --bins 64", [](const std::string& d) {
      FBand oSrc = Load<float>(d + "f.tif"), oDest = Like(oSrc);
      oSrc.SetHistogramBins(64);
      Filter::CHistogramEqualizationFilter().Apply(oDest, oSrc);
      return Values(oDest); }},
    SFilterCase{"ResampleCubic", "resample f.tif --size 100 70 --method cubic", [](const std::string& d) {
      const FBand oSrc = Load<float>(d + "f.tif");
      FBand oDest = Like(oSrc, 100, 70);
      Filter::CResampleFilter(Filter::eResampleCubic).Apply(oDest, oSrc);
      return Values(oDest); }},
    SFilterCase{"FftForwardOfBytes", "fft bin.tif", [](const std::string& d) {
      FBand oReal(512, 256), oImag(512, 256);
      Filter::CFftForwardFilter().Apply(oReal, oImag, Load<float>(d + "bin.tif"));
      return Values(oReal, oImag); }, 0.1},
    SFilterCase{"GradientCells", "gradient f.tif --cell 3 --no-data skip", [](const std::string& d) {
      const FBand oSrc = Load<float>(d + "f.tif");
      FBand oDest = Like(oSrc, 101, 68);
      Filter::CGradientOrientationFilter().Apply<Filter::SSkipNonCenterNoDataPolicy>(oDest, oSrc);
      return Values(oDest); }},
    SFilterCase{"MaskRange", "mask f.tif g.tif --range 0 50", [](const std::string& d) {
      const FBand oSrc = Load<float>(d + "f.tif");
      FBand oDest = Like(oSrc);
      Filter::CMaskFilter().Apply(oDest, oSrc, Load<float>(d + "g.tif"), 0.0, 50.0);
      return Values(oDest); }},
    SFilterCase{"CalcClamp", "calc clamp f.tif --min 20 --max 100", [](const std::string& d) {
      const FBand oSrc = Load<float>(d + "f.tif");
      FBand oDest = Like(oSrc);
      Filter::CArithmeticUnaryFilter(Filter::eClamp, 20.0, 100.0).Apply(oDest, oSrc);
      return Values(oDest); }},
    SFilterCase{"CalcPowerOfTwoFiles", "calc pow f.tif g.tif", [](const std::string& d) {
      const FBand oSrc = Load<float>(d + "f.tif");
      FBand oDest = Like(oSrc);
      Filter::CArithmeticBinaryFilter(Filter::ePower).Apply(oDest, oSrc, Load<float>(d + "g.tif"));
      return Values(oDest); }},
    SFilterCase{"CalcDivideByConstant", "calc div rgb.tif -b 2 --constant 3", [](const std::string& d) {
      BBand oDest(g_nWidth, g_nHeight);
      Filter::CArithmeticBinaryFilter(Filter::eDivide, 3.0).Apply(oDest, Load<unsigned char>(d + "rgb.tif", 2));
      return Values(oDest); }},
    SFilterCase{"ConvertToInt16", "convert g.tif -ot Int16", [](const std::string& d) {
      Band::CBand<short, Band::SMemoryTag> oDest(g_nWidth, g_nHeight);
      Filter::CCopyFilter().Apply(oDest, Load<float>(d + "g.tif"));
      return Values(oDest); }},
    SFilterCase{"ColorToYCbCr", "color rgb2ycbcr rgb.tif", [](const std::string& d) {
      BBand oY(g_nWidth, g_nHeight), oCb(g_nWidth, g_nHeight), oCr(g_nWidth, g_nHeight);
      Filter::CColorConversionFilter(Filter::eRgbToYCbCr)
        .Apply(oY, oCb, oCr, Load<unsigned char>(d + "rgb.tif", 1), Load<unsigned char>(d + "rgb.tif", 2), Load<unsigned char>(d + "rgb.tif", 3));
      return Values(oY, oCb, oCr); }},
    SFilterCase{"ColorFloatGrayOfThreeFiles", "color rgb2gray f.tif g.tif f.tif", [](const std::string& d) {
      const FBand oRed = Load<float>(d + "f.tif");
      FBand oDest = Like(oRed);
      Filter::CColorConversionFilter(Filter::eRgbToGray).Apply(oDest, oRed, Load<float>(d + "g.tif"), oRed);
      return Values(oDest); }},
    SFilterCase{"MedoidOfBands", "medoid rgb.tif", [](const std::string& d) {
      BBand oDest(g_nWidth, g_nHeight);
      Filter::CMedoidFilter().Apply(oDest, std::vector<BBand>{Load<unsigned char>(d + "rgb.tif", 1),
                                    Load<unsigned char>(d + "rgb.tif", 2), Load<unsigned char>(d + "rgb.tif", 3)});
      return Values(oDest); }},
    SFilterCase{"SelectByIndex", "select f.tif g.tif --index bin.tif", [](const std::string& d) {
      const FBand oF = Load<float>(d + "f.tif");
      FBand oDest = Like(oF);
      Filter::CIndexSelectorFilter().Apply(oDest, Load<unsigned short>(d + "bin.tif"), std::vector<FBand>{oF, Load<float>(d + "g.tif")});
      return Values(oDest); }},
    SFilterCase{"MergeMasksWeighted", "merge-masks rgb.tif -b 1,2,3 --weights 2,1,1", [](const std::string& d) {
      BBand oDest(g_nWidth, g_nHeight);
      Filter::CMaskMergeFilter oFilter;
      oFilter.SetWeights({2.0, 1.0, 1.0});
      oFilter.Apply(oDest, std::vector<BBand>{Load<unsigned char>(d + "rgb.tif", 1), Load<unsigned char>(d + "rgb.tif", 2),
                                              Load<unsigned char>(d + "rgb.tif", 3)});
      return Values(oDest); }}),
  [](const ::testing::TestParamInfo<SFilterCase>& oInfo) { return std::string(oInfo.param.m_szName); });

// Every bad input: its message, its exit status, and no file left behind (an existing target
// untouched).
struct SErrorCase
{
  const char* m_szName;
  const char* m_szArgs;
  const char* m_szMessage;
  int m_nStatus;
  rlim_t m_nFileLimit = 0;
};

class COrlErrorTest : public ::testing::TestWithParam<SErrorCase>
{
};

TEST_P(COrlErrorTest, ReportsAndLeavesNothing)
{
  const SErrorCase& oCase = GetParam();
  CScratchDirectory oDir;
  WriteTiff(oDir.GetPath() + "/in.tif", MakePixels<float>(), true, "COMPRESS=NONE");
  GDALDatasetH hSmall = GDALCreate(GDALGetDriverByName("GTiff"), (oDir.GetPath() + "/small.tif").c_str(), 5, 5, 1, GDT_Byte, nullptr);
  GDALClose(hSmall);
  std::ofstream(oDir.GetPath() + "/text.tif") << "not a raster\n";
  std::ofstream(oDir.GetPath() + "/old.tif") << "old\n";
  // A complex band, written as the few lines of a VRT.
  std::ofstream(oDir.GetPath() + "/cplx.vrt") << "<VRTDataset rasterXSize='4' rasterYSize='4'><VRTRasterBand dataType='CFloat32' band='1'/></VRTDataset>";
  const std::vector<std::string> vecBefore = oDir.GetEntries();
  SResult oResult;
  {
    std::unique_ptr<Orl::Test::CFileSizeLimit> pLimit(oCase.m_nFileLimit ? new Orl::Test::CFileSizeLimit(oCase.m_nFileLimit) : nullptr);
    oResult = RunOrl(oDir, oCase.m_szArgs);
  }
  EXPECT_EQ(oResult.m_nStatus, oCase.m_nStatus);
  EXPECT_NE(oResult.m_strErrors.find(oCase.m_szMessage), std::string::npos) << oResult.m_strErrors;
  EXPECT_EQ(std::count(oResult.m_strErrors.begin(), oResult.m_strErrors.end(), '\n'), 1) << oResult.m_strErrors;
  std::vector<std::string> vecAfter = oDir.GetEntries();
  std::sort(vecAfter.begin(), vecAfter.end());
  std::vector<std::string> vecExpected = vecBefore;
  std::sort(vecExpected.begin(), vecExpected.end());
  EXPECT_EQ(vecAfter, vecExpected);
  std::ifstream oOld(oDir.GetPath() + "/old.tif");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(oOld), {}), "old\n");
}

INSTANTIATE_TEST_SUITE_P(
  Cases, COrlErrorTest,
  ::testing::Values(SErrorCase{"MissingInput", "fill nope.tif out.tif", "cannot open nope.tif", 1},
                    SErrorCase{"NotARaster", "stats text.tif", "text.tif is not a raster", 1},
                    SErrorCase{"BandOutOfRange", "fill in.tif out.tif -b 2", "band 2 is out of range", 1},
                    SErrorCase{"ComplexPixels", "fill cplx.vrt out.tif", "pixel type CFloat32 is not supported", 1},
                    SErrorCase{"MaskOfOtherSize", "fill in.tif out.tif --mask small.tif", "the mask small.tif is 5 x 5", 1},
                    SErrorCase{"RangeWithoutMask", "fill in.tif out.tif --mask-range 1 2", "--mask-range needs --mask", 2},
                    SErrorCase{"BadDistance", "fill in.tif out.tif -d 0", "--max-distance must be", 2},
                    SErrorCase{"BadDirections", "fill in.tif out.tif -n 9", "--min-directions", 2},
                    SErrorCase{"BadMemory", "fill in.tif out.tif --memory 12Q", "invalid size '12Q'", 2},
                    SErrorCase{"BadCreationOption", "fill in.tif out.tif -co TILED", "invalid creation option", 2},
                    SErrorCase{"UnknownFormat", "fill in.tif out.tif -of NOPE", "unknown raster format 'NOPE'", 2},
                    SErrorCase{"BadPercentile", "stats in.tif -p 101", "--percentiles", 2},
                    SErrorCase{"NoSubcommand", "", "A subcommand is required", 2},
                    SErrorCase{"MissingDirectory", "fill in.tif no/out.tif", "output directory no does not exist", 1},
                    SErrorCase{"ExistingTarget", "fill in.tif old.tif", "old.tif exists: pass --overwrite", 1},
                    SErrorCase{"WrongBandCount", "color rgb2hsv in.tif out.tif", "color takes 3 input bands: in.tif has 1", 1},
                    SErrorCase{"InputsOfOtherSizes", "calc add in.tif small.tif out.tif", "small.tif is 5 x 5 pixels", 1},
                    SErrorCase{"BandListForSeveralFiles", "medoid in.tif in.tif out.tif -b 1,2", "-b takes one band", 2},
                    SErrorCase{"ComplexForFft", "fft cplx.vrt out.tif", "pixel type CFloat32 is not supported", 1},
                    SErrorCase{"ResampleWithoutSize", "resample in.tif out.tif", "resample needs --factor or --size", 2},
                    SErrorCase{"ConstantForUnary", "calc sqrt in.tif out.tif --constant 2", "--constant goes with", 2},
                    SErrorCase{"UnknownType", "convert in.tif out.tif -ot Int8", "--ot", 2},
                    SErrorCase{"DiskFull", "fill in.tif old.tif --overwrite -co COMPRESS=NONE", "cannot write old.tif", 1, 65536}),
  [](const ::testing::TestParamInfo<SErrorCase>& oInfo) { return std::string(oInfo.param.m_szName); });

} // namespace

int main(int argc, char** argv)
{
  ::testing::InitGoogleTest(&argc, argv);
  GDALAllRegister();
  return RUN_ALL_TESTS();
}
