// The client's service interfaces, as the library calls them.
//
// The client owns every object behind these interfaces except the request and the response
// callback, which the library implements and hands to the client's HTTP service. The library
// never deletes a client object: it holds them through shared pointers whose deleters release
// them (SharedPtrReleaseDeleter for the service manager).
//
// Operations are declared in the order of the client's virtual tables, each at the slot the
// client expects; slots the library does not call have plain names and harmless bodies.
// RequestInterface and ResponseCallback have their destructor in slot 0, where the client's
// compiler gives a virtual destructor one slot. The Itanium C++ ABI (g++, clang) gives it two,
// so there slot 0 is a placeholder and the destructor is protected: these objects are created
// with std::make_shared and destroyed only through the shared pointers that own them.
#ifndef RULENLU_HOST_SERVICES_H_
#define RULENLU_HOST_SERVICES_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#if defined(_MSC_VER)
#define RULENLU_SLOT0_DESTRUCTOR(Class) \
 public:                                \
  virtual ~Class() = default;
#else
#define RULENLU_SLOT0_DESTRUCTOR(Class) \
 public:                                \
  virtual void Slot0() {}               \
                                        \
 protected:                             \
  ~Class() = default;                   \
                                        \
 public:
#endif

namespace cp {

// A client interface pointer whose concrete type the caller names.
class InterfaceHandle {
 public:
  virtual void Reserved0() {}
  // Slot 1: the raw interface pointer; the handle keeps it alive.
  virtual void* Get() = 0;

 protected:
  ~InterfaceHandle() = default;
};

// A service of the client, offering one or more typed interfaces.
class ServiceInterface {
 public:
  virtual void Reserved0() {}
  virtual void Reserved1() {}
  // Slot 2: the interface of the given type name, or null when not offered.
  virtual std::shared_ptr<InterfaceHandle> GetInterface(const std::string& type_name) = 0;

 protected:
  ~ServiceInterface() = default;
};

// The client's registry of services; reference-counted by the client.
class ServiceManagerInterface {
 public:
  virtual void Reserved0() {}
  // Slot 1: the service of the given name, or null when unknown.
  virtual std::shared_ptr<ServiceInterface> GetService(const std::string& name) = 0;
  virtual void Reserved2() {}
  virtual void Reserved3() {}
  virtual void Reserved4() {}
  // Slot 5: takes a reference. Returns the new count (not used by the library).
  virtual uint32_t AddRef() = 0;
  // Slot 6: drops a reference. Returns the new count (not used by the library).
  virtual uint32_t Release() = 0;

 protected:
  ~ServiceManagerInterface() = default;
};

// Deleter for shared pointers to reference-counted client objects: releases, never deletes.
struct SharedPtrReleaseDeleter {
  template <typename T>
  void operator()(T* object) const {
    if (object != nullptr) object->Release();
  }
};

// Persistent key-value entries of the client.
class KvStorageInterface {
 public:
  virtual void Reserved0() {}
  virtual void Reserved1() {}
  // Slot 2: the value stored under `key`, or the empty string when there is none.
  virtual std::string Read(const std::string& key) = 0;
  // Slot 3: stores `value` under `key`, replacing any earlier value. True when stored.
  virtual bool Write(const std::string& key, const std::string& value) = 0;

 protected:
  ~KvStorageInterface() = default;
};

// Service name and type name: kServiceName.
class StorageServiceInterface {
 public:
  // The name the client registers this service under, which is also the interface's type name.
  static constexpr char kServiceName[] = "class cp::StorageServiceInterface";

  virtual void Reserved0() {}
  // Slot 1: the key-value store, or null when unavailable.
  virtual std::shared_ptr<KvStorageInterface> GetKvStorage() = 0;

 protected:
  ~StorageServiceInterface() = default;
};

// Service name and type name: kServiceName.
class GrayServiceInterface {
 public:
  // The name the client registers this service under, which is also the interface's type name.
  static constexpr char kServiceName[] = "class cp::GrayServiceInterface";

  virtual void Reserved0() {}
  virtual void Reserved1() {}
  // Slot 2: the gray-release value of `key` in `name_space`, or `default_value` when unset.
  virtual std::string GetValue(const std::string& name_space, const std::string& key,
                               const std::string& default_value) = 0;

 protected:
  ~GrayServiceInterface() = default;
};

// An HTTP request, implemented by the library and read by the client's HTTP service.
class RequestInterface {
  // Slot 0: the destructor.
  RULENLU_SLOT0_DESTRUCTOR(RequestInterface)
  // Slot 1: the URL to fetch.
  virtual std::string GetUrl() = 0;
  // Slot 2: the method: 1 for GET, 2 for POST.
  virtual int32_t GetMethod() = 0;
  // Slot 3: extra request headers.
  virtual std::map<std::string, std::string> GetHeaders() = 0;
  // Slot 4: the request body.
  virtual std::string GetBody() = 0;
  // Slot 5: the body's content type.
  virtual std::string GetContentType() = 0;
  // Slot 6: a file to download into instead of the response body; empty for the body.
  virtual std::string GetDownloadPath() = 0;
  // Slot 7: whether the client may defer the request.
  virtual bool IsDeferrable() = 0;
  // Slot 8: the timeout of the whole transfer, in seconds.
  virtual int32_t GetTimeoutSeconds() = 0;
};

// What the client's HTTP service hands to the response callback.
class ResponseInterface {
 public:
  // Slot 0: the HTTP status code, 0 when no response arrived.
  virtual int32_t GetStatusCode() { return 0; }
  virtual void Reserved1() {}
  virtual void Reserved2() {}
  // Slot 3: the response body.
  virtual std::string GetBody() = 0;
  // Slot 4: a description of the failure.
  virtual std::string GetError() = 0;

 protected:
  ~ResponseInterface() = default;
};

// Receives the outcome of a request; implemented by the library, called by the client on a
// thread of its choosing.
class ResponseCallback {
  // Slot 0: the destructor.
  RULENLU_SLOT0_DESTRUCTOR(ResponseCallback)
  // Slot 1: the request succeeded.
  virtual void OnSuccess(const std::shared_ptr<ResponseInterface>& response) = 0;
  // Slot 2: the request failed.
  virtual void OnFailure(const std::shared_ptr<ResponseInterface>& response) = 0;
  // Slot 3: progress of the transfer, in bytes.
  virtual void OnProgress(int64_t received, int64_t total) = 0;
};

// Service name and type name: kServiceName.
class HttpServiceInterface {
 public:
  // The name the client registers this service under, which is also the interface's type name.
  static constexpr char kServiceName[] = "class cp::HttpServiceInterface";

  virtual void Reserved0() {}
  // Slot 1: starts `request`; the outcome goes to `callback`, possibly before this returns.
  // Returns whether the request was started.
  virtual bool Send(const std::shared_ptr<RequestInterface>& request,
                    const std::shared_ptr<ResponseCallback>& callback) = 0;

 protected:
  ~HttpServiceInterface() = default;
};

}  // namespace cp

#undef RULENLU_SLOT0_DESTRUCTOR

#endif  // RULENLU_HOST_SERVICES_H_
