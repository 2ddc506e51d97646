// The engine's answers and log lines are its contract: `rulenlu parse` over the example and the
// benchmark workload must reproduce the recorded outputs byte for byte.
#include <gtest/gtest.h>

#include <string>

#include "subprocess.h"

namespace rulenlu {
namespace {

const std::string kCli = RULENLU_CLI_PATH;
const std::string kRoot = RULENLU_SOURCE_DIR;

TEST(Golden, ParseReproducesTheRecordedAnswersAndLogLines) {
  const struct {
    std::string config, queries, golden;
  } runs[] = {{"examples/collab.json", "examples/queries.txt", "tests/golden/collab"},
              {"bench/workload/config.json", "bench/workload/queries.txt", "tests/golden/bench"}};
  for (const auto& run : runs) {
    const std::string queries = ReadFileBytes(kRoot + "/" + run.queries);
    ASSERT_FALSE(queries.empty()) << run.queries;
    const ProcessResult result =
        RunProcess({kCli, "parse", "--config", kRoot + "/" + run.config}, queries);
    EXPECT_EQ(result.exit_code, 0) << run.config;
    // Whole-text comparisons would print megabytes on failure: compare, then point at the first
    // difference.
    for (const auto& [got, suffix] :
         {std::pair{&result.out, ".out"}, std::pair{&result.err, ".err"}}) {
      const std::string expected = ReadFileBytes(kRoot + "/" + run.golden + suffix);
      ASSERT_FALSE(expected.empty()) << run.golden << suffix;
      if (*got == expected) continue;
      size_t at = 0;
      while (at < got->size() && at < expected.size() && (*got)[at] == expected[at]) ++at;
      const size_t line_start =
          expected.rfind('\n', at) == std::string::npos ? 0 : expected.rfind('\n', at) + 1;
      ADD_FAILURE() << run.golden << suffix << " differs at byte " << at << "; expected line: "
                    << expected.substr(line_start, expected.find('\n', at) - line_start)
                    << "\ngot: " << got->substr(line_start, got->find('\n', at) - line_start);
    }
  }
}

}  // namespace
}  // namespace rulenlu
