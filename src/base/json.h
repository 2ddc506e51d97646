// Parsing of the JSON documents the library reads: the configuration document and the
// gray-release record.
#ifndef RULENLU_BASE_JSON_H_
#define RULENLU_BASE_JSON_H_

#include <rapidjson/document.h>
#include <rapidjson/reader.h>

#include <cstddef>
#include <string>

namespace rulenlu {

// Deepest nesting of arrays and objects accepted in a document. Real documents nest a few
// levels; anything far deeper is taken for garbage rather than built into a tree.
inline constexpr size_t kMaxJsonNesting = 1000;

// True when `text` (up to its first NUL) nests arrays and objects at most `limit` deep, counting
// brackets outside strings.
inline bool JsonNestingWithin(const char* text, size_t limit) {
  size_t depth = 0;
  bool in_string = false;
  for (const char* p = text; *p != '\0'; ++p) {
    if (in_string) {
      if (*p == '\\' && p[1] != '\0') {
        ++p;
      } else if (*p == '"') {
        in_string = false;
      }
    } else if (*p == '"') {
      in_string = true;
    } else if (*p == '[' || *p == '{') {
      if (++depth > limit) return false;
    } else if ((*p == ']' || *p == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

// Parses `text`, read up to its first NUL byte, as strict JSON (no comments, no trailing commas,
// no NaN or Infinity, nothing but whitespace after the root; encoding not validated) into `doc`.
// Returns whether the parse succeeded; the root may be of any type. A document nested deeper
// than kMaxJsonNesting is rejected.
inline bool ParseJsonDocument(const std::string& text, rapidjson::Document* doc) {
  if (!JsonNestingWithin(text.c_str(), kMaxJsonNesting)) {
    doc->SetNull();
    return false;
  }
  // The document comes from a file or a download that anyone may have written; the iterative
  // parser keeps its nesting on the heap, so a deeply nested document cannot overflow the stack.
  constexpr unsigned kFlags = rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag;
  doc->Parse<kFlags>(text.c_str());
  return !doc->HasParseError();
}

// The value of the member `name` of `object`, or nullptr when there is none. With a repeated
// name the first occurrence is found.
inline const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* name) {
  const auto it = object.FindMember(name);
  return it == object.MemberEnd() ? nullptr : &it->value;
}

}  // namespace rulenlu

#endif  // RULENLU_BASE_JSON_H_
