#include "devhost/curl_http_service.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <strings.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/log.h"
#include "devhost/whole_file.h"

namespace rulenlu::devhost {
namespace {

// libcurl, loaded on the first transfer: a process that never transfers does not pay for
// loading it and the dozens of libraries it needs (most of the tool's start-up otherwise).
struct Curl {
  decltype(&curl_easy_init) easy_init;
  decltype(&curl_easy_cleanup) easy_cleanup;
  decltype(&curl_easy_setopt) easy_setopt;
  decltype(&curl_easy_perform) easy_perform;
  decltype(&curl_easy_getinfo) easy_getinfo;
  decltype(&curl_easy_strerror) easy_strerror;
  decltype(&curl_slist_append) slist_append;
  decltype(&curl_slist_free_all) slist_free_all;
  std::string error;  // why it could not be loaded; empty when it was

  // The process's one copy, loaded and globally initialized on the first call (any thread).
  static const Curl& Get() {
    static const Curl* const curl = Load();  // never unloaded: transfers may outlive callers
    return *curl;
  }

 private:
  static Curl* Load() {
    auto* curl = new Curl{};
    void* library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      curl->error = dlerror();
      return curl;
    }
    bool all = true;
    auto resolve = [&](auto* function, const char* name) {
      *function = reinterpret_cast<std::remove_pointer_t<decltype(function)>>(dlsym(library, name));
      all = all && *function != nullptr;
    };
    decltype(&curl_global_init) global_init = nullptr;
    resolve(&global_init, "curl_global_init");
    resolve(&curl->easy_init, "curl_easy_init");
    resolve(&curl->easy_cleanup, "curl_easy_cleanup");
    resolve(&curl->easy_setopt, "curl_easy_setopt");
    resolve(&curl->easy_perform, "curl_easy_perform");
    resolve(&curl->easy_getinfo, "curl_easy_getinfo");
    resolve(&curl->easy_strerror, "curl_easy_strerror");
    resolve(&curl->slist_append, "curl_slist_append");
    resolve(&curl->slist_free_all, "curl_slist_free_all");
    if (!all) {
      curl->error = "libcurl.so.4 lacks a function this host needs";
    } else if (global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      curl->error = "libcurl could not be initialized";
    }
    return curl;
  }
};

constexpr int32_t kMethodGet = 1;
constexpr int32_t kMethodPost = 2;
constexpr char kProtocols[] = "http,https";

// Everything a transfer needs, read from the request before it starts.
struct TransferPlan {
  std::string url;
  bool post = false;
  std::string body;
  std::vector<std::string> header_lines;
  std::string download_path;
  long timeout_seconds = 0;
};

struct Outcome {
  bool success = false;
  int32_t status = 0;
  std::string body;
  std::string error;
};

class CurlResponse final : public cp::ResponseInterface {
 public:
  explicit CurlResponse(Outcome outcome) : outcome_(std::move(outcome)) {}

  int32_t GetStatusCode() override { return outcome_.status; }
  std::string GetBody() override { return outcome_.body; }
  std::string GetError() override { return outcome_.error; }

