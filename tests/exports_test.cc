#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "fake_host.h"
#include "log_capture.h"
#include "rulenlu/engine_api.h"
#include "rulenlu/host_services.h"
#include "services/config_update.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

using fake::FakeHost;
using testing::AllOf;
using testing::EndsWith;
using testing::Eq;
using testing::Gt;
using testing::HasSubstr;
using testing::Matcher;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kCacheKey[] = "wr_nlu_remote_config";
constexpr char kGrayNamespace[] = "wren";
constexpr char kGrayKey[] = "loom_nlu_config";
constexpr auto kPatience = std::chrono::seconds(20);

// What an engine logs while it is built from a configuration without regex vocabularies.
constexpr char kEngineInitLog[] =
    "NluEngine: start tagger init\n"
    "3333333333333333333333333\n"
    "NluEngine: start parser init\n";

// A configuration that parses but cannot build an engine: its regex vocabulary does not compile.
constexpr char kPoisonedConfig[] = R"json({"version": 5, "regexVocabMap": {"broken": ["("]}})json";
// What building an engine from it logs before the failure.
constexpr char kPoisonedInitLog[] =
    "NluEngine: start tagger init\n"
    "3333333333333333333333333\n"
    "new regex:(\n"
    "pattern:(\n";

// A configuration with one intent, "call <contact>", over the given JSON list of contacts.
std::string CallConfig(int version, const std::string& contacts) {
  return R"json({"version": )json" + std::to_string(version) +
         R"json(, "vocabMap": {"contact": [)json" + contacts +
         R"json(]}, "intentMap": {"call": {"slots": [{"tag": "contact"}],
         "regexRules": ["call <contact>"]}}})json";
}

// The local file of every test: version 9, Tom and Anna.
const std::string& LocalConfig() {
  static const std::string* const config = new std::string(CallConfig(9, R"("Tom", "Anna")"));
  return *config;
}

// The log of a lookup of service T while no manager is attached.
template <class T>
std::string LookupWithoutManagerLog(const char* name) {
  return fake::ExpectedLookupLog(name, typeid(T).hash_code(), nullptr, nullptr);
}

// Matches `head`, then a reason of at least one character, then `tail`.
Matcher<const std::string&> WithReason(const std::string& head, const std::string& tail) {
  return AllOf(StartsWith(head), EndsWith(tail), SizeIs(Gt(head.size() + tail.size())));
}

// A compact dump of a result: "version|intent|text|key=value@start+length;...".
std::string Dump(const NluResult& result) {
  std::string out = std::to_string(result.version) + "|" + result.intent + "|" + result.text + "|";
  for (const NluSlot& slot : result.slots) {
    out += slot.key + "=" + slot.value + "@" + std::to_string(slot.start) + "+" +
           std::to_string(slot.length) + ";";
  }
  return out;
}

// Runs `query` through the exported Process into a record full of stale content, so that every
// field it leaves behind shows.
NluResult Query(const std::string& query) {
  NluResult result;
  result.version = 77;
  result.intent = "stale";
  result.text = "stale";
  result.slots.push_back(NluSlot{"stale", "stale", 1, 2});
  ::Process(query, result);
  return result;
}

// Polls `done` until it holds or the patience runs out.
bool WaitUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A configuration held in memory: contacts, times built from a variable, and one intent whose
// name is not ASCII.
Utf8NluConfig MeetingConfig() {
  Utf8NluConfig config;
  config.version = 42;
  config.vocabMap = {{"contact", {"Tom", "Jos\xC3\xA9"}}};
  config.variableEntrys = {{"hour", "(1[0-2]|[1-9])"}};
  config.regexVocabMap = {{"time", {"${hour} ?(am|pm)"}}, {"day", {"tomorrow"}}};
  config.intentMap["r\xC3\xA9union"] =
      Utf8IntentConfig{"Meet",
                       {{"qui", "contact"}, {"jour", "day"}, {"quand", "time"}},
                       {"meet <contact> (<day> )?at <time>"},
                       {}};
  return config;
}

