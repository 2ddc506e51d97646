// What the subcommands of the `rulenlu` tool share: exit codes, the engine's log lines, loading
// a configuration file as the engine loads its local file.
#ifndef RULENLU_TOOLS_TOOL_COMMON_H_
#define RULENLU_TOOLS_TOOL_COMMON_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/nlu_engine.h"

namespace rulenlu {

constexpr int kExitFailed = 1;  // the configuration did not load, a case failed, an error found
constexpr int kExitUsage = 2;
constexpr int kExitNoOutput = 3;

// Sends the engine's log lines to stderr (same bytes and order), or drops them when `quiet`.
// Installed once for the life of the process.
void InstallToolLogSink(bool quiet);

// Writes "rulenlu: MESSAGE" on a line of its own on stderr.
void Complain(const std::string& message);

// The engine of the configuration file at `path`, loaded as the engine loads its local file.
// Throws Error, with a message for the user, when it cannot be loaded or built.
std::unique_ptr<NluEngine> BuildLocalEngine(const std::string& path);

// Calls `handle` with each query: the arguments, else each line of stdin (without its "\n" and
// a "\r" before it), until `handle` returns false. Returns false when it did, or when Flush
// failed. Stdout is flushed whenever the tool is about to wait for input, and at the end: every
// answer written so far is out before the next read that may wait, and answers to lines that
// arrive together leave together.
bool ForEachQuery(const std::vector<std::string>& queries,
                  const std::function<bool(const std::string&)>& handle);

// Writes `text` to stdout and flushes it; false when it could not be written.
bool WriteOut(const std::string& text);

// Writes `text` to stdout, to be flushed later; false when it could not be written.
bool WriteOutLater(const std::string& text);

// Flushes stdout; false when it could not be written.
bool Flush();

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_TOOL_COMMON_H_
