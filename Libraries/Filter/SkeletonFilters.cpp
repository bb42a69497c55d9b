// Thinning for the four skeleton filters, bit-parallel on rows of 64-pixel words.
//
// The band is read once into a bit image (one bit per pixel, a frame of background words around it)
// and a bit mask of its invalid pixels, thinned there, and written back once: the walks over the
// band are the parallel row-block walks of BandBlocks.h, tile by tile, and the thinning itself never
// touches the band. Memory: a quarter of a byte per pixel plus one byte per word of 64 pixels.
//
// Every algorithm here decides a pixel's deletion from its 8-neighbourhood alone, so each
// subiteration is a table of 256 entries indexed by the neighbourhood code (bit 0 north, then
// clockwise: 1 north-east, 2 east, 3 south-east, 4 south, 5 south-west, 6 west, 7 north-west), built
// from the conditions as written in the filters' headers. The tables define the algorithms; the
// thinning itself evaluates each table as boolean algebra on eight neighbour words (the word and its
// neighbours shifted by one pixel), 64 decisions at a time. SWordRules holds those formulas, and
// CheckRules proves them equal to the tables on all 256 codes (four words of lanes) before the first
// use.
//
// Only pixels whose neighbourhood changed can change: a pixel that a subiteration kind kept keeps
// being kept by it until a neighbour goes. Each word carries one "pending" bit per subiteration kind,
// and each row the union of its words' bits; a deletion in a word marks the words around it (the
// three rows, and the words left and right when the deleted pixels touch the word's edge) pending
// for every kind. A subiteration computes the deletions of its pending words on the picture before
// it, in parallel over blocks of rows, and clears them afterwards: the result is that of the parallel
// algorithm applied to the whole band. Stable once as many subiterations in a row as there are kinds
// have deleted nothing.
//
// Indices into the bit image are std::size_t: the words of a band of 2^31 x 2^31 pixels still count
// below 2^57.

#include "Filter/Detail/BandBlocks.h"
#include "Filter/Detail/Thinning.h"
#include "Filter/FilterBase.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cstring>
#include <vector>

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

namespace {

using TTable = std::array<std::uint8_t, 256>;

struct SNeighbours
{
  // Zhang-Suen numbering: P2 north, clockwise to P9 north-west.
  int P[10];
  // Guo-Hall numbering: x1 east, counter-clockwise to x8 south-east; x[9] = x[1].
  int x[10];
  int B;

