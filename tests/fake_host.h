// An in-process stand-in for the client: in-memory implementations of every client service
// interface, with call counters, for tests.
//
// FakeHost wires a service manager that knows the storage, gray-release and HTTP services under
// the client's names. Tests remove services, hide interfaces or the key-value store, preset
// gray-release values and stored entries, and deliver HTTP outcomes either inside Send or later
// from any thread. Everything is thread-safe.
//
// The library holds the manager through a raw pointer: a test must detach it (e.g.
// ServiceManagerHolder::ResetForTesting()) before the FakeHost is destroyed.
#ifndef RULENLU_TESTS_FAKE_HOST_H_
#define RULENLU_TESTS_FAKE_HOST_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "rulenlu/host_services.h"

namespace rulenlu {
namespace fake {

// The names under which the client knows its services and their interfaces.
inline constexpr char kStorageServiceName[] = "class cp::StorageServiceInterface";
inline constexpr char kGrayServiceName[] = "class cp::GrayServiceInterface";
inline constexpr char kHttpServiceName[] = "class cp::HttpServiceInterface";

// The log text the library writes for one lookup of service `name`, whose interface has the type
// hash `type_hash`, through `manager` (null when none is attached) finding `service` (null when
// the manager does not know it).
inline std::string ExpectedLookupLog(const std::string& name, size_t type_hash,
                                     const cp::ServiceManagerInterface* manager,
                                     const cp::ServiceInterface* service) {
  const auto number = [](const void* address) {
    return std::to_string(static_cast<int64_t>(reinterpret_cast<intptr_t>(address)));
  };
  std::string log = "GetServiceFromServiceManager service_manager=" + number(manager) +
                    ", name=" + name + ", <T>name=" + name;
  if (service == nullptr) return log + "GetServiceFromServiceManager. service is null.";
  log += "GetServiceFromServiceManager. service=" + number(service) + ".";
  log += "GetInterfaceTemplate. tid=" + std::to_string(static_cast<int64_t>(type_hash)) +
         ", tname=" + name;
  return log;
}

// A handle to one typed interface; keeps the interface alive and counts the live handles.
class FakeInterfaceHandle final : public cp::InterfaceHandle {
 public:
  FakeInterfaceHandle(void* raw, std::shared_ptr<void> owner,
                      std::shared_ptr<std::atomic<int>> live)
      : raw_(raw), owner_(std::move(owner)), live_(std::move(live)) {
    ++*live_;
  }
  ~FakeInterfaceHandle() { --*live_; }
  FakeInterfaceHandle(const FakeInterfaceHandle&) = delete;
  FakeInterfaceHandle& operator=(const FakeInterfaceHandle&) = delete;

  void* Get() override { return raw_; }

 private:
  void* raw_;
  std::shared_ptr<void> owner_;
  std::shared_ptr<std::atomic<int>> live_;
};

// A service offering typed interfaces by type name; every lookup hands out a new handle.
class FakeService final : public cp::ServiceInterface {
 public:
  // Offers `impl` as interface I under `type_name`.
  template <class I>
  void Offer(const std::string& type_name, std::shared_ptr<I> impl) {
    std::lock_guard<std::mutex> lock(mutex_);
    offers_[type_name] = Offered{static_cast<void*>(static_cast<I*>(impl.get())), impl};
  }

  // Stops offering `type_name`: the service exists, but the interface lookup yields null.
  void Withdraw(const std::string& type_name) {
    std::lock_guard<std::mutex> lock(mutex_);
    offers_.erase(type_name);
  }

  std::shared_ptr<cp::InterfaceHandle> GetInterface(const std::string& type_name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requested_types_.push_back(type_name);
    const auto offered = offers_.find(type_name);
    if (offered == offers_.end()) return nullptr;
    return std::make_shared<FakeInterfaceHandle>(offered->second.raw, offered->second.owner,
                                                 live_handles_);
  }

  // Handles handed out and not yet destroyed.
  int live_handles() const { return *live_handles_; }

  // Every type name asked for, in order.
  std::vector<std::string> requested_types() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requested_types_;
  }

 private:
  struct Offered {
    void* raw;
    std::shared_ptr<void> owner;
  };

  mutable std::mutex mutex_;
  std::map<std::string, Offered> offers_;
  std::vector<std::string> requested_types_;
  std::shared_ptr<std::atomic<int>> live_handles_ = std::make_shared<std::atomic<int>>(0);
};

// The client's service manager: a registry by name with a reference count it only counts.
class FakeServiceManager final : public cp::ServiceManagerInterface {
 public:
  FakeServiceManager() = default;
  ~FakeServiceManager() = default;
  FakeServiceManager(const FakeServiceManager&) = delete;
  FakeServiceManager& operator=(const FakeServiceManager&) = delete;

