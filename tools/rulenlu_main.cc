// rulenlu: the engine from the command line, for scripts and for the people who write
// configurations.
//
//   rulenlu parse --config FILE [--quiet] [--state DIR [--wait-update SECONDS]] [QUERY ...]
//   rulenlu check --config FILE
//   rulenlu explain --config FILE [--json] [QUERY ...]
//   rulenlu test --config FILE CASES.jsonl
//   rulenlu version          (or rulenlu --version)
//
// Each subcommand lives in its own file; this one reads the options and dispatches. Exit status
// 2 is a usage error for every subcommand.
#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <vector>

#include "check_command.h"
#include "explain_command.h"
#include "parse_command.h"
#include "rulenlu/version.h"
#include "test_command.h"
#include "tool_common.h"

namespace {

constexpr char kVersionLine[] = "rulenlu " RULENLU_VERSION_STRING;

CLI::Option* AddConfigOption(CLI::App* command, std::string* config) {
  return command->add_option("--config", *config, "Configuration document (JSON); required")
      ->required()
      ->option_text("FILE");
}

CLI::Option* AddQueriesArgument(CLI::App* command, std::vector<std::string>* queries) {
  return command->add_option("queries", *queries, "Queries (default: one per line on stdin)")
      ->option_text("QUERY ...");
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  CLI::App app{"rulenlu: rule-based natural-language understanding"};
  app.require_subcommand(1);
  // Handled while parsing, before the subcommand is required.
  app.set_version_flag("--version", kVersionLine, "Print the version and exit");

  rulenlu::ParseOptions parse_options;
  CLI::App* parse =
      app.add_subcommand("parse", "Answer queries with the engine, one JSON line each");
  AddConfigOption(parse, &parse_options.config);
  parse->add_flag("--quiet", parse_options.quiet, "Do not print the engine's log lines on stderr");
  parse
      ->add_option("--state", parse_options.state,
                   "Development host state directory: start as the client does, with its "
                   "cached configuration and update")
      ->option_text("DIR");
  parse
      ->add_option("--wait-update", parse_options.wait_update,
                   "With --state: wait up to SECONDS for the configuration update to finish")
      ->check(CLI::Range(0.0, 86400.0))
      ->option_text("SECONDS");
  AddQueriesArgument(parse, &parse_options.queries);

  std::string check_config;
  CLI::App* check = app.add_subcommand(
      "check", "Lint a configuration: FILE:LINE:COLUMN: error|warning: ... per finding");
  AddConfigOption(check, &check_config);

  rulenlu::ExplainOptions explain_options;
  CLI::App* explain =
      app.add_subcommand("explain", "Show how each query gets its answer, step by step");
  AddConfigOption(explain, &explain_options.config);
  explain->add_flag("--json", explain_options.json, "One JSON document per query and line");
  AddQueriesArgument(explain, &explain_options.queries);

  rulenlu::TestOptions test_options;
  CLI::App* test = app.add_subcommand("test", "Run regression cases (JSON lines) and report");
  AddConfigOption(test, &test_options.config);
  test->add_option("cases", test_options.cases, "Cases, one JSON object per line; required")
      ->required()
      ->option_text("CASES.jsonl");

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
    return rulenlu::kExitUsage;
  }
  if (version->parsed()) {
    std::cout << kVersionLine << '\n' << std::flush;
    return std::cout ? 0 : rulenlu::kExitNoOutput;
  }
  if (check->parsed()) return rulenlu::RunCheck(check_config);
  if (explain->parsed()) return rulenlu::RunExplain(explain_options);
  if (test->parsed()) return rulenlu::RunTest(test_options);
  if (parse_options.wait_update > 0 && parse_options.state.empty()) {
    std::cerr << "rulenlu: --wait-update needs --state\n" << parse->help();
    return rulenlu::kExitUsage;
  }
  return rulenlu::RunParse(parse_options);
}
