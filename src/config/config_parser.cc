#include "config/config_parser.h"

#include <set>
#include <utility>
#include <vector>

#include "base/json.h"
#include "base/log.h"
#include "base/text.h"

namespace rulenlu {
namespace {

// GetString() is NUL-terminated, so both helpers stop at an embedded NUL character.
std::string NarrowString(const rapidjson::Value& value) { return std::string(value.GetString()); }

std::u16string WideString(const rapidjson::Value& value) {
  return Utf8ToUtf16(std::string_view(value.GetString()));
}

const rapidjson::Value* FindArray(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = FindMember(object, name);
  return value != nullptr && value->IsArray() ? value : nullptr;
}

const rapidjson::Value* FindObject(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = FindMember(object, name);
  return value != nullptr && value->IsObject() ? value : nullptr;
}

std::string FindNarrowString(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = FindMember(object, name);
  return value != nullptr && value->IsString() ? NarrowString(*value) : std::string();
}

// The string elements of `array`, converted, in order; other elements are skipped.
std::vector<std::u16string> WideStrings(const rapidjson::Value& array) {
  std::vector<std::u16string> strings;
  for (const rapidjson::Value& element : array.GetArray()) {
    if (element.IsString()) strings.push_back(WideString(element));
  }
  return strings;
}

std::vector<std::u16string> FindWideStrings(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* array = FindArray(object, name);
  return array != nullptr ? WideStrings(*array) : std::vector<std::u16string>();
}

IntentConfig ReadIntent(const rapidjson::Value& object) {
  IntentConfig intent;
  intent.name = FindNarrowString(object, "name");
  intent.blackList = FindWideStrings(object, "blackList");
  intent.regexRules = FindWideStrings(object, "regexRules");
  if (const rapidjson::Value* slots = FindArray(object, "slots")) {
    for (const rapidjson::Value& slot : slots->GetArray()) {
      if (!slot.IsObject()) continue;
      intent.slots.emplace_back(FindNarrowString(slot, "name"), FindNarrowString(slot, "tag"));
    }
  }
  return intent;
}

// The section readers. Each reads one member of the root object `root` into its field of
// `config`; a missing member or one of the wrong type leaves the field as it is. Strings are
// taken up to their first NUL character.

// Appends a (key, value) pair for every element of "variableEntrys" that is an object whose
// "key" and "value" are both strings, in document order.
void ParseVariableEntrys(const rapidjson::Value& root, NluConfig* config) {
  const rapidjson::Value* entries = FindArray(root, "variableEntrys");
  if (entries == nullptr) return;
  for (const rapidjson::Value& entry : entries->GetArray()) {
    // Looking a member up in a non-object is undefined; such an element has no key anyway.
    if (!entry.IsObject()) continue;
    const rapidjson::Value* key = FindMember(entry, "key");
    const rapidjson::Value* value = FindMember(entry, "value");
    if (key == nullptr || value == nullptr || !key->IsString() || !value->IsString()) continue;
    config->variableEntrys.emplace_back(NarrowString(*key), WideString(*value));
  }
}

// Stores, for every member of "regexVocabMap" whose value is an array, its string elements in
// order (duplicates kept). A name that occurs twice keeps its last array.
void ParseRegexVocabMap(const rapidjson::Value& root, NluConfig* config) {
  const rapidjson::Value* map = FindObject(root, "regexVocabMap");
  if (map == nullptr) return;
  for (const auto& member : map->GetObject()) {
    if (!member.value.IsArray()) continue;
    config->regexVocabMap[NarrowString(member.name)] = WideStrings(member.value);
  }
}

// Stores, for every member of "vocabMap" whose value is an array, its string elements in order
// without repeats. A name that occurs twice keeps its last array.
void ParseVocabMap(const rapidjson::Value& root, NluConfig* config) {
  const rapidjson::Value* map = FindObject(root, "vocabMap");
  if (map == nullptr) return;
  for (const auto& member : map->GetObject()) {
    if (!member.value.IsArray()) continue;
    WordList::Builder words;
    for (const rapidjson::Value& element : member.value.GetArray()) {
      if (element.IsString()) words.AddUtf8(element.GetString());
    }
    config->vocabMap[NarrowString(member.name)] = words.Build();
  }
}

// Stores an IntentConfig for every member of "intentMap" whose value is an object. A key that
// occurs twice keeps the last object wholly.
void ParseIntentMap(const rapidjson::Value& root, NluConfig* config) {
  const rapidjson::Value* map = FindObject(root, "intentMap");
  if (map == nullptr) return;
  for (const auto& member : map->GetObject()) {
    if (!member.value.IsObject()) continue;
    config->intentMap[NarrowString(member.name)] = ReadIntent(member.value);
  }
}

}  // namespace

std::optional<NluConfig> ParseNluConfig(const std::string& text) {
  rapidjson::Document doc;
  if (!ParseJsonDocument(text, &doc) || !doc.IsObject()) {
    LogPrintf("json is error.");
    return std::nullopt;
  }
  NluConfig config;
  const rapidjson::Value* version = FindMember(doc, "version");
  if (version != nullptr && version->IsInt64()) config.version = version->GetInt64();
  ParseVariableEntrys(doc, &config);
  ParseRegexVocabMap(doc, &config);
  ParseVocabMap(doc, &config);
  ParseIntentMap(doc, &config);
  return config;
}

}  // namespace rulenlu
