#include "devhost/whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/log.h"

namespace rulenlu::devhost {
namespace {

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Makes a completed rename durable. Some file systems cannot sync a directory (EINVAL); the
// rename is then as durable as they allow.
bool SyncDirectory(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = fsync(fd) == 0 || errno == EINVAL;
  close(fd);
  return synced;
}

}  // namespace

void LogHostFailure(const std::string& what) { LogLine(LogStream::kStderr, {"devhost: ", what}); }

bool ReplaceFileAtomically(const std::string& path, std::string_view bytes) {
  // Logs the failed step with the reason errno gives, and fails.
  auto fail = [&path](const char* step) {
    LogHostFailure(std::string("cannot ") + step + " " + path + ": " + std::strerror(errno));
    return false;
  };
  std::string temp = path + kTempFileMark + "XXXXXX";
  const int fd = mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return fail("create a temporary for");
  const char* failed = nullptr;
  if (!WriteAll(fd, bytes)) {
    failed = "write the temporary of";
  } else if (fsync(fd) != 0) {
    failed = "sync the temporary of";
  }
  if (close(fd) != 0 && failed == nullptr) failed = "close the temporary of";
  if (failed == nullptr && std::rename(temp.c_str(), path.c_str()) != 0) failed = "rename onto";
  if (failed != nullptr) {
    const int error = errno;
    unlink(temp.c_str());
    errno = error;
    return fail(failed);
  }
  return SyncDirectory(DirectoryOf(path)) || fail("sync the directory of");
}

void RemoveStaleTemporaries(const std::string& directory) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::directory_iterator entries(directory, error);
  if (error == std::errc::no_such_file_or_directory) return;
  for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
    const fs::path& path = entries->path();
    if (path.filename().string().find(kTempFileMark) == std::string::npos) continue;
    std::error_code removal;
    fs::remove(path, removal);
    if (removal) LogHostFailure("cannot remove " + path.string() + ": " + removal.message());
  }
  if (error) LogHostFailure("cannot list " + directory + ": " + error.message());
}

}  // namespace rulenlu::devhost
