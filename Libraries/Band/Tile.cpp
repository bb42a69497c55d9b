#include "Band/Tile.h"

#include "Internationalisation/Translator.h"

#include <lz4.h>

#include <algorithm>
#include <cstring>

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

namespace {

std::int32_t _GetHeader(const char* pBuffer)
{
  std::int32_t nHeader;
  std::memcpy(&nHeader, pBuffer, sizeof(nHeader));
  return nHeader;
}

// LZ4 takes int sizes; larger tiles are always stored raw.
int _ToLz4Size(unsigned int nPixelBytes)
{
  return static_cast<int>(std::min<unsigned int>(nPixelBytes, LZ4_MAX_INPUT_SIZE));
}

// The bytes compressed to judge whether a tile is worth compressing.
constexpr unsigned int g_nCompressionSample = 16384;

} // namespace

unsigned long EncodeTileRecord(const void* pPixels, unsigned int nPixelBytes, char* pBuffer)
{
  // A sample from the middle of the pixels is compressed first: when it does not shrink by a sixteenth,
  // the tile is stored raw without a compression of the whole that would fail anyway (noise, mantissas
  // of measured values). Such tiles pay a sixteenth of a compression instead of a whole one, others a
  // sixteenth more. LZ4_compress_default with n as the output bound is the limited-output compressor
  // of earlier LZ4 releases under its current name.
  const char* pFrom = static_cast<const char*>(pPixels);
  std::int32_t nCompressed = 0;
  if (nPixelBytes <= static_cast<unsigned int>(LZ4_MAX_INPUT_SIZE))
  {
    bool bTry = true;
    if (nPixelBytes >= 16 * g_nCompressionSample)
    {
      const int nSample = static_cast<int>(g_nCompressionSample);
      const int nBound = nSample - nSample / 16;
      bTry = LZ4_compress_default(pFrom + (nPixelBytes / 2 - g_nCompressionSample / 2), pBuffer + 4, nSample,
                                  nBound) > 0;
    }
    if (bTry)
      nCompressed = LZ4_compress_default(pFrom, pBuffer + 4, static_cast<int>(nPixelBytes),
                                         static_cast<int>(nPixelBytes));
  }
  std::memcpy(pBuffer, &nCompressed, sizeof(nCompressed));
  unsigned long nPayload = static_cast<unsigned long>(nCompressed);
  if (nCompressed <= 0)
  {
    std::memcpy(pBuffer + 4, pPixels, nPixelBytes);
    nPayload = nPixelBytes;
  }
  // The filler is not cleared: it means nothing.
  return (nPayload + 4 + g_nTileRecordAlign - 1) / g_nTileRecordAlign * g_nTileRecordAlign;
}

unsigned long GetTileRecordRest(const char* pBuffer, unsigned int nPixelBytes)
{
  const std::int32_t nCompressed = _GetHeader(pBuffer);
  // Signed on purpose: for c up to 508 the block ends within the first 512 bytes and the rest is 0.
  if (nCompressed > 0)
  {
    // A count beyond n only comes from a damaged record; clamped, it cannot overrun the buffer.
    const long long nPayload = std::min<long long>(nCompressed, nPixelBytes);
    return static_cast<unsigned long>((nPayload - 508 + 511) / 512 * 512);
  }
  return (static_cast<unsigned long>(nPixelBytes) + 3) / 512 * 512;
}

void DecodeTileRecord(const char* pBuffer, unsigned int nPixelBytes, void* pPixels)
{
  const std::int32_t nCompressed = _GetHeader(pBuffer);
  if (nCompressed > 0)
  {
    // The header's count bounds the input: the same records as the output-size-only decoder of earlier
    // LZ4 releases, which is deprecated, but a damaged record cannot make the decoder read or write out
    // of bounds. As before, the result is not looked at: records carry no checksum to judge them by.
    const int nPayload = std::min(static_cast<int>(nCompressed), _ToLz4Size(nPixelBytes));
    LZ4_decompress_safe(pBuffer + 4, static_cast<char*>(pPixels), nPayload, _ToLz4Size(nPixelBytes));
  }
  else
    std::memcpy(pPixels, pBuffer + 4, nPixelBytes);
}

void AddTileMessage(Harnel::CBasicException& oError, const char* pFile, int nLine, const char* pMessage)
{
  oError.AddMessage(pFile, nLine, Harnel::Internationalisation::CTranslator::Translate(pMessage), 0, std::string());
}

#define ORL_TILE_INSTANTIATE(T) template class CTile<T, CDefaultTileAlloc<T> >;
ORL_FOR_EACH_PIXEL_TYPE(ORL_TILE_INSTANTIATE)
#undef ORL_TILE_INSTANTIATE

}}}} // namespace Orl::Ostrel::Band::Detail