  explicit SNeighbours(unsigned nCode)
  {
    for (int i = 0; i < 8; ++i)
      P[i + 2] = (nCode >> i) & 1;
    // bits: 0 N, 1 NE, 2 E, 3 SE, 4 S, 5 SW, 6 W, 7 NW
    const int aBit[9] = {0, 2, 1, 0, 7, 6, 5, 4, 3};
    for (int i = 1; i <= 8; ++i)
      x[i] = (nCode >> aBit[i]) & 1;
    x[9] = x[1];
    x[0] = 0;
    P[0] = P[1] = 0;
    B = 0;
    for (int i = 0; i < 8; ++i)
      B += (nCode >> i) & 1;
  }
  int A() const
  {
    int n = 0;
    for (int i = 2; i <= 9; ++i)
      n += (P[i] == 0 && P[i == 9 ? 2 : i + 1] == 1);
    return n;
  }
  int C() const
  {
    int n = 0;
    for (int i = 1; i <= 4; ++i)
      n += (!x[2 * i - 1]) & (x[2 * i] | x[2 * i + 1]);
    return n;
  }
  int N() const
  {
    const int n1 = (x[1] | x[2]) + (x[3] | x[4]) + (x[5] | x[6]) + (x[7] | x[8]);
    const int n2 = (x[2] | x[3]) + (x[4] | x[5]) + (x[6] | x[7]) + (x[8] | x[1]);
    return n1 < n2 ? n1 : n2;
  }
};

struct SAlgorithm
{
  int m_nKinds;
  TTable m_aTable[4];
};

SAlgorithm MakeAlgorithm(EThinning eAlgorithm)
{
  SAlgorithm o{};
  o.m_nKinds = eAlgorithm == EThinning::eSimple ? 4 : 2;
  for (unsigned nCode = 0; nCode < 256; ++nCode)
  {
    const SNeighbours n(nCode);
    const auto& P = n.P;
    const auto& x = n.x;
    switch (eAlgorithm)
    {
    case EThinning::eZhangSuen:
    {
      const bool bCommon = n.B >= 2 && n.B <= 6 && n.A() == 1;
      o.m_aTable[0][nCode] = bCommon && P[2] * P[4] * P[6] == 0 && P[4] * P[6] * P[8] == 0;
      o.m_aTable[1][nCode] = bCommon && P[2] * P[4] * P[8] == 0 && P[2] * P[6] * P[8] == 0;
      break;
    }
    case EThinning::eGuoHallA1:
    {
      const bool bCommon = n.C() == 1 && n.N() >= 2 && n.N() <= 3;
      o.m_aTable[0][nCode] = bCommon && ((x[2] | x[3] | !x[8]) & x[1]) == 0;
      o.m_aTable[1][nCode] = bCommon && ((x[6] | x[7] | !x[4]) & x[5]) == 0;
      break;
    }
    case EThinning::eGuoHallA2:
      o.m_aTable[0][nCode] = o.m_aTable[1][nCode] = n.C() == 1 && n.B >= 2;
      break;
    case EThinning::eSimple:
    {
      const bool bCommon = n.C() == 1 && n.B >= 2;
      o.m_aTable[0][nCode] = bCommon && !P[2]; // north
      o.m_aTable[1][nCode] = bCommon && !P[6]; // south
      o.m_aTable[2][nCode] = bCommon && !P[4]; // east
      o.m_aTable[3][nCode] = bCommon && !P[8]; // west
      break;
    }
    }
    assert(nCode != 255 || !(o.m_aTable[0][nCode] | o.m_aTable[1][nCode] | o.m_aTable[2][nCode] | o.m_aTable[3][nCode]));
  }
  return o;
}


using TWord = std::uint64_t;

// At least two of the n words have the bit set, per bit; exactly one.
template <std::size_t n>
TWord AtLeastTwo(const std::array<TWord, n>& a)
{
  TWord nOne = 0, nTwo = 0;
  for (const TWord t : a)
  {
    nTwo |= nOne & t;
    nOne |= t;
  }
  return nTwo;
}

template <std::size_t n>
TWord ExactlyOne(const std::array<TWord, n>& a)
{
  TWord nOne = 0, nTwo = 0;
  for (const TWord t : a)
  {
    nTwo |= nOne & t;
    nOne |= t;
  }
  return nOne & ~nTwo;
}

// The tables of MakeAlgorithm as formulas on neighbour words n[0..7] (north, then clockwise), for
// the foreground pixels; the subfield of Guo-Hall A2 is applied by the caller.
struct SWordRules
{
  static TWord GuoHallC1(const TWord* n)
  {
    // x1 east = n[2], x2 = n[1], x3 north = n[0], x4 = n[7], x5 west = n[6], x6 = n[5], x7 south = n[4], x8 = n[3]
    return ExactlyOne<4>({~n[2] & (n[1] | n[0]), ~n[0] & (n[7] | n[6]), ~n[6] & (n[5] | n[4]), ~n[4] & (n[3] | n[2])});
  }

