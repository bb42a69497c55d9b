#include "Foundation/BasicException.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <type_traits>

using Orl::Harnel::CBasicException;
using Orl::Harnel::Fileio::CFileioError;

static_assert(!std::is_base_of<std::exception, CBasicException>::value, "caught by name only");

namespace {

// An annotating layer as the tile's record operations are written: it catches file errors only.
template <class TBody>
void _AnnotateFileErrors(TBody fnBody)
{
  try
  {
    fnBody();
  }
  catch (CFileioError& oError)
  {
    oError.AddMessage("/src/Libraries/Band/Tile.h", 20, "Failed to read from the disk tile cache", 0, "");
    throw;
  }
}

} // namespace

TEST(BasicExceptionTest, AnnotationKeepsTheTypeAndAppendsBehindTheRaiser)
{
  try
  {
    _AnnotateFileErrors([] { throw CFileioError("FileioUnix.cpp", 10, "Failed to read from a file", EIO, ""); });
  }
  catch (const CFileioError& oError)
  {
    ASSERT_EQ(2u, oError.GetInfoCount());
    EXPECT_EQ("Failed to read from a file", oError.GetInfo(0).m_strMessage);
    EXPECT_EQ(EIO, oError.GetInfo(0).m_nErrorCode);
    EXPECT_EQ("Failed to read from the disk tile cache", oError.GetInfo(1).m_strMessage);
    EXPECT_EQ(0, oError.GetInfo(1).m_nErrorCode);
  }
  // A plain failure passes the file layer untouched, and a handler for the root catches it.
  try
  {
    _AnnotateFileErrors([] { throw CBasicException("TileAlloc.cpp", 5, "Failed to allocate", ENOMEM, ""); });
  }
  catch (const CFileioError&)
  {
    FAIL() << "a plain failure became a file error";
  }
  catch (const CBasicException& oError)
  {
    EXPECT_EQ(1u, oError.GetInfoCount());
  }
}

TEST(BasicExceptionTest, PrintsTheChainOldestFirstWithPositionsDetailAndError)
{
  CFileioError oError("/src/Libraries/Fileio/FileioUnix.cpp", 57, "Failed to write to a file", ENOSPC, "flush");
  oError.AddMessage("/src/Libraries/Band/Tile.h", 240, "Failed to write to the disk tile cache", 0, "");
  EXPECT_EQ("Failed to write to a file - flush [FileioUnix.cpp:57] (error " + std::to_string(ENOSPC) +
              ": No space left on device)\n  Failed to write to the disk tile cache [Tile.h:240]",
            oError.ToString());
}
