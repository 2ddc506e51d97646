// The one way the library writes its log lines.
//
// Two forms exist, and both keep their exact bytes:
//  - LogPrintf: printf-style lines of the configuration and service code, written to standard
//    output with no terminator, so consecutive lines run together;
//  - LogLine: lines of the engine, the tagger and the stage failures, each ended with "\n".
// By default every line goes to the process's stdout/stderr at once (flushed). A tool may
// install its own sink, for example to move everything to stderr or to drop it.
//
// Thread-safe: lines may be written from any thread; each line reaches the sink in one call.
#ifndef RULENLU_BASE_LOG_H_
#define RULENLU_BASE_LOG_H_

#include <initializer_list>
#include <string_view>

namespace rulenlu {

enum class LogStream { kStdout, kStderr };

// Receives every log line. Write is called with whole lines, possibly from several threads.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void Write(LogStream stream, std::string_view bytes) = 0;
  // False when the sink drops every line of `stream`: such lines are not even composed.
  virtual bool Accepts(LogStream) const { return true; }
};

// Installs `sink` for all later lines; nullptr restores the default sink. The sink must outlive
// its use; the library never deletes it.
void SetLogSink(LogSink* sink);

// Writes a printf-style line to standard output, without a terminator.
void LogPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes the concatenation of `parts` followed by "\n" to `stream`.
void LogLine(LogStream stream, std::initializer_list<std::string_view> parts);

}  // namespace rulenlu

#endif  // RULENLU_BASE_LOG_H_
