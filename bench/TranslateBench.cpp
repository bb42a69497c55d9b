// CTranslator::Translate of a known text, from one thread and from every processor at once, against
// the same table lookup without the translator's lock. Each call takes the module's creation mutex
// and then the translator's recursive mutex, so calls from many threads serialise; the figures show
// what that costs per call. The known text comes from a translation file with a base module, as in
// an application that has chosen its language.
#include "Internationalisation/Translator.h"
#include "Internationalisation/TranslatorData.h"
#include "Internationalisation/TranslatorFile.h"

#include <benchmark/benchmark.h>
#include <boost/filesystem.hpp>

#include <cstdio>
#include <string>

namespace {

using namespace Orl::Harnel::Internationalisation;

const char* const g_pKnown = "Calculating statistics";
const std::string g_strKnown = g_pKnown;

void WriteTables(const std::string& strDirectory)
{
  CTranslatorData oCommon;
  oCommon.Init("common", "German");
  for (int i = 0; i < 200; ++i)
    oCommon.SetTranslation("common text " + std::to_string(i), "gemeinsamer Text " + std::to_string(i));
  CTranslatorFile(CTranslatorFile::BuildFileName(strDirectory, "common", "German")).Write(oCommon);

  CTranslatorData oOwn;
  oOwn.Init("TranslateBench", "German");
  oOwn.AddBaseModule(oCommon);
  for (int i = 0; i < 500; ++i)
    oOwn.SetTranslation("progress text " + std::to_string(i), "Fortschrittstext " + std::to_string(i));
  oOwn.SetTranslation(g_strKnown, "Statistik wird berechnet");
  CTranslatorFile(CTranslatorFile::BuildFileName(strDirectory, "TranslateBench", "German")).Write(oOwn);
}

void BM_Translate(benchmark::State& oState)
{
  for (auto _ : oState)
    benchmark::DoNotOptimize(CTranslator::Translate(g_strKnown).data());
  oState.SetItemsProcessed(oState.iterations());
}
BENCHMARK(BM_Translate)->Threads(1)->ThreadPerCpu()->UseRealTime();

// The usual call at the place of use, with a literal: one std::string more per call.
void BM_TranslateLiteral(benchmark::State& oState)
{
  for (auto _ : oState)
    benchmark::DoNotOptimize(CTranslator::Translate(g_pKnown).data());
  oState.SetItemsProcessed(oState.iterations());
}
BENCHMARK(BM_TranslateLiteral)->Threads(1)->ThreadPerCpu()->UseRealTime();

// Reference: the same deep search in a private copy of the tables, without any lock.
void BM_TableLookupReference(benchmark::State& oState)
{
  CTranslatorData oData = CTranslator::GetTranslatorData();
  for (auto _ : oState)
    benchmark::DoNotOptimize(oData.Translate(g_strKnown, true).data());
  oState.SetItemsProcessed(oState.iterations());
}
BENCHMARK(BM_TableLookupReference)->Threads(1)->ThreadPerCpu()->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
  const boost::filesystem::path oDirectory =
    boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("orl-translate-bench-%%%%-%%%%");
  boost::filesystem::create_directories(oDirectory);
  WriteTables(oDirectory.string());
  CTranslator::Init(oDirectory.string(), "TranslateBench", "German");
  if (CTranslator::Translate(g_strKnown) == g_strKnown)
  {
    std::fprintf(stderr, "the translation file was not read\n");
    return 1;
  }

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  boost::filesystem::remove_all(oDirectory); // nothing was learnt, so nothing is written back at exit
  return 0;
}
