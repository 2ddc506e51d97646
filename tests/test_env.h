// The environment tests run in: scratch directories and loopback-only HTTP.
#ifndef RULENLU_TESTS_TEST_ENV_H_
#define RULENLU_TESTS_TEST_ENV_H_

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

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

}  // namespace rulenlu

#endif  // RULENLU_TESTS_TEST_ENV_H_
