#include "services/service_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "fake_host.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

using fake::kGrayServiceName;
using fake::kHttpServiceName;
using fake::kStorageServiceName;

ServiceManagerHolder& Holder() { return ServiceManagerHolder::Instance(); }

std::string Number(const void* address) {
  return std::to_string(static_cast<int64_t>(reinterpret_cast<intptr_t>(address)));
}

class ServiceManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Holder().ResetForTesting(); }
  void TearDown() override { Holder().ResetForTesting(); }

  fake::FakeHost host_;
};

TEST_F(ServiceManagerTest, AttachTakesOneReferenceAndRefusesLaterManagers) {
  EXPECT_FALSE(Holder().Attach(nullptr));
  EXPECT_EQ(Holder().Manager(), nullptr);

  ASSERT_TRUE(Holder().Attach(&host_.manager));
  EXPECT_EQ(host_.manager.add_refs(), 1);
  EXPECT_EQ(host_.manager.releases(), 0);
  EXPECT_EQ(Holder().Manager().get(), &host_.manager);

  // Neither another manager nor the same one again is taken, and neither gets a reference.
  fake::FakeServiceManager other;
  EXPECT_FALSE(Holder().Attach(&other));
  EXPECT_FALSE(Holder().Attach(&host_.manager));
  EXPECT_FALSE(Holder().Attach(nullptr));
  EXPECT_EQ(other.add_refs(), 0);
  EXPECT_EQ(other.releases(), 0);
  EXPECT_EQ(host_.manager.add_refs(), 1);
  EXPECT_EQ(host_.manager.releases(), 0);

  // Lookups keep going to the first manager.
  {
    LogCapture capture;
    EXPECT_NE(GetHostService<cp::StorageServiceInterface>(), nullptr);
  }
  EXPECT_EQ(host_.manager.requested_names(), std::vector<std::string>{kStorageServiceName});
  EXPECT_TRUE(other.requested_names().empty());
  EXPECT_EQ(host_.manager.releases(), 0);

  // Letting go releases the one reference; afterwards another manager can be attached.
  Holder().ResetForTesting();
  EXPECT_EQ(host_.manager.add_refs(), 1);
  EXPECT_EQ(host_.manager.releases(), 1);
  EXPECT_EQ(Holder().Manager(), nullptr);
  EXPECT_TRUE(Holder().Attach(&other));
  EXPECT_EQ(other.add_refs(), 1);
  Holder().ResetForTesting();
  EXPECT_EQ(other.releases(), 1);
}

// Looks T up before any manager is attached and returns the log text.
template <class T>
std::string LookUpDetached() {
  LogCapture capture;
  EXPECT_EQ(GetHostService<T>(), nullptr);
  EXPECT_EQ(capture.err(), "");
  return capture.out();
}

TEST_F(ServiceManagerTest, LookupWithoutManagerFindsNothing) {
  EXPECT_EQ(LookUpDetached<cp::StorageServiceInterface>(),
            "GetServiceFromServiceManager service_manager=0, name=class "
            "cp::StorageServiceInterface, <T>name=class cp::StorageServiceInterface"
            "GetServiceFromServiceManager. service is null.");
  EXPECT_EQ(LookUpDetached<cp::GrayServiceInterface>(),
            "GetServiceFromServiceManager service_manager=0, name=class "
            "cp::GrayServiceInterface, <T>name=class cp::GrayServiceInterface"
            "GetServiceFromServiceManager. service is null.");
  EXPECT_EQ(LookUpDetached<cp::HttpServiceInterface>(),
            "GetServiceFromServiceManager service_manager=0, name=class "
            "cp::HttpServiceInterface, <T>name=class cp::HttpServiceInterface"
            "GetServiceFromServiceManager. service is null.");
  // A refused null attach leaves the holder without a manager.
  EXPECT_FALSE(Holder().Attach(nullptr));
  EXPECT_EQ(Holder().Manager(), nullptr);
  EXPECT_EQ(LookUpDetached<cp::StorageServiceInterface>().rfind(
                "GetServiceFromServiceManager service_manager=0, ", 0),
            0u);
}

