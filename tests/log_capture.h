// A log sink for tests: records every line the library writes, standard output and standard
// error apart, while it is alive.
#ifndef RULENLU_TESTS_LOG_CAPTURE_H_
#define RULENLU_TESTS_LOG_CAPTURE_H_

#include <mutex>
#include <string>
#include <string_view>

#include "base/log.h"

namespace rulenlu {

// Installs itself as the library's log sink on construction and restores the default sink on
// destruction. Only one may be alive at a time. Thread-safe.
class LogCapture : public LogSink {
 public:
  LogCapture() { SetLogSink(this); }
  ~LogCapture() override { SetLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void Write(LogStream stream, std::string_view bytes) override {
    std::lock_guard<std::mutex> lock(mutex_);
    (stream == LogStream::kStderr ? err_ : out_).append(bytes);
  }

  // All bytes written to standard output so far.
  std::string out() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return out_;
  }

  // All bytes written to standard error so far.
  std::string err() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return err_;
  }

 private:
  mutable std::mutex mutex_;
  std::string out_;
  std::string err_;
};

}  // namespace rulenlu

#endif  // RULENLU_TESTS_LOG_CAPTURE_H_
