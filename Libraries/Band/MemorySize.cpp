#include "Band/MemorySize.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

namespace Orl { namespace Ostrel { namespace Band {

bool ParseByteCount(const char* pText, std::uint64_t& nBytes)
{
  // strtoull alone would skip leading blanks and take a sign: " -5" would wrap to 2^64 - 5.
  if (!pText || *pText < '0' || *pText > '9')
    return false;
  char* pEnd = nullptr;
  errno = 0;
  const unsigned long long nValue = std::strtoull(pText, &pEnd, 10);
  if (errno != 0 || pEnd == pText)
    return false;
  unsigned int nShift = 0;
  switch (*pEnd)
  {
  case '\0':
    break;
  case 'k': case 'K':
    nShift = 10;
    break;
  case 'm': case 'M':
    nShift = 20;
    break;
  case 'g': case 'G':
    nShift = 30;
    break;
  default:
    return false;
  }
  if (*pEnd && pEnd[1] != '\0')
    return false;
  if (nValue > (std::numeric_limits<std::uint64_t>::max() >> nShift))
    return false;
  nBytes = static_cast<std::uint64_t>(nValue) << nShift;
  return true;
}

namespace {

// A limit file of a memory cgroup: a number, or "max" (v2) or a huge value (v1) for none.
void _ApplyLimitFile(const std::string& strPath, std::uint64_t& nLimit)
{
  std::ifstream oFile(strPath);
  std::string strValue;
  if (!(oFile >> strValue))
    return;
  std::uint64_t nValue = 0;
  if (ParseByteCount(strValue.c_str(), nValue) && nValue > 0)
    nLimit = std::min(nLimit, nValue);
}

// The limits of the process's memory cgroup and of its ancestors, v2 and v1.
std::uint64_t _GetCgroupLimit()
{
  std::uint64_t nLimit = std::numeric_limits<std::uint64_t>::max();
  std::ifstream oCgroups("/proc/self/cgroup");
  std::string strLine;
  while (std::getline(oCgroups, strLine))
  {
    // "hierarchy-id:controllers:path"; v2 has id 0 and no controllers.
    const std::string::size_type nFirst = strLine.find(':');
    const std::string::size_type nSecond = nFirst == std::string::npos ? nFirst : strLine.find(':', nFirst + 1);
    if (nSecond == std::string::npos)
      continue;
    const std::string strControllers = strLine.substr(nFirst + 1, nSecond - nFirst - 1);
    std::string strPath = strLine.substr(nSecond + 1);
    std::string strRoot, strFile;
    if (strControllers.empty())
    {
      strRoot = "/sys/fs/cgroup";
      strFile = "/memory.max";
    }
    else
    {
      std::istringstream oList(strControllers);
      std::string strController;
      bool bMemory = false;
      while (std::getline(oList, strController, ','))
        bMemory = bMemory || strController == "memory";
      if (!bMemory)
        continue;
      strRoot = "/sys/fs/cgroup/memory";
      strFile = "/memory.limit_in_bytes";
    }
    // A container often sees its own cgroup as the root, where the path from /proc does not exist; the
    // walk up to the root covers both views.
    for (;;)
    {
      _ApplyLimitFile(strRoot + (strPath == "/" ? std::string() : strPath) + strFile, nLimit);
      if (strPath.empty() || strPath == "/")
        break;
      const std::string::size_type nSlash = strPath.find_last_of('/');
      strPath = nSlash == 0 || nSlash == std::string::npos ? std::string("/") : strPath.substr(0, nSlash);
    }
  }
  return nLimit;
}

} // namespace

std::uint64_t GetUsableMemory()
{
  const long nPages = ::sysconf(_SC_PHYS_PAGES);
  const long nPageSize = ::sysconf(_SC_PAGE_SIZE);
  std::uint64_t nMemory = std::numeric_limits<std::uint64_t>::max();
  if (nPages > 0 && nPageSize > 0)
    nMemory = static_cast<std::uint64_t>(nPages) * static_cast<std::uint64_t>(nPageSize);
  nMemory = std::min(nMemory, _GetCgroupLimit());
  // Neither source known: assume a small machine rather than an unlimited one.
  return nMemory == std::numeric_limits<std::uint64_t>::max() ? std::uint64_t(1) << 31 : nMemory;
}

}}} // namespace Orl::Ostrel::Band
