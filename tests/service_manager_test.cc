#include "services/service_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "fake_host.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

ServiceManagerHolder& Holder() { return ServiceManagerHolder::Instance(); }

// Looks T up through the holder, expecting to find `expected` and to log `log`.
template <class T>
void ExpectLookup(T* expected, const std::string& log) {
  LogCapture capture;
  EXPECT_EQ(GetHostService<T>().get(), expected);
  EXPECT_EQ(capture.out(), log);
  EXPECT_EQ(capture.err(), "");
}

// Every test leaves the holder without a manager, as the process starts.
struct ServiceManagerTest : ::testing::Test {
  void TearDown() override { Holder().ResetForTesting(); }
  fake::FakeHost host_;
};

TEST_F(ServiceManagerTest, FirstManagerIsKeptWithOneReferenceAndServesEveryLookup) {
  ExpectLookup<cp::StorageServiceInterface>(
      nullptr,
      "GetServiceFromServiceManager service_manager=0, name=class cp::StorageServiceInterface, "
      "<T>name=class cp::StorageServiceInterfaceGetServiceFromServiceManager. service is null.");
  EXPECT_FALSE(Holder().Attach(nullptr));
  fake::FakeServiceManager empty;  // knows no service
  ASSERT_TRUE(Holder().Attach(&empty));
  ExpectLookup<cp::GrayServiceInterface>(
      nullptr,
      fake::ExpectedLookupLog(cp::GrayServiceInterface::kServiceName,
                              typeid(cp::GrayServiceInterface).hash_code(), &empty, nullptr));
  // Neither another manager nor the same one again is taken, and neither gets a reference.
  EXPECT_FALSE(Holder().Attach(&host_.manager));
  EXPECT_FALSE(Holder().Attach(&empty));
  EXPECT_EQ(host_.manager.add_refs, 0);
  EXPECT_EQ(empty.add_refs, 1);
  // Once the holder lets go, another manager can be attached.
  Holder().ResetForTesting();
  ASSERT_TRUE(Holder().Attach(&host_.manager));
  ExpectLookup<cp::StorageServiceInterface>(host_.storage.get(), host_.StorageLookupLog());
  ExpectLookup<cp::GrayServiceInterface>(host_.gray.get(), host_.GrayLookupLog());
  ExpectLookup<cp::HttpServiceInterface>(host_.http.get(), host_.HttpLookupLog());
  // A service that does not offer the interface: the type line is the last one.
  host_.http_service->offered = false;
  ExpectLookup<cp::HttpServiceInterface>(nullptr, host_.HttpLookupLog());

  // Each typed pointer holds its own interface handle while it lives. Nothing of the client is
  // deleted or released by the library, only handed back.
  const long owners = host_.storage.use_count();
  {
    LogCapture capture;
    const auto first = GetHostService<cp::StorageServiceInterface>();
    const auto second = GetHostService<cp::StorageServiceInterface>();
    EXPECT_EQ(host_.storage.use_count(), owners + 2);
  }
  EXPECT_EQ(host_.storage.use_count(), owners);
  EXPECT_EQ(host_.manager.add_refs, 1);
  EXPECT_EQ(host_.manager.releases, 0);
}

// A manager that looks at the holder from every call: it would deadlock if the library called it
// with the holder's mutex held. Records each call and whether a manager was attached then.
struct ReentrantManager final : cp::ServiceManagerInterface {
  std::shared_ptr<cp::ServiceInterface> GetService(const std::string& /*name*/) override {
    Note("get");
    return nullptr;
  }
  uint32_t AddRef() override { return Note("addref"); }
  uint32_t Release() override { return Note("release"); }
  uint32_t Note(const std::string& call) {
    calls += call + (Holder().Manager() != nullptr ? "+ " : "- ");
    return 1;
  }

  std::string calls;
};

TEST_F(ServiceManagerTest, ClientIsNeverCalledUnderTheLock) {
  ReentrantManager manager;
  LogCapture capture;
  ASSERT_TRUE(Holder().Attach(&manager));
  EXPECT_EQ(GetHostService<cp::GrayServiceInterface>(), nullptr);
  Holder().ResetForTesting();
  // The reference is taken before the manager is stored and given back after the holder let go.
  EXPECT_EQ(manager.calls, "addref- get+ release- ");
}

TEST_F(ServiceManagerTest, ConcurrentAttachesBalanceTheirReferences) {
  std::vector<fake::FakeServiceManager> managers(4);
  std::atomic<int> attached{0};
  std::vector<std::thread> threads;
  for (auto& each : managers) threads.emplace_back([&] { attached += Holder().Attach(&each); });
  for (std::thread& thread : threads) thread.join();
  // Every successful attach took one reference; all but the one kept were given back.
  int add_refs = 0, releases = 0;
  for (const auto& manager : managers) add_refs += manager.add_refs;
  for (const auto& manager : managers) releases += manager.releases;
  EXPECT_EQ(add_refs, attached.load());
  EXPECT_EQ(releases, attached.load() - 1);
  Holder().ResetForTesting();
  for (const auto& manager : managers) EXPECT_EQ(manager.releases, manager.add_refs);
}

}  // namespace
}  // namespace rulenlu
