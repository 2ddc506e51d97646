// The environment tests run in: scratch directories and loopback-only HTTP.
#ifndef RULENLU_TESTS_TEST_ENV_H_
#define RULENLU_TESTS_TEST_ENV_H_

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace rulenlu {

// Creates a fresh directory under the test temp directory, named `prefix` and a random suffix.
// Returns its path, or "" when it cannot be made.
inline std::string MakeTempDir(const std::string& prefix) {
  std::string pattern = testing::TempDir() + prefix + "XXXXXX";
  return mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

// Keeps proxies from the environment away from requests to this machine's own servers.
inline void BypassProxies() {
  for (const char* name :
       {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    unsetenv(name);
  }
}

// Serves `server` (an httplib::Server) on a free loopback port from `thread`, proxies bypassed.
// Returns its base URL, or "" when it does not start.
template <typename Server>
std::string ServeOnLoopback(Server& server, std::thread& thread) {
  BypassProxies();
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) return "";
  thread = std::thread([&server] { server.listen_after_bind(); });
  // stop() is lost on a server that is not running yet.
  for (int i = 0; i < 20000 && !server.is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return server.is_running() ? "http://127.0.0.1:" + std::to_string(port) : "";
}

}  // namespace rulenlu

#endif  // RULENLU_TESTS_TEST_ENV_H_
