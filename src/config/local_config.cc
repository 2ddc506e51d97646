#include "config/local_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "config/config_parser.h"
#include "engine/log.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace rulenlu {
namespace {

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

File OpenForReading(const std::string& path) {
#ifdef _WIN32
  // File names are wide here. Text mode on purpose: CR LF arrives as LF and a Ctrl-Z byte ends
  // the text, as Windows editors expect.
  wchar_t* wide_path = Utf8ToWidePath(path.c_str());
  if (wide_path == nullptr) return nullptr;
  File file(_wfopen(wide_path, L"r"));
  std::free(wide_path);
  return file;
#else
  // File names are bytes here, and binary reading is what text mode amounts to.
  return File(std::fopen(path.c_str(), "rb"));
#endif
}

// Reads `file` to its end into `text`. Returns false on a read error, which is also how reading a
// directory ends.
bool ReadAll(FILE* file, std::string* text) {
  char chunk[1 << 16];
  size_t count;
  while ((count = std::fread(chunk, 1, sizeof chunk, file)) > 0) text->append(chunk, count);
  return std::ferror(file) == 0;
}

}  // namespace

#ifdef _WIN32
wchar_t* Utf8ToWidePath(const char* utf8) {
  const int units = MultiByteToWideChar(CP_UTF8, 0, utf8, -1, nullptr, 0);
  const size_t capacity = units > 0 ? static_cast<size_t>(units) : 0;
  auto* wide = static_cast<wchar_t*>(std::calloc(capacity + 1, sizeof(wchar_t)));
  if (wide == nullptr) return nullptr;
  // A failed conversion leaves the buffer zeroed: an empty path that no open accepts.
  MultiByteToWideChar(CP_UTF8, 0, utf8, static_cast<int>(std::strlen(utf8)), wide,
                      static_cast<int>(capacity));
  return wide;
}
#endif

std::shared_ptr<NluConfig> LoadLocalNluConfig(const std::string& path) {
  std::string text;
  bool read = false;
  if (File file = OpenForReading(path)) {
    try {
      read = ReadAll(file.get(), &text);
    } catch (const std::bad_alloc&) {
      read = false;
    }
  }
  if (!read) {
    LogPrintf("local config load failed");
    return nullptr;
  }
  return ParseNluConfig(text);
}

}  // namespace rulenlu
