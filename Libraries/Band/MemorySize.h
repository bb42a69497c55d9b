#pragma once

#include "Foundation/Export.h"

#include <cstdint>

namespace Orl { namespace Ostrel { namespace Band {

// A byte count from text: decimal digits, optionally followed by one of K, M or G (either case) for
// 2^10, 2^20 or 2^30 bytes, as in "123", "64K", "512M", "2g". Nothing else is taken: no blanks, no
// sign, no other suffix, nothing after the suffix, no value beyond 64 bits. False for anything else,
// and nBytes is then left as it was.
ORL_OSTREL_API bool ParseByteCount(const char* pText, std::uint64_t& nBytes);

// The memory this process can use: the smaller of the physical memory and the limit of its memory
// cgroup (v1 or v2, its own and its ancestors'). 2 GiB when neither can be found.
ORL_OSTREL_API std::uint64_t GetUsableMemory();

}}} // namespace Orl::Ostrel::Band