  static TWord Delete(EThinning eAlgorithm, int nKind, const TWord* n)
  {
    const std::array<TWord, 8> aN{n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]};
    switch (eAlgorithm)
    {
    case EThinning::eZhangSuen:
    {
      const std::array<TWord, 8> aNot{~n[0], ~n[1], ~n[2], ~n[3], ~n[4], ~n[5], ~n[6], ~n[7]};
      const TWord nA1 = ExactlyOne<8>({aNot[0] & n[1], aNot[1] & n[2], aNot[2] & n[3], aNot[3] & n[4], aNot[4] & n[5],
                                       aNot[5] & n[6], aNot[6] & n[7], aNot[7] & n[0]});
      const TWord nCommon = AtLeastTwo(aN) & AtLeastTwo(aNot) & nA1;
      return nKind == 0 ? nCommon & ~(n[0] & n[2] & n[4]) & ~(n[2] & n[4] & n[6])
                        : nCommon & ~(n[0] & n[2] & n[6]) & ~(n[0] & n[4] & n[6]);
    }
    case EThinning::eGuoHallA1:
    {
      const TWord x1 = n[2], x2 = n[1], x3 = n[0], x4 = n[7], x5 = n[6], x6 = n[5], x7 = n[4], x8 = n[3];
      const std::array<TWord, 4> aN1{x1 | x2, x3 | x4, x5 | x6, x7 | x8}, aN2{x2 | x3, x4 | x5, x6 | x7, x8 | x1};
      const TWord nN = AtLeastTwo(aN1) & AtLeastTwo(aN2) & ~(aN1[0] & aN1[1] & aN1[2] & aN1[3] & aN2[0] & aN2[1] & aN2[2] & aN2[3]);
      const TWord nCommon = GuoHallC1(n) & nN;
      return nKind == 0 ? nCommon & ~((x2 | x3 | ~x8) & x1) : nCommon & ~((x6 | x7 | ~x4) & x5);
    }
    case EThinning::eGuoHallA2:
      return GuoHallC1(n) & AtLeastTwo(aN);
    case EThinning::eSimple:
    {
      static constexpr int aSide[4] = {0, 4, 2, 6}; // north, south, east, west
      return GuoHallC1(n) & AtLeastTwo(aN) & ~n[aSide[nKind]];
    }
    }
    return 0;
  }
};

// The formulas against the tables: lane c of the four words has neighbourhood code c.
bool CheckRules(EThinning eAlgorithm)
{
  const SAlgorithm oAlgorithm = MakeAlgorithm(eAlgorithm);
  for (int nKind = 0; nKind < oAlgorithm.m_nKinds; ++nKind)
    for (unsigned nBlock = 0; nBlock < 4; ++nBlock)
    {
      TWord n[8] = {};
      for (unsigned i = 0; i < 64; ++i)
        for (int k = 0; k < 8; ++k)
          n[k] |= TWord(((nBlock * 64 + i) >> k) & 1) << i;
      const TWord nDelete = SWordRules::Delete(eAlgorithm, nKind, n);
      for (unsigned i = 0; i < 64; ++i)
        if (((nDelete >> i) & 1) != oAlgorithm.m_aTable[nKind][nBlock * 64 + i])
          return false;
    }
  return true;
}

// The bit image: rows 0 and nHeight + 1 and words 0 and m_nWords + 1 of each row are the frame;
// pixel (x, y) is bit x % 64 of word 1 + x / 64 of row y + 1.
class CBitImage
{
public:
  CBitImage(int nWidth, int nHeight)
    : m_nWords((std::size_t(nWidth) + 63) / 64), m_nStride(m_nWords + 2),
      m_vecBits(m_nStride * (std::size_t(nHeight) + 2), 0)
  {
  }
  TWord* Row(int y) { return m_vecBits.data() + (std::size_t(y) + 1) * m_nStride + 1; }
  const TWord* Row(int y) const { return m_vecBits.data() + (std::size_t(y) + 1) * m_nStride + 1; }
  std::size_t Words() const { return m_nWords; }
  std::size_t Stride() const { return m_nStride; }

private:
  std::size_t m_nWords, m_nStride;
  std::vector<TWord> m_vecBits;
};

// Bytes of 0 and 1 to bits and back, eight at a time (little-endian words: byte k is the k-th in
// memory): the product gathers bit 0 of byte k into bit 56 + k.
TWord PackBytes(const std::uint8_t* p)
{
  TWord t = 0;
  for (int k = 0; k < 8; ++k)
  {
    std::uint64_t v;
    std::memcpy(&v, p + 8 * k, 8);
    t |= ((v * 0x0102040810204080ull) >> 56) << (8 * k);
  }
  return t;
}