 private:
  const Outcome outcome_;
};

bool Sendable(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

// The header lines for libcurl, or false when one cannot be sent as given.
bool BuildHeaderLines(const std::map<std::string, std::string>& headers,
                      const std::string& content_type, std::vector<std::string>* lines) {
  bool has_content_type = false;
  for (const auto& [name, value] : headers) {
    if (name.empty() || name.find(':') != std::string::npos || !Sendable(name) ||
        !Sendable(value)) {
      return false;
    }
    has_content_type = has_content_type || strcasecmp(name.c_str(), "Content-Type") == 0;
    // "Name;" is how libcurl sends a header with an empty value.
    lines->push_back(value.empty() ? name + ";" : name + ": " + value);
  }
  if (!content_type.empty() && !has_content_type) {
    if (!Sendable(content_type)) return false;
    lines->push_back("Content-Type: " + content_type);
  }
  return true;
}

// Runs `report`, which calls into the host's callback; nothing it throws may escape into
// libcurl or end the worker thread.
template <typename Report>
void CallHost(Report report) {
  try {
    report();
  } catch (const std::exception& e) {
    LogLine(LogStream::kStderr, {"devhost: response callback threw: ", e.what()});
  } catch (...) {
    LogLine(LogStream::kStderr, {"devhost: response callback threw"});
  }
}

struct TransferState {
  cp::ResponseCallback* callback;
  std::string body;
  bool too_large = false;
  curl_off_t reported = -1;
};

size_t CollectBody(char* data, size_t size, size_t count, void* user) {
  auto* state = static_cast<TransferState*>(user);
  const size_t bytes = size * count;
  if (bytes > CurlHttpService::kMaxBodyBytes - state->body.size()) {
    state->too_large = true;
    return 0;  // makes libcurl stop with a write error
  }
  state->body.append(data, bytes);
  return bytes;
}

int ReportProgress(void* user, curl_off_t total, curl_off_t received, curl_off_t, curl_off_t) {
  auto* state = static_cast<TransferState*>(user);
  if (received != state->reported) {
    state->reported = received;
    CallHost([&] { state->callback->OnProgress(received, total); });
  }
  return 0;
}

Outcome Failure(int32_t status, std::string error, std::string body = {}) {
  return Outcome{false, status, std::move(body), std::move(error)};
}

Outcome Perform(const TransferPlan& plan, cp::ResponseCallback* callback) {
  const Curl& api = Curl::Get();
  if (!api.error.empty()) return Failure(0, "cannot load libcurl: " + api.error);
  std::unique_ptr<CURL, void (*)(CURL*)> curl(api.easy_init(), api.easy_cleanup);
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, api.slist_free_all);
  if (curl == nullptr) return Failure(0, "cannot start a transfer");
  for (const std::string& line : plan.header_lines) {
    curl_slist* appended = api.slist_append(headers.get(), line.c_str());
    if (appended == nullptr) return Failure(0, "cannot start a transfer");
    headers.release();
    headers.reset(appended);
  }

  char error_text[CURL_ERROR_SIZE] = "";
  TransferState state{callback, {}, false, -1};
  CURL* handle = curl.get();
  api.easy_setopt(handle, CURLOPT_ERRORBUFFER, error_text);
  api.easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  api.easy_setopt(handle, CURLOPT_URL, plan.url.c_str());
  if (api.easy_setopt(handle, CURLOPT_PROTOCOLS_STR, kProtocols) != CURLE_OK ||
      api.easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, kProtocols) != CURLE_OK) {
    return Failure(0, "cannot restrict the protocols");
  }
  api.easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  api.easy_setopt(handle, CURLOPT_MAXREDIRS, CurlHttpService::kMaxRedirects);
  api.easy_setopt(handle, CURLOPT_TIMEOUT, plan.timeout_seconds);
  api.easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  if (plan.post) {
    api.easy_setopt(handle, CURLOPT_POST, 1L);
    api.easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(plan.body.size()));
    api.easy_setopt(handle, CURLOPT_POSTFIELDS, plan.body.data());
  } else {
    api.easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  }
  api.easy_setopt(handle, CURLOPT_WRITEFUNCTION, CollectBody);
  api.easy_setopt(handle, CURLOPT_WRITEDATA, &state);
  api.easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, ReportProgress);
  api.easy_setopt(handle, CURLOPT_XFERINFODATA, &state);
  api.easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);

  const CURLcode code = api.easy_perform(handle);
  if (state.too_large) {
    return Failure(0, "response body larger than " +
                          std::to_string(CurlHttpService::kMaxBodyBytes) + " bytes");
  }
  if (code != CURLE_OK) {
    return Failure(0, error_text[0] != '\0' ? error_text : api.easy_strerror(code));
  }
  long status = 0;
  api.easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200 || status > 299) {
    return Failure(static_cast<int32_t>(status), "HTTP " + std::to_string(status),
                   std::move(state.body));
  }
  if (!plan.download_path.empty()) {
    if (!ReplaceFileAtomically(plan.download_path, state.body)) {
      return Failure(static_cast<int32_t>(status), "cannot write " + plan.download_path);
    }
    state.body.clear();
  }
  return Outcome{true, static_cast<int32_t>(status), std::move(state.body), {}};
}

}  // namespace

struct CurlHttpService::Workers {
  struct Worker {
    std::thread thread;
    bool done = false;
  };

