#include "Foundation/BasicException.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <type_traits>

using Orl::Harnel::CBasicException;
using Orl::Harnel::Fileio::CFileioError;

static_assert(!std::is_base_of<std::exception, CBasicException>::value, "caught by name only");

// An annotating layer as the tile's record operations are written: it catches file errors only. It keeps
// the type, appends behind the raiser, and lets a plain failure pass to a handler for the root.
TEST(BasicExceptionTest, AnnotationKeepsTheTypeAndAppendsBehindTheRaiser)
{
  for (const bool bFileError : {true, false})
    try
    {
      try
      {
        if (bFileError)
          throw CFileioError("FileioUnix.cpp", 10, "Failed to read from a file", EIO, "");
        throw CBasicException("TileAlloc.cpp", 5, "Failed to allocate", ENOMEM, "");
      }
      catch (CFileioError& oError)
      {
        oError.AddMessage("/src/Libraries/Band/Tile.h", 20, "Failed to read from the disk tile cache", 0, "");
        throw;
      }
    }
    catch (const CFileioError& oError)
    {
      EXPECT_TRUE(bFileError);
      ASSERT_EQ(2u, oError.GetInfoCount());
      EXPECT_EQ(EIO, oError.GetInfo(0).m_nErrorCode);
      EXPECT_EQ("Failed to read from the disk tile cache", oError.GetInfo(1).m_strMessage);
      EXPECT_EQ(0, oError.GetInfo(1).m_nErrorCode);
    }
    catch (const CBasicException& oError)
    {
      EXPECT_FALSE(bFileError) << "a plain failure became a file error";
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