// Every test starts with no manager attached and a local file of version 9. The current engine
// persists between tests, so each test builds its own before asserting on answers.
class ExportsTest : public testing::Test {
 protected:
  void SetUp() override {
    ServiceManagerHolder::Instance().ResetForTesting();
    local_path_ = TempPath("local");
    missing_path_ = TempPath("missing");
    WriteFile(local_path_, LocalConfig());
  }

  void TearDown() override {
    EXPECT_TRUE(WaitForRemoteConfigUpdates(kPatience));
    ServiceManagerHolder::Instance().ResetForTesting();
    for (const std::string& path : written_) std::remove(path.c_str());
  }

  std::string TempPath(const std::string& what) const {
    return testing::TempDir() + "exports_" +
           testing::UnitTest::GetInstance()->current_test_info()->name() + "_" + what + ".json";
  }

  void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    written_.push_back(path);
  }

  void Attach() { ASSERT_TRUE(AttachServiceManager(&host_.manager)); }

  // Runs InitEngin on `path` and the update pass it starts; returns all they logged.
  std::string Init(const char* path) {
    LogCapture capture;
    InitEngin(path);
    EXPECT_TRUE(WaitForRemoteConfigUpdates(kPatience));
    EXPECT_EQ(capture.err(), "");
    return capture.out();
  }

  // The log of an update pass that finds no gray-release value.
  std::string PassWithoutValueLog() const {
    return "config update." + host_.GrayLookupLog() + "value is empty.";
  }

  FakeHost host_;
  std::string local_path_;
  std::string missing_path_;
  std::vector<std::string> written_;
};

TEST_F(ExportsTest, AttachServiceManagerKeepsTheFirstManager) {
  EXPECT_FALSE(AttachServiceManager(nullptr));
  EXPECT_TRUE(AttachServiceManager(&host_.manager));
  FakeHost second;
  EXPECT_FALSE(AttachServiceManager(&second.manager));
  EXPECT_FALSE(AttachServiceManager(&host_.manager));
  EXPECT_EQ(host_.manager.add_refs(), 1);
  EXPECT_EQ(second.manager.add_refs(), 0);
  EXPECT_EQ(host_.manager.releases() + second.manager.releases(), 0);
  // Lookups go to the first manager.
  host_.kv->Set(kCacheKey, CallConfig(5, R"("Zoe")"));
  Init(missing_path_.c_str());
  EXPECT_THAT(host_.manager.requested_names(), testing::Contains(fake::kStorageServiceName));
  EXPECT_THAT(second.manager.requested_names(), testing::IsEmpty());
  ServiceManagerHolder::Instance().ResetForTesting();
  EXPECT_EQ(host_.manager.releases(), 1);
}

TEST_F(ExportsTest, InitFromLocalFileWithoutManager) {
  EXPECT_EQ(Init(local_path_.c_str()),
            LookupWithoutManagerLog<cp::StorageServiceInterface>(fake::kStorageServiceName) +
                "storage is null" + "remote config load failed" + "use local config. version=9" +
                kEngineInitLog + "config update." +
                LookupWithoutManagerLog<cp::GrayServiceInterface>(fake::kGrayServiceName) +
                "gray is null.");
  LogCapture capture;
  EXPECT_EQ(Dump(Query("call Anna")), "9|call|call Anna|contact=Anna@5+4;");
  EXPECT_EQ(Dump(Query("call Zoe")), "9|unknown|call Zoe|");
  EXPECT_EQ(capture.out(), "result :call\nslotkey:contact, slotvalue:Anna\nresult :unknown\n");
  EXPECT_EQ(capture.err(), "");
}

TEST_F(ExportsTest, CachedCopyWinsOverNewerLocalFile) {
  Attach();
  host_.kv->Set(kCacheKey, CallConfig(5, R"("Zoe")"));
  EXPECT_EQ(Init(local_path_.c_str()), host_.StorageLookupLog() + "use remote config. version=5" +
                                           kEngineInitLog + PassWithoutValueLog());
  LogCapture quiet;
  EXPECT_EQ(Dump(Query("call Zoe")), "5|call|call Zoe|contact=Zoe@5+3;");
  EXPECT_EQ(Dump(Query("call Tom")), "5|unknown|call Tom|");
}

