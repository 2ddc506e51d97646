// The configuration document cached in the client's key-value storage.
//
// A downloaded document is kept under one fixed key, exactly as it arrived, so that the next
// start-up can prefer it to the local file. Nothing is validated here and nothing is kept in
// memory: each call looks the storage up afresh.
//
// Thread-safety: callable from any thread; consistency of concurrent accesses to the entry is
// the client store's business.
#ifndef RULENLU_SERVICES_REMOTE_CONFIG_CACHE_H_
#define RULENLU_SERVICES_REMOTE_CONFIG_CACHE_H_

#include <string>

namespace rulenlu {

// The cached document; empty when there is none or the storage cannot be reached (logged).
// Whatever the client's storage throws passes to the caller.
std::string ReadRemoteConfigCache();

// Stores `value` as the cached document, replacing any earlier one. Returns what the store
// reports, or false when the storage cannot be reached.
bool WriteRemoteConfigCache(const std::string& value);

}  // namespace rulenlu

#endif  // RULENLU_SERVICES_REMOTE_CONFIG_CACHE_H_