  void AddService(const std::string& name, std::shared_ptr<cp::ServiceInterface> service) {
    std::lock_guard<std::mutex> lock(mutex_);
    services_[name] = std::move(service);
  }

  void RemoveService(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    services_.erase(name);
  }

  std::shared_ptr<cp::ServiceInterface> GetService(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requested_names_.push_back(name);
    const auto service = services_.find(name);
    return service == services_.end() ? nullptr : service->second;
  }

  uint32_t AddRef() override { return static_cast<uint32_t>(++add_refs_ - releases_); }
  uint32_t Release() override { return static_cast<uint32_t>(add_refs_ - ++releases_); }

  int add_refs() const { return add_refs_; }
  int releases() const { return releases_; }

  // Every service name asked for, in order.
  std::vector<std::string> requested_names() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requested_names_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<cp::ServiceInterface>> services_;
  std::vector<std::string> requested_names_;
  std::atomic<int> add_refs_{0};
  std::atomic<int> releases_{0};
};

// The key-value store: a map with read and write counters.
class FakeKvStorage final : public cp::KvStorageInterface {
 public:
  std::string Read(const std::string& key) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++reads_;
    const auto entry = entries_.find(key);
    return entry == entries_.end() ? std::string() : entry->second;
  }

  bool Write(const std::string& key, const std::string& value) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++writes_;
    if (!accept_writes_) return false;
    entries_[key] = value;
    return true;
  }

  // Presets an entry without counting a write.
  void Set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_[key] = value;
  }

  // The entry under `key`, if any.
  std::optional<std::string> Get(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) return std::nullopt;
    return entry->second;
  }

  size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
  }

  // When false, writes store nothing and report false.
  void set_accept_writes(bool accept) {
    std::lock_guard<std::mutex> lock(mutex_);
    accept_writes_ = accept;
  }

  int reads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reads_;
  }
  int writes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return writes_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> entries_;
  bool accept_writes_ = true;
  int reads_ = 0;
  int writes_ = 0;
};

// The storage service; its key-value store can be made unavailable.
class FakeStorageService final : public cp::StorageServiceInterface {
 public:
  explicit FakeStorageService(std::shared_ptr<FakeKvStorage> kv) : kv_(std::move(kv)) {}

  std::shared_ptr<cp::KvStorageInterface> GetKvStorage() override {
    ++calls_;
    if (kv_missing_) return nullptr;
    return kv_;
  }

  void set_kv_missing(bool missing) { kv_missing_ = missing; }
  int calls() const { return calls_; }

 private:
  std::shared_ptr<FakeKvStorage> kv_;
  std::atomic<bool> kv_missing_{false};
  std::atomic<int> calls_{0};
};

// The gray-release service: values by (namespace, key). It can be made to throw, or to hold
// every call until released.
class FakeGrayService final : public cp::GrayServiceInterface {
 public:
  struct Call {
    std::string name_space;
    std::string key;
    std::string default_value;
  };

  void Set(const std::string& name_space, const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[{name_space, key}] = value;
  }

  std::string GetValue(const std::string& name_space, const std::string& key,
                       const std::string& default_value) override {
    std::unique_lock<std::mutex> lock(mutex_);
    calls_.push_back({name_space, key, default_value});
    ++entered_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !holding_; });
    if (throw_on_call_) throw std::runtime_error("gray service failed");
    const auto value = values_.find({name_space, key});
    return value == values_.end() ? default_value : value->second;
  }

  // When true, GetValue throws std::runtime_error.
  void set_throw_on_call(bool throw_on_call) {
    std::lock_guard<std::mutex> lock(mutex_);
    throw_on_call_ = throw_on_call;
  }

  // While held, GetValue blocks until Release() is called.
  void Hold() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = true;
  }
  void Release() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      holding_ = false;
    }
    changed_.notify_all();
  }

  // Blocks until GetValue has been entered `count` times in all.
  void WaitForCalls(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this, count] { return entered_ >= count; });
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::pair<std::string, std::string>, std::string> values_;
  std::vector<Call> calls_;
  int entered_ = 0;
  bool throw_on_call_ = false;
  bool holding_ = false;
};

// What the HTTP service hands to a response callback.
class FakeResponse final : public cp::ResponseInterface {
 public:
  FakeResponse(std::string body, std::string error)
      : body_(std::move(body)), error_(std::move(error)) {}

