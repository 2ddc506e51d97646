#include "config/memory_config.h"

#include "base/log.h"
#include "base/text.h"

namespace rulenlu {
namespace {

std::vector<std::u16string> ToUtf16(const std::vector<std::string>& texts) {
  std::vector<std::u16string> out;
  out.reserve(texts.size());
  for (const std::string& text : texts) out.push_back(Utf8ToUtf16(text));
  return out;
}

}  // namespace

NluConfig FromUtf8Config(const Utf8NluConfig& config) {
  NluConfig out;
  for (const auto& [name, patterns] : config.regexVocabMap) {
    LogLine(LogStream::kStdout, {name});
    out.regexVocabMap.emplace(name, ToUtf16(patterns));
  }
  for (const auto& [name, words] : config.vocabMap) {
    WordList::Builder wide;
    for (const std::string& word : words) wide.AddUtf8(word);
    out.vocabMap[name] = wide.Build();  // UTF-8 byte order is not always UTF-16 unit order
  }
  for (const auto& [key, intent] : config.intentMap) {
    IntentConfig& wide = out.intentMap[key];
    wide.name = intent.name;
    wide.slots = intent.slots;
    wide.regexRules = ToUtf16(intent.regexRules);
    wide.blackList = ToUtf16(intent.blackList);
  }
  out.variableEntrys.reserve(config.variableEntrys.size());
  for (const auto& [key, value] : config.variableEntrys) {
    out.variableEntrys.emplace_back(key, Utf8ToUtf16(value));
  }
  return out;
}

}  // namespace rulenlu
