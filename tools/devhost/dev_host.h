// The development host: real implementations of the client's services, for running the
// library outside the client.
//
// All state lives under one directory DIR:
//   DIR/kv/<key>    one file per key-value entry, holding the raw value (file_kv_storage.h);
//   DIR/gray.json   the gray-release values, read at every lookup (gray_file_service.h).
// HTTP requests are performed with libcurl on worker threads (curl_http_service.h).
//
// The services are known under the names the library asks for, each offering its interface
// under the same text as type name: "class cp::StorageServiceInterface",
// "class cp::GrayServiceInterface" and "class cp::HttpServiceInterface".
//
// A missing or unusable DIR never makes anything fail hard: reads come back empty or as the
// default, writes report false, and the host logs its own I/O failures on stderr.
//
// Example:
//   static auto* host = new rulenlu::devhost::DevHost("/tmp/state");  // lives for the process
//   AttachServiceManager(host->manager());
//   ...
//   host->WaitIdle(std::chrono::seconds(5));  // let a pending download finish
#ifndef RULENLU_TOOLS_DEVHOST_DEV_HOST_H_
#define RULENLU_TOOLS_DEVHOST_DEV_HOST_H_

#include <chrono>
#include <memory>
#include <string>

#include "rulenlu/host_services.h"

namespace rulenlu::devhost {

class CurlHttpService;
class ServiceRegistry;

class DevHost {
 public:
  // Serves the state under `state_dir` ("" for the current directory). Touches no file yet,
  // except for removing the temporaries that interrupted writes left in DIR/kv.
  explicit DevHost(std::string state_dir);
  // Waits for every HTTP transfer in flight, its callback included. Not to be run from a
  // response callback, which would wait for itself.
  ~DevHost();

  DevHost(const DevHost&) = delete;
  DevHost& operator=(const DevHost&) = delete;

  // The service manager, owned by this host. Its AddRef/Release keep a count but never delete
  // it, so the host must outlive every holder of a reference. The library keeps its reference
  // for the rest of the process once attached, so a host handed to it is best never destroyed.
  cp::ServiceManagerInterface* manager();

  // Waits up to `timeout` until no HTTP transfer is in flight (callbacks included); true when
  // none is. Not to be called from a response callback.
  bool WaitIdle(std::chrono::milliseconds timeout);

 private:
  std::shared_ptr<CurlHttpService> http_;
  std::unique_ptr<ServiceRegistry> registry_;
};

}  // namespace rulenlu::devhost

#endif  // RULENLU_TOOLS_DEVHOST_DEV_HOST_H_
