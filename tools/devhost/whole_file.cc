#include "devhost/whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

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

bool ReplaceFileAtomically(const std::string& path, std::string_view bytes) {
  std::string temp = path + kTempFileMark + "XXXXXX";
  const int fd = mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, bytes) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && std::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) {
    unlink(temp.c_str());
    return false;
  }
  return SyncDirectory(DirectoryOf(path));
}

}  // namespace rulenlu::devhost
