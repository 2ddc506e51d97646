// An in-process stand-in for the client: in-memory implementations of every client service
// interface, with the counters and switches tests need. Everything is thread-safe, and only the
// public headers are used, so that a client of the shared library can use it too.
//
// The library holds the manager through a raw pointer: a test must detach it (e.g.
// ServiceManagerHolder::ResetForTesting()) before the FakeHost is destroyed.
#ifndef RULENLU_TESTS_FAKE_HOST_H_
#define RULENLU_TESTS_FAKE_HOST_H_

#include <atomic>
#include <chrono>
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

// The log text the library writes for one lookup of service `name`, whose interface has the type
// hash `type_hash`, through `manager` (null when none is attached) finding `service` (null when
// the manager does not know it).
inline std::string ExpectedLookupLog(const std::string& name, size_t type_hash,
                                     const cp::ServiceManagerInterface* manager,
                                     const cp::ServiceInterface* service) {
  const auto number = [](const void* p) { return std::to_string(reinterpret_cast<intptr_t>(p)); };
  std::string log = "GetServiceFromServiceManager service_manager=" + number(manager) +
                    ", name=" + name + ", <T>name=" + name;
  if (service == nullptr) return log + "GetServiceFromServiceManager. service is null.";
  return log + "GetServiceFromServiceManager. service=" + number(service) + "." +
         "GetInterfaceTemplate. tid=" + std::to_string(static_cast<int64_t>(type_hash)) +
         ", tname=" + name;
}

// A service offering interface I under `name`; every lookup hands out a new handle that shares
// the ownership of the interface.
template <class I>
struct FakeService final : cp::ServiceInterface {
  struct Handle final : cp::InterfaceHandle {
    explicit Handle(std::shared_ptr<I> impl) : impl(std::move(impl)) {}
    void* Get() override { return impl.get(); }
    const std::shared_ptr<I> impl;
  };

  FakeService(std::string name, std::shared_ptr<I> impl)
      : name(std::move(name)), impl(std::move(impl)) {}
  std::shared_ptr<cp::InterfaceHandle> GetInterface(const std::string& type_name) override {
    if (!offered || type_name != name) return nullptr;
    return std::make_shared<Handle>(impl);
  }
  // The log text of a library lookup that finds this service through `manager`.
  std::string LookupLog(const cp::ServiceManagerInterface& manager) const {
    return ExpectedLookupLog(name, typeid(I).hash_code(), &manager, this);
  }

  const std::string name;
  const std::shared_ptr<I> impl;
  std::atomic<bool> offered{true};  // when false, the service exists but offers no interface
};

// The client's service manager: a fixed registry by name, with a reference count it only counts.
class FakeServiceManager final : public cp::ServiceManagerInterface {
 public:
  explicit FakeServiceManager(
      std::map<std::string, std::shared_ptr<cp::ServiceInterface>> services = {})
      : services_(std::move(services)) {}

  std::shared_ptr<cp::ServiceInterface> GetService(const std::string& name) override {
    const auto service = services_.find(name);
    return service == services_.end() ? nullptr : service->second;
  }
  uint32_t AddRef() override { return static_cast<uint32_t>(++add_refs - releases); }
  uint32_t Release() override { return static_cast<uint32_t>(add_refs - ++releases); }

  std::atomic<int> add_refs{0};
  std::atomic<int> releases{0};

 private:
  const std::map<std::string, std::shared_ptr<cp::ServiceInterface>> services_;
};

// The storage service and its key-value store in one: a map that counts writes and can refuse
// them. The store can be made unavailable.
class FakeStorage final : public cp::StorageServiceInterface,
                          public cp::KvStorageInterface,
                          public std::enable_shared_from_this<FakeStorage> {
 public:
  std::shared_ptr<cp::KvStorageInterface> GetKvStorage() override {
    return kv_missing ? nullptr : shared_from_this();
  }
  std::string Read(const std::string& key) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = entries_.find(key);
    return entry == entries_.end() ? std::string() : entry->second;
  }
  bool Write(const std::string& key, const std::string& value) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++writes;
    if (refuse_writes) return false;
    entries_[key] = value;
    return true;
  }
  // Presets an entry without counting a write.
  void Set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_[key] = value;
  }

  std::atomic<bool> kv_missing{false};
  std::atomic<bool> refuse_writes{false};
  std::atomic<int> writes{0};  // every Write, refused or not

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> entries_;
};

