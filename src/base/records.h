// Records passed between the pipeline stages, and the pipeline status codes.
#ifndef RULENLU_BASE_RECORDS_H_
#define RULENLU_BASE_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace rulenlu {

// One recognised piece of the query: a tag of the tagger, later a slot of a candidate.
struct SlotMatch {
  std::string key;       // vocabulary or regex vocabulary name (UTF-8)
  std::u16string value;  // the text exactly as it stands in the query
  int32_t start = 0;     // offset in the query, in UTF-16 units
  int32_t length = 0;    // length of `value`, in UTF-16 units
};

// The pipeline-internal answer: an intent with the slots that support it.
struct IntentCandidate {
  int64_t version = 0;  // 0 from every stage; the engine stamps its configuration version
  std::string intent;   // intent name; "unknown" when nothing matched
  std::u16string text;  // the query as the engine read it
  std::vector<SlotMatch> slots;
};

// Pipeline status: 0 on success, set by a stage only when it fails.
enum PipelineStatus : int {
  kStatusOk = 0,
  kStatusNoTagger = 1,  // a stage missing: never the case for an engine built whole
  kStatusNoParser = 2,
  kStatusTaggerFailed = -1,
  kStatusParserFailed = -2,
  kStatusRankerFailed = -3,
};

}  // namespace rulenlu

#endif  // RULENLU_BASE_RECORDS_H_
