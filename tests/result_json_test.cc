// The tool's result lines, differentially against RapidJSON's compact writer.
#include "result_json.h"

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <random>
#include <string>

namespace rulenlu {
namespace {

std::string WithRapidJson(const NluResult& result) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  const auto string = [&](const std::string& text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  };
  writer.StartObject();
  writer.Key("version");
  writer.Int64(result.version);
  writer.Key("intent");
  string(result.intent);
  writer.Key("text");
  string(result.text);
  writer.Key("slots");
  writer.StartArray();
  for (const NluSlot& slot : result.slots) {
    writer.StartObject();
    writer.Key("key");
    string(slot.key);
    writer.Key("value");
    string(slot.value);
    writer.Key("start");
    writer.Int64(slot.start);
    writer.Key("length");
    writer.Int64(slot.length);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

TEST(ResultJson, WritesWhatRapidJsonWrites) {
  std::mt19937_64 random(11);
  // Every byte value, with the ones that need care more often.
  const auto text = [&] {
    std::string out;
    for (size_t n = random() % 12; n > 0; --n) {
      out.push_back(random() % 2 ? "a\"\\/\n\x01\x1f\x7f\xc3\xa9"[random() % 11]
                                 : static_cast<char>(random() % 256));
    }
    return out;
  };
  // Each plus 0 to 2: the largest reaches INT64_MAX without overflowing.
  const int64_t numbers[] = {0, 1, -1, 9, 10, 123456789, INT64_MAX - 2, INT64_MIN};
  const auto number = [&] { return numbers[random() % 8] + static_cast<int64_t>(random() % 3); };
  std::string line = "left over";
  for (int i = 0; i < 3000; ++i) {
    NluResult result;
    result.version = number();
    result.intent = text();
    result.text = text();
    for (size_t n = random() % 4; n > 0; --n) {
      result.slots.push_back({text(), text(), number(), number()});
    }
    FormatResultJson(result, &line);
    ASSERT_EQ(line, WithRapidJson(result));
  }
}

}  // namespace
}  // namespace rulenlu
