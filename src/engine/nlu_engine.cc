#include "engine/nlu_engine.h"

#include <exception>
#include <utility>

#include "engine/log.h"
#include "engine/text.h"
#include "nlu/ranker.h"
#include "nlu/regex_parser.h"
#include "nlu/tagger.h"

namespace rulenlu {
namespace {

// The host-facing form of `candidate`; throws std::range_error on text that cannot be encoded.
NluResult ToNluResult(const IntentCandidate& candidate) {
  NluResult result;
  result.version = candidate.version;
  result.intent = candidate.intent;
  result.text = Utf16ToUtf8(candidate.text);
  result.slots.reserve(candidate.slots.size());
  for (const SlotMatch& slot : candidate.slots) {
    NluSlot out;
    out.key = slot.key;
    out.value = Utf16ToUtf8(slot.value);
    out.start = static_cast<int64_t>(static_cast<uint32_t>(slot.start));
    out.length = static_cast<int64_t>(slot.length);
    result.slots.push_back(std::move(out));
  }
  return result;
}

}  // namespace

NluEngine::NluEngine()
    : tagger_(std::make_unique<Tagger>()),
      parser_(std::make_unique<RegexParser>()),
      ranker_(std::make_unique<Ranker>()) {}

NluEngine::~NluEngine() = default;

bool NluEngine::Init(NluConfig config) {
  LogLine(LogStream::kStdout, {"NluEngine: start tagger init"});
  tagger_->Init(std::move(config.vocabMap), std::move(config.regexVocabMap),
                std::move(config.variableEntrys));
  LogLine(LogStream::kStdout, {"NluEngine: start parser init"});
  parser_->Init(config.intentMap);
  version_ = config.version;
  return true;
}

std::unique_ptr<NluEngine> NluEngine::Build(NluConfig config, std::string* why) {
  auto engine = std::make_unique<NluEngine>();
  try {
    engine->Init(std::move(config));
  } catch (const std::exception& e) {
    *why = e.what();
    return nullptr;
  }
  return engine;
}

IntentCandidate NluEngine::Process(const char* query, int& status) const {
  if (tagger_ == nullptr) {
    status = kStatusNoTagger;
    return {};
  }
  if (parser_ == nullptr) {
    status = kStatusNoParser;
    return {};
  }
  std::u16string wide_query;
  std::vector<SlotMatch> tags = tagger_->Process(query, &wide_query, status);
  if (status != kStatusOk) return {};
  std::vector<IntentCandidate> candidates = parser_->Process(wide_query, std::move(tags), status);
  if (status != kStatusOk) return {};
  IntentCandidate winner = ranker_->Rank(wide_query, std::move(candidates), status);
  if (status != kStatusOk) return {};
  winner.version = version_;
  return winner;
}

NluResult NluEngine::Process(const std::string& query) const {
  int status = kStatusOk;
  const IntentCandidate candidate = Process(query.c_str(), status);
  NluResult result;
  try {
    result = ToNluResult(candidate);
  } catch (const std::exception&) {
    // A slot can split a surrogate pair (a regex `.` matches one unit): such text has no UTF-8.
    LogLine(LogStream::kStdout, {"result :", candidate.intent});
    LogLine(LogStream::kStderr, {"result conversion exception!"});
    return NluResult{};
  }
  LogLine(LogStream::kStdout, {"result :", result.intent});
  for (const NluSlot& slot : result.slots) {
    LogLine(LogStream::kStdout, {"slotkey:", slot.key, ", slotvalue:", slot.value});
  }
  return result;
}

}  // namespace rulenlu
