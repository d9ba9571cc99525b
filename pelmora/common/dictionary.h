// A string-keyed dictionary whose keys compare without regard to case (FoldCase) and whose entries
// keep the order in which they were added.
//
//   Dictionary files;
//   files.Add("C:\\Data\\a.txt", Variant(1));
//   files.Exists("c:\\data\\A.TXT")        // true
//   files.Add("C:\\DATA\\A.TXT", 2)        // raises 457
//   for (const auto& [key, value] : files) ...   // in insertion order, keys as first added
//
// OrderedDictionary<V> holds any value type; Dictionary holds Variants.
#ifndef PELMORA_COMMON_DICTIONARY_H_
#define PELMORA_COMMON_DICTIONARY_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora {

// `key` with its letters in lower case (FoldCase): the form under which keys are compared.
PELMORA_API std::string FoldKeyCase(std::string_view key);

// Raises 457 "This key is already associated with an element of this collection".
[[noreturn]] PELMORA_API void RaiseDuplicateKey();

// Raises 5 (the run-time text for an invalid procedure call): the key is not in the dictionary.
[[noreturn]] PELMORA_API void RaiseMissingKey();

template <class V>
class OrderedDictionary {
 public:
  // One entry: the key as it was first added, and its value.
  struct Entry {
    std::string key;
    V value;
  };
  using const_iterator = typename std::vector<Entry>::const_iterator;

  // Adds `key` with `value` at the end. Raises 457 when the key (in any case) is present.
  void Add(std::string key, V value) {
    std::string folded = FoldKeyCase(key);
    if (index_.count(folded) != 0) RaiseDuplicateKey();
    index_.emplace(std::move(folded), entries_.size());
    entries_.push_back(Entry{std::move(key), std::move(value)});
  }

  // Whether `key` is present, in any case.
  bool Exists(std::string_view key) const { return Find(key) != nullptr; }

  // The value of `key`, or nullptr when it is absent.
  const V* Find(std::string_view key) const {
    auto it = index_.find(FoldKeyCase(key));
    return it == index_.end() ? nullptr : &entries_[it->second].value;
  }
  V* Find(std::string_view key) {
    return const_cast<V*>(static_cast<const OrderedDictionary*>(this)->Find(key));
  }

  // The value of `key`. Raises 5 when it is absent.
  const V& Item(std::string_view key) const {
    const V* value = Find(key);
    if (value == nullptr) RaiseMissingKey();
    return *value;
  }

  // Replaces the value of `key`, or adds the key at the end when it is absent. The key keeps the
  // spelling it was first added with.
  void SetItem(std::string_view key, V value) {
    if (V* existing = Find(key)) {
      *existing = std::move(value);
      return;
    }
    Add(std::string(key), std::move(value));
  }

  // The value of `key`, adding it with a default value at the end when it is absent.
  V& operator[](std::string_view key) {
    if (V* existing = Find(key)) return *existing;
    Add(std::string(key), V());
    return entries_.back().value;
  }

  // Removes `key`; later entries keep their order. Raises 5 when it is absent.
  void Remove(std::string_view key) {
    auto it = index_.find(FoldKeyCase(key));
    if (it == index_.end()) RaiseMissingKey();
    size_t position = it->second;
    index_.erase(it);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(position));
    for (auto& [folded, index] : index_) {
      if (index > position) --index;
    }
  }

  // Removes every entry.
  void RemoveAll() {
    entries_.clear();
    index_.clear();
  }

  // The keys in insertion order, spelt as first added.
  std::vector<std::string> Keys() const {
    std::vector<std::string> keys;
    keys.reserve(entries_.size());
    for (const Entry& e : entries_) keys.push_back(e.key);
    return keys;
  }

  // The values in insertion order.
  std::vector<V> Items() const {
    std::vector<V> items;
    items.reserve(entries_.size());
    for (const Entry& e : entries_) items.push_back(e.value);
    return items;
  }

  size_t Count() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

 private:
  std::vector<Entry> entries_;
  std::unordered_map<std::string, size_t> index_;  // folded key -> position in entries_
};

// The dictionary of Variants that automation callers see.
using Dictionary = OrderedDictionary<Variant>;

}  // namespace pelmora

#endif  // PELMORA_COMMON_DICTIONARY_H_
