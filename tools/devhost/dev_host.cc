#include "devhost/dev_host.h"

#include <utility>

#include "devhost/curl_http_service.h"
#include "devhost/file_kv_storage.h"
#include "devhost/gray_file_service.h"
#include "devhost/service_registry.h"

namespace rulenlu::devhost {
namespace {

std::string PathIn(const std::string& directory, const std::string& name) {
  if (directory.empty()) return name;
  if (directory.back() == '/') return directory + name;
  return directory + '/' + name;
}

}  // namespace

DevHost::DevHost(std::string state_dir)
    : http_(std::make_shared<CurlHttpService>()), registry_(std::make_unique<ServiceRegistry>()) {
  registry_->Add<cp::StorageServiceInterface>(
      cp::StorageServiceInterface::kServiceName,
      std::make_shared<FileStorageService>(PathIn(state_dir, "kv")));
  registry_->Add<cp::GrayServiceInterface>(
      cp::GrayServiceInterface::kServiceName,
      std::make_shared<GrayFileService>(PathIn(state_dir, "gray.json")));
  registry_->Add<cp::HttpServiceInterface>(cp::HttpServiceInterface::kServiceName, http_);
}

DevHost::~DevHost() {
  // A caller may still hold the HTTP service, but its callbacks reach the other services
  // through the manager, so they must be over before the host goes. Waiting in finite steps
  // keeps the deadline arithmetic from overflowing.
  while (!http_->WaitIdle(std::chrono::hours(1))) {
  }
}

cp::ServiceManagerInterface* DevHost::manager() { return registry_.get(); }

bool DevHost::WaitIdle(std::chrono::milliseconds timeout) { return http_->WaitIdle(timeout); }

}  // namespace rulenlu::devhost