TEST_F(ExportsTest, UnusableCachedCopyFallsBackToLocalFile) {
  Attach();
  // The pass must run with the version of the engine that was built: the local one.
  host_.gray->Set(kGrayNamespace, kGrayKey, R"({"version": 9, "url": "U"})");
  struct Case {
    const char* name;
    std::string cached;
    std::string rejection;  // logged between the storage lookup and the local attempt
    bool reason_follows;    // the rejection ends with the builder's reason
  };
  const Case cases[] = {
      {"not JSON", "{\"version\": 5,", "json is error.", false},
      {"invalid UTF-8", CallConfig(5, "\"Zo\xC3\""), "remote config is invalid: bad conversion",
       false},
      {"regex does not compile", kPoisonedConfig,
       std::string("use remote config. version=5") + kPoisonedInitLog +
           "remote config cannot build engine: ",
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    host_.kv->Set(kCacheKey, c.cached);
    const std::string head = host_.StorageLookupLog() + c.rejection;
    const std::string tail = "use local config. version=9" + std::string(kEngineInitLog) +
                             "config update." + host_.GrayLookupLog() + "version is same. 9";
    const std::string log = Init(local_path_.c_str());
    if (c.reason_follows) {
      EXPECT_THAT(log, WithReason(head, tail));
    } else {
      EXPECT_EQ(log, head + tail);
    }
    LogCapture quiet;
    EXPECT_EQ(Dump(Query("call Tom")), "9|call|call Tom|contact=Tom@5+3;");
  }
  EXPECT_EQ(host_.http->sent_count(), 0u);
}

// Collects, one line each, the checks that fail where gtest cannot report them.
class Mismatches {
 public:
  void Check(const std::string& what, const std::string& seen,
             const Matcher<const std::string&>& expected) {
    if (!expected.Matches(seen)) text_ += what + ": saw \"" + seen + "\"\n";
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

TEST_F(ExportsTest, WithoutAnyConfigurationNoEngineIsEverBuilt) {
  // Only a fresh copy of this program is sure to have no engine yet; it reports what differs.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run_in_fresh_process = [this] {
    Mismatches mismatches;
    const auto init = [&](const std::string& what, const char* path,
                          const Matcher<const std::string&>& expected_log) {
      LogCapture capture;
      InitEngin(path);
      mismatches.Check(what + " log", capture.out(), expected_log);
      mismatches.Check(what + " stderr", capture.err(), Eq(""));
      mismatches.Check(what + " answer", Dump(Query("call Tom")), Eq("0|||"));
    };
    mismatches.Check("before any engine", Dump(Query("call Tom")), Eq("0|||"));
    const std::string no_manager =
        LookupWithoutManagerLog<cp::StorageServiceInterface>(fake::kStorageServiceName) +
        "storage is null" + "remote config load failed" + "local config load failed";
    init("null path", nullptr, Eq(no_manager));
    init("missing file", missing_path_.c_str(), Eq(no_manager));

    mismatches.Check("attach", AttachServiceManager(&host_.manager) ? "yes" : "no", Eq("yes"));
    const std::string not_json_path = TempPath("not_json");
    WriteFile(not_json_path, "not json");
    init("local file not JSON", not_json_path.c_str(),
         Eq(host_.StorageLookupLog() + "remote config load failed" + "json is error."));
    host_.kv->Set(kCacheKey, "not json");
    init("neither source parses", missing_path_.c_str(),
         Eq(host_.StorageLookupLog() + "json is error." + "local config load failed"));
    host_.kv->Set(kCacheKey, kPoisonedConfig);
    init("cached copy cannot build", missing_path_.c_str(),
         WithReason(host_.StorageLookupLog() + "use remote config. version=5" + kPoisonedInitLog +
                        "remote config cannot build engine: ",
                    "local config load failed"));
    host_.kv->Set(kCacheKey, "");
    const std::string poisoned_path = TempPath("poisoned");
    WriteFile(poisoned_path, kPoisonedConfig);
    init("local file cannot build", poisoned_path.c_str(),
         WithReason(host_.StorageLookupLog() + "remote config load failed" +
                        "use local config. version=5" + kPoisonedInitLog + "engine build failed: ",
                    ""));

    mismatches.Check("passes ended", WaitForRemoteConfigUpdates(kPatience) ? "yes" : "no",
                     Eq("yes"));
    mismatches.Check("gray calls", std::to_string(host_.gray->calls().size()), Eq("0"));
    ServiceManagerHolder::Instance().ResetForTesting();
    std::fputs(mismatches.text().c_str(), stderr);
    std::exit(0);
  };
  EXPECT_EXIT(run_in_fresh_process(), testing::ExitedWithCode(0), Eq(""));
}

TEST_F(ExportsTest, UpdatePassDownloadsADifferentVersionForTheNextStart) {
  Attach();
  host_.gray->Set(kGrayNamespace, kGrayKey, R"({"version": 12, "url": "https://cfg.test/nlu"})");
  EXPECT_EQ(Init(local_path_.c_str()),
            host_.StorageLookupLog() + "remote config load failed" + "use local config. version=9" +
                kEngineInitLog + "config update." + host_.GrayLookupLog() +
                "update new config. url=https://cfg.test/nlu, version=12" + host_.HttpLookupLog());
  const std::vector<fake::FakeGrayService::Call> calls = host_.gray->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].name_space, kGrayNamespace);
  EXPECT_EQ(calls[0].key, kGrayKey);
  EXPECT_EQ(calls[0].default_value, "");
  ASSERT_EQ(host_.http->sent_count(), 1u);
  EXPECT_EQ(host_.http->sent(0).request->GetUrl(), "https://cfg.test/nlu");

  const std::string downloaded = CallConfig(12, R"("Zoe")");
  {
    LogCapture quiet;
    host_.http->DeliverSuccess(0, downloaded);
  }
  EXPECT_EQ(host_.kv->Get(kCacheKey), downloaded);
  // The next start-up builds from the download, and its pass finds nothing newer.
  EXPECT_EQ(Init(local_path_.c_str()), host_.StorageLookupLog() + "use remote config. version=12" +
                                           kEngineInitLog + "config update." +
                                           host_.GrayLookupLog() + "version is same. 12");
  EXPECT_EQ(host_.http->sent_count(), 1u);
  LogCapture quiet;
  EXPECT_EQ(Dump(Query("call Zoe")), "12|call|call Zoe|contact=Zoe@5+3;");
}

TEST_F(ExportsTest, EachInitStartsItsOwnPassAndTheLastEngineAnswers) {
  Attach();
  const std::string second_path = TempPath("second");
  WriteFile(second_path, CallConfig(11, R"("Ben")"));
  host_.gray->Set(kGrayNamespace, kGrayKey, R"({"version": 9, "url": "U"})");
  host_.gray->Hold();
  LogCapture capture;
  InitEngin(local_path_.c_str());
  InitEngin(second_path.c_str());
  // InitEngin waits for neither pass: both are inside the gray service at once.
  EXPECT_TRUE(WaitUntil([this] { return host_.gray->calls().size() == 2; }));
  EXPECT_FALSE(WaitForRemoteConfigUpdates(std::chrono::milliseconds(0)));
  EXPECT_EQ(Dump(Query("call Ben")), "11|call|call Ben|contact=Ben@5+3;");
  EXPECT_EQ(Dump(Query("call Tom")), "11|unknown|call Tom|");
  host_.gray->Release();
  EXPECT_TRUE(WaitForRemoteConfigUpdates(kPatience));
  // Each pass compares with the version of its own engine.
  EXPECT_THAT(capture.out(), AllOf(HasSubstr("version is same. 9"),
                                   HasSubstr("update new config. url=U, version=9")));
  EXPECT_EQ(host_.http->sent_count(), 1u);
}

TEST_F(ExportsTest, BuildEnginBuildsFromMemoryWithoutTheServices) {
  Attach();
  const Utf8NluConfig config = MeetingConfig();
  {
    LogCapture capture;
    BuildEngin(&config);
    // Regex vocabulary names in name order, then the engine, then the width of a text unit.
    EXPECT_EQ(capture.out(),
              "day\n"
              "time\n"
              "NluEngine: start tagger init\n"
              "3333333333333333333333333\n"
              "new regex:tomorrow\n"
              "new regex:(1[0-2]|[1-9]) ?(am|pm)\n"
              "pattern:tomorrow\n"
              "pattern:(1[0-2]|[1-9]) ?(am|pm)\n"
              "NluEngine: start parser init\n"
              "sizeof wchar_t:2\n");
  }
  EXPECT_TRUE(WaitForRemoteConfigUpdates(std::chrono::milliseconds(0)));
  EXPECT_THAT(host_.manager.requested_names(), testing::IsEmpty());

  {
    LogCapture quiet;
    // The version given is not taken: results report 0.
    EXPECT_EQ(Dump(Query("meet Jos\xC3\xA9 tomorrow at 5 pm")),
              "0|r\xC3\xA9union|meet Jos\xC3\xA9 tomorrow at 5 pm|contact=Jos\xC3\xA9@5+4;"
              "day=tomorrow@10+8;time=5 pm@22+4;");
    EXPECT_EQ(Dump(Query("meet Anna at 5pm")), "0|unknown|meet Anna at 5pm|");
  }
  // A later InitEngin replaces it, and a later BuildEngin replaces that.
  Init(local_path_.c_str());
  LogCapture quiet;
  EXPECT_EQ(Dump(Query("meet Tom at 5pm")), "9|unknown|meet Tom at 5pm|");
  BuildEngin(&config);
  EXPECT_EQ(Dump(Query("meet Tom at 5pm")),
            "0|r\xC3\xA9union|meet Tom at 5pm|contact=Tom@5+3;time=5pm@12+3;");
}

TEST_F(ExportsTest, BuildEnginRejectsInvalidUtf8AndKeepsTheCurrentEngine) {
  const Utf8NluConfig good = MeetingConfig();
  Utf8NluConfig broken = MeetingConfig();
  broken.intentMap = {{"other", good.intentMap.begin()->second}};
  broken.vocabMap["contact"].insert("Zo\xC3");
  {
    LogCapture quiet;
    BuildEngin(&good);
  }
  LogCapture capture;
  try {
    BuildEngin(&broken);
    ADD_FAILURE() << "BuildEngin accepted invalid UTF-8";
  } catch (const std::range_error& e) {
    EXPECT_STREQ(e.what(), "bad conversion");
  }
  // The names were printed before the vocabularies were converted; no engine was begun.
  EXPECT_EQ(capture.out(), "day\ntime\n");
  EXPECT_EQ(Dump(Query("meet Tom at 5pm")),
            "0|r\xC3\xA9union|meet Tom at 5pm|contact=Tom@5+3;time=5pm@12+3;");
}

TEST_F(ExportsTest, ProcessTurnsEveryFailureIntoTheEmptyResult) {
  Utf8NluConfig config;
  config.regexVocabMap = {{"any", {"."}}};
  config.intentMap["any"] = Utf8IntentConfig{"any", {{"x", "any"}}, {"(<any>)+"}, {}};
  {
    LogCapture quiet;
    BuildEngin(&config);
  }
  {
    // `.` takes half of a surrogate pair: the slot has no UTF-8 form.
    LogCapture capture;
    EXPECT_EQ(Dump(Query("\xF0\x9F\x98\x80")), "0|||");
    EXPECT_EQ(capture.out(), "result :any\n");
    EXPECT_EQ(capture.err(), "result conversion exception!\n");
  }
  {
    LogCapture capture;
    EXPECT_EQ(Dump(Query("a\xC3")), "0|||");
    EXPECT_EQ(capture.err(), "tagger process exception!\n");
  }
  LogCapture quiet;
  EXPECT_EQ(Dump(Query("ab")), "0|any|ab|any=a@0+1;any=b@1+1;");
}

}  // namespace
}  // namespace rulenlu
