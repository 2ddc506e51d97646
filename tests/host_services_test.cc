// The client calls the library's objects, and the library the client's, through virtual tables:
// every operation must sit at the slot the client expects.
#include "rulenlu/host_services.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// The virtual-table slot of a virtual member function. Under the Itanium C++ ABI a pointer to
// a virtual member function holds 1 + the slot's byte offset.
template <typename Member>
long Slot(Member member) {
  long raw = 0;
  std::memcpy(&raw, &member, sizeof raw);
  return (raw - 1) / static_cast<long>(sizeof(void*));
}

TEST(HostServices, OperationsSitAtTheClientsSlots) {
#if defined(_MSC_VER)
  GTEST_SKIP() << "slot numbers are read the Itanium C++ ABI way";
#endif
  EXPECT_EQ(Slot(&cp::ServiceManagerInterface::GetService), 1);
  EXPECT_EQ(Slot(&cp::ServiceManagerInterface::AddRef), 5);
  EXPECT_EQ(Slot(&cp::ServiceManagerInterface::Release), 6);
  EXPECT_EQ(Slot(&cp::ServiceInterface::GetInterface), 2);
  EXPECT_EQ(Slot(&cp::InterfaceHandle::Get), 1);
  EXPECT_EQ(Slot(&cp::StorageServiceInterface::GetKvStorage), 1);
  EXPECT_EQ(Slot(&cp::KvStorageInterface::Read), 2);
  EXPECT_EQ(Slot(&cp::KvStorageInterface::Write), 3);
  EXPECT_EQ(Slot(&cp::GrayServiceInterface::GetValue), 2);
  EXPECT_EQ(Slot(&cp::HttpServiceInterface::Send), 1);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetUrl), 1);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetMethod), 2);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetHeaders), 3);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetBody), 4);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetContentType), 5);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetDownloadPath), 6);
  EXPECT_EQ(Slot(&cp::RequestInterface::IsDeferrable), 7);
  EXPECT_EQ(Slot(&cp::RequestInterface::GetTimeoutSeconds), 8);
  EXPECT_EQ(Slot(&cp::ResponseCallback::OnSuccess), 1);
  EXPECT_EQ(Slot(&cp::ResponseCallback::OnFailure), 2);
  EXPECT_EQ(Slot(&cp::ResponseCallback::OnProgress), 3);
  EXPECT_EQ(Slot(&cp::ResponseInterface::GetStatusCode), 0);
  EXPECT_EQ(Slot(&cp::ResponseInterface::GetBody), 3);
  EXPECT_EQ(Slot(&cp::ResponseInterface::GetError), 4);
}

}  // namespace
