// What the hash cache knows about one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "cache/orvex_lru_cache_index.h"
#include "cache/orvex_lru_cache_text.h"
#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_log.h"

// Word by word on 32-bit x86: gcc would use a string instruction, which takes longer to start up
// than to copy.
template <size_t kLength>
inline void CopyDigest(uint8_t (&to)[kLength], const uint8_t (&from)[kLength]) {
  constexpr size_t kPiece = sizeof(void*) == 4 ? 4 : kLength;
#pragma GCC unroll 8
  for (size_t at = 0; at < kLength; at += kPiece) std::memcpy(to + at, from + at, kPiece);
}

constexpr uint32_t kDigests = QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_AUX_DIGEST20;

// Copies the digests whose bits are set in present, between a node and
// a record or another node.
template <typename To, typename From>
void CopyDigests(To& to, const From& from, uint32_t present) {
  if ((present & QUERY_DIGEST16) != 0) CopyDigest(to.digest16, from.digest16);
  if ((present & QUERY_DIGEST20) != 0) CopyDigest(to.digest20, from.digest20);
  if ((present & QUERY_DIGEST32) != 0) CopyDigest(to.digest32, from.digest32);
  if ((present & QUERY_AUX_DIGEST20) != 0) CopyDigest(to.auxDigest20, from.auxDigest20);
}

// The parts of an answer that a host gave for one file. Parts accumulate over several answers,
// except signers: only the last answer's are kept.
//
// Ownership: belongs to the cache that holds it; owns its signer array.
// Locking: none of its own; a cached node is accessed under the cache's lock.
class ORVEX_API LRUCacheNode {
 public:
  LRUCacheNode();
  // Throws std::bad_alloc, like SetDataToCacheNode.
  LRUCacheNode(metadata_input_s& in, metadata_output_s& out);
  LRUCacheNode(const LRUCacheNode&) = delete;
  virtual ~LRUCacheNode();
  // For hosts: the library itself assigns no node. Takes over the
  // parts that the source holds and keeps the others. Never changes
  // mtime or the place in the cache.
  LRUCacheNode& operator=(const LRUCacheNode& source);

  // Merges an answer. Always 0. Changes nothing if it throws std::bad_alloc. If the signers cannot
  // be copied, the node has none.
  int SetDataToCacheNode(metadata_input_s& in, metadata_output_s& out);
  // Copies the parts held into out and adds their bits. Frees out's signer array before storing
  // another, which then belongs to the caller. Feedback is always set, to 0 unless the host gave
  // one. Returns 0, or ORVEX_NO_MEMORY if the signers cannot be copied: then signers and feedback
  // are missing.
  unsigned int GetDataFromCacheNode(metadata_output_s& out);

  // The same; without kObserved nothing is logged.
  template <bool kObserved>
  ORVEX_LOCAL unsigned int GiveTo(metadata_output_s& out);

  // Logs the node at DEBUG.
  void Dump() const;

  bool dataSet = false;        // true once an answer is stored
  uint32_t queryFlags = 0;     // QUERY_*: which of the parts below are held
  uint32_t fileOperation = 0;  // of the last query that stored
  uint32_t invOperation = 0;   // of the last query that stored
  uint64_t recordTime = 0;     // wall clock in nanoseconds when last stored
  // The number of the node's slot in its cache; meaningless outside.
  LRUCacheSlot mapEntry = 0;
  std::string path;
  uint64_t size = 0;
  uint64_t mtime = 0;
  uint32_t signerCount = 0;
  std::unique_ptr<char[]> signers;  // signerCount slots; null when there are none
  uint8_t digest16[16] = {};
  uint8_t digest20[20] = {};
  uint8_t digest32[32] = {};
  uint8_t auxDigest20[20] = {};
  uint64_t deviceID = 0;
  uint64_t fileID = 0;
  bool feedback = false;

 private:
  // All but the path.
  ORVEX_LOCAL void Merge(const metadata_input_s& in, const metadata_output_s& out);
  ORVEX_LOCAL bool HasSignersOf(const LRUCacheNode& other) const;
  // False if out of memory.
  ORVEX_LOCAL bool GiveSigners(metadata_output_s& out) const;
  ORVEX_LOCAL void ForgetSigners();
  // If they cannot be copied, the node has no signers.
  ORVEX_LOCAL void StoreSigners(const char* source, uint32_t count);
};

template <bool kObserved>
inline unsigned int LRUCacheNode::GiveTo(metadata_output_s& out) {
  const uint32_t held = queryFlags;
  if ((held & QUERY_SIZE) != 0) out.size = size;
  if ((held & QUERY_MTIME) != 0) out.modificationTime = mtime;
  CopyDigests(out, *this, held);
  out.queryFlags |= held & (QUERY_SIZE | QUERY_MTIME | kDigests);
  if (kObserved && (held & QUERY_MTIME) != 0) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, "GetDataFromCacheNode", kLRUCacheSourceFile,
                      "metaOut.modificationTime=%lu", static_cast<unsigned long>(mtime));
  }
  if ((held & QUERY_SIGNERS) != 0 && !GiveSigners(out)) return ORVEX_NO_MEMORY;
  out.feedback = feedback ? 1 : 0;
  out.queryFlags |= QUERY_FEEDBACK;
  return ORVEX_OK;
}
