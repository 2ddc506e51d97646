#include "devhost/service_registry.h"

#include <utility>

namespace rulenlu::devhost {
namespace {

class Handle final : public cp::InterfaceHandle {
 public:
  Handle(std::shared_ptr<void> owner, void* raw) : owner_(std::move(owner)), raw_(raw) {}
  void* Get() override { return raw_; }

 private:
  const std::shared_ptr<void> owner_;
  void* const raw_;
};

class SingleInterfaceService final : public cp::ServiceInterface {
 public:
  SingleInterfaceService(std::string type_name, std::shared_ptr<void> owner, void* raw)
      : type_name_(std::move(type_name)), owner_(std::move(owner)), raw_(raw) {}

  std::shared_ptr<cp::InterfaceHandle> GetInterface(const std::string& type_name) override {
    if (type_name != type_name_) return nullptr;
    return std::make_shared<Handle>(owner_, raw_);
  }

 private:
  const std::string type_name_;
  const std::shared_ptr<void> owner_;
  void* const raw_;
};

}  // namespace

void ServiceRegistry::AddService(const std::string& name, std::shared_ptr<void> owner, void* raw) {
  services_[name] = std::make_shared<SingleInterfaceService>(name, std::move(owner), raw);
}

std::shared_ptr<cp::ServiceInterface> ServiceRegistry::GetService(const std::string& name) {
  const auto found = services_.find(name);
  return found == services_.end() ? nullptr : found->second;
}

uint32_t ServiceRegistry::AddRef() { return ++references_; }

uint32_t ServiceRegistry::Release() {
  uint32_t count = references_.load();
  while (count > 0 && !references_.compare_exchange_weak(count, count - 1)) {
  }
  return count == 0 ? 0 : count - 1;
}

}  // namespace rulenlu::devhost
