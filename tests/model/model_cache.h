// The naive cache: a vector in recency order, searched from one end to the other.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/cache_state.h"
#include "orvexeng.h"

// The identity of a file.
struct ModelKey {
  explicit ModelKey(const metadata_input_s& in);

  KeyState State() const;

  uint32_t flags;
  std::string path;
  uint64_t numbers[4];  // size, mtime, deviceID, fileID
};

// Whether the left key comes first, going by the left key's mask.
bool ComesFirst(const ModelKey& left, const ModelKey& right);
// Whether both keys name one file, if both have this mask.
bool SameFile(uint32_t mask, const ModelKey& left, const ModelKey& right);

// Node has a member entry, a number of its own to the cache: which entry of the
// map it belongs to, 0 for none.
//
// As long as all keys have one mask the cache is a vector and nothing else.
// Keys of different masks are not comparable, and what a lookup finds among them
// depends on the shape of the map: the first of them creates a map of the same kind,
// which is kept until no entry is left.
template <typename Node>
class ModelCache {
 public:
  Node* Find(const ModelKey& key);
  void MoveToFront(Node* node);
  // The entry of an equivalent key stays, and the new node shares it.
  void Insert(const ModelKey& key, std::unique_ptr<Node> node);
  // The oldest node's entry goes with it, whoever else shares it.
  void RemoveOldest();
  void Clear();
  std::vector<const ModelKey*> KeysInOrder() const;

  std::vector<std::unique_ptr<Node>> nodes;  // most recently used first
  unsigned int capacity = 4096;
  bool active = false;
  orvex_query_cb callback = nullptr;

 private:
  struct Entry {
    int number;
    ModelKey key;
    Node* node;
  };
  struct Order {
    bool operator()(const ModelKey& left, const ModelKey& right) const {
      return ComesFirst(left, right);
    }
  };
  using Shape = std::map<ModelKey, int, Order>;

  bool HasOneMask(const ModelKey& key) const;
  Entry* EntryOf(int number);
  Entry* EqualEntry(const ModelKey& key);
  void MakeShape();

  std::vector<Entry> entries_;  // in the order in which they were inserted
  std::optional<Shape> shape_;
  std::map<int, typename Shape::iterator> places_;
  bool mixed_ = false;
  int lastNumber_ = 0;
};

template <typename Node>
bool ModelCache<Node>::HasOneMask(const ModelKey& key) const {
  return !mixed_ && (entries_.empty() || (entries_[0].key.flags & 31) == (key.flags & 31));
}

template <typename Node>
typename ModelCache<Node>::Entry* ModelCache<Node>::EntryOf(int number) {
  for (Entry& entry : entries_) {
    if (entry.number == number) return &entry;
  }
  return nullptr;
}

template <typename Node>
typename ModelCache<Node>::Entry* ModelCache<Node>::EqualEntry(const ModelKey& key) {
  for (Entry& entry : entries_) {
    if (SameFile(key.flags, entry.key, key)) return &entry;
  }
  return nullptr;
}

template <typename Node>
void ModelCache<Node>::MakeShape() {
  if (shape_) return;
  shape_.emplace();
  for (const Entry& entry : entries_) {
    places_[entry.number] = shape_->emplace_hint(shape_->begin(), entry.key, entry.number);
  }
}

template <typename Node>
Node* ModelCache<Node>::Find(const ModelKey& key) {
  if (HasOneMask(key)) {
    Entry* const entry = EqualEntry(key);
    return entry == nullptr ? nullptr : entry->node;
  }
  MakeShape();
  const auto found = shape_->find(key);
  return found == shape_->end() ? nullptr : EntryOf(found->second)->node;
}

template <typename Node>
void ModelCache<Node>::MoveToFront(Node* node) {
  const auto position = std::find_if(nodes.begin(), nodes.end(),
                                     [node](const auto& other) { return other.get() == node; });
  std::rotate(nodes.begin(), position, position + 1);
}

template <typename Node>
void ModelCache<Node>::Insert(const ModelKey& key, std::unique_ptr<Node> node) {
  if (!HasOneMask(key)) {
    mixed_ = true;
    MakeShape();
  }
  node->entry = ++lastNumber_;
  if (shape_) {
    const auto place = shape_->emplace_hint(shape_->begin(), key, lastNumber_);
    node->entry = place->second;
    if (node->entry == lastNumber_) places_[lastNumber_] = place;
  } else if (const Entry* const equal = EqualEntry(key)) {
    node->entry = equal->number;
  }
  if (node->entry == lastNumber_) entries_.push_back({lastNumber_, key, node.get()});
  nodes.insert(nodes.begin(), std::move(node));
}

template <typename Node>
void ModelCache<Node>::RemoveOldest() {
  const int number = nodes.back()->entry;
  if (number != 0) {
    entries_.erase(entries_.begin() + (EntryOf(number) - entries_.data()));
    if (shape_) shape_->erase(places_[number]);
    places_.erase(number);
    for (const auto& node : nodes) {
      if (node->entry == number) node->entry = 0;
    }
  }
  nodes.pop_back();
  if (entries_.empty()) {
    mixed_ = false;
    shape_.reset();
  }
}

template <typename Node>
void ModelCache<Node>::Clear() {
  entries_.clear();
  shape_.reset();
  places_.clear();
  nodes.clear();
  mixed_ = false;
}

template <typename Node>
std::vector<const ModelKey*> ModelCache<Node>::KeysInOrder() const {
  std::vector<const ModelKey*> keys;
  if (mixed_) {
    for (const auto& place : *shape_) keys.push_back(&place.first);
    return keys;
  }
  for (const Entry& entry : entries_) keys.push_back(&entry.key);
  std::sort(keys.begin(), keys.end(),
            [](const ModelKey* left, const ModelKey* right) { return ComesFirst(*left, *right); });
  return keys;
}