TEST_F(ServiceManagerTest, LookupFindsEachServiceUnderItsTypeName) {
  ASSERT_TRUE(Holder().Attach(&host_.manager));
  const std::string manager = Number(static_cast<cp::ServiceManagerInterface*>(&host_.manager));
  {
    LogCapture capture;
    const std::shared_ptr<cp::StorageServiceInterface> storage =
        GetHostService<cp::StorageServiceInterface>();
    EXPECT_EQ(storage.get(), host_.storage.get());
    const std::string tid =
        std::to_string(static_cast<int64_t>(typeid(cp::StorageServiceInterface).hash_code()));
    EXPECT_EQ(capture.out(),
              "GetServiceFromServiceManager service_manager=" + manager +
                  ", name=class cp::StorageServiceInterface, <T>name=class "
                  "cp::StorageServiceInterface"
                  "GetServiceFromServiceManager. service=" +
                  Number(static_cast<cp::ServiceInterface*>(host_.storage_service.get())) +
                  "."
                  "GetInterfaceTemplate. tid=" +
                  tid + ", tname=class cp::StorageServiceInterface");
  }
  {
    LogCapture capture;
    EXPECT_EQ(GetHostService<cp::GrayServiceInterface>().get(), host_.gray.get());
    EXPECT_EQ(capture.out(), host_.GrayLookupLog());
  }
  {
    LogCapture capture;
    EXPECT_EQ(GetHostService<cp::HttpServiceInterface>().get(), host_.http.get());
    EXPECT_EQ(capture.out(), host_.HttpLookupLog());
  }
  EXPECT_EQ(host_.manager.requested_names(),
            (std::vector<std::string>{kStorageServiceName, kGrayServiceName, kHttpServiceName}));
  EXPECT_EQ(host_.storage_service->requested_types(),
            std::vector<std::string>{kStorageServiceName});
  EXPECT_EQ(host_.gray_service->requested_types(), std::vector<std::string>{kGrayServiceName});
  EXPECT_EQ(host_.http_service->requested_types(), std::vector<std::string>{kHttpServiceName});
  // Lookups never touch the manager's reference count.
  EXPECT_EQ(host_.manager.add_refs(), 1);
  EXPECT_EQ(host_.manager.releases(), 0);
}

TEST_F(ServiceManagerTest, MissingServiceOrInterfaceYieldsNull) {
  ASSERT_TRUE(Holder().Attach(&host_.manager));
  const size_t gray_hash = typeid(cp::GrayServiceInterface).hash_code();
  const size_t http_hash = typeid(cp::HttpServiceInterface).hash_code();

  host_.manager.RemoveService(kGrayServiceName);
  {
    LogCapture capture;
    EXPECT_EQ(GetHostService<cp::GrayServiceInterface>(), nullptr);
    EXPECT_EQ(capture.out(),
              fake::ExpectedLookupLog(kGrayServiceName, gray_hash, &host_.manager, nullptr));
    EXPECT_NE(capture.out().find("service is null."), std::string::npos);
  }
  EXPECT_TRUE(host_.gray_service->requested_types().empty());

  // The service exists but does not offer the interface: the type line is the last one.
  host_.http_service->Withdraw(kHttpServiceName);
  {
    LogCapture capture;
    EXPECT_EQ(GetHostService<cp::HttpServiceInterface>(), nullptr);
    const std::string expected = fake::ExpectedLookupLog(kHttpServiceName, http_hash,
                                                         &host_.manager, host_.http_service.get());
    EXPECT_EQ(capture.out(), expected);
    const std::string tail =
        "GetInterfaceTemplate. tid=" + std::to_string(static_cast<int64_t>(http_hash)) +
        ", tname=class cp::HttpServiceInterface";
    ASSERT_GE(capture.out().size(), tail.size());
    EXPECT_EQ(capture.out().substr(capture.out().size() - tail.size()), tail);
  }
  EXPECT_EQ(host_.http_service->requested_types(), std::vector<std::string>{kHttpServiceName});
  EXPECT_EQ(host_.http_service->live_handles(), 0);
}

