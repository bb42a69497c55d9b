// The subcommands of the linear models over a stack of bands: stratify (the class of the highest
// score) and predict (a prediction, or the gaps of one band filled with it).
//
// Coefficients come as --coefficients VALUES or --coefficients @FILE. VALUES: numbers separated by
// commas, rows separated by ';' (quoted in the shell). FILE: a text file with a row per line, the
// numbers separated by commas or white space, '#' starting a comment, blank lines skipped. The
// shape is checked against the number of input bands before any pixel is read.

#include "Commands.h"

#include "Filter/MultiRegressionPredictor.h"
#include "Filter/MultinomialRegressionStratifier.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace Orl { namespace Tools {

namespace {

using namespace Ostrel::Filter;

using TRows = std::vector<std::vector<double>>;

struct SModelOptions
{
  SBandsArgs m_oArgs;
  std::string m_strCoefficients;
  std::vector<unsigned int> m_vecClasses; // stratify
  unsigned int m_nTarget = 0; // predict: a band number from 1, 0 for none
  std::pair<double, double> m_oClamp{1.0, 0.0}; // predict: not bounded while LO > HI
  CLI::Option* m_pClamp = nullptr;
};

TRows ParseCoefficients(const std::string& strValue)
{
  std::string strText = strValue;
  char cRowEnd = ';';
  if (!strValue.empty() && strValue[0] == '@')
  {
    std::ifstream oFile(strValue.substr(1));
    if (!oFile)
      throw CToolError(Text("--coefficients: cannot read %1%", strValue.substr(1)), 2);
    std::stringstream oContents;
    oContents << oFile.rdbuf();
    strText = oContents.str();
    cRowEnd = '\n';
  }
  TRows vecRows;
  std::istringstream oRows(strText);
  for (std::string strRow; std::getline(oRows, strRow, cRowEnd);)
  {
    strRow.erase(std::min(strRow.size(), strRow.find('#')));
    std::replace(strRow.begin(), strRow.end(), ',', ' ');
    std::istringstream oNumbers(strRow);
    std::vector<double> vecRow;
    for (std::string strNumber; oNumbers >> strNumber;)
    {
      std::size_t nUsed = 0;
      double dValue = 0.0;
      try
      {
        dValue = std::stod(strNumber, &nUsed);
      }
      catch (const std::exception&)
      {
        nUsed = 0;
      }
      if (nUsed != strNumber.size() || !std::isfinite(dValue))
        throw CToolError(Text("--coefficients: '%1%' is not a finite number", strNumber), 2);
      vecRow.push_back(dValue);
    }
    if (!vecRow.empty())
      vecRows.push_back(std::move(vecRow));
  }
  if (vecRows.empty())
    throw CToolError(Text("--coefficients: no numbers"), 2);
  return vecRows;
}

// The coefficients of strName against its inputs: every row one value per band, then the intercept.
TRows ReadModel(const SModelOptions& oOptions, const std::string& strName, std::size_t& nBands)
{
  const TRows vecRows = ParseCoefficients(oOptions.m_strCoefficients);
  nBands = OpenInputs(oOptions.m_oArgs, StackShape(), strName).size();
  for (std::size_t r = 0; r < vecRows.size(); ++r)
    if (vecRows[r].size() != nBands + 1)
      throw CToolError(Text("--coefficients: row %1% has %2% values for %3% input band(s): expected %4%, one per "
                            "band, then the intercept",
                            r + 1, vecRows[r].size(), nBands, nBands + 1),
                       2);
  return vecRows;
}

std::shared_ptr<SModelOptions> AddModelOptions(CLI::App& oApp, const char* szShape)
{
  auto pOptions = std::make_shared<SModelOptions>();
  AddBandsArgs(oApp, pOptions->m_oArgs, "IN...", 2, 0);
  oApp.add_option("--coefficients", pOptions->m_strCoefficients,
                  std::string(szShape) + ", the intercept last; or @FILE, a text file with a row per line")
    ->required()
    ->type_name("VALUES|@FILE");
  return pOptions;
}

} // namespace

