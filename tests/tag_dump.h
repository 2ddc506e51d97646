// A compact, comparable dump of tags, for tests of the pipeline stages.
#ifndef RULENLU_TESTS_TAG_DUMP_H_
#define RULENLU_TESTS_TAG_DUMP_H_

#include <string>
#include <vector>

#include "base/records.h"
#include "base/text.h"

namespace rulenlu {

// "key=value@start+length ..." of `tags`, space-separated.
inline std::string DumpTags(const std::vector<SlotMatch>& tags) {
  std::string out;
  for (const SlotMatch& tag : tags) {
    out += (out.empty() ? "" : " ") + tag.key + "=" + Utf16ToUtf8(tag.value) + "@" +
           std::to_string(tag.start) + "+" + std::to_string(tag.length);
  }
  return out;
}

}  // namespace rulenlu

#endif  // RULENLU_TESTS_TAG_DUMP_H_
