#pragma once

// CMultiRegressionPredictor: a band predicted from a stack of bands by a linear model. The generic
// definitions are in MultiRegressionPredictorImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

#include <boost/numeric/ublas/vector.hpp>

#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

// The prediction from B bands is c_B + sum_b c_b * band_b, with c = m_vecCoefficients of B + 1
// values, the last the intercept, computed in double.
//
// m_nParameter names the band that the prediction stands in for: where that band is valid, dest
// takes its pixel; where it is no-data or NaN, dest takes the prediction from the other bands (the
// target's own coefficient is not used): gap filling of one band of a stack from the others. With
// m_nParameter not below B, every pixel is predicted from all bands.
//
// m_dFirst and m_dSecond bound the prediction to [m_dFirst, m_dSecond] when m_dFirst <= m_dSecond;
// otherwise it is not bounded. The value then goes to dest's pixel type rounded to the nearest value
// (halves away from zero) and saturated. No-data or NaN in a band the prediction uses, and a NaN
// prediction, give dest's no-data fallback (its own value, else the type's hint).
//
// The constructor stores what it is given, empty included. Apply checks before any pixel is written,
// by CBasicException: a stack that is not empty, B + 1 coefficients, one extent for all bands. dest
// is not in the stack.
class CMultiRegressionPredictor : public Detail::CMultiBandFilterBase
{
public:
  CMultiRegressionPredictor(const boost::numeric::ublas::vector<double>& vecCoefficients, unsigned int nParameter,
                            double dFirst, double dSecond)
    : m_vecCoefficients(vecCoefficients), m_nParameter(nParameter), m_dFirst(dFirst), m_dSecond(dSecond)
  {
    m_strName = "Multi Regression Predictor";
  }

  bool AllowDestIsSrc() const { return false; }

  const boost::numeric::ublas::vector<double>& GetCoefficients() const { return m_vecCoefficients; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const std::vector<TSrc>& vecBands) const;

private:
  boost::numeric::ublas::vector<double> m_vecCoefficients;
  unsigned int m_nParameter;
  double m_dFirst;
  double m_dSecond;
};

#define ORL_PREDICTOR_DECL(PREFIX, TPixel, Tag)                                                         \
  PREFIX void CMultiRegressionPredictor::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(      \
    Band::CBand<TPixel, Tag>&, const std::vector<Band::CBand<TPixel, Tag>>&) const;

#define ORL_PREDICTOR_EXTERN(TPixel)                                                                    \
  ORL_PREDICTOR_DECL(extern template, TPixel, Band::SMemoryTag)                                        \
  ORL_PREDICTOR_DECL(extern template, TPixel, Band::SIPPTag)                                           \
  ORL_PREDICTOR_DECL(extern template, TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_PREDICTOR_EXTERN)
#undef ORL_PREDICTOR_EXTERN

}}} // namespace Orl::Ostrel::Filter
