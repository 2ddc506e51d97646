#include "config/word_list.h"

#include <algorithm>

#include "base/error.h"
#include "base/text.h"

namespace rulenlu {

namespace {

template <typename Words>
WordList Packed(const Words& words) {
  WordList::Builder builder;
  for (const auto& word : words) builder.Add(word);
  return builder.Build();
}

}  // namespace

void WordList::Builder::Add(std::u16string_view word) {
  units_.append(word);
  EndWord();
}

void WordList::Builder::AddUtf8(std::string_view word) {
  const size_t size = units_.size();
  try {
    AppendUtf8ToUtf16(word, &units_);
  } catch (const ConversionError&) {
    units_.resize(size);
    throw;
  }
  EndWord();
}

void WordList::Builder::EndWord() {
  // Ends are kept in 32 bits.
  if (units_.size() > UINT32_MAX) throw Error("a vocabulary has too many units");
  ends_.push_back(static_cast<uint32_t>(units_.size()));
}

WordList WordList::Builder::Build() {
  WordList list;
  list.units_ = std::move(units_);
  list.ends_ = std::move(ends_);
  units_.clear();
  ends_.clear();
  const WordList& given = list;
  bool in_order = true;
  for (size_t i = 1; i < given.size() && in_order; ++i) in_order = given[i - 1] < given[i];
  if (in_order) {
    // Words given in order are kept as they came, without a second copy.
    list.units_.shrink_to_fit();
    list.ends_.shrink_to_fit();
    return list;
  }
  // Sorted by their heads first: most comparisons are then one of two numbers.
  struct Key {
    uint64_t head;
    uint32_t index;
  };
  std::vector<Key> order(given.size());
  for (size_t i = 0; i < order.size(); ++i) {
    order[i] = {TextHead(given[i]), static_cast<uint32_t>(i)};
  }
  std::sort(order.begin(), order.end(), [&](const Key& a, const Key& b) {
    return a.head != b.head ? a.head < b.head : given[a.index] < given[b.index];
  });
  order.erase(std::unique(order.begin(), order.end(),
                          [&](const Key& a, const Key& b) {
                            return a.head == b.head && given[a.index] == given[b.index];
                          }),
              order.end());
  size_t units = 0;
  for (const Key& key : order) units += given[key.index].size();
  WordList sorted;
  sorted.units_.reserve(units);
  sorted.ends_.reserve(order.size());
  for (const Key& key : order) {
    sorted.units_.append(given[key.index]);
    sorted.ends_.push_back(static_cast<uint32_t>(sorted.units_.size()));
  }
  return sorted;
}

WordList::WordList(std::initializer_list<std::u16string_view> words) : WordList(Packed(words)) {}

WordList::WordList(const std::vector<std::u16string>& words) : WordList(Packed(words)) {}

}  // namespace rulenlu
