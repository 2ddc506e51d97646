// NluEngine: the three pipeline stages built from one configuration.
//
// An engine is built whole by its constructor and is read-only afterwards: any number of
// threads may run queries on it at once.
#ifndef RULENLU_ENGINE_NLU_ENGINE_H_
#define RULENLU_ENGINE_NLU_ENGINE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "base/records.h"
#include "config/nlu_config.h"
#include "nlu/ranker.h"
#include "nlu/regex_parser.h"
#include "rulenlu/engine_api.h"

namespace rulenlu {

class Tagger;

// How the pipeline treats one query, step by step (NluEngine::Explain).
struct QueryExplanation {
  std::string failure;  // the stage that fails the query and why; empty when none does
  ParseTrace trace;     // the tagger's tags and the parser's exhaustive search
  std::vector<CandidateScore> scores;  // the ranking keys of each of trace.candidates
};

// The pipeline's answer to one query.
struct PipelineOutcome {
  int status = kStatusOk;     // kStatusOk, or the code of the stage that failed
  IntentCandidate candidate;  // the winner, stamped with the engine's version; empty on failure
};

class NluEngine {
 public:
  // Builds the stages from `config` and takes its version, logging "NluEngine: start tagger
  // init" and "NluEngine: start parser init" before the stages they name. Throws RegexError
  // when a regex vocabulary pattern does not compile and ConversionError when a name or pattern
  // cannot be converted between UTF-8 and UTF-16.
  explicit NluEngine(NluConfig config);
  ~NluEngine();
  NluEngine(const NluEngine&) = delete;
  NluEngine& operator=(const NluEngine&) = delete;

  // Tags, parses and ranks `query` (UTF-8, read up to its first NUL). A stage that fails
  // (malformed UTF-8 or a failed regex vocabulary: the tagger; a failed rule: the parser; lack
  // of memory: the stage it struck) logs its line on stderr ("tagger process exception!",
  // "regex parser process exception!", "ranker process exception!") and sets the status to its
  // code. Throws only what a defect would throw.
  PipelineOutcome Understand(const std::string& query) const;

  // Answers `query` for the host: logs the outcome and converts it to UTF-8. Any failure gives
  // the empty result. Throws only what a defect would throw.
  NluResult Process(const std::string& query) const;

  // Explains `query`: the tagger's tags in the parser's trace and the ranking keys of every
  // candidate. Changes nothing and logs nothing; the answer itself is Process's.
  QueryExplanation Explain(const std::string& query) const;

  int64_t version() const { return version_; }

 private:
  std::unique_ptr<const Tagger> tagger_;
  std::unique_ptr<const RegexParser> parser_;
  int64_t version_;
};

}  // namespace rulenlu

#endif  // RULENLU_ENGINE_NLU_ENGINE_H_
