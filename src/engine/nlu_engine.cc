#include "engine/nlu_engine.h"

#include <new>
#include <utility>

#include "base/error.h"
#include "base/log.h"
#include "base/text.h"
#include "nlu/ranker.h"
#include "nlu/regex_parser.h"
#include "nlu/tagger.h"

namespace rulenlu {
namespace {

// The host-facing form of `candidate`, whose names it takes; throws ConversionError on text
// that cannot be encoded, leaving the intent's name in `candidate`.
NluResult ToNluResult(IntentCandidate* candidate) {
  NluResult result;
  result.version = candidate->version;
  result.text = Utf16ToUtf8(candidate->text);
  result.slots.resize(candidate->slots.size());
  for (size_t i = 0; i < result.slots.size(); ++i) {
    SlotMatch& slot = candidate->slots[i];
    NluSlot& out = result.slots[i];
    out.value = Utf16ToUtf8(slot.value);
    out.key = std::move(slot.key);
    out.start = static_cast<int64_t>(static_cast<uint32_t>(slot.start));
    out.length = static_cast<int64_t>(slot.length);
  }
  result.intent = std::move(candidate->intent);
  return result;
}

std::unique_ptr<const Tagger> MakeTagger(NluConfig& config) {
  LogLine(LogStream::kStdout, {"NluEngine: start tagger init"});
  return std::make_unique<const Tagger>(config.vocabMap, std::move(config.regexVocabMap),
                                        config.variableEntrys);
}

std::unique_ptr<const RegexParser> MakeParser(const NluConfig& config, const Tagger& tagger) {
  LogLine(LogStream::kStdout, {"NluEngine: start parser init"});
  return std::make_unique<const RegexParser>(config.intentMap, tagger.vocab_names());
}

// Runs one stage: a failure of its own or lack of memory fails the query with the stage's code
// and log line.
template <typename Stage>
bool RunStage(Stage stage, int code, const char* failure, int* status) {
  try {
    stage();
    return true;
  } catch (const Error&) {
  } catch (const std::bad_alloc&) {
  }
  LogLine(LogStream::kStderr, {failure});
  *status = code;
  return false;
}

}  // namespace

NluEngine::NluEngine(NluConfig config)
    : tagger_(MakeTagger(config)),
      parser_(MakeParser(config, *tagger_)),
      version_(config.version) {}

NluEngine::~NluEngine() = default;

PipelineOutcome NluEngine::Understand(const std::string& query) const {
  PipelineOutcome outcome;
  std::u16string wide;
  std::vector<QueryTag> tags;
  std::optional<IntentCandidate> best;
  IntentCandidate winner;
  const bool done =
      RunStage([&] { tags = tagger_->Tag(wide = Utf8ToUtf16(query.c_str())); }, kStatusTaggerFailed,
               "tagger process exception!", &outcome.status) &&
      RunStage([&] { best = parser_->Parse(wide, std::move(tags)); }, kStatusParserFailed,
               "regex parser process exception!", &outcome.status) &&
      RunStage(
          [&] {
            std::vector<IntentCandidate> candidates;
            if (best.has_value()) candidates.push_back(std::move(*best));
            winner = Ranker::Rank(wide, std::move(candidates));
          },
          kStatusRankerFailed, "ranker process exception!", &outcome.status);
  if (done) {
    outcome.candidate = std::move(winner);
    outcome.candidate.version = version_;
  }
  return outcome;
}

NluResult NluEngine::Process(const std::string& query) const {
  PipelineOutcome outcome = Understand(query);
  NluResult result;
  try {
    result = ToNluResult(&outcome.candidate);
  } catch (const ConversionError&) {
    // A slot can split a surrogate pair (a regex `.` matches one unit): such text has no UTF-8.
    LogLine(LogStream::kStdout, {"result :", outcome.candidate.intent});
    LogLine(LogStream::kStderr, {"result conversion exception!"});
    return NluResult{};
  }
  LogLine(LogStream::kStdout, {"result :", result.intent});
  for (const NluSlot& slot : result.slots) {
    LogLine(LogStream::kStdout, {"slotkey:", slot.key, ", slotvalue:", slot.value});
  }
  return result;
}

QueryExplanation NluEngine::Explain(const std::string& query) const {
  QueryExplanation explanation;
  std::u16string wide;
  std::vector<QueryTag> tags;
  try {
    wide = Utf8ToUtf16(query.c_str());
    tags = tagger_->Tag(wide);
  } catch (const Error& e) {
    explanation.failure = std::string("tagger: ") + e.what();
    return explanation;
  }
  explanation.trace = parser_->Explain(wide, std::move(tags));
  for (const ParseTrace::Combination& combination : explanation.trace.combinations) {
    for (const ParseTrace::IntentStep& step : combination.intents) {
      if (explanation.failure.empty() && !step.error.empty()) {
        explanation.failure = "parser: " + step.error;
      }
    }
  }
  const auto& candidates = explanation.trace.candidates;
  for (size_t i = 0; i < candidates.size(); ++i) {
    explanation.scores.push_back(Ranker::Score(candidates[i].candidate, static_cast<int32_t>(i)));
  }
  return explanation;
}

}  // namespace rulenlu
