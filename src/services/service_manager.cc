#include "services/service_manager.h"

namespace rulenlu {

ServiceManagerHolder& ServiceManagerHolder::Instance() {
  // Never destroyed: lookups may still run on detached threads while the process exits.
  static ServiceManagerHolder* const holder = new ServiceManagerHolder;
  return *holder;
}

std::shared_ptr<cp::ServiceManagerInterface> ServiceManagerHolder::Manager() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return manager_;
}

bool ServiceManagerHolder::Attach(cp::ServiceManagerInterface* manager) {
  if (manager == nullptr) return false;
  if (Manager() != nullptr) return false;
  manager->AddRef();
  std::shared_ptr<cp::ServiceManagerInterface> attached(manager, cp::SharedPtrReleaseDeleter());
  {
    // Another thread may have attached in between: the later store wins, and the manager it
    // replaces is released below, outside the lock, once its last copy is gone.
    std::lock_guard<std::mutex> lock(mutex_);
    manager_.swap(attached);
  }
  return true;
}

void ServiceManagerHolder::ResetForTesting() {
  std::shared_ptr<cp::ServiceManagerInterface> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    manager_.swap(dropped);
  }
}

}  // namespace rulenlu
