// The client's service manager, held once per process, and the typed lookup of its services.
//
// The client hands its manager over once (AttachServiceManager); from then on every use of a
// client service performs a fresh lookup through GetHostService<T>, which asks the manager for
// the service named after T and that service for the interface named after T. Nothing but the
// manager is kept between lookups.
//
// Thread-safety: everything here may be called from any thread. The holder's mutex is held only
// while the manager pointer is read or replaced; the client is never called with it held.
#ifndef RULENLU_SERVICES_SERVICE_MANAGER_H_
#define RULENLU_SERVICES_SERVICE_MANAGER_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>
#include <utility>

#include "base/log.h"
#include "rulenlu/host_services.h"

namespace rulenlu {

// The process-wide holder of the client's service manager. Created on first use and never
// destroyed, so that it stays valid while a client unloads the library or exits.
class ServiceManagerHolder {
 public:
  // The one holder of the process, created on the first call (safe from any thread).
  static ServiceManagerHolder& Instance();

  ServiceManagerHolder(const ServiceManagerHolder&) = delete;
  ServiceManagerHolder& operator=(const ServiceManagerHolder&) = delete;

  // Attaches `manager` and takes one reference on it (released only if the holder lets go).
  // Returns false, without touching `manager`, when it is null or a manager is already attached.
  bool Attach(cp::ServiceManagerInterface* manager);

  // A copy of the attached manager; empty when none is attached.
  std::shared_ptr<cp::ServiceManagerInterface> Manager() const;

  // Test-only, never for production: drops the attached manager (releasing the holder's
  // reference once no lookup uses it any more), so that the next Attach succeeds again.
  void ResetForTesting();

 private:
  ServiceManagerHolder() = default;
  ~ServiceManagerHolder() = default;

  mutable std::mutex mutex_;
  std::shared_ptr<cp::ServiceManagerInterface> manager_;
};

namespace internal {

// Client object addresses and type hashes are logged as signed 64-bit decimals.
inline long long LogNumber(const void* address) {
  return static_cast<long long>(reinterpret_cast<intptr_t>(address));
}
inline long long LogNumber(size_t hash) {
  return static_cast<long long>(static_cast<int64_t>(hash));
}

// Deleter of a typed client interface: deletes nothing, but keeps the client's interface handle
// (and so the interface itself) alive for as long as the typed pointer is shared, and hands it
// back when the last owner goes (weak references do not hold it).
class InterfaceHandleKeeper {
 public:
  explicit InterfaceHandleKeeper(std::shared_ptr<cp::InterfaceHandle> handle)
      : handle_(std::move(handle)) {}
  template <class T>
  void operator()(T* /*interface*/) {
    handle_.reset();
  }

 private:
  std::shared_ptr<cp::InterfaceHandle> handle_;
};

}  // namespace internal

// Asks `service` for its interface T. Returns a pointer that keeps the client's interface handle
// alive while shared; empty when the service does not offer T. `service` must not be null.
template <class T>
std::shared_ptr<T> GetInterfaceTemplate(cp::ServiceInterface* service) {
  const char* type_name = T::kServiceName;
  LogPrintf("GetInterfaceTemplate. tid=%lld, tname=%s", internal::LogNumber(typeid(T).hash_code()),
            type_name);
  std::shared_ptr<cp::InterfaceHandle> handle = service->GetInterface(type_name);
  if (handle == nullptr) return nullptr;
  T* raw = static_cast<T*>(handle->Get());
  return std::shared_ptr<T>(raw, internal::InterfaceHandleKeeper(std::move(handle)));
}

// Looks the service `name` up in `manager` (which may be empty: then no service is found) and
// returns its interface T, or an empty pointer when either is missing.
template <class T>
std::shared_ptr<T> GetServiceFromServiceManager(
    const std::shared_ptr<cp::ServiceManagerInterface>& manager, const std::string& name) {
  LogPrintf("GetServiceFromServiceManager service_manager=%lld, name=%s, <T>name=%s",
            internal::LogNumber(manager.get()), name.c_str(), T::kServiceName);
  std::shared_ptr<cp::ServiceInterface> service;
  if (manager != nullptr) service = manager->GetService(name);
  if (service == nullptr) {
    LogPrintf("GetServiceFromServiceManager. service is null.");
    return nullptr;
  }
  LogPrintf("GetServiceFromServiceManager. service=%lld.", internal::LogNumber(service.get()));
  return GetInterfaceTemplate<T>(service.get());
}

// The client's service T through the attached manager; empty when no manager is attached or
// anything on the way is missing. Every call is a fresh lookup.
template <class T>
std::shared_ptr<T> GetHostService() {
  return GetServiceFromServiceManager<T>(ServiceManagerHolder::Instance().Manager(),
                                         T::kServiceName);
}

}  // namespace rulenlu

#endif  // RULENLU_SERVICES_SERVICE_MANAGER_H_
