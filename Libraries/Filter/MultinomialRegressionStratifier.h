#pragma once

// CMultinomialRegressionStratifier: per pixel, the class with the highest linear score over a stack
// of bands. The generic definitions are in MultinomialRegressionStratifierImpl.h.

#include "Band/Band.h"
#include "Filter/FilterBase.h"
#include "Foundation/PixelTypes.h"

#include <boost/numeric/ublas/matrix.hpp>

#include <vector>

namespace Orl { namespace Ostrel { namespace Filter {

// Row k of the coefficient matrix scores class k: score_k = sum_b M(k, b) * band_b + M(k, B), with
// B bands and B + 1 columns, the last the intercept. The highest score wins (the first row on a tie:
// the argmax of a multinomial logistic model's probabilities). dest gets m_vecClasses[k], saturated
// to its pixel type, or k itself when m_vecClasses is empty. No-data or NaN in any band gives dest's
// no-data fallback (its own value, else the type's hint). Scores are computed in double.
//
// The constructor stores what it is given, empty included. Apply checks before any pixel is written,
// by CBasicException: a stack that is not empty, a matrix of at least one row and B + 1 columns,
// m_vecClasses empty or one per row, one extent for all bands. dest is not in the stack.
class CMultinomialRegressionStratifier : public Detail::CMultiBandFilterBase
{
public:
  CMultinomialRegressionStratifier(const boost::numeric::ublas::matrix<double>& matCoefficients,
                                   const std::vector<unsigned int>& vecClasses)
    : m_matCoefficients(matCoefficients), m_vecClasses(vecClasses)
  {
    m_strName = "Multinomial Regression Stratifier";
  }

  bool AllowDestIsSrc() const { return false; }

  const boost::numeric::ublas::matrix<double>& GetCoefficients() const { return m_matCoefficients; }
  const std::vector<unsigned int>& GetClasses() const { return m_vecClasses; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const std::vector<TSrc>& vecBands) const;

private:
  boost::numeric::ublas::matrix<double> m_matCoefficients;
  std::vector<unsigned int> m_vecClasses;
};

#define ORL_STRATIFIER_DECL(PREFIX, TPixel, TClassPixel, Tag)                                           \
  PREFIX void CMultinomialRegressionStratifier::Apply<Band::CBand<TClassPixel, Tag>, Band::CBand<TPixel, Tag>>( \
    Band::CBand<TClassPixel, Tag>&, const std::vector<Band::CBand<TPixel, Tag>>&) const;

// Every band pixel type, with classes as unsigned char or unsigned short.
#define ORL_STRATIFIER_EXTERN(TPixel)                                                                   \
  ORL_STRATIFIER_DECL(extern template, TPixel, unsigned char, Band::SMemoryTag)                        \
  ORL_STRATIFIER_DECL(extern template, TPixel, unsigned char, Band::SIPPTag)                           \
  ORL_STRATIFIER_DECL(extern template, TPixel, unsigned char, Band::STileTag)                          \
  ORL_STRATIFIER_DECL(extern template, TPixel, unsigned short, Band::SMemoryTag)                       \
  ORL_STRATIFIER_DECL(extern template, TPixel, unsigned short, Band::SIPPTag)                          \
  ORL_STRATIFIER_DECL(extern template, TPixel, unsigned short, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_STRATIFIER_EXTERN)
#undef ORL_STRATIFIER_EXTERN

}}} // namespace Orl::Ostrel::Filter
