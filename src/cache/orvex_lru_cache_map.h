// The map of a cache, which its nodes point into.
#pragma once

#include <functional>
#include <list>
#include <map>

// Finds the place of a key's node in the recency list. Compares keys with their
// own operator<, so it can be asked with whatever compares with a key.
template <typename Key, typename Node>
using LRUCacheMap = std::map<Key, typename std::list<Node*>::iterator, std::less<>>;
