#include "services/config_update.h"

#include <rapidjson/document.h>

#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "base/json.h"
#include "base/log.h"
#include "rulenlu/host_services.h"
#include "services/remote_config_cache.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

// Where the client's gray-release service publishes the configuration's version and URL.
constexpr char kGrayNamespace[] = "wren";
constexpr char kGrayKey[] = "loom_nlu_config";

// Runs `work` on a thread of the client's or of its own, where nothing may be thrown: whatever
// the client's services or the library throw there ends here, logged.
template <typename Work>
void Guarded(const char* what, Work&& work) {
  try {
    work();
  } catch (const std::exception& e) {
    LogPrintf("config update failed %s: %s", what, e.what());
  } catch (...) {
    LogPrintf("config update failed %s", what);
  }
}

// The download of a configuration document: a GET of `url` whose body is wanted in memory.
class ConfigRequest final : public cp::RequestInterface {
 public:
  explicit ConfigRequest(std::string url) : url_(std::move(url)) {}

  std::string GetUrl() override { return url_; }
  int32_t GetMethod() override { return 1; }
  std::map<std::string, std::string> GetHeaders() override { return {}; }
  std::string GetBody() override { return NoText(); }
  std::string GetContentType() override { return NoText(); }
  std::string GetDownloadPath() override { return NoText(); }
  bool IsDeferrable() override { return false; }
  int32_t GetTimeoutSeconds() override { return 300; }

 private:
  static std::string NoText() { return std::string(); }

  std::string url_;
};

// Stores a downloaded document as it came; it is validated only when the next start-up parses it.
class ConfigResponseCallback final : public cp::ResponseCallback {
 public:
  // Both run on the client's thread: nothing may be thrown back at it. A download lost this way
  // is requested again by the next start-up's update pass.
  void OnSuccess(const std::shared_ptr<cp::ResponseInterface>& response) override {
    Guarded("storing the configuration", [&] {
      LogPrintf("http request success.");
      if (response != nullptr) WriteRemoteConfigCache(response->GetBody());
    });
  }

  void OnFailure(const std::shared_ptr<cp::ResponseInterface>& response) override {
    Guarded("reporting the download error", [&] {
      const std::string error = response != nullptr ? response->GetError() : std::string();
      LogPrintf("http request error. %s", error.c_str());
    });
  }

  void OnProgress(int64_t /*received*/, int64_t /*total*/) override {}
};

// The published configuration, as the gray-release record names it.
struct PublishedConfig {
  int64_t version = 0;
  std::string url;
};

// Reads the gray-release record: a JSON object whose first "version" member is a signed 64-bit
// integer and whose first "url" member is a string. Returns nothing for anything else.
std::optional<PublishedConfig> ParsePublishedConfig(const std::string& record) {
  rapidjson::Document doc;
  if (!ParseJsonDocument(record, &doc) || !doc.IsObject()) return std::nullopt;
  const rapidjson::Value* version = FindMember(doc, "version");
  const rapidjson::Value* url = FindMember(doc, "url");
  if (version == nullptr || !version->IsInt64() || url == nullptr || !url->IsString()) {
    return std::nullopt;
  }
  // The URL ends at its first NUL, like any C string.
  return PublishedConfig{version->GetInt64(), url->GetString()};
}

// Hands the download of `url` to the client; the request and the callback then live on only
// through the client's copies.
void RequestDownload(const std::string& url) {
  const std::shared_ptr<cp::HttpServiceInterface> http = GetHostService<cp::HttpServiceInterface>();
  if (http == nullptr) {
    LogPrintf("http is null.");
    return;
  }
  const std::shared_ptr<cp::RequestInterface> request = std::make_shared<ConfigRequest>(url);
  const std::shared_ptr<cp::ResponseCallback> callback = std::make_shared<ConfigResponseCallback>();
  http->Send(request, callback);
}

// Counts the passes running on their own threads. Never destroyed: a detached pass may still end
// while the process exits.
class UpdateTracker {
 public:
  static UpdateTracker& Instance() {
    static UpdateTracker* const tracker = new UpdateTracker;
    return *tracker;
  }

  void Started() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
  }

  void Ended() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      --running_;
    }
    all_ended_.notify_all();
  }

  bool WaitForAll(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return all_ended_.wait_for(lock, timeout, [this] { return running_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_ended_;
  int running_ = 0;
};

// The body of an update thread. A failure of the pass must not terminate the client's process.
void RunUpdateThread(int64_t running_version) {
  Guarded("checking for a new configuration", [&] { UpdateRemoteConfig(running_version); });
  UpdateTracker::Instance().Ended();
}

}  // namespace

void UpdateRemoteConfig(int64_t running_version) {
  LogPrintf("config update.");
  std::string record;
  {
    const std::shared_ptr<cp::GrayServiceInterface> gray =
        GetHostService<cp::GrayServiceInterface>();
    if (gray == nullptr) {
      LogPrintf("gray is null.");
      return;
    }
    record = gray->GetValue(kGrayNamespace, kGrayKey, "");
  }
  if (record.empty()) {
    LogPrintf("value is empty.");
    return;
  }
  const std::optional<PublishedConfig> published = ParsePublishedConfig(record);
  if (!published.has_value()) {
    LogPrintf("json is error. data=%s", record.c_str());
    return;
  }
  // Only equality counts: an older published version replaces the cache as well.
  if (published->version == running_version) {
    LogPrintf("version is same. %lld", static_cast<long long>(running_version));
    return;
  }
  LogPrintf("update new config. url=%s, version=%lld", published->url.c_str(),
            static_cast<long long>(published->version));
  RequestDownload(published->url);
}

void StartRemoteConfigUpdate(int64_t running_version) {
  UpdateTracker& tracker = UpdateTracker::Instance();
  tracker.Started();
  std::thread worker;
  try {
    worker = std::thread(RunUpdateThread, running_version);
  } catch (...) {
    tracker.Ended();
    throw;
  }
  worker.detach();
}

bool WaitForRemoteConfigUpdates(std::chrono::milliseconds timeout) {
  return UpdateTracker::Instance().WaitForAll(timeout);
}

}  // namespace rulenlu
