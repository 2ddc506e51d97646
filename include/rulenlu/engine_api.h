// rulenlu: the functions and records a host client uses to drive the engine.
//
// Calling order: AttachServiceManager once (optional: without it no cached or updated
// configuration is used), then InitEngin once with the path of the local configuration file,
// then Process any number of times. BuildEngin builds an engine from a configuration held in
// memory instead of a file, and stands apart from the services.
//
// Threading: Process may run on any number of threads at once, also while InitEngin or
// BuildEngin runs on another thread. Each query is answered whole by one engine: the one that
// was current when the query began. An engine that InitEngin or BuildEngin replaces is destroyed
// as soon as no query still uses it; Process never waits for a lock, while InitEngin and
// BuildEngin wait, before they return, for the queries still running on the engine they
// replaced. InitEngin and BuildEngin are called one at a time, never from inside Process.
//
// The records hold standard-library containers that cross the boundary: the host and the
// library must be built with the same standard library.
#ifndef RULENLU_ENGINE_API_H_
#define RULENLU_ENGINE_API_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#if defined(_WIN32)
#define RULENLU_EXPORT __declspec(dllexport)
#else
#define RULENLU_EXPORT __attribute__((visibility("default")))
#endif

namespace cp {
class ServiceManagerInterface;
}

// One slot of a result: a recognised piece of the query.
struct NluSlot {
  std::string key;     // vocabulary name
  std::string value;   // the piece of the query, UTF-8
  int64_t start = 0;   // offset in the query, in UTF-16 code units
  int64_t length = 0;  // length, in UTF-16 code units
};

// The answer to one query. On any failure: version 0, empty intent and text, no slots.
struct NluResult {
  int64_t version = 0;  // version of the configuration the engine was built from
  std::string intent;   // intent name, or "unknown" when no rule matched
  std::string text;     // the query as the engine read it
  std::vector<NluSlot> slots;
};

// An intent of an in-memory configuration (see BuildEngin); every string is UTF-8.
struct Utf8IntentConfig {
  std::string name;
  std::vector<std::pair<std::string, std::string>> slots;  // (slot name, tag)
  std::vector<std::string> regexRules;
  std::vector<std::string> blackList;
};

// A whole configuration held in memory; every string is UTF-8.
struct Utf8NluConfig {
  int64_t version = 0;  // not read: an engine built from memory reports version 0
  std::map<std::string, std::set<std::string>> vocabMap;
  std::map<std::string, std::vector<std::string>> regexVocabMap;
  std::map<std::string, Utf8IntentConfig> intentMap;
  std::vector<std::pair<std::string, std::string>> variableEntrys;
};

extern "C" {

// Hands the client's service manager to the library. Returns true when this call attached it;
// false for a null manager or when one is already attached (the first one stays).
RULENLU_EXPORT bool AttachServiceManager(cp::ServiceManagerInterface* manager);

// Builds the engine from the cached downloaded configuration if it loads, else from the UTF-8
// path `path`, then starts one background check for a newer configuration. Never throws; when
// no configuration can be had, no engine is built.
RULENLU_EXPORT void InitEngin(const char* path);

// Builds the engine from `config` (not kept; must not be null) and makes it current. Throws
// std::range_error("bad conversion") on invalid UTF-8, and a std::runtime_error when a regex
// vocabulary pattern does not compile; the current engine then stays in place.
RULENLU_EXPORT void BuildEngin(const Utf8NluConfig* config);

// Answers `query` (UTF-8) into `result`. Never throws; before any engine exists, and on any
// failure, `result` is the empty result.
RULENLU_EXPORT void Process(const std::string& query, NluResult& result);

}  // extern "C"

#endif  // RULENLU_ENGINE_API_H_
