// Parsing of the JSON documents the library reads: the configuration document and the
// gray-release record.
#ifndef RULENLU_CONFIG_JSON_H_
#define RULENLU_CONFIG_JSON_H_

#include <rapidjson/document.h>
#include <rapidjson/reader.h>

#include <string>

namespace rulenlu {

// Parses `text`, read up to its first NUL byte, as strict JSON (no comments, no trailing commas,
// no NaN or Infinity, nothing but whitespace after the root; encoding not validated) into `doc`.
// Returns whether the parse succeeded; the root may be of any type.
inline bool ParseJsonDocument(const std::string& text, rapidjson::Document* doc) {
  // The document comes from a file or a download that anyone may have written; the iterative
  // parser keeps its nesting on the heap, so a deeply nested document cannot overflow the stack.
  constexpr unsigned kFlags = rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag;
  doc->Parse<kFlags>(text.c_str());
  return !doc->HasParseError();
}

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_JSON_H_
