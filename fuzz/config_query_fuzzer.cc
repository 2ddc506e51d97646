// Configuration and query together: the input is the configuration text, a NUL byte, then the
// query (JSON text holds no raw NUL, so nothing of a configuration is lost to the split).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_engine.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  rulenlu::fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t nul = input.find('\0');
  if (nul == std::string_view::npos) return 0;
  const auto engine = rulenlu::fuzz::BuildEngine(std::string(input.substr(0, nul)));
  if (engine == nullptr) return 0;
  rulenlu::fuzz::CheckAnswer(*engine, std::string(input.substr(nul + 1)));
  return 0;
}
