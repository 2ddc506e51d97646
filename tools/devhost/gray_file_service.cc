#include "devhost/gray_file_service.h"

#include <rapidjson/document.h>

#include <utility>

#include "base/error.h"
#include "base/file.h"
#include "base/json.h"

namespace rulenlu::devhost {
namespace {

// The member `name` of `value` when `value` is an object that has it; null otherwise.
const rapidjson::Value* FindObjectMember(const rapidjson::Value& value, const std::string& name) {
  return value.IsObject() ? FindMember(value, name.c_str()) : nullptr;
}

}  // namespace

GrayFileService::GrayFileService(std::string path) : path_(std::move(path)) {}

std::string GrayFileService::GetValue(const std::string& name_space, const std::string& key,
                                      const std::string& default_value) {
  std::string text;
  try {
    text = ReadWholeFile(path_);
  } catch (const Error&) {
    return default_value;  // no release values published
  }
  rapidjson::Document document;
  if (!ParseJsonDocument(text, &document)) return default_value;
  const rapidjson::Value* keys = FindObjectMember(document, name_space);
  const rapidjson::Value* value = keys == nullptr ? nullptr : FindObjectMember(*keys, key);
  if (value == nullptr || !value->IsString()) return default_value;
  return std::string(value->GetString(), value->GetStringLength());
}

}  // namespace rulenlu::devhost
