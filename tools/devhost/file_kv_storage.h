// The development host's key-value storage: one file per entry under a directory.
//
// The entry for a key lives in `<directory>/<file name of the key>` and holds the raw bytes of
// its value. A key keeps its own spelling as file name when it consists of ASCII letters,
// digits, '_', '-' and '.' only and is neither "." nor ".."; otherwise each byte outside that
// set (every byte, for "." and "..") is written as '%' and two upper-case hex digits. The
// empty key is refused. Each write replaces the file atomically (see whole_file.h), so the
// entry holds the old or the new value even after a crash.
//
// Thread-safe: entries may be read and written from any thread; concurrent writes of one key
// leave one of the values whole.
#ifndef RULENLU_TOOLS_DEVHOST_FILE_KV_STORAGE_H_
#define RULENLU_TOOLS_DEVHOST_FILE_KV_STORAGE_H_

#include <memory>
#include <string>

#include "rulenlu/host_services.h"

namespace rulenlu::devhost {

class FileKvStorage final : public cp::KvStorageInterface {
 public:
  // Stores entries in `directory`, which is created (with its parent) on the first write.
  // Removes at once the temporaries that interrupted writes left there (RemoveStaleTemporaries).
  explicit FileKvStorage(std::string directory);

  FileKvStorage(const FileKvStorage&) = delete;
  FileKvStorage& operator=(const FileKvStorage&) = delete;

  // The stored value, or "" when the entry is absent, the key empty or the file unreadable
  // (logged on stderr).
  std::string Read(const std::string& key) override;
  // Replaces the value of `key`. False for the empty key and on any I/O error (logged on
  // stderr), in which case the previous value stays.
  bool Write(const std::string& key, const std::string& value) override;

  // The file name under which `key` is stored; "" for the empty key.
  static std::string FileNameOf(const std::string& key);

 private:
  std::string directory_;
};

// The storage service, offering one FileKvStorage.
class FileStorageService final : public cp::StorageServiceInterface {
 public:
  explicit FileStorageService(std::string directory);

  // Never null.
  std::shared_ptr<cp::KvStorageInterface> GetKvStorage() override;

 private:
  const std::shared_ptr<FileKvStorage> storage_;
};

}  // namespace rulenlu::devhost

#endif  // RULENLU_TOOLS_DEVHOST_FILE_KV_STORAGE_H_
