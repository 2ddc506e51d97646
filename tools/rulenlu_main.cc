// rulenlu: runs queries through the engine from the command line.
//
//   rulenlu parse --config FILE [--quiet] [--state DIR [--wait-update SECONDS]] [QUERY ...]
//   rulenlu version          (or rulenlu --version)
//
// Prints one compact JSON result per query on stdout and nothing else; the engine's log lines
// go to stderr (or nowhere with --quiet). Exit status: 0 when the configuration loaded, 1 when
// it did not, 2 on a usage error, 3 when the results could not be written. `version` prints
// "rulenlu MAJOR.MINOR.PATCH" on stdout and exits with 0.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/log.h"
#include "config/local_config.h"
#include "devhost/dev_host.h"
#include "engine/engine_slot.h"
#include "engine/nlu_engine.h"
#include "result_json.h"
#include "rulenlu/engine_api.h"
#include "rulenlu/version.h"
#include "services/config_update.h"

namespace {

constexpr int kExitNoConfig = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoOutput = 3;

constexpr char kVersionLine[] = "rulenlu " RULENLU_VERSION_STRING;

// Sends the engine's log lines to stderr, same bytes and order, or drops them.
class ToolLogSink : public rulenlu::LogSink {
 public:
  explicit ToolLogSink(bool quiet) : quiet_(quiet) {}
  void Write(rulenlu::LogStream, std::string_view bytes) override {
    if (quiet_ || bytes.empty()) return;
    std::fwrite(bytes.data(), 1, bytes.size(), stderr);
    line_open_ = bytes.back() != '\n';
  }
  // True when the last line written has no line end yet (the engine's printf-style lines).
  bool line_open() const { return line_open_; }

 private:
  bool quiet_;
  std::atomic<bool> line_open_{false};
};

ToolLogSink* g_log_sink = nullptr;

// Writes the tool's own message on a line of its own.
void Complain(const std::string& message) {
  if (g_log_sink != nullptr && g_log_sink->line_open()) std::fputc('\n', stderr);
  std::fprintf(stderr, "rulenlu: %s\n", message.c_str());
}

struct ParseOptions {
  std::string config;
  bool quiet = false;
  std::string state;
  double wait_update = 0;
  std::vector<std::string> queries;
};

int Fail(const std::string& message) {
  Complain(message);
  return kExitNoConfig;
}

// The engine of the configuration file at `path`, loaded as the engine loads its local file.
// Throws rulenlu::Error, with a message for the user, when it cannot be loaded or built.
std::unique_ptr<rulenlu::NluEngine> BuildLocalEngine(const std::string& path) {
  std::optional<rulenlu::NluConfig> config;
  try {
    config = rulenlu::LoadLocalNluConfig(path);
  } catch (const rulenlu::ConversionError& e) {
    throw rulenlu::Error("configuration " + path + " holds text that is not UTF-8 (" + e.what() +
                         ")");
  }
  if (!config.has_value()) {
    throw rulenlu::Error("cannot load configuration " + path +
                         " (missing, unreadable or not a JSON object)");
  }
  try {
    return std::make_unique<rulenlu::NluEngine>(std::move(*config));
  } catch (const rulenlu::Error& e) {
    throw rulenlu::Error("configuration " + path + " cannot be built: " + e.what());
  }
}

// Runs each query (the arguments, else each line of stdin) through `answer`. Returns false,
// with a message, when the results cannot be written.
template <typename Answer>
bool RunQueries(const std::vector<std::string>& queries, Answer answer) {
  std::string line;
  auto emit = [&](const std::string& query) {
    rulenlu::FormatResultJson(answer(query), &line);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    return std::fflush(stdout) == 0 && !std::ferror(stdout);
  };
  bool written = true;
  if (!queries.empty()) {
    for (auto it = queries.begin(); written && it != queries.end(); ++it) written = emit(*it);
  } else {
    std::string query;
    while (written && std::getline(std::cin, query)) {
      if (!query.empty() && query.back() == '\r') query.pop_back();
      written = emit(query);
    }
  }
  if (!written) Complain("cannot write the results to standard output");
  return written;
}

int RunParse(const ParseOptions& options) {
  // Never destroyed: the background update may still log while the process ends.
  g_log_sink = new ToolLogSink(options.quiet);
  rulenlu::SetLogSink(g_log_sink);

  if (options.state.empty()) {
    std::unique_ptr<rulenlu::NluEngine> engine;
    try {
      engine = BuildLocalEngine(options.config);
    } catch (const rulenlu::Error& e) {
      return Fail(e.what());
    }
    const bool written = RunQueries(
        options.queries, [&](const std::string& query) { return engine->Process(query); });
    return written ? 0 : kExitNoOutput;
  }

  // Start exactly as the client does, with the development host's services.
  static rulenlu::devhost::DevHost* host = new rulenlu::devhost::DevHost(options.state);
  AttachServiceManager(host->manager());
  InitEngin(options.config.c_str());
  const bool loaded = rulenlu::EngineReader().engine() != nullptr;
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
    if (!rulenlu::WaitForRemoteConfigUpdates(left()) || !host->WaitIdle(left())) {
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

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  CLI::App app{"rulenlu: rule-based natural-language understanding"};
  app.require_subcommand(1);
  // Handled while parsing, before the subcommand is required.
  app.set_version_flag("--version", kVersionLine, "Print the version and exit");
  ParseOptions options;
  CLI::App* parse =
      app.add_subcommand("parse", "Answer queries with the engine, one JSON line each");
  parse->add_option("--config", options.config, "Configuration document (JSON); required")
      ->required()
      ->option_text("FILE");
  parse->add_flag("--quiet", options.quiet, "Do not print the engine's log lines on stderr");
  parse
      ->add_option("--state", options.state,
                   "Development host state directory: start as the client does, with its "
                   "cached configuration and update")
      ->option_text("DIR");
  parse
      ->add_option("--wait-update", options.wait_update,
                   "With --state: wait up to SECONDS for the configuration update to finish")
      ->check(CLI::Range(0.0, 86400.0))
      ->option_text("SECONDS");
  parse->add_option("queries", options.queries, "Queries (default: one per line on stdin)")
      ->option_text("QUERY ...");
  CLI::App* version = app.add_subcommand("version", "Print the version and exit");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e, std::cerr, std::cerr);
    std::cerr << app.help();
    return kExitUsage;
  }
  if (version->parsed()) {
    std::cout << kVersionLine << '\n' << std::flush;
    return std::cout ? 0 : kExitNoOutput;
  }
  if (options.wait_update > 0 && options.state.empty()) {
    std::cerr << "rulenlu: --wait-update needs --state\n" << parse->help();
    return kExitUsage;
  }
  return RunParse(options);
}
