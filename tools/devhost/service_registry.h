// The development host's service manager: a fixed set of services, each known by one name and
// offering one interface under that same name as type name.
//
// Thread-safety: register every service before the manager is handed out; afterwards lookups
// and reference counting may run on any thread.
#ifndef RULENLU_TOOLS_DEVHOST_SERVICE_REGISTRY_H_
#define RULENLU_TOOLS_DEVHOST_SERVICE_REGISTRY_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "rulenlu/host_services.h"

namespace rulenlu::devhost {

class ServiceRegistry final : public cp::ServiceManagerInterface {
 public:
  ServiceRegistry() = default;
  ServiceRegistry(const ServiceRegistry&) = delete;
  ServiceRegistry& operator=(const ServiceRegistry&) = delete;

  // Registers `service` under `name`, replacing an earlier one. Its interface handle yields a
  // `Interface*`, the exact type a caller asking for `name` casts the raw pointer to, and keeps
  // `service` alive as long as the handle lives.
  template <typename Interface>
  void Add(const std::string& name, std::shared_ptr<Interface> service) {
    Interface* raw = service.get();
    AddService(name, std::move(service), raw);
  }

  // The service registered under `name`, or null. The service outlives the registry for as
  // long as the caller keeps it.
  std::shared_ptr<cp::ServiceInterface> GetService(const std::string& name) override;

  // The reference count others hold; it starts at 0. The registry is not deleted when the count
  // drops to 0: its owner decides its lifetime and must keep it while the count is above 0.
  uint32_t AddRef() override;
  // Drops a reference; the count never goes below 0. Returns the new count.
  uint32_t Release() override;

 private:
  void AddService(const std::string& name, std::shared_ptr<void> owner, void* raw);

  std::map<std::string, std::shared_ptr<cp::ServiceInterface>> services_;
  std::atomic<uint32_t> references_{0};
};

}  // namespace rulenlu::devhost

#endif  // RULENLU_TOOLS_DEVHOST_SERVICE_REGISTRY_H_
