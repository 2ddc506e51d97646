// A host of the installed library: builds an engine from memory, answers one query and checks
// the answer. Exits with 0 and prints "rulenlu VERSION: ok" when the answer is right; else
// prints what differs on stderr and exits with 1. The library logs on stdout too: the verdict
// is the last line.
#include <rulenlu/engine_api.h>
#include <rulenlu/version.h>

#include <cstdio>
#include <exception>
#include <string>

namespace {

int failures = 0;

void Expect(bool ok, const std::string& what) {
  if (!ok) {
    std::fprintf(stderr, "host: wrong answer: %s\n", what.c_str());
    ++failures;
  }
}

}  // namespace

int main() {
  Utf8NluConfig config;
  config.vocabMap["contact"] = {"Tom", "Jos\xC3\xA9"};
  config.intentMap["call_contact"] =
      Utf8IntentConfig{"Call a contact", {{"contact", "contact"}}, {"call <contact>( now)?"}, {}};
  try {
    BuildEngin(&config);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "host: BuildEngin threw: %s\n", e.what());
    return 1;
  }

  NluResult result;
  Process("call Jos\xC3\xA9 now", result);
  Expect(result.intent == "call_contact", "intent " + result.intent);
  Expect(result.text == "call Jos\xC3\xA9 now", "text " + result.text);
  Expect(result.version == 0, "version " + std::to_string(result.version));
  if (result.slots.size() == 1) {
    const NluSlot& slot = result.slots[0];
    Expect(slot.key == "contact", "slot key " + slot.key);
    Expect(slot.value == "Jos\xC3\xA9", "slot value " + slot.value);
    // Offsets count UTF-16 units: "José" is 4 of them, after the 5 of "call ".
    Expect(slot.start == 5 && slot.length == 4,
           "slot at " + std::to_string(slot.start) + "+" + std::to_string(slot.length));
  } else {
    Expect(false, std::to_string(result.slots.size()) + " slots");
  }

  NluResult other;
  Process("text Tom", other);
  Expect(other.intent == "unknown" && other.slots.empty(), "unmatched query gave " + other.intent);

  if (failures > 0) return 1;
  std::printf("rulenlu %s: ok\n", RULENLU_VERSION_STRING);
  return 0;
}