  std::string GetBody() override { return body_; }
  std::string GetError() override { return error_; }

 private:
  std::string body_;
  std::string error_;
};

// The HTTP service: records every request with its callback (the client's copies) and delivers
// outcomes when the test says so, or at once inside Send.
class FakeHttpService final : public cp::HttpServiceInterface {
 public:
  struct Sent {
    std::shared_ptr<cp::RequestInterface> request;
    std::shared_ptr<cp::ResponseCallback> callback;
  };

  // Makes every later Send deliver a success with `body` before it returns.
  void SucceedInSend(std::string body) { SetInSend(Outcome{true, std::move(body)}); }
  // Makes every later Send deliver a failure with `error` before it returns.
  void FailInSend(std::string error) { SetInSend(Outcome{false, std::move(error)}); }

  bool Send(const std::shared_ptr<cp::RequestInterface>& request,
            const std::shared_ptr<cp::ResponseCallback>& callback) override {
    std::optional<Outcome> in_send;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      sent_.push_back({request, callback});
      in_send = in_send_;
    }
    if (in_send) Deliver(*callback, *in_send);
    return true;
  }

  size_t sent_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_.size();
  }

  // The request and callback of the `index`th Send, as the client keeps them.
  Sent sent(size_t index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_.at(index);
  }

  // Delivers an outcome to the callback of the `index`th Send, on the calling thread.
  void DeliverSuccess(size_t index, const std::string& body) {
    Deliver(*sent(index).callback, Outcome{true, body});
  }
  void DeliverFailure(size_t index, const std::string& error) {
    Deliver(*sent(index).callback, Outcome{false, error});
  }

  // Lets go of every request and callback the client kept.
  void ForgetAll() {
    std::vector<Sent> dropped;
    std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(sent_);
  }

 private:
  struct Outcome {
    bool success;
    std::string text;  // the body on success, the error on failure
  };

  void SetInSend(Outcome outcome) {
    std::lock_guard<std::mutex> lock(mutex_);
    in_send_ = std::move(outcome);
  }

  static void Deliver(cp::ResponseCallback& callback, const Outcome& outcome) {
    if (outcome.success) {
      callback.OnSuccess(std::make_shared<FakeResponse>(outcome.text, "unused error"));
    } else {
      callback.OnFailure(std::make_shared<FakeResponse>("unused body", outcome.text));
    }
  }

  mutable std::mutex mutex_;
  std::vector<Sent> sent_;
  std::optional<Outcome> in_send_;
};

// A whole client: a manager that knows the three services, each offering its interface under
// its own name.
class FakeHost {
 public:
  FakeHost() {
    storage_service->Offer<cp::StorageServiceInterface>(kStorageServiceName, storage);
    gray_service->Offer<cp::GrayServiceInterface>(kGrayServiceName, gray);
    http_service->Offer<cp::HttpServiceInterface>(kHttpServiceName, http);
    manager.AddService(kStorageServiceName, storage_service);
    manager.AddService(kGrayServiceName, gray_service);
    manager.AddService(kHttpServiceName, http_service);
  }
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  // The log text of a library lookup that finds the service through this host's manager.
  std::string StorageLookupLog() const {
    return ExpectedLookupLog(kStorageServiceName, typeid(cp::StorageServiceInterface).hash_code(),
                             &manager, storage_service.get());
  }
  std::string GrayLookupLog() const {
    return ExpectedLookupLog(kGrayServiceName, typeid(cp::GrayServiceInterface).hash_code(),
                             &manager, gray_service.get());
  }
  std::string HttpLookupLog() const {
    return ExpectedLookupLog(kHttpServiceName, typeid(cp::HttpServiceInterface).hash_code(),
                             &manager, http_service.get());
  }

  std::shared_ptr<FakeKvStorage> kv = std::make_shared<FakeKvStorage>();
  std::shared_ptr<FakeStorageService> storage = std::make_shared<FakeStorageService>(kv);
  std::shared_ptr<FakeGrayService> gray = std::make_shared<FakeGrayService>();
  std::shared_ptr<FakeHttpService> http = std::make_shared<FakeHttpService>();
  std::shared_ptr<FakeService> storage_service = std::make_shared<FakeService>();
  std::shared_ptr<FakeService> gray_service = std::make_shared<FakeService>();
  std::shared_ptr<FakeService> http_service = std::make_shared<FakeService>();
  FakeServiceManager manager;
};

}  // namespace fake
}  // namespace rulenlu

#endif  // RULENLU_TESTS_FAKE_HOST_H_