struct SSpread
{
  std::uint64_t m_a[256]; // byte k of m_a[b] is bit k of b
  constexpr SSpread() : m_a()
  {
    for (unsigned b = 0; b < 256; ++b)
      for (unsigned k = 0; k < 8; ++k)
        m_a[b] |= std::uint64_t((b >> k) & 1) << (8 * k);
  }
};
constexpr SSpread g_oSpread;

// ORs the bytes pBytes[0, nRun) (0 or 1) into the bits of pixels nX .. nX + nRun - 1 of a row.
void PackRun(TWord* pRow, int nX, int nRun, const std::uint8_t* pBytes)
{
  for (int i = 0; i < nRun;)
  {
    const int x = nX + i, nBit0 = x & 63, n = std::min(nRun - i, 64 - nBit0);
    TWord t = 0;
    if (n == 64)
      t = PackBytes(pBytes + i);
    else
      for (int j = 0; j < n; ++j)
        t |= TWord(pBytes[i + j]) << (nBit0 + j);
    pRow[x >> 6] |= t;
    i += n;
  }
}

// The bits of pixels nX .. nX + nRun - 1 of a row as bytes into pBuffer (nRun + 128 bytes); returns
// where pixel nX is.
const std::uint8_t* SpreadRun(const TWord* pRow, int nX, int nRun, std::uint8_t* pBuffer)
{
  const int w0 = nX >> 6, w1 = (nX + nRun - 1) >> 6;
  for (int w = w0; w <= w1; ++w)
    for (int k = 0; k < 8; ++k)
      std::memcpy(pBuffer + 64 * (w - w0) + 8 * k, &g_oSpread.m_a[(pRow[w] >> (8 * k)) & 0xFF], 8);
  return pBuffer + (nX & 63);
}

class CThinning
{
public:
  CThinning(EThinning eAlgorithm, CBitImage& oImage, int nHeight)
    : m_eAlgorithm(eAlgorithm), m_oImage(oImage), m_nHeight(nHeight),
      m_nKinds(eAlgorithm == EThinning::eSimple ? 4 : 2), m_nAllKinds(std::uint8_t((1u << m_nKinds) - 1)),
      m_vecPending(oImage.Stride() * (std::size_t(nHeight) + 2), 0), m_vecRowPending(std::size_t(nHeight) + 2, 0)
  {
    [[maybe_unused]] static const bool bRulesMatch = CheckRules(EThinning::eZhangSuen) && CheckRules(EThinning::eGuoHallA1) &&
                                                     CheckRules(EThinning::eGuoHallA2) && CheckRules(EThinning::eSimple);
    assert(bRulesMatch);
    for (int y = 0; y < nHeight; ++y)
    {
      std::memset(Pending(y), m_nAllKinds, oImage.Words());
      m_vecRowPending[std::size_t(y) + 1] = m_nAllKinds;
    }
  }

  void Run(const CProgressLayer& oProgress)
  {
    const int nBlocks = (m_nHeight + g_nBlockRows - 1) / g_nBlockRows;
    std::vector<std::vector<SChange>> vecChanges(nBlocks);
    double dReported = 0.0;
    for (int nKind = 0, nQuiet = 0; nQuiet < m_nKinds; nKind = (nKind + 1) % m_nKinds)
    {
      auto fnBlock = [&](int b) {
        vecChanges[b].clear();
        for (int y = b * g_nBlockRows; y < std::min(m_nHeight, (b + 1) * g_nBlockRows); ++y)
          _DecideRow(nKind, y, vecChanges[b]);
      };
      if (nBlocks == 1)
        fnBlock(0);
      else
        tbb::parallel_for(0, nBlocks, fnBlock);
      bool bAny = false;
      for (const auto& vec : vecChanges)
        for (const SChange& o : vec)
        {
          _Delete(o);
          bAny = true;
        }
      nQuiet = bAny ? 0 : nQuiet + 1;
      // Progress: the share of rows with nothing left to test.
      std::size_t nBusy = 0;
      for (int y = 0; y < m_nHeight; ++y)
        nBusy += m_vecRowPending[std::size_t(y) + 1] != 0;
      const double dDone = double(m_nHeight) - double(nBusy);
      if (dDone > dReported)
      {
        oProgress.Increment(dDone - dReported);
        dReported = dDone;
      }
    }
    if (dReported < m_nHeight)
      oProgress.Increment(m_nHeight - dReported);
  }

private:
  struct SChange
  {
    std::size_t m_nRow, m_nWord; // 0-based band row, 0-based word
    TWord m_nBits;
  };

