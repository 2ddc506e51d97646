// NluEngine: the three pipeline stages built from one configuration.
//
// An engine is built once (constructor, then Init) and is read-only afterwards: Process may run
// on any number of threads at once. An engine is never destroyed while a host may use it.
#ifndef RULENLU_ENGINE_NLU_ENGINE_H_
#define RULENLU_ENGINE_NLU_ENGINE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "config/nlu_config.h"
#include "engine/records.h"
#include "rulenlu/engine_api.h"

namespace rulenlu {

class Tagger;
class RegexParser;
class Ranker;

class NluEngine {
 public:
  // Creates the three stages, empty, and version 0.
  NluEngine();
  ~NluEngine();
  NluEngine(const NluEngine&) = delete;
  NluEngine& operator=(const NluEngine&) = delete;

  // Builds the stages from `config` and takes its version; always returns true. Propagates the
  // errors of stage construction (a regex vocabulary pattern that does not compile: RegexError;
  // text that cannot be converted: std::range_error).
  bool Init(NluConfig config);

  // The pipeline: tags, parses and ranks `query` (UTF-8, read up to its first NUL). `status`
  // must be 0 on entry; on failure it holds the failing stage's code and the result is empty.
  IntentCandidate Process(const char* query, int& status) const;

  // Answers `query` for the host: logs the outcome and converts it to UTF-8. Any failure gives
  // the empty result. Never throws.
  NluResult Process(const std::string& query) const;

  // A new engine built from `config`, or null when its stages cannot be built, with the reason
  // in `*why`.
  static std::unique_ptr<NluEngine> Build(NluConfig config, std::string* why);

  int64_t version() const { return version_; }

 private:
  std::unique_ptr<Tagger> tagger_;
  std::unique_ptr<RegexParser> parser_;
  std::unique_ptr<Ranker> ranker_;
  int64_t version_ = 0;
};

}  // namespace rulenlu

#endif  // RULENLU_ENGINE_NLU_ENGINE_H_
