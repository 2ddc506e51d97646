// A counting sort that hands out places instead of moving items: the caller puts each item
// where it belongs in whatever arrays it keeps.
#ifndef RULENLU_BASE_PLACEMENT_H_
#define RULENLU_BASE_PLACEMENT_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace rulenlu {

// Calls place(i, position) for each item i below `count`: the positions order the items by
// key(i) (each below `keys`) and, within one key, as the items are numbered. `*first` gets, per
// key, the position of its first item, and `count` last (keys + 1 entries).
template <typename Key, typename Place>
void PlaceByKey(size_t count, size_t keys, Key&& key, std::vector<uint32_t>* first, Place&& place) {
  first->assign(keys + 1, 0);
  for (size_t i = 0; i < count; ++i) ++(*first)[key(i) + 1];
  for (size_t k = 1; k <= keys; ++k) (*first)[k] += (*first)[k - 1];
  // Counting up from each key's first position, then back down to it.
  for (size_t i = 0; i < count; ++i) place(static_cast<uint32_t>(i), (*first)[key(i)]++);
  for (size_t k = keys; k > 0; --k) (*first)[k] = (*first)[k - 1];
  (*first)[0] = 0;
}

}  // namespace rulenlu

#endif  // RULENLU_BASE_PLACEMENT_H_
