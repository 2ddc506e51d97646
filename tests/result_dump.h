// A compact, comparable dump of a result, for tests.
#ifndef RULENLU_TESTS_RESULT_DUMP_H_
#define RULENLU_TESTS_RESULT_DUMP_H_

#include <string>

#include "rulenlu/engine_api.h"

// "version|intent|text|key=value@start+length;..." of `result`.
inline std::string DumpResult(const NluResult& result) {
  std::string out = std::to_string(result.version) + "|" + result.intent + "|" + result.text + "|";
  for (const NluSlot& slot : result.slots) {
    out += slot.key + "=" + slot.value + "@" + std::to_string(slot.start) + "+" +
           std::to_string(slot.length) + ";";
  }
  return out;
}

// DumpResult of what `process` answers to `query` in a record full of stale content, so that
// every field it leaves behind shows.
template <typename ProcessFunction>
std::string AskAndDump(ProcessFunction process, const std::string& query) {
  NluResult result{77, "stale", "stale", {NluSlot{"stale", "stale", 1, 2}}};
  process(query, result);
  return DumpResult(result);
}

#endif  // RULENLU_TESTS_RESULT_DUMP_H_