  std::uint8_t* Pending(int y) { return m_vecPending.data() + (std::size_t(y) + 1) * m_oImage.Stride() + 1; }

  void _DecideRow(int nKind, int y, std::vector<SChange>& vecOut)
  {
    const std::uint8_t nBit = std::uint8_t(1u << nKind);
    std::uint8_t& nRowPending = m_vecRowPending[std::size_t(y) + 1];
    if (!(nRowPending & nBit))
      return;
    nRowPending &= std::uint8_t(~nBit);
    const std::size_t nWords = m_oImage.Words(), s = m_oImage.Stride();
    std::uint8_t* pPending = Pending(y);
    const TWord* pRow = m_oImage.Row(y);
    // Pixels of the A2 subfield: (x + y) % 2 == nKind, x % 2 being the bit's.
    const TWord nSubfield = m_eAlgorithm != EThinning::eGuoHallA2 ? ~TWord(0)
                            : ((y + nKind) & 1) == 0             ? TWord(0x5555555555555555ull)
                                                                  : TWord(0xAAAAAAAAAAAAAAAAull);
    const std::uint64_t nBitsOf8 = 0x0101010101010101ull * nBit;
    for (std::size_t w = 0; w < nWords; ++w)
    {
      if ((w & 7) == 0 && w + 8 <= nWords)
      {
        std::uint64_t n8;
        std::memcpy(&n8, pPending + w, 8);
        if (!(n8 & nBitsOf8))
        {
          w += 7;
          continue;
        }
      }
      if (!(pPending[w] & nBit))
        continue;
      pPending[w] &= std::uint8_t(~nBit);
      const TWord m = pRow[w];
      if (!m)
        continue;
      const TWord* pA = pRow + w - s;
      const TWord* pB = pRow + w + s;
      const TWord n[8] = {pA[0],
                          (pA[0] >> 1) | (pA[1] << 63),
                          (m >> 1) | (pRow[w + 1] << 63),
                          (pB[0] >> 1) | (pB[1] << 63),
                          pB[0],
                          (pB[0] << 1) | (pB[-1] >> 63),
                          (m << 1) | (pRow[w - 1] >> 63),
                          (pA[0] << 1) | (pA[-1] >> 63)};
      const TWord nDelete = m & nSubfield & SWordRules::Delete(m_eAlgorithm, nKind, n);
      if (nDelete)
        vecOut.push_back({std::size_t(y), w, nDelete});
    }
  }

  void _Delete(const SChange& o)
  {
    const int y = int(o.m_nRow);
    m_oImage.Row(y)[o.m_nWord] &= ~o.m_nBits;
    const bool bLeft = o.m_nBits & 1, bRight = o.m_nBits >> 63;
    for (int r = y - 1; r <= y + 1; ++r)
    {
      m_vecRowPending[std::size_t(r) + 1] = m_nAllKinds;
      std::uint8_t* p = Pending(r) + o.m_nWord; // the frame words left and right may be marked, never read
      p[0] = m_nAllKinds;
      if (bLeft)
        p[-1] = m_nAllKinds;
      if (bRight)
        p[1] = m_nAllKinds;
    }
  }

