#include "Foundation/BasicException.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

using Orl::Harnel::CBasicException;
using Orl::Harnel::Fileio::CFileioError;

namespace {

[[noreturn]] void _RaiseFileError()
{
  throw CFileioError("Fileio/FileioUnix.cpp", 10, "Failed to read from a file", EIO, "");
}

// An annotating layer as the tile's record operations are written: catches file errors only.
void _AnnotateFileErrors(void (*pfnBody)())
{
  try
  {
    pfnBody();
  }
  catch (CFileioError& oError)
  {
    oError.AddMessage("/src/Libraries/Band/Tile.h", 20, "Failed to read from the disk tile cache", 0, "");
    throw;
  }
}

} // namespace

TEST(BasicExceptionTest, AnnotatedFileErrorKeepsItsTypeAndBothEntriesInOrder)
{
  try
  {
    _AnnotateFileErrors(&_RaiseFileError);
    FAIL() << "nothing raised";
  }
  catch (const CFileioError& oError)
  {
    ASSERT_EQ(2u, oError.GetInfoCount());
    EXPECT_EQ("Failed to read from a file", oError.GetInfo(0).m_strMessage);
    EXPECT_EQ(EIO, oError.GetInfo(0).m_nErrorCode);
    EXPECT_EQ("Failed to read from the disk tile cache", oError.GetInfo(1).m_strMessage);
    EXPECT_EQ(20, oError.GetInfo(1).m_nLine);
    EXPECT_EQ(0, oError.GetInfo(1).m_nErrorCode);
  }
}

TEST(BasicExceptionTest, HandlersForTheRootCatchFileErrorsAndStandardHandlersCatchNeither)
{
  auto fnCatchesAsRoot = [](void (*pfnBody)()) {
    try
    {
      try
      {
        pfnBody();
      }
      catch (const std::exception&)
      {
        return false;
      }
    }
    catch (const CBasicException&)
    {
      return true;
    }
    return false;
  };
  EXPECT_TRUE(fnCatchesAsRoot(&_RaiseFileError));
  EXPECT_TRUE(fnCatchesAsRoot([] { throw CBasicException("a.cpp", 1, "plain", 0, ""); }));
}

TEST(BasicExceptionTest, LayerForFileErrorsLetsOtherFailuresPassUntouched)
{
  try
  {
    _AnnotateFileErrors([] { throw CBasicException("TileAlloc.cpp", 5, "Failed to allocate", ENOMEM, ""); });
    FAIL() << "nothing raised";
  }
  catch (const CFileioError&)
  {
    FAIL() << "a plain failure became a file error";
  }
  catch (const CBasicException& oError)
  {
    ASSERT_EQ(1u, oError.GetInfoCount());
    EXPECT_EQ("Failed to allocate", oError.GetInfo(0).m_strMessage);
  }
}

TEST(BasicExceptionTest, PrintsTheChainOldestFirstWithPositionsDetailAndError)
{
  CFileioError oError("/build/src/Libraries/Fileio/FileioUnix.cpp", 57, "Failed to write to a file", ENOSPC,
                      "while flushing");
  oError.AddMessage("/build/src/Libraries/Band/Tile.h", 240, "Failed to write to the disk tile cache", 0, "");
  const std::string strExpected =
    "Failed to write to a file - while flushing [FileioUnix.cpp:57] (error " + std::to_string(ENOSPC) +
    ": No space left on device)\n"
    "  Failed to write to the disk tile cache [Tile.h:240]";
  EXPECT_EQ(strExpected, oError.ToString());
}