TRunner DefineStratify(CLI::App& oApp)
{
  auto pOptions = AddModelOptions(oApp, "One row per class of one coefficient per band, e.g. '0.2,-1,3;1,0.5,-2' "
                                        "(rows separated by ';')");
  oApp.add_option("--classes", pOptions->m_vecClasses, "The value written for each row's class, e.g. 10,20 (default: "
                                                       "the row number, from 0)")
    ->delimiter(',')
    ->allow_extra_args(false);
  oApp.footer("The stack as for medoid, all read as the first band's pixel type. Per pixel, the class whose row "
              "scores highest (the first on a tie). Byte output when every class value is below 255, else UInt16; "
              "no-data in any band gives the output's no-data value, 255 or 65535.\n" + oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    std::size_t nBands = 0;
    const TRows vecRows = ReadModel(*pOptions, "stratify", nBands);
    const std::vector<unsigned int>& vecClasses = pOptions->m_vecClasses;
    if (!vecClasses.empty() && vecClasses.size() != vecRows.size())
      throw CToolError(Text("--classes: %1% values for %2% rows of coefficients", vecClasses.size(), vecRows.size()), 2);
    const unsigned int nLargest =
      vecClasses.empty() ? unsigned(vecRows.size() - 1) : *std::max_element(vecClasses.begin(), vecClasses.end());
    if (nLargest >= 65535)
      throw CToolError(Text("--classes: values must be below 65535, the output's no-data value"), 2);
    boost::numeric::ublas::matrix<double> matCoefficients(vecRows.size(), nBands + 1);
    for (std::size_t r = 0; r < vecRows.size(); ++r)
      std::copy(vecRows[r].begin(), vecRows[r].end(), matCoefficients.data().begin() + r * (nBands + 1));
    CMultinomialRegressionStratifier oFilter(matCoefficients, vecClasses);
    const auto fnRun = [&](auto tClass) {
      using TClass = decltype(tClass);
      RunFilter<SSamePixel, SAs<TClass>::template SOf>(
        "stratify", pOptions->m_oArgs, StackShape(), oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
          vecDest[0].SetNoDataValue(Ostrel::Band::SNoDataValueHint<TClass>::ms_tNoDataValue);
          ApplyWith(oFilter, oRun, vecDest[0], vecSrc);
        });
    };
    if (nLargest < 255)
      fnRun((unsigned char)0);
    else
      fnRun((unsigned short)0);
  };
}

TRunner DefinePredict(CLI::App& oApp)
{
  auto pOptions = AddModelOptions(oApp, "One coefficient per band, e.g. 0.5,0.25,3");
  oApp.add_option("--target", pOptions->m_nTarget, "Keep band N of the stack (from 1) where it is valid, and fill "
                                                   "its no-data and NaN pixels with the prediction from the other "
                                                   "bands (its own coefficient is not used)")
    ->type_name("N")
    ->check(CLI::PositiveNumber);
  pOptions->m_pClamp = oApp.add_option("--clamp", pOptions->m_oClamp, "Bound the prediction to [LO, HI]")->type_name("LO HI");
  oApp.footer("The stack as for medoid; OUT has the first band's pixel type (integers rounded to nearest and "
              "saturated) and no-data value. No-data or NaN in a band the prediction uses gives no-data.\n" +
              oApp.get_footer());
  return [pOptions](const SGlobalOptions& oGlobal) {
    const SModelOptions& oOptions = *pOptions;
    std::size_t nBands = 0;
    const TRows vecRows = ReadModel(oOptions, "predict", nBands);
    if (vecRows.size() != 1)
      throw CToolError(Text("--coefficients: predict takes one row, not %1%", vecRows.size()), 2);
    if (oOptions.m_nTarget > nBands)
      throw CToolError(Text("--target: band %1% of a stack of %2%", oOptions.m_nTarget, nBands), 2);
    const bool bClamp = oOptions.m_pClamp->count() > 0;
    if (bClamp && !(oOptions.m_oClamp.first <= oOptions.m_oClamp.second))
      throw CToolError(Text("--clamp: LO must not be above HI"), 2);
    boost::numeric::ublas::vector<double> vecCoefficients(nBands + 1);
    std::copy(vecRows[0].begin(), vecRows[0].end(), vecCoefficients.begin());
    // A target past the stack's end means none; bounds with LO above HI mean none.
    CMultiRegressionPredictor oFilter(vecCoefficients, oOptions.m_nTarget ? oOptions.m_nTarget - 1 : unsigned(nBands),
                                      bClamp ? oOptions.m_oClamp.first : 1.0, bClamp ? oOptions.m_oClamp.second : 0.0);
    RunFilter("predict", oOptions.m_oArgs, StackShape(), oGlobal, [&](auto& vecDest, auto& vecSrc, const SFilterRun& oRun) {
      // Without the first band's value, the pixels the filter leaves without a value hold the type's.
      if (oRun.m_nInvalid && !vecDest[0].HasNoDataValue())
        vecDest[0].SetNoDataValue(vecDest[0].GetNoDataValueOrHint());
      ApplyWith(oFilter, oRun, vecDest[0], vecSrc);
    });
  };
}

}} // namespace Orl::Tools
