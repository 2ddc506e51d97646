// rulenlu test: runs regression cases (JSON lines) against a configuration.
#ifndef RULENLU_TOOLS_TEST_COMMAND_H_
#define RULENLU_TOOLS_TEST_COMMAND_H_

#include <string>

namespace rulenlu {

struct TestOptions {
  std::string config;
  std::string cases;
};

// Each non-blank line of the cases file is
//   {"query": "...", "intent": "...", "slots": [{"key": "...", "value": "...",
//    "start": N, "length": N}, ...]}
// with "slots" optional (when given, the result's slots must be exactly these, in order) and
// "start"/"length" optional per slot. Prints each failing case (query, expected, got) and then
// "N passed, M failed". Returns 0 when every case passes, kExitFailed when one fails, and
// kExitUsage, before running anything, when the cases file cannot be read, a line is not a
// valid case (each named by its line number) or the configuration does not load.
int RunTest(const TestOptions& options);

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_TEST_COMMAND_H_
