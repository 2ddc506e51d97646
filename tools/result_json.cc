#include "result_json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace rulenlu {
namespace {

template <typename Writer>
void WriteString(Writer& writer, const std::string& text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

}  // namespace

void FormatResultJson(const NluResult& result, std::string* out) {
  thread_local rapidjson::StringBuffer buffer;  // reused: one result per query
  buffer.Clear();
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  writer.Key("version");
  writer.Int64(result.version);
  writer.Key("intent");
  WriteString(writer, result.intent);
  writer.Key("text");
  WriteString(writer, result.text);
  writer.Key("slots");
  writer.StartArray();
  for (const NluSlot& slot : result.slots) {
    writer.StartObject();
    writer.Key("key");
    WriteString(writer, slot.key);
    writer.Key("value");
    WriteString(writer, slot.value);
    writer.Key("start");
    writer.Int64(slot.start);
    writer.Key("length");
    writer.Int64(slot.length);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  out->assign(buffer.GetString(), buffer.GetSize());
}

}  // namespace rulenlu