  // The body of a worker thread. It touches only what it owns or co-owns, so the service may
  // be gone by the time it ends.
  static void Run(std::shared_ptr<Workers> workers, std::list<Worker>::iterator self,
                  TransferPlan plan, std::shared_ptr<cp::RequestInterface> request,
                  std::shared_ptr<cp::ResponseCallback> callback) {
    Outcome outcome = Perform(plan, callback.get());
    const bool success = outcome.success;
    const std::shared_ptr<cp::ResponseInterface> response =
        std::make_shared<CurlResponse>(std::move(outcome));
    CallHost([&] {
      if (success) {
        callback->OnSuccess(response);
      } else {
        callback->OnFailure(response);
      }
    });
    callback.reset();
    request.reset();
    std::lock_guard<std::mutex> lock(workers->mutex);
    self->done = true;
    --workers->in_flight;
    workers->idle.notify_all();
  }

  // Joins the workers that have finished.
  void JoinFinished() {
    std::list<Worker> finished;
    {
      std::lock_guard<std::mutex> lock(mutex);
      for (auto it = workers.begin(); it != workers.end();) {
        auto next = std::next(it);
        if (it->done) finished.splice(finished.end(), workers, it);
        it = next;
      }
    }
    for (Worker& worker : finished) worker.thread.join();
  }

  std::mutex mutex;
  std::condition_variable idle;
  std::list<Worker> workers;  // guarded by mutex; a worker's node stays until it is joined
  size_t in_flight = 0;       // guarded by mutex
};

CurlHttpService::CurlHttpService() : workers_(std::make_shared<Workers>()) {}

CurlHttpService::~CurlHttpService() {
  // When the last reference goes from a callback, that worker is this thread: it is left to
  // finish on its own, which is safe because it only touches `workers_`, which it co-owns.
  const std::thread::id this_thread = std::this_thread::get_id();
  std::list<Workers::Worker> others;
  {
    std::unique_lock<std::mutex> lock(workers_->mutex);
    size_t own = 0;
    for (const Workers::Worker& worker : workers_->workers) {
      if (worker.thread.get_id() == this_thread && !worker.done) own = 1;
    }
    workers_->idle.wait(lock, [&] { return workers_->in_flight == own; });
    for (auto it = workers_->workers.begin(); it != workers_->workers.end();) {
      auto next = std::next(it);
      if (it->thread.get_id() == this_thread) {
        it->thread.detach();
      } else {
        others.splice(others.end(), workers_->workers, it);
      }
      it = next;
    }
  }
  for (Workers::Worker& worker : others) worker.thread.join();
}

bool CurlHttpService::Send(const std::shared_ptr<cp::RequestInterface>& request,
                           const std::shared_ptr<cp::ResponseCallback>& callback) {
  if (request == nullptr || callback == nullptr) return false;
  TransferPlan plan;
  try {
    const int32_t method = request->GetMethod();
    if (method != kMethodGet && method != kMethodPost) return false;
    plan.post = method == kMethodPost;
    plan.url = request->GetUrl();
    if (plan.post) plan.body = request->GetBody();
    if (!BuildHeaderLines(request->GetHeaders(), request->GetContentType(), &plan.header_lines)) {
      return false;
    }
    plan.download_path = request->GetDownloadPath();
    plan.timeout_seconds = std::max<long>(0, request->GetTimeoutSeconds());
  } catch (...) {
    return false;
  }

  workers_->JoinFinished();
  std::lock_guard<std::mutex> lock(workers_->mutex);
  const auto self = workers_->workers.emplace(workers_->workers.end());
  try {
    // The worker cannot end before `lock` is released, so `self` is complete by then.
    self->thread = std::thread(Workers::Run, workers_, self, std::move(plan), request, callback);
  } catch (const std::system_error&) {
    workers_->workers.erase(self);
    return false;
  }
  ++workers_->in_flight;
  return true;
}

bool CurlHttpService::WaitIdle(std::chrono::milliseconds timeout) {
  bool idle;
  {
    std::unique_lock<std::mutex> lock(workers_->mutex);
    idle = workers_->idle.wait_for(lock, timeout, [&] { return workers_->in_flight == 0; });
  }
  workers_->JoinFinished();
  return idle;
}

}  // namespace rulenlu::devhost
