#pragma once

// Two-dimensional discrete Fourier transforms of a band: declarations and instances. The definitions
// live in FftFilter.cpp, which alone sees FFTW: the listed instances are all there is.

#include "Band/Band.h"
#include "Filter/FilterBase.h"

namespace Orl { namespace Ostrel { namespace Filter {

namespace Detail {

// The padded length of one axis: the smallest power of two that is at least nSize, and 1 for 0 and 1.
// Not guarded above 2^31: the doubling would wrap to 0 and never end. Axis lengths stay below that.
inline unsigned int FftSize(unsigned int nSize)
{
  unsigned int nResult = 1;
  while (nResult < nSize)
    nResult *= 2;
  return nResult;
}

} // namespace Detail

// Forward transform: Apply(destReal, destImag, src) writes the real and imaginary parts of
//   F(u, v) = sum over x, y of s(x, y) * exp(-2 pi i (u x / Nx + v y / Ny))
// where Nx = GetFftSize(width), Ny = GetFftSize(height) of the source, the source zero-padded to
// Nx x Ny. No-data pixels of the source (and NaN of floating sources) count as 0. Both destinations
// must be Nx x Ny; no scaling on the way forward.
//
// Float and double bands; destination and source of one pixel type, all three of one storage tag.
// Memory bands are transformed whole by one two-dimensional FFTW plan on all cores of the calling
// thread's arena, in a working array of Ny x (Nx / 2 + 1) complex values (the size of one
// destination) allocated for the call. On tile bands rows are transformed first, then columns in
// strips, through the destinations, so a tile band larger than memory can be transformed.
//
// FFTW plans are made on the first call for each size, under a lock of this library's own: other
// code of the process that plans with FFTW must not do so at the same time. Axes of 1024 or more are
// planned by timing candidates (FFTW_MEASURE): the first call of such a size takes longer (a few
// seconds for a 4096 x 4096 memory band, forward and reverse each), and results may differ in the
// last bits from one process to another. The first call of each precision also starts FFTW's
// threads of that precision and hands their parallel loops to oneTBB, for every threaded FFTW plan
// of the process (fftw_threads_set_callback: code that sets its own callback replaces ours).
// Memory and tile bands run different plans: their results agree within the rounding of the pixel
// type (errors of a few epsilons of the source's norm per halving of the size), not to the bit; one
// storage kind gives the same bits on every call of a process. Keeping the bits equal would need the
// row and column plans on memory bands too, at nearly three times the time.
class CFftForwardFilter : public Detail::CBandFilterBase
{
public:
  CFftForwardFilter() { m_strName = "FFT-Forward-Filter"; }

  static unsigned int GetFftSize(unsigned int nSize) { return Detail::FftSize(nSize); }
  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDestReal, TDest& oDestImag, const TSrc& oSrc) const;
};

// Reverse transform: Apply(dest, srcReal, srcImag) computes
//   d(x, y) = 1 / (Nx Ny) * sum over u, v of F(u, v) * exp(+2 pi i (u x / Nx + v y / Ny))
// for the x < width, y < height of the destination, so that reverse(forward(s)) is s within the
// rounding of the pixel type. The spectrum is taken to be that of a real band (F(Nx - u, Ny - v) is
// the conjugate of F(u, v)), as the forward filter writes it: only columns 0 to Nx / 2 are read.
// Both sources must be of one size, each axis a power of two (1 included) and no smaller than the
// destination's.
class CFftReverseFilter : public Detail::CBandFilterBase
{
public:
  CFftReverseFilter() { m_strName = "FFT-Reverse-Filter"; }

  static unsigned int GetFftSize(unsigned int nSize) { return Detail::FftSize(nSize); }
  bool AllowDestIsSrc() const { return false; }

  template <class TDest, class TSrc>
  void Apply(TDest& oDest, const TSrc& oSrcReal, const TSrc& oSrcImag) const;
};

#define ORL_FOR_EACH_FFT_INSTANCE(M, Tag) M(float, Tag) M(double, Tag)

// ORL_FFT_DECLARE(T, Tag, extern) declares both Apply instances for one pixel type and tag;
// without the third argument it makes them.
#define ORL_FFT_DECLARE(TPixel, Tag, EXTERN)                                                            \
  EXTERN template void CFftForwardFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(    \
    Band::CBand<TPixel, Tag>&, Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;       \
  EXTERN template void CFftReverseFilter::Apply<Band::CBand<TPixel, Tag>, Band::CBand<TPixel, Tag>>(    \
    Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&, const Band::CBand<TPixel, Tag>&) const;

#define ORL_FFT_EXTERN(TPixel, Tag) ORL_FFT_DECLARE(TPixel, Tag, extern)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_EXTERN, Band::SMemoryTag)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_EXTERN, Band::SIPPTag)
ORL_FOR_EACH_FFT_INSTANCE(ORL_FFT_EXTERN, Band::STileTag)
#undef ORL_FFT_EXTERN

}}} // namespace Orl::Ostrel::Filter
