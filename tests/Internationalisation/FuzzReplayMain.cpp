// Feeds every file of the given directories (or the given files) to the fuzz target once, for
// builds without libFuzzer.
#include <boost/filesystem.hpp>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize);

namespace {

void RunFile(const boost::filesystem::path& oPath)
{
  std::ifstream oStream(oPath.string(), std::ios::binary);
  const std::vector<char> vecBytes((std::istreambuf_iterator<char>(oStream)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(vecBytes.data()), vecBytes.size());
}

} // namespace

int main(int argc, char** argv)
{
  LLVMFuzzerInitialize(&argc, &argv);
  std::size_t nInputs = 0;
  for (int i = 1; i < argc; ++i)
  {
    const boost::filesystem::path oPath(argv[i]);
    if (boost::filesystem::is_directory(oPath))
    {
      for (const auto& oEntry : boost::filesystem::directory_iterator(oPath))
        if (boost::filesystem::is_regular_file(oEntry.path()))
        {
          RunFile(oEntry.path());
          ++nInputs;
        }
    }
    else
    {
      RunFile(oPath);
      ++nInputs;
    }
  }
  std::printf("replayed %zu inputs\n", nInputs);
  return nInputs > 0 ? 0 : 1;
}
