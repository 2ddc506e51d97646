// Configuration text -> engine: whatever the text, building an engine returns one or reports
// the library's Error, and a built engine answers a few ordinary queries.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_engine.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  rulenlu::fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto engine = rulenlu::fuzz::BuildEngine(text);
  if (engine == nullptr) return 0;
  for (const char* query : {"call Tom at 5pm", "aaaa bbbb 12:30", "", "\xE4\xBC\x9A <x> ${v}"}) {
    rulenlu::fuzz::CheckAnswer(*engine, query);
  }
  return 0;
}