TEST_F(ServiceManagerTest, TypedPointerHoldsTheInterfaceHandle) {
  ASSERT_TRUE(Holder().Attach(&host_.manager));
  LogCapture capture;
  const long storage_owners = host_.storage.use_count();

  std::shared_ptr<cp::StorageServiceInterface> first =
      GetHostService<cp::StorageServiceInterface>();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(host_.storage_service->live_handles(), 1);
  EXPECT_EQ(host_.storage.use_count(), storage_owners + 1);

  // Each lookup is fresh and holds its own handle.
  std::shared_ptr<cp::StorageServiceInterface> second =
      GetHostService<cp::StorageServiceInterface>();
  EXPECT_EQ(host_.storage_service->live_handles(), 2);
  EXPECT_EQ(host_.manager.requested_names().size(), 2u);

  // A copy keeps the handle; the interface stays usable until the last copy goes.
  std::shared_ptr<cp::StorageServiceInterface> copy = first;
  std::weak_ptr<cp::StorageServiceInterface> weak = first;
  first.reset();
  EXPECT_EQ(host_.storage_service->live_handles(), 2);
  EXPECT_NE(copy->GetKvStorage(), nullptr);
  EXPECT_EQ(host_.storage->calls(), 1);
  copy.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(host_.storage_service->live_handles(), 1);
  second.reset();
  EXPECT_EQ(host_.storage_service->live_handles(), 0);
  // Nothing of the client was deleted or released by the library, only handed back.
  EXPECT_EQ(host_.storage.use_count(), storage_owners);
  EXPECT_EQ(host_.manager.releases(), 0);
}

// A manager that calls back into the holder from every operation: it would deadlock if the
// library called it with the holder's mutex held.
class ReentrantManager final : public cp::ServiceManagerInterface {
 public:
  std::shared_ptr<cp::ServiceInterface> GetService(const std::string& /*name*/) override {
    seen_attached = ServiceManagerHolder::Instance().Manager() != nullptr;
    return nullptr;
  }
  uint32_t AddRef() override {
    seen_attached = ServiceManagerHolder::Instance().Manager() != nullptr;
    return ++refs;
  }
  uint32_t Release() override {
    seen_attached = ServiceManagerHolder::Instance().Manager() != nullptr;
    return --refs;
  }

  uint32_t refs = 0;
  bool seen_attached = true;
};

TEST_F(ServiceManagerTest, ClientIsNeverCalledUnderTheLock) {
  ReentrantManager manager;
  ASSERT_TRUE(Holder().Attach(&manager));
  EXPECT_FALSE(manager.seen_attached);  // AddRef came before the store
  EXPECT_EQ(manager.refs, 1u);
  {
    LogCapture capture;
    EXPECT_EQ(GetHostService<cp::GrayServiceInterface>(), nullptr);
    EXPECT_TRUE(manager.seen_attached);
  }
  Holder().ResetForTesting();
  EXPECT_FALSE(manager.seen_attached);  // Release came after the holder let go
  EXPECT_EQ(manager.refs, 0u);
}

TEST_F(ServiceManagerTest, ConcurrentAttachesBalanceTheirReferences) {
  constexpr int kThreads = 4;
  std::vector<std::unique_ptr<fake::FakeServiceManager>> managers;
  for (int i = 0; i < kThreads; ++i)
    managers.push_back(std::make_unique<fake::FakeServiceManager>());
  std::atomic<int> attached{0};
  std::vector<ServiceManagerHolder*> holders(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      holders[i] = &ServiceManagerHolder::Instance();
      if (holders[i]->Attach(managers[i].get())) ++attached;
    });
  }
  for (std::thread& thread : threads) thread.join();

  ASSERT_GE(attached.load(), 1);
  int add_refs = 0;
  int releases = 0;
  int holding = 0;
  for (const auto& manager : managers) {
    add_refs += manager->add_refs();
    releases += manager->releases();
    if (Holder().Manager().get() == manager.get()) ++holding;
    EXPECT_LE(manager->add_refs(), 1);
  }
  for (ServiceManagerHolder* holder : holders) EXPECT_EQ(holder, &Holder());
  // Every successful attach took one reference; all but the one kept were given back.
  EXPECT_EQ(add_refs, attached.load());
  EXPECT_EQ(releases, attached.load() - 1);
  EXPECT_EQ(holding, 1);
  Holder().ResetForTesting();
  releases = 0;
  for (const auto& manager : managers) releases += manager->releases();
  EXPECT_EQ(releases, add_refs);
}

}  // namespace
}  // namespace rulenlu
