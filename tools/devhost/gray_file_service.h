// The development host's gray-release service, backed by a JSON file.
//
// The file holds one object of namespaces, each an object of keys with string values:
//   {"wren": {"loom_nlu_config": "{\"version\":2,\"url\":\"http://...\"}"}}
// The file is read again at every lookup, so it may be edited while a program runs.
//
// Thread-safe: lookups keep no state.
#ifndef RULENLU_TOOLS_DEVHOST_GRAY_FILE_SERVICE_H_
#define RULENLU_TOOLS_DEVHOST_GRAY_FILE_SERVICE_H_

#include <string>

#include "rulenlu/host_services.h"

namespace rulenlu::devhost {

class GrayFileService final : public cp::GrayServiceInterface {
 public:
  // Looks values up in the file at `path`, which need not exist.
  explicit GrayFileService(std::string path);

  // The string stored under `key` in the object `name_space`, byte for byte. `default_value`
  // when the file is missing or not such a JSON document, or the namespace or key is absent,
  // or the value is not a string. Names are compared exactly; the first of duplicates counts.
  std::string GetValue(const std::string& name_space, const std::string& key,
                       const std::string& default_value) override;

 private:
  std::string path_;
};

}  // namespace rulenlu::devhost

#endif  // RULENLU_TOOLS_DEVHOST_GRAY_FILE_SERVICE_H_
