// What the hash cache knows about one file.
#include "cache/orvex_lru_cache_node.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "support/orvex_log.h"
#include "support/orvex_time.h"

namespace {

using SignerArray = std::unique_ptr<char[]>;

// A copy of count signer slots. Null if there is nothing to copy, the size is out of range, or
// memory runs out.
SignerArray CopyOfSigners(const char* source, uint32_t count) {
  const uint64_t bytes = uint64_t{count} * ORVEX_SIGNER_SLOT;
  if (source == nullptr || bytes > PTRDIFF_MAX) return nullptr;
  SignerArray copy(new (std::nothrow) char[static_cast<size_t>(bytes)]);
  if (copy != nullptr) std::memcpy(copy.get(), source, static_cast<size_t>(bytes));
  return copy;
}

}  // namespace

LRUCacheNode::LRUCacheNode() : recordTime(ORVEXTimeGetTimeStampNS()) {}

LRUCacheNode::LRUCacheNode(metadata_input_s& in, metadata_output_s& out)
    : path(TextOrEmpty(in.path)) {
  Merge(in, out);
}

LRUCacheNode::~LRUCacheNode() = default;

LRUCacheNode& LRUCacheNode::operator=(const LRUCacheNode& source) {
  if (this == &source) return *this;
  path = source.path;
  recordTime = source.recordTime;
  fileOperation = source.fileOperation;
  invOperation = source.invOperation;
  deviceID = source.deviceID;
  fileID = source.fileID;
  if ((source.queryFlags & QUERY_SIZE) != 0) {
    size = source.size;
    queryFlags |= QUERY_SIZE;
  }
  CopyDigests(*this, source, source.queryFlags);
  queryFlags |= source.queryFlags & kDigests;
  if ((source.queryFlags & QUERY_SIGNERS) != 0) {
    if (!HasSignersOf(source)) {
      ForgetSigners();
      if (source.signerCount != 0) StoreSigners(source.signers.get(), source.signerCount);
    }
  }
  if ((source.queryFlags & QUERY_FEEDBACK) != 0) feedback = source.feedback;
  return *this;
}

int LRUCacheNode::SetDataToCacheNode(metadata_input_s& in, metadata_output_s& out) {
  // First, because only this can fail. An equal text is left in
  // place: a key may share it.
  if (path != TextOrEmpty(in.path)) path = TextOrEmpty(in.path);
  Merge(in, out);
  return ORVEX_OK;
}

void LRUCacheNode::Merge(const metadata_input_s& in, const metadata_output_s& out) {
  dataSet = true;
  invOperation = in.invOperation;
  fileOperation = in.fileOperation;
  deviceID = in.deviceID;
  fileID = in.fileID;
  if (in.size != 0) {
    size = in.size;
    queryFlags |= QUERY_SIZE;
  }
  if (in.mtime != 0) {
    mtime = in.mtime;
    queryFlags |= QUERY_MTIME;
  }
  CopyDigests(*this, out, out.queryFlags);
  queryFlags |= out.queryFlags & kDigests;
  ForgetSigners();
  if ((out.queryFlags & QUERY_SIGNERS) != 0) {
    if (out.signerCount == 0) {
      queryFlags |= QUERY_SIGNERS;  // Known to have none.
    } else {
      StoreSigners(out.signers, out.signerCount);
    }
  }
  if ((out.queryFlags & QUERY_FEEDBACK) != 0) {
    feedback = out.feedback != 0;
    queryFlags |= QUERY_FEEDBACK;
  }
  recordTime = ORVEXTimeGetTimeStampNS();
}

unsigned int LRUCacheNode::GetDataFromCacheNode(metadata_output_s& out) {
  return GiveTo<true>(out);
}

void LRUCacheNode::Dump() const {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                    "Node: queryFlags=0x%08x, fileOperation=0x%08x, invOperation=0x%08x, path=%s, "
                    "size=%llu, mtime=%llu, signerCount=%u, feedback=%d, recordTime=%llu",
                    queryFlags, fileOperation, invOperation, path.c_str(), PrintableNumber(size),
                    PrintableNumber(mtime), signerCount, feedback, PrintableNumber(recordTime));
}

bool LRUCacheNode::HasSignersOf(const LRUCacheNode& other) const {
  if ((queryFlags & QUERY_SIGNERS) == 0 || signerCount != other.signerCount) return false;
  if (signerCount == 0) return true;
  return signers != nullptr && other.signers != nullptr &&
         std::memcmp(signers.get(), other.signers.get(), size_t{signerCount} * ORVEX_SIGNER_SLOT) ==
             0;
}

__attribute__((noinline)) bool LRUCacheNode::GiveSigners(metadata_output_s& out) const {
  delete[] out.signers;
  out.signers = nullptr;
  out.signerCount = 0;
  out.queryFlags &= ~uint32_t{QUERY_SIGNERS};
  if (signerCount != 0 && signers != nullptr) {
    SignerArray copy = CopyOfSigners(signers.get(), signerCount);
    if (copy == nullptr) return false;
    out.signers = copy.release();
    out.signerCount = signerCount;
  }
  out.queryFlags |= QUERY_SIGNERS;
  return true;
}

void LRUCacheNode::ForgetSigners() {
  signers.reset();
  signerCount = 0;
  queryFlags &= ~uint32_t{QUERY_SIGNERS};
}

void LRUCacheNode::StoreSigners(const char* source, uint32_t count) {
  signers = CopyOfSigners(source, count);
  if (signers == nullptr) return;
  signerCount = count;
  queryFlags |= QUERY_SIGNERS;
}