// The gray-release service: values by (namespace, key). It can be made to throw, or to hold
// every call until let go.
class FakeGrayService final : public cp::GrayServiceInterface {
 public:
  void Set(const std::string& name_space, const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[{name_space, key}] = value;
  }
  std::string GetValue(const std::string& name_space, const std::string& key,
                       const std::string& default_value) override {
    std::unique_lock<std::mutex> lock(mutex_);
    ++calls;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !holding_; });
    if (throw_on_call) throw std::runtime_error("gray service failed");
    const auto value = values_.find({name_space, key});
    return value == values_.end() ? default_value : value->second;
  }
  // While held, GetValue blocks.
  void Hold(bool hold) {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = hold;
    changed_.notify_all();
  }
  // Waits until GetValue has been entered `count` times in all; false when that takes a minute.
  bool WaitForCalls(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(1), [&] { return calls >= count; });
  }

  std::atomic<bool> throw_on_call{false};
  std::atomic<int> calls{0};  // GetValue entered

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::pair<std::string, std::string>, std::string> values_;
  bool holding_ = false;
};

// What the HTTP service hands to a response callback: `text` is the body on success and the
// error on failure.
struct FakeResponse final : cp::ResponseInterface {
  FakeResponse(bool success, std::string text) : success(success), text(std::move(text)) {}
  std::string GetBody() override { return success ? text : "unused body"; }
  std::string GetError() override { return success ? "unused error" : text; }
  const bool success;
  const std::string text;
};

// Hands `callback` an outcome, on the calling thread.
inline void Deliver(cp::ResponseCallback& callback, bool success, const std::string& text) {
  const auto response = std::make_shared<FakeResponse>(success, text);
  if (success) callback.OnSuccess(response);
  if (!success) callback.OnFailure(response);
}

// The HTTP service: keeps every request with its callback (the client's copies), and can deliver
// an outcome at once inside Send.
class FakeHttpService final : public cp::HttpServiceInterface {
 public:
  struct Sent {
    std::shared_ptr<cp::RequestInterface> request;
    std::shared_ptr<cp::ResponseCallback> callback;
  };

  bool Send(const std::shared_ptr<cp::RequestInterface>& request,
            const std::shared_ptr<cp::ResponseCallback>& callback) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_.push_back({request, callback});
    if (in_send_) Deliver(*callback, in_send_->first, in_send_->second);
    return true;
  }
  // Makes every later Send deliver this outcome before it returns.
  void AnswerInSend(bool success, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    in_send_.emplace(success, text);
  }
  std::vector<Sent> sent() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Sent> sent_;
  std::optional<std::pair<bool, std::string>> in_send_;
};

// A whole client: a manager that knows the three services, each offering its interface under
// its own name.
struct FakeHost {
  // The log text of a library lookup that finds the service through this host's manager.
  std::string StorageLookupLog() const { return storage_service->LookupLog(manager); }
  std::string GrayLookupLog() const { return gray_service->LookupLog(manager); }
  std::string HttpLookupLog() const { return http_service->LookupLog(manager); }

  const std::shared_ptr<FakeStorage> storage = std::make_shared<FakeStorage>();
  const std::shared_ptr<FakeStorage> kv = storage;  // the store is the storage service itself
  const std::shared_ptr<FakeGrayService> gray = std::make_shared<FakeGrayService>();
  const std::shared_ptr<FakeHttpService> http = std::make_shared<FakeHttpService>();
  const std::shared_ptr<FakeService<cp::StorageServiceInterface>> storage_service =
      std::make_shared<FakeService<cp::StorageServiceInterface>>(
          cp::StorageServiceInterface::kServiceName, storage);
  const std::shared_ptr<FakeService<cp::GrayServiceInterface>> gray_service =
      std::make_shared<FakeService<cp::GrayServiceInterface>>(
          cp::GrayServiceInterface::kServiceName, gray);
  const std::shared_ptr<FakeService<cp::HttpServiceInterface>> http_service =
      std::make_shared<FakeService<cp::HttpServiceInterface>>(
          cp::HttpServiceInterface::kServiceName, http);
  FakeServiceManager manager{{{cp::StorageServiceInterface::kServiceName, storage_service},
                              {cp::GrayServiceInterface::kServiceName, gray_service},
                              {cp::HttpServiceInterface::kServiceName, http_service}}};
};

}  // namespace fake
}  // namespace rulenlu

#endif  // RULENLU_TESTS_FAKE_HOST_H_
