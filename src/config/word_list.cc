#include "config/word_list.h"

#include <algorithm>
#include <numeric>

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
  std::vector<uint32_t> order(given.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(),
            [&](uint32_t a, uint32_t b) { return given[a] < given[b]; });
  order.erase(std::unique(order.begin(), order.end(),
                          [&](uint32_t a, uint32_t b) { return given[a] == given[b]; }),
              order.end());
  size_t units = 0;
  for (uint32_t i : order) units += given[i].size();
  WordList sorted;
  sorted.units_.reserve(units);
  sorted.ends_.reserve(order.size());
  for (uint32_t i : order) {
    sorted.units_.append(given[i]);
    sorted.ends_.push_back(static_cast<uint32_t>(sorted.units_.size()));
  }
  return sorted;
}

WordList::WordList(std::initializer_list<std::u16string_view> words) : WordList(Packed(words)) {}

WordList::WordList(const std::vector<std::u16string>& words) : WordList(Packed(words)) {}

}  // namespace rulenlu
