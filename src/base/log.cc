#include "base/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace rulenlu {
namespace {

class StdioSink : public LogSink {
 public:
  void Write(LogStream stream, std::string_view bytes) override {
    FILE* file = stream == LogStream::kStderr ? stderr : stdout;
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fflush(file);
  }
};

StdioSink& DefaultSink() {
  static StdioSink* sink = new StdioSink;  // never destroyed: lines may come during exit
  return *sink;
}

std::atomic<LogSink*> g_sink{nullptr};

LogSink& CurrentSink() {
  LogSink* sink = g_sink.load(std::memory_order_acquire);
  return sink != nullptr ? *sink : DefaultSink();
}

}  // namespace

void SetLogSink(LogSink* sink) { g_sink.store(sink, std::memory_order_release); }

void LogPrintf(const char* format, ...) {
  if (!CurrentSink().Accepts(LogStream::kStdout)) return;
  char small[512];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int needed = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (needed < 0) {
    va_end(again);
    return;
  }
  if (static_cast<size_t>(needed) < sizeof small) {
    va_end(again);
    CurrentSink().Write(LogStream::kStdout, std::string_view(small, needed));
    return;
  }
  std::string large(static_cast<size_t>(needed) + 1, '\0');
  std::vsnprintf(large.data(), large.size(), format, again);
  va_end(again);
  large.pop_back();
  CurrentSink().Write(LogStream::kStdout, large);
}

void LogLine(LogStream stream, std::initializer_list<std::string_view> parts) {
  LogSink& sink = CurrentSink();
  if (!sink.Accepts(stream)) return;
  thread_local std::string line;
  line.clear();
  for (std::string_view part : parts) line.append(part);
  line.push_back('\n');
  sink.Write(stream, line);
}

}  // namespace rulenlu
