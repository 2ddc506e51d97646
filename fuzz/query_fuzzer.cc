// A fixed, realistic configuration (examples/collab.json) and query bytes -> answer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "base/error.h"
#include "base/file.h"
#include "fuzz_engine.h"

namespace {
std::unique_ptr<const rulenlu::NluEngine> g_engine;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  rulenlu::fuzz::SilenceLog();
  g_engine = rulenlu::fuzz::BuildEngine(rulenlu::ReadWholeFile(RULENLU_FUZZ_CONFIG));
  if (g_engine == nullptr) std::abort();  // the example must build
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  rulenlu::fuzz::CheckAnswer(*g_engine, std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
