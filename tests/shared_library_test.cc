// A client built against the public headers alone: it loads the library at run time, as the
// client application does, and drives it through the exported functions only.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "rulenlu/engine_api.h"
#include "rulenlu/host_services.h"

namespace {

// The library and its four functions. Loaded once and never unloaded: the update thread that
// InitEngin starts may outlive any test.
struct Library {
  void* handle = nullptr;
  std::string error;
  decltype(&AttachServiceManager) attach = nullptr;
  decltype(&InitEngin) init = nullptr;
  decltype(&BuildEngin) build = nullptr;
  decltype(&Process) process = nullptr;
};

template <class F>
void Find(Library& library, const char* name, F* function) {
  *function = reinterpret_cast<F>(dlsym(library.handle, name));
  if (*function == nullptr) library.error += std::string("no symbol ") + name + "; ";
}

const Library& Load() {
  static const Library* const library = [] {
    auto* loaded = new Library;
    loaded->handle = dlopen(RULENLU_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (loaded->handle == nullptr) {
      loaded->error = dlerror();
      return loaded;
    }
    Find(*loaded, "AttachServiceManager", &loaded->attach);
    Find(*loaded, "InitEngin", &loaded->init);
    Find(*loaded, "BuildEngin", &loaded->build);
    Find(*loaded, "Process", &loaded->process);
    return loaded;
  }();
  return *library;
}

class SharedLibraryTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(lib_.error, "") << RULENLU_SHARED_LIBRARY; }

  // "version|intent|text|key=value@start+length;..." of the answer to `query`.
  std::string Ask(const std::string& query) const {
    NluResult result;
    result.intent = "stale";
    lib_.process(query, result);
    std::string out =
        std::to_string(result.version) + "|" + result.intent + "|" + result.text + "|";
    for (const NluSlot& slot : result.slots) {
      out += slot.key + "=" + slot.value + "@" + std::to_string(slot.start) + "+" +
             std::to_string(slot.length) + ";";
    }
    return out;
  }

  const Library& lib_ = Load();
};

// The smallest client service manager: it knows no service, and counts what it is asked.
class EmptyServiceManager final : public cp::ServiceManagerInterface {
 public:
  std::shared_ptr<cp::ServiceInterface> GetService(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    names_.push_back(name);
    return nullptr;
  }
  uint32_t AddRef() override { return static_cast<uint32_t>(++references_); }
  uint32_t Release() override { return static_cast<uint32_t>(--references_); }

  int references() const { return references_; }
  std::vector<std::string> names() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> names_;
  std::atomic<int> references_{0};
};

TEST_F(SharedLibraryTest, DefinesExactlyTheFourFunctions) {
  const std::string command = std::string("nm -D --defined-only '") + RULENLU_SHARED_LIBRARY + "'";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::map<std::string, std::string> symbols;  // name -> nm's type letter
  char line[1024];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (fields >> address >> type >> name) symbols[name] = type;
  }
  ASSERT_EQ(pclose(pipe), 0) << command;
  const std::map<std::string, std::string> expected = {
      {"AttachServiceManager", "T"}, {"BuildEngin", "T"}, {"InitEngin", "T"}, {"Process", "T"}};
  EXPECT_EQ(symbols, expected);
}

TEST_F(SharedLibraryTest, BuildsFromMemoryAndAnswers) {
  Utf8NluConfig config;
  config.version = 3;
  config.vocabMap = {{"contact", {"Tom", "\xE6\x9D\x8E\xE4\xBC\x9F"}}};
  config.regexVocabMap = {{"time", {"[0-9]+ ?(am|pm)"}}};
  config.intentMap["call"] = Utf8IntentConfig{
      "call", {{"who", "contact"}, {"when", "time"}}, {"call <contact>( <time>)?"}, {}};
  lib_.build(&config);
  EXPECT_EQ(Ask("call \xE6\x9D\x8E\xE4\xBC\x9F 7pm"),
            "0|call|call \xE6\x9D\x8E\xE4\xBC\x9F 7pm|contact=\xE6\x9D\x8E\xE4\xBC\x9F@5+2;"
            "time=7pm@8+3;");
  EXPECT_EQ(Ask("call Anna"), "0|unknown|call Anna|");

  // The library's exception reaches the client as the standard type it is.
  Utf8NluConfig broken = config;
  broken.intentMap = {};
  broken.vocabMap["contact"].insert("\xFF");
  try {
    lib_.build(&broken);
    ADD_FAILURE() << "BuildEngin accepted invalid UTF-8";
  } catch (const std::range_error& e) {
    EXPECT_STREQ(e.what(), "bad conversion");
  }
  EXPECT_EQ(Ask("call Tom"), "0|call|call Tom|contact=Tom@5+3;");
}

TEST_F(SharedLibraryTest, AttachesTheClientAndInitsFromFile) {
  // Never destroyed: the library holds it, and its update thread may call it at any time.
  static EmptyServiceManager* const manager = new EmptyServiceManager;
  EmptyServiceManager other;
  EXPECT_FALSE(lib_.attach(nullptr));
  EXPECT_TRUE(lib_.attach(manager));
  EXPECT_FALSE(lib_.attach(&other));
  EXPECT_EQ(manager->references(), 1);
  EXPECT_EQ(other.references(), 0);

  const std::string path = testing::TempDir() + "shared_library_local.json";
  std::ofstream(path, std::ios::binary | std::ios::trunc) << R"json({"version": 7,
      "vocabMap": {"contact": ["Tom"]},
      "intentMap": {"call": {"slots": [{"tag": "contact"}], "regexRules": ["call <contact>"]}}})json";
  lib_.init(path.c_str());
  std::remove(path.c_str());
  EXPECT_EQ(Ask("call Tom"), "7|call|call Tom|contact=Tom@5+3;");

  // The cache read asks for the storage service; the update pass, on its own thread, for the
  // gray-release service.
  const std::vector<std::string> expected = {"class cp::StorageServiceInterface",
                                             "class cp::GrayServiceInterface"};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (manager->names().size() < expected.size() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(manager->names(), expected);
  EXPECT_EQ(other.names().size(), 0u);
}

}  // namespace
