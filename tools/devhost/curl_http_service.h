// The development host's HTTP service, performing requests with libcurl.
//
// Each request runs on a worker thread of its own: Send returns at once and the outcome goes
// to the callback on that worker thread. A 2xx status is a success, delivered with the body
// through OnSuccess; anything else goes to OnFailure with the status (0 when no response
// arrived) and an error text such as "HTTP 404" or libcurl's description of the failure.
// OnProgress reports the bytes received so far and the expected total (0 when unknown).
//
// What a transfer honours: GET (1) or POST (2) with the request's body; its headers, plus its
// content type as "Content-Type" unless a header of that name is given; its timeout for the
// whole transfer (0 or less: none); a download path, into which a successful body is written
// atomically instead of being delivered (the success then carries an empty body). Only http
// and https are spoken, redirects included, and at most kMaxRedirects redirects are followed;
// bodies beyond kMaxBodyBytes fail the transfer. Deferrable requests are not deferred.
//
// The service keeps its copies of a request and its callback until the callback has returned.
//
// Thread-safe: Send and WaitIdle may be called from any thread.
#ifndef RULENLU_TOOLS_DEVHOST_CURL_HTTP_SERVICE_H_
#define RULENLU_TOOLS_DEVHOST_CURL_HTTP_SERVICE_H_

#include <chrono>
#include <cstddef>
#include <memory>

#include "rulenlu/host_services.h"

namespace rulenlu::devhost {

class CurlHttpService final : public cp::HttpServiceInterface {
 public:
  static constexpr long kMaxRedirects = 5;
  static constexpr size_t kMaxBodyBytes = size_t{64} << 20;

  CurlHttpService();
  // Waits for every transfer in flight, its callback included.
  ~CurlHttpService();

  CurlHttpService(const CurlHttpService&) = delete;
  CurlHttpService& operator=(const CurlHttpService&) = delete;

  // Starts `request`. False, with no callback to follow, when either argument is null, the
  // method is neither GET nor POST, a header name or value cannot be sent as given (empty
  // name, ':' in the name, CR, LF or NUL anywhere), reading the request threw, or no thread
  // could be started.
  bool Send(const std::shared_ptr<cp::RequestInterface>& request,
            const std::shared_ptr<cp::ResponseCallback>& callback) override;

  // Waits up to `timeout` until no transfer is in flight; true when none is. Not to be called
  // from a response callback, whose own transfer is still in flight.
  bool WaitIdle(std::chrono::milliseconds timeout);

 private:
  struct Workers;
  const std::shared_ptr<Workers> workers_;
};

}  // namespace rulenlu::devhost

#endif  // RULENLU_TOOLS_DEVHOST_CURL_HTTP_SERVICE_H_
