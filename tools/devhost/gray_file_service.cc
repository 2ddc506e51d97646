#include "devhost/gray_file_service.h"

#include <rapidjson/document.h>

#include <utility>

#include "devhost/whole_file.h"

namespace rulenlu::devhost {
namespace {

// The member `name` of `object` when `object` is an object that has it; null otherwise.
const rapidjson::Value* FindMember(const rapidjson::Value& object, const std::string& name) {
  if (!object.IsObject()) return nullptr;
  const rapidjson::Value key(rapidjson::StringRef(name.data(), name.size()));
  const auto member = object.FindMember(key);
  return member == object.MemberEnd() ? nullptr : &member->value;
}

}  // namespace

GrayFileService::GrayFileService(std::string path) : path_(std::move(path)) {}

std::string GrayFileService::GetValue(const std::string& name_space, const std::string& key,
                                      const std::string& default_value) {
  std::string text;
  if (!ReadWholeFile(path_, &text)) return default_value;
  rapidjson::Document document;
  // Iterative parsing: a hand-edited file must not overflow the stack however deep it nests.
  document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
  if (document.HasParseError()) return default_value;
  const rapidjson::Value* keys = FindMember(document, name_space);
  const rapidjson::Value* value = keys == nullptr ? nullptr : FindMember(*keys, key);
  if (value == nullptr || !value->IsString()) return default_value;
  return std::string(value->GetString(), value->GetStringLength());
}

}  // namespace rulenlu::devhost