  EThinning m_eAlgorithm;
  CBitImage& m_oImage;
  int m_nHeight;
  int m_nKinds;
  std::uint8_t m_nAllKinds;
  std::vector<std::uint8_t> m_vecPending, m_vecRowPending;
};

} // namespace

template <class TDest, class TSrc>
void ApplyThinning(EThinning eAlgorithm, const boost::shared_ptr<Harnel::Progress::CLogger>& pLogger,
                   const char* pAction, TDest& oDest, const TSrc& oSrc)
{
  using TPixel = typename TSrc::TPixel;
  using TOut = typename TDest::TPixel;
  CheckSameSize(oDest, oSrc, pAction);
  const int nWidth = int(oSrc.GetWidth()), nHeight = int(oSrc.GetHeight());
  if (nWidth == 0 || nHeight == 0)
    return;
  const CProgressLayer oProgress(pLogger, pAction, 3.0 * nHeight);
  // Runs of one row come from one block, so no two threads set bits of one word. Each block has its
  // own byte buffers for a run: the flags of a run first, in loops that vectorise, then packed.
  CBitImage oImage(nWidth, nHeight), oInvalid(nWidth, nHeight);
  const SValidTest<TPixel> oValid(oSrc);
  std::atomic<bool> bNoData(false);
  ParallelBlockRuns(oSrc, oProgress, [&](int, int) {
    return [&, vecBytes = std::vector<std::uint8_t>(2 * std::size_t(nWidth))](int nX, int nY, const TPixel* pRun,
                                                                               int nRun) mutable {
      std::uint8_t* pForeground = vecBytes.data();
      std::uint8_t* pBad = pForeground + nWidth;
      std::uint8_t nAnyBad = 0;
      for (int i = 0; i < nRun; ++i)
      {
        pBad[i] = !oValid(pRun[i]);
        pForeground[i] = std::uint8_t(!pBad[i] & (pRun[i] != TPixel(0)));
        nAnyBad |= pBad[i];
      }
      PackRun(oImage.Row(nY), nX, nRun, pForeground);
      if (nAnyBad)
      {
        PackRun(oInvalid.Row(nY), nX, nRun, pBad);
        bNoData.store(true, std::memory_order_relaxed);
      }
    };
  });

  CThinning(eAlgorithm, oImage, nHeight).Run(oProgress);

  const TOut tNoData = GetOutputNoDataValue(oDest);
  ParallelBlockRuns(oDest, oProgress, [&](int, int) {
    return [&, vecBytes = std::vector<std::uint8_t>(2 * (std::size_t(nWidth) + 128))](int nX, int nY, TOut* pRun,
                                                                                       int nRun) mutable {
      const std::uint8_t* pSkeleton = SpreadRun(oImage.Row(nY), nX, nRun, vecBytes.data());
      if (!bNoData)
      {
        for (int i = 0; i < nRun; ++i)
          pRun[i] = TOut(pSkeleton[i]);
        return;
      }
      const std::uint8_t* pBad = SpreadRun(oInvalid.Row(nY), nX, nRun, vecBytes.data() + nWidth + 128);
      for (int i = 0; i < nRun; ++i)
        pRun[i] = pBad[i] ? tNoData : TOut(pSkeleton[i]);
    };
  });
  if (bNoData && !oDest.HasNoDataValue())
    oDest.SetNoDataValue(tNoData);
  oProgress.Done();
}

#define ORL_THINNING_MEMORY(TPixel) template ORL_THINNING_APPLY(TPixel, Band::SMemoryTag)
#define ORL_THINNING_IPP(TPixel) template ORL_THINNING_APPLY(TPixel, Band::SIPPTag)
#define ORL_THINNING_TILE(TPixel) template ORL_THINNING_APPLY(TPixel, Band::STileTag)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_MEMORY)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_IPP)
ORL_FOR_EACH_PIXEL_TYPE(ORL_THINNING_TILE)

}}}} // namespace Orl::Ostrel::Filter::Detail
