#include "base/file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/error.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace rulenlu {
namespace {

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

#ifdef _WIN32
// File names are wide here. Text mode on purpose: CR LF arrives as LF and a Ctrl-Z byte ends
// the text, as Windows editors expect. A name that does not convert opens nothing.
File OpenForReading(const std::string& path) {
  const int units =
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.c_str(), -1, nullptr, 0);
  if (units <= 0) return nullptr;
  std::wstring wide(static_cast<size_t>(units), L'\0');
  MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.c_str(), -1, wide.data(), units);
  return File(_wfopen(wide.c_str(), L"r"));
}
#else
// File names are bytes here, and binary reading is what text mode amounts to.
File OpenForReading(const std::string& path) { return File(std::fopen(path.c_str(), "rb")); }
#endif

// The size of `file` when it is a regular file, else 0: room to reserve, not a promise.
size_t SizeHint(FILE* file) {
#ifdef _WIN32
  struct _stat64 status;
  const bool regular =
      _fstat64(_fileno(file), &status) == 0 && (status.st_mode & _S_IFMT) == _S_IFREG;
#else
  struct stat status;
  const bool regular = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
#endif
  return regular ? static_cast<size_t>(status.st_size) : 0;
}

[[noreturn]] void Fail(const std::string& path, int error) {
  throw Error("cannot read " + path + ": " + std::strerror(error));
}

}  // namespace

std::string ReadWholeFile(const std::string& path) {
  errno = 0;
  const File file = OpenForReading(path);
  if (file == nullptr) Fail(path, errno);
  std::string bytes;
  // Grown by doubling, the text would hold up to twice its size while it is parsed.
  bytes.reserve(SizeHint(file.get()));
  char chunk[1 << 16];
  size_t count;
  while ((count = std::fread(chunk, 1, sizeof chunk, file.get())) > 0) bytes.append(chunk, count);
  // Reading a directory ends here too.
  if (std::ferror(file.get()) != 0) Fail(path, errno != 0 ? errno : EIO);
  return bytes;
}

}  // namespace rulenlu
