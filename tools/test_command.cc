#include "test_command.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/file.h"
#include "base/json.h"
#include "tool_common.h"

namespace rulenlu {
namespace {

struct ExpectedSlot {
  std::string key;
  std::string value;
  std::optional<int64_t> start;
  std::optional<int64_t> length;
};

struct TestCase {
  size_t line = 0;
  std::string query;
  std::string intent;
  std::optional<std::vector<ExpectedSlot>> slots;
};

std::string StringMember(const rapidjson::Value& object, const char* name, bool required) {
  const rapidjson::Value* value = FindMember(object, name);
  if (value == nullptr) {
    if (required) throw Error(std::string("missing \"") + name + "\"");
    return std::string();
  }
  if (!value->IsString()) throw Error(std::string("\"") + name + "\" is not a string");
  return std::string(value->GetString(), value->GetStringLength());
}

std::optional<int64_t> IntegerMember(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = FindMember(object, name);
  if (value == nullptr) return std::nullopt;
  if (!value->IsInt64()) throw Error(std::string("\"") + name + "\" is not an integer");
  return value->GetInt64();
}

void RejectUnknownMembers(const rapidjson::Value& object, std::initializer_list<const char*> known,
                          const char* where) {
  for (const auto& member : object.GetObject()) {
    bool found = false;
    for (const char* name : known) found = found || member.name == name;
    if (!found) {
      throw Error(std::string("unknown member \"") + member.name.GetString() + "\" in " + where);
    }
  }
}

// The case written on `text`; throws Error saying what is wrong with it.
TestCase ReadCase(const std::string& text) {
  rapidjson::Document doc;
  if (!ParseJsonDocument(text, &doc)) {
    throw Error(std::string("not JSON: ") + rapidjson::GetParseError_En(doc.GetParseError()) +
                " (at character " + std::to_string(doc.GetErrorOffset() + 1) + ")");
  }
  if (!doc.IsObject()) throw Error("not a JSON object");
  RejectUnknownMembers(doc, {"query", "intent", "slots"}, "the case");
  TestCase test;
  test.query = StringMember(doc, "query", true);
  test.intent = StringMember(doc, "intent", true);
  if (const rapidjson::Value* slots = FindMember(doc, "slots")) {
    if (!slots->IsArray()) throw Error("\"slots\" is not an array");
    test.slots.emplace();
    for (const rapidjson::Value& slot : slots->GetArray()) {
      if (!slot.IsObject()) throw Error("a slot is not an object");
      RejectUnknownMembers(slot, {"key", "value", "start", "length"}, "a slot");
      test.slots->push_back({StringMember(slot, "key", true), StringMember(slot, "value", true),
                             IntegerMember(slot, "start"), IntegerMember(slot, "length")});
    }
  }
  return test;
}

bool SlotMatches(const ExpectedSlot& expected, const NluSlot& got) {
  return expected.key == got.key && expected.value == got.value &&
         (!expected.start || *expected.start == got.start) &&
         (!expected.length || *expected.length == got.length);
}

bool Passes(const TestCase& test, const NluResult& result) {
  if (result.intent != test.intent) return false;
  if (!test.slots) return true;
  if (test.slots->size() != result.slots.size()) return false;
  for (size_t i = 0; i < result.slots.size(); ++i) {
    if (!SlotMatches((*test.slots)[i], result.slots[i])) return false;
  }
  return true;
}

// key="value"(start,length) with what is known of the position.
std::string DescribeSlot(const std::string& key, const std::string& value,
                         std::optional<int64_t> start, std::optional<int64_t> length) {
  std::string text = key + "=\"" + value + "\"";
  if (start || length) {
    text += "(" + (start ? std::to_string(*start) : "?") + "," +
            (length ? std::to_string(*length) : "?") + ")";
  }
  return text;
}

std::string DescribeExpected(const TestCase& test) {
  std::string text = "intent " + test.intent;
  if (!test.slots) return text + ", any slots";
  text += ", slots [";
  for (size_t i = 0; i < test.slots->size(); ++i) {
    const ExpectedSlot& slot = (*test.slots)[i];
    text += (i ? " " : "") + DescribeSlot(slot.key, slot.value, slot.start, slot.length);
  }
  return text + "]";
}

std::string DescribeResult(const NluResult& result) {
  std::string text =
      "intent " + (result.intent.empty() ? "(none: the query failed)" : result.intent);
  text += ", slots [";
  for (size_t i = 0; i < result.slots.size(); ++i) {
    const NluSlot& slot = result.slots[i];
    text += (i ? " " : "") + DescribeSlot(slot.key, slot.value, slot.start, slot.length);
  }
  return text + "]";
}

}  // namespace

int RunTest(const TestOptions& options) {
  InstallToolLogSink(true);
  std::string text;
  try {
    text = ReadWholeFile(options.cases);
  } catch (const Error& e) {
    Complain(e.what());
    return kExitUsage;
  }
  // Every line is read before any runs: a file with an invalid line runs nothing.
  std::vector<TestCase> cases;
  bool valid = true;
  size_t line_number = 0;
  for (size_t begin = 0; begin < text.size();) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    ++line_number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    try {
      cases.push_back(ReadCase(line));
      cases.back().line = line_number;
    } catch (const Error& e) {
      Complain(options.cases + ":" + std::to_string(line_number) + ": invalid case: " + e.what());
      valid = false;
    }
  }
  if (!valid) return kExitUsage;

  std::unique_ptr<NluEngine> engine;
  try {
    engine = BuildLocalEngine(options.config);
  } catch (const Error& e) {
    Complain(e.what());
    return kExitUsage;
  }
  size_t failed = 0;
  std::string report;
  for (const TestCase& test : cases) {
    const NluResult result = engine->Process(test.query);
    if (Passes(test, result)) continue;
    ++failed;
    report += options.cases + ":" + std::to_string(test.line) + ": FAIL \"" + test.query +
              "\"\n  expected: " + DescribeExpected(test) +
              "\n  got:      " + DescribeResult(result) + "\n";
  }
  report +=
      std::to_string(cases.size() - failed) + " passed, " + std::to_string(failed) + " failed\n";
  if (!WriteOut(report)) {
    Complain("cannot write the report to standard output");
    return kExitNoOutput;
  }
  return failed == 0 ? 0 : kExitFailed;
}

}  // namespace rulenlu
