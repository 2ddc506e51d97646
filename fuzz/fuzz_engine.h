// What the fuzz targets share: a silent log, and an engine built from configuration text the
// way the library builds it from a file.
#ifndef RULENLU_FUZZ_FUZZ_ENGINE_H_
#define RULENLU_FUZZ_FUZZ_ENGINE_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/log.h"
#include "config/config_parser.h"
#include "engine/nlu_engine.h"

namespace rulenlu::fuzz {

// Drops every log line: a query logs several, and writing them would be most of the work.
class SilentLog : public LogSink {
 public:
  void Write(LogStream, std::string_view) override {}
};

inline void SilenceLog() {
  static SilentLog sink;
  SetLogSink(&sink);
}

// The engine of configuration `text`, or null when the text is refused (not a JSON object, not
// UTF-8, a pattern that does not compile): the library's own failures, which it reports as
// Error. Anything else escapes and is a finding.
inline std::unique_ptr<const NluEngine> BuildEngine(const std::string& text) {
  try {
    std::optional<NluConfig> config = ParseNluConfig(text);
    if (!config.has_value()) return nullptr;
    return std::make_unique<const NluEngine>(std::move(*config));
  } catch (const Error&) {
    return nullptr;
  }
}

// Answers `query` and checks what every answer promises: a result is empty on failure, and each
// slot lies inside the query's UTF-16 length. Process never throws; a broken promise aborts.
void CheckAnswer(const NluEngine& engine, const std::string& query);

}  // namespace rulenlu::fuzz

#endif  // RULENLU_FUZZ_FUZZ_ENGINE_H_
