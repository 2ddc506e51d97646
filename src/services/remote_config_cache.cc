#include "services/remote_config_cache.h"

#include <memory>

#include "base/log.h"
#include "rulenlu/host_services.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

constexpr char kRemoteConfigKey[] = "wr_nlu_remote_config";

// The key-value store together with the storage service it came from; both are held until the
// access is done.
struct KvStorageAccess {
  std::shared_ptr<cp::StorageServiceInterface> storage;
  std::shared_ptr<cp::KvStorageInterface> kv_storage;
};

// Looks the store up; `kv_storage` is empty (and the reason logged) when it cannot be reached.
KvStorageAccess OpenKvStorage() {
  KvStorageAccess access;
  access.storage = GetHostService<cp::StorageServiceInterface>();
  if (access.storage == nullptr) {
    LogPrintf("storage is null");
    return access;
  }
  access.kv_storage = access.storage->GetKvStorage();
  if (access.kv_storage == nullptr) LogPrintf("kv_storage is null");
  return access;
}

}  // namespace

std::string ReadRemoteConfigCache() {
  const KvStorageAccess access = OpenKvStorage();
  if (access.kv_storage == nullptr) return std::string();
  return access.kv_storage->Read(kRemoteConfigKey);
}

bool WriteRemoteConfigCache(const std::string& value) {
  const KvStorageAccess access = OpenKvStorage();
  if (access.kv_storage == nullptr) return false;
  return access.kv_storage->Write(kRemoteConfigKey, value);
}

}  // namespace rulenlu
