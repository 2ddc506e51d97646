#include "tool_common.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/log.h"
#include "config/local_config.h"

namespace rulenlu {
namespace {

class ToolLogSink : public LogSink {
 public:
  explicit ToolLogSink(bool quiet) : quiet_(quiet) {}
  void Write(LogStream, std::string_view bytes) override {
    if (quiet_ || bytes.empty()) return;
    std::fwrite(bytes.data(), 1, bytes.size(), stderr);
    line_open_ = bytes.back() != '\n';
  }
  bool Accepts(LogStream) const override { return !quiet_; }
  // True when the last line written has no line end yet (the engine's printf-style lines).
  bool line_open() const { return line_open_; }

 private:
  bool quiet_;
  std::atomic<bool> line_open_{false};
};

ToolLogSink* g_log_sink = nullptr;

}  // namespace

void InstallToolLogSink(bool quiet) {
  // Never destroyed: a background update may still log while the process ends.
  g_log_sink = new ToolLogSink(quiet);
  SetLogSink(g_log_sink);
}

void Complain(const std::string& message) {
  if (g_log_sink != nullptr && g_log_sink->line_open()) std::fputc('\n', stderr);
  std::fprintf(stderr, "rulenlu: %s\n", message.c_str());
}

std::unique_ptr<NluEngine> BuildLocalEngine(const std::string& path) {
  std::optional<NluConfig> config;
  try {
    config = LoadLocalNluConfig(path);
  } catch (const ConversionError& e) {
    throw Error("configuration " + path + " holds text that is not UTF-8 (" + e.what() + ")");
  }
  if (!config.has_value()) {
    throw Error("cannot load configuration " + path +
                " (missing, unreadable or not a JSON object)");
  }
  try {
    return std::make_unique<NluEngine>(std::move(*config));
  } catch (const Error& e) {
    throw Error("configuration " + path + " cannot be built: " + e.what());
  }
}

bool ForEachQuery(const std::vector<std::string>& queries,
                  const std::function<bool(const std::string&)>& handle) {
  for (const std::string& query : queries) {
    if (!handle(query)) return false;
  }
  if (!queries.empty()) return Flush();
  // Stdin read block by block: each block's whole lines are handled before the next read.
  std::string line;  // reused: no allocation per line
  const auto take = [&](std::string_view text) {
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    line.assign(text);
    return handle(line);
  };
  std::string pending;
  std::vector<char> block(size_t{1} << 16);
  for (;;) {
    if (!Flush()) return false;
    const ssize_t got = read(STDIN_FILENO, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    pending.append(block.data(), static_cast<size_t>(got));
    size_t start = 0;
    for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
      if (!take(std::string_view(pending).substr(start, end - start))) return false;
    }
    pending.erase(0, start);
  }
  // A last line without its "\n".
  if (!pending.empty() && !take(pending)) return false;
  return Flush();
}

bool WriteOutLater(const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
}

bool Flush() { return std::fflush(stdout) == 0 && !std::ferror(stdout); }

bool WriteOut(const std::string& text) { return WriteOutLater(text) && Flush(); }

}  // namespace rulenlu
