// A vocabulary's words: UTF-16 texts in order (unit by unit), without repeats, packed one after
// another in one buffer, so that a large vocabulary costs little more than its units.
#ifndef RULENLU_CONFIG_WORD_LIST_H_
#define RULENLU_CONFIG_WORD_LIST_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace rulenlu {

class WordList {
 public:
  // Collects words in any order, with repeats, for one WordList.
  class Builder {
   public:
    void Add(std::u16string_view word);
    // Adds `word` decoded as Utf8ToUtf16 does; throws ConversionError, adding nothing, when it
    // is not well-formed UTF-8.
    void AddUtf8(std::string_view word);
    // The words added, in order without repeats; the builder is left empty.
    WordList Build();

   private:
    void EndWord();

    std::u16string units_;
    std::vector<uint32_t> ends_;
  };

  // Reads the words of a list, each a u16string_view into the list.
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::u16string_view;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::u16string_view;

    const_iterator(const WordList* list, size_t index) : list_(list), index_(index) {}
    std::u16string_view operator*() const { return (*list_)[index_]; }
    const_iterator& operator++() {
      ++index_;
      return *this;
    }
    bool operator==(const const_iterator& other) const { return index_ == other.index_; }
    bool operator!=(const const_iterator& other) const { return index_ != other.index_; }

   private:
    const WordList* list_;
    size_t index_;
  };
  using iterator = const_iterator;

  WordList() = default;
  // `words` in any order, with repeats.
  WordList(std::initializer_list<std::u16string_view> words);
  explicit WordList(const std::vector<std::u16string>& words);

  size_t size() const { return ends_.size(); }
  bool empty() const { return ends_.empty(); }
  // The i-th word (i below size()), valid as long as the list.
  std::u16string_view operator[](size_t i) const {
    const uint32_t begin = i == 0 ? 0 : ends_[i - 1];
    return std::u16string_view(units_).substr(begin, ends_[i] - begin);
  }
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, size()); }

  bool operator==(const WordList& other) const {
    return units_ == other.units_ && ends_ == other.ends_;
  }
  bool operator!=(const WordList& other) const { return !(*this == other); }

 private:
  std::u16string units_;
  std::vector<uint32_t> ends_;  // word i ends at units_[ends_[i]]
};

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_WORD_LIST_H_
