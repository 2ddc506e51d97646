// A client built against the public headers alone: it loads the library at run time, as the
// client application does, and drives it through the exported functions only.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>

#include "fake_host.h"
#include "result_dump.h"
#include "rulenlu/engine_api.h"
#include "rulenlu/host_services.h"

namespace {

namespace fake = rulenlu::fake;

// The library's four functions. Loaded once and never unloaded: the update thread that InitEngin
// starts may outlive any test.
struct Library {
  template <class F>
  F Find(const char* name) const {
    return reinterpret_cast<F>(handle == nullptr ? nullptr : dlsym(handle, name));
  }

  void* const handle = dlopen(RULENLU_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  const decltype(&AttachServiceManager) attach =
      Find<decltype(&AttachServiceManager)>("AttachServiceManager");
  const decltype(&InitEngin) init = Find<decltype(&InitEngin)>("InitEngin");
  const decltype(&BuildEngin) build = Find<decltype(&BuildEngin)>("BuildEngin");
  const decltype(&Process) process = Find<decltype(&Process)>("Process");
};

const Library& Load() {
  static const Library* const library = new Library;
  return *library;
}

class SharedLibraryTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(lib_.attach && lib_.init && lib_.build && lib_.process) << RULENLU_SHARED_LIBRARY;
  }

  std::string Ask(const std::string& query) const { return AskAndDump(lib_.process, query); }

  const Library& lib_ = Load();
};

TEST_F(SharedLibraryTest, DefinesExactlyTheFourFunctions) {
  const std::string command = std::string("nm -D --defined-only '") + RULENLU_SHARED_LIBRARY + "'";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string symbols;  // "name type" lines, in nm's name order
  char line[1024];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (fields >> address >> type >> name) symbols += name + " " + type + "\n";
  }
  ASSERT_EQ(pclose(pipe), 0) << command;
  EXPECT_EQ(symbols, "AttachServiceManager T\nBuildEngin T\nInitEngin T\nProcess T\n");
}

TEST_F(SharedLibraryTest, BuildsFromMemoryAndAnswers) {
  Utf8NluConfig config;
  config.vocabMap = {{"contact", {"Tom", "\xE6\x9D\x8E\xE4\xBC\x9F"}}};
  config.regexVocabMap = {{"time", {"[0-9]+ ?(am|pm)"}}};
  config.intentMap["call"] = Utf8IntentConfig{
      "call", {{"who", "contact"}, {"when", "time"}}, {"call <contact>( <time>)?"}, {}};
  lib_.build(&config);
  EXPECT_EQ(Ask("call \xE6\x9D\x8E\xE4\xBC\x9F 7pm"),
            "0|call|call \xE6\x9D\x8E\xE4\xBC\x9F 7pm|contact=\xE6\x9D\x8E\xE4\xBC\x9F@5+2;"
            "time=7pm@8+3;");
  // The library's exception reaches the client as the standard type it is; the engine stays.
  config.vocabMap["contact"].insert("\xFF");
  EXPECT_THAT([&] { lib_.build(&config); },
              testing::ThrowsMessage<std::range_error>(testing::StrEq("bad conversion")));
  EXPECT_EQ(Ask("call Tom"), "0|call|call Tom|contact=Tom@5+3;");
}

TEST_F(SharedLibraryTest, TheFirstClientFeedsInitEngin) {
  // Never destroyed: the library holds its manager, and its update thread may call it any time.
  static fake::FakeHost* const host = new fake::FakeHost;
  fake::FakeServiceManager other;
  EXPECT_FALSE(lib_.attach(nullptr));
  EXPECT_TRUE(lib_.attach(&host->manager));
  EXPECT_FALSE(lib_.attach(&other));
  EXPECT_EQ(host->manager.add_refs, 1);
  EXPECT_EQ(other.add_refs, 0);

  // The cached copy comes through the client's storage; the update pass then asks its
  // gray-release service, on a thread of its own.
  host->kv->Set("wr_nlu_remote_config", R"json({"version": 7, "vocabMap": {"contact": ["Tom"]},
      "intentMap": {"call": {"slots": [{"tag": "contact"}], "regexRules": ["call <contact>"]}}})json");
  lib_.init((testing::TempDir() + "shared_library_no_such_file.json").c_str());
  EXPECT_EQ(Ask("call Tom"), "7|call|call Tom|contact=Tom@5+3;");
  EXPECT_TRUE(host->gray->WaitForCalls(1));
  EXPECT_EQ(host->gray->calls, 1);
}

}  // namespace
