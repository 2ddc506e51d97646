#include "parse_command.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/error.h"
#include "devhost/dev_host.h"
#include "engine/engine_slot.h"
#include "result_json.h"
#include "rulenlu/engine_api.h"
#include "services/config_update.h"
#include "tool_common.h"

namespace rulenlu {
namespace {

int Fail(const std::string& message) {
  Complain(message);
  return kExitFailed;
}

// Runs each query (the arguments, else each line of stdin) through `answer`. Returns false,
// with a message, when the results cannot be written.
template <typename Answer>
bool RunQueries(const std::vector<std::string>& queries, Answer answer) {
  std::string line;
  const bool written = ForEachQuery(queries, [&](const std::string& query) {
    FormatResultJson(answer(query), &line);
    line.push_back('\n');
    return WriteOutLater(line);
  });
  if (!written) Complain("cannot write the results to standard output");
  return written;
}

}  // namespace

int RunParse(const ParseOptions& options) {
  InstallToolLogSink(options.quiet);

  if (options.state.empty()) {
    std::unique_ptr<NluEngine> engine;
    try {
      engine = BuildLocalEngine(options.config);
    } catch (const Error& e) {
      return Fail(e.what());
    }
    const bool written = RunQueries(
        options.queries, [&](const std::string& query) { return engine->Process(query); });
    return written ? 0 : kExitNoOutput;
  }

  // Start exactly as the client does, with the development host's services.
  static devhost::DevHost* host = new devhost::DevHost(options.state);
  AttachServiceManager(host->manager());
  InitEngin(options.config.c_str());
  const bool loaded = EngineReader().engine() != nullptr;
  bool written = true;
  if (loaded) {
    written = RunQueries(options.queries, [](const std::string& query) {
      NluResult result;
      Process(query, result);
      return result;
    });
  }
  if (options.wait_update > 0) {
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::milliseconds(static_cast<int64_t>(options.wait_update * 1000));
    auto left = [&] {
      return std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
    };
    if (!WaitForRemoteConfigUpdates(left()) || !host->WaitIdle(left())) {
      Complain("the configuration update did not finish in time");
    }
  }
  int status = 0;
  if (!loaded) {
    status = Fail("cannot load configuration " + options.config);
  } else if (!written) {
    status = kExitNoOutput;
  }
  // The update pass or a download may still run on other threads: end without running static
  // destructors under their feet.
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(status);
}

}  // namespace rulenlu
