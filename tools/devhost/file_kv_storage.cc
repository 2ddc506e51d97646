#include "devhost/file_kv_storage.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "base/error.h"
#include "base/file.h"
#include "devhost/whole_file.h"

namespace rulenlu::devhost {
namespace {

constexpr bool KeepsOwnSpelling(unsigned char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '_' || byte == '-' || byte == '.';
}

}  // namespace

// Temporaries of a write are marked by an escaped character, so no key ever names one.
static_assert(!KeepsOwnSpelling(kTempFileMark));

FileKvStorage::FileKvStorage(std::string directory) : directory_(std::move(directory)) {
  RemoveStaleTemporaries(directory_);
}

std::string FileKvStorage::FileNameOf(const std::string& key) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const bool escape_all = key == "." || key == "..";
  std::string name;
  name.reserve(key.size());
  for (const char c : key) {
    const auto byte = static_cast<unsigned char>(c);
    if (!escape_all && KeepsOwnSpelling(byte)) {
      name += c;
    } else {
      name += '%';
      name += kHex[byte >> 4];
      name += kHex[byte & 0x0F];
    }
  }
  return name;
}

std::string FileKvStorage::Read(const std::string& key) {
  if (key.empty()) return std::string();
  const std::string path = directory_ + '/' + FileNameOf(key);
  std::error_code error;
  // An entry never written reads as empty, and is no failure.
  if (!std::filesystem::exists(path, error) && !error) return std::string();
  try {
    return ReadWholeFile(path);
  } catch (const Error& e) {
    LogHostFailure(e.what());
    return std::string();
  }
}

bool FileKvStorage::Write(const std::string& key, const std::string& value) {
  if (key.empty()) return false;
  std::error_code error;
  std::filesystem::create_directories(directory_, error);
  if (error) {
    LogHostFailure("cannot create " + directory_ + ": " + error.message());
    return false;
  }
  return ReplaceFileAtomically(directory_ + '/' + FileNameOf(key), value);
}

FileStorageService::FileStorageService(std::string directory)
    : storage_(std::make_shared<FileKvStorage>(std::move(directory))) {}

std::shared_ptr<cp::KvStorageInterface> FileStorageService::GetKvStorage() { return storage_; }

}  // namespace rulenlu::devhost
