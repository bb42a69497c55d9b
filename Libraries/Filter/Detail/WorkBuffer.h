#pragma once

// Whole-band working arrays of the filters that copy a band into memory before their real work.

#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// Huge-page arrays that a filter has freed, kept for the next one: a fresh array costs a page fault
// per page and the kernel zeroes every page, about a tenth of a fast transform's time when the same
// filter runs band after band. Up to ms_nKeptBytes stay kept, the most recently freed; a request
// takes the smallest kept array that holds it without wasting more than half of it.
class CKeptArrays
{
public:
  static constexpr std::size_t ms_nKeptBytes = std::size_t(64) << 20;

  static CKeptArrays& Get()
  {
    static CKeptArrays s_oKept;
    return s_oKept;
  }
  ~CKeptArrays() { Release(); }

  // A kept array of at least nBytes and at most twice that, with its size, or {nullptr, 0}.
  std::pair<void*, std::size_t> Take(std::size_t nBytes)
  {
    const std::lock_guard<std::mutex> oLock(m_oMutex);
    auto itBest = m_vecArrays.end();
    for (auto it = m_vecArrays.begin(); it != m_vecArrays.end(); ++it)
      if (it->second >= nBytes && it->second / 2 <= nBytes && (itBest == m_vecArrays.end() || it->second < itBest->second))
        itBest = it;
    if (itBest == m_vecArrays.end())
      return {nullptr, 0};
    const std::pair<void*, std::size_t> oArray = *itBest;
    m_vecArrays.erase(itBest);
    m_nBytes -= oArray.second;
    return oArray;
  }

  // Keeps p (nBytes, from std::aligned_alloc) or frees it; the oldest kept arrays go first.
  void Give(void* p, std::size_t nBytes)
  {
    if (nBytes > ms_nKeptBytes)
      return std::free(p);
    const std::lock_guard<std::mutex> oLock(m_oMutex);
    m_vecArrays.emplace_back(p, nBytes);
    m_nBytes += nBytes;
    while (m_nBytes > ms_nKeptBytes)
    {
      std::free(m_vecArrays.front().first);
      m_nBytes -= m_vecArrays.front().second;
      m_vecArrays.erase(m_vecArrays.begin());
    }
  }

  // Returns every kept array to the system.
  void Release()
  {
    const std::lock_guard<std::mutex> oLock(m_oMutex);
    for (const auto& oArray : m_vecArrays)
      std::free(oArray.first);
    m_vecArrays.clear();
    m_nBytes = 0;
  }

private:
  CKeptArrays() = default;

  std::mutex m_oMutex;
  std::vector<std::pair<void*, std::size_t>> m_vecArrays; // oldest first
  std::size_t m_nBytes = 0;
};

// An array of n values of a trivial type, left uninitialised: the caller writes every value before
// reading it. Arrays of several megabytes ask for huge pages where the system grants them on request
// (Linux: madvise), since a fresh array costs a page fault per page on first touch, and with 4 KB
// pages those faults take a good part of a fast filter's time; freed, they go to CKeptArrays.
template <class T>
class CWorkBuffer
{
  static_assert(std::is_trivially_copyable<T>::value && std::is_trivially_destructible<T>::value, "plain values");

public:
  // Every array starts on a 16-byte boundary at least, all an FFTW plan made on one array needs to
  // run on another. Not more for small arrays: an aligned operator new of a few megabytes raised the
  // fill-hole filter's peak memory by a quarter (glibc then keeps them in the heap, not in mappings).
  static_assert(__STDCPP_DEFAULT_NEW_ALIGNMENT__ >= 16, "operator new aligns to 16 bytes");

  explicit CWorkBuffer(std::size_t nCount)
  {
    constexpr std::size_t nHugePage = std::size_t(2) << 20;
    const std::size_t nBytes = nCount * sizeof(T);
    // Huge pages from two on, or from one where rounding up to whole pages wastes at most an eighth.
    const std::size_t nWaste = (nHugePage - nBytes % nHugePage) % nHugePage;
    if (nBytes < nHugePage || (nBytes < 2 * nHugePage && 8 * nWaste > nBytes + nWaste))
      m_p = static_cast<T*>(::operator new(nBytes == 0 ? 1 : nBytes));
    else
    {
      const std::size_t nRounded = (nBytes + nHugePage - 1) / nHugePage * nHugePage;
      std::pair<void*, std::size_t> oKept = CKeptArrays::Get().Take(nRounded);
      if (!oKept.first)
      {
        oKept = {std::aligned_alloc(nHugePage, nRounded), nRounded};
        if (!oKept.first)
          throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
        madvise(oKept.first, nRounded, MADV_HUGEPAGE); // a hint: without huge pages the array still works
#endif
      }
      m_p = static_cast<T*>(oKept.first);
      m_nAlignedBytes = oKept.second;
    }
  }
  ~CWorkBuffer()
  {
    if (m_nAlignedBytes != 0)
      CKeptArrays::Get().Give(m_p, m_nAlignedBytes);
    else
      ::operator delete(m_p);
  }
  CWorkBuffer(const CWorkBuffer&) = delete;
  CWorkBuffer& operator=(const CWorkBuffer&) = delete;

  T* data() { return m_p; }
  const T* data() const { return m_p; }
  T& operator[](std::size_t n) { return m_p[n]; }
  const T& operator[](std::size_t n) const { return m_p[n]; }

private:
  T* m_p = nullptr;
  std::size_t m_nAlignedBytes = 0; // the size of an array from std::aligned_alloc (kept when freed), else 0
};

}}}} // namespace Orl::Ostrel::Filter::Detail
