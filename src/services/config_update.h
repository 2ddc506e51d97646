// The background refresh of the cached configuration document.
//
// One pass asks the client's gray-release service which configuration version is published and
// where; when that version differs from the running one, it asks the client's HTTP service to
// download the document, and the response stores it in the cache (remote_config_cache.h) for the
// next start-up. The running engine is never touched.
#ifndef RULENLU_SERVICES_CONFIG_UPDATE_H_
#define RULENLU_SERVICES_CONFIG_UPDATE_H_

#include <chrono>
#include <cstdint>

namespace rulenlu {

// Runs one update pass for an engine built from configuration `running_version`. Returns once the
// download is requested (or the pass gives up, with its log line); the response is handled on the
// thread the client delivers it on, possibly before or after this returns.
void UpdateRemoteConfig(int64_t running_version);

// Starts one update pass on a new detached thread and returns at once. The thread never lets an
// exception escape. Throws std::system_error when the thread cannot be created.
void StartRemoteConfigUpdate(int64_t running_version);

// For tools and tests: waits until every pass started by StartRemoteConfigUpdate has returned, or
// `timeout` has passed. Returns true when none is running any more. Responses the client has yet
// to deliver are not waited for.
bool WaitForRemoteConfigUpdates(std::chrono::milliseconds timeout);

}  // namespace rulenlu

#endif  // RULENLU_SERVICES_CONFIG_UPDATE_H_
