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

#endif  // RULENLU_TESTS_RESULT_DUMP_H_
