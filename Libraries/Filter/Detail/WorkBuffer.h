#pragma once

// Whole-band working arrays of the filters that copy a band into memory before their real work.

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Orl { namespace Ostrel { namespace Filter { namespace Detail {

// An array of n values of a trivial type, left uninitialised: the caller writes every value before
// reading it. Arrays of several megabytes ask for huge pages where the system grants them on request
// (Linux: madvise), since a fresh array costs a page fault per page on first touch, and with 4 KB
// pages those faults take a good part of a fast filter's time.
template <class T>
class CWorkBuffer
{
  static_assert(std::is_trivially_copyable<T>::value && std::is_trivially_destructible<T>::value, "plain values");

public:
  explicit CWorkBuffer(std::size_t nCount)
  {
    constexpr std::size_t nHugePage = std::size_t(2) << 20;
    const std::size_t nBytes = nCount * sizeof(T);
    if (nBytes < 2 * nHugePage)
      m_p = TPointer(static_cast<T*>(::operator new(nBytes == 0 ? 1 : nBytes)), &_FreeOperatorNew);
    else
    {
      const std::size_t nRounded = (nBytes + nHugePage - 1) / nHugePage * nHugePage;
      void* p = std::aligned_alloc(nHugePage, nRounded);
      if (!p)
        throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
      madvise(p, nRounded, MADV_HUGEPAGE); // a hint: without huge pages the array still works
#endif
      m_p = TPointer(static_cast<T*>(p), &_FreeAligned);
    }
  }

  T* data() { return m_p.get(); }
  const T* data() const { return m_p.get(); }
  T& operator[](std::size_t n) { return m_p.get()[n]; }
  const T& operator[](std::size_t n) const { return m_p.get()[n]; }

private:
  static void _FreeOperatorNew(T* p) { ::operator delete(p); }
  static void _FreeAligned(T* p) { std::free(p); }

  using TPointer = std::unique_ptr<T, void (*)(T*)>;
  TPointer m_p{nullptr, &_FreeOperatorNew};
};

}}}} // namespace Orl::Ostrel::Filter::Detail
