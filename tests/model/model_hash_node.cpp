// What the model's hash cache knows about one file.
#include <time.h>

#include <cstring>

#include "model/model_hash_cache.h"

namespace {

using Number = unsigned long long;

bool SignersCanBeHad(const metadata_output_s& out) {
  const uint64_t bytes = uint64_t{out.signerCount} * ORVEX_SIGNER_SLOT;
  return bytes <= PTRDIFF_MAX && (out.signerCount == 0 || out.signers != nullptr);
}

uint64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

void ModelHashNode::Merge(const metadata_input_s& in, const metadata_output_s& out) {
  path = in.path != nullptr ? in.path : "";
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
  const auto merge = [&](uint32_t part, std::string& digest, const uint8_t* bytes) {
    if ((out.queryFlags & part) == 0) return;
    std::memcpy(digest.data(), bytes, digest.size());
    queryFlags |= part;
  };
  merge(QUERY_DIGEST16, digest16, out.digest16);
  merge(QUERY_DIGEST20, digest20, out.digest20);
  merge(QUERY_DIGEST32, digest32, out.digest32);
  merge(QUERY_AUX_DIGEST20, auxDigest20, out.auxDigest20);
  signers.clear();
  signerCount = 0;
  queryFlags &= ~uint32_t{QUERY_SIGNERS};
  if ((out.queryFlags & QUERY_SIGNERS) != 0 && SignersCanBeHad(out)) {
    signers.assign(out.signers, out.signers + size_t{out.signerCount} * ORVEX_SIGNER_SLOT);
    signerCount = out.signerCount;
    queryFlags |= QUERY_SIGNERS;
  }
  if ((out.queryFlags & QUERY_FEEDBACK) != 0) {
    feedback = out.feedback != 0;
    queryFlags |= QUERY_FEEDBACK;
  }
  recordTime = NowNs();
}

void ModelHashNode::CopyTo(metadata_output_s& out, const ModelLog& log) const {
  if ((queryFlags & QUERY_SIZE) != 0) out.size = size;
  const auto copy = [&](uint32_t part, const std::string& digest, uint8_t* bytes) {
    if ((queryFlags & part) != 0) std::memcpy(bytes, digest.data(), digest.size());
  };
  copy(QUERY_DIGEST16, digest16, out.digest16);
  copy(QUERY_DIGEST20, digest20, out.digest20);
  copy(QUERY_DIGEST32, digest32, out.digest32);
  copy(QUERY_AUX_DIGEST20, auxDigest20, out.auxDigest20);
  if ((queryFlags & QUERY_MTIME) != 0) {
    out.modificationTime = mtime;
    log(kDebug, "GetDataFromCacheNode", kModelCacheFile, "metaOut.modificationTime=%lu",
        static_cast<unsigned long>(mtime));
  }
  if ((queryFlags & QUERY_SIGNERS) != 0) {
    delete[] out.signers;
    out.signers = nullptr;
    out.signerCount = signerCount;
    if (signerCount != 0) {
      out.signers = new char[signers.size()];
      std::memcpy(out.signers, signers.data(), signers.size());
    }
  }
  out.feedback = feedback ? 1 : 0;
  out.queryFlags |= queryFlags | QUERY_FEEDBACK;
}

void ModelHashNode::Dump(const ModelLog& log) const {
  log(kDebug, "Dump", kModelCacheFile,
      "Node: queryFlags=0x%08x, fileOperation=0x%08x, invOperation=0x%08x, path=%s, size=%llu, "
      "mtime=%llu, signerCount=%u, feedback=%d, recordTime=%llu",
      queryFlags, fileOperation, invOperation, path.c_str(), Number{size}, Number{mtime},
      signerCount, feedback ? 1 : 0, Number{recordTime});
}

NodeState ModelHashNode::State() const {
  NodeState state;
  state.hasEntry = entry != 0;
  state.queryFlags = queryFlags;
  state.fileOperation = fileOperation;
  state.invOperation = invOperation;
  state.recordTime = recordTime;
  state.path = path;
  state.size = size;
  state.mtime = mtime;
  state.signerCount = signerCount;
  state.signers = {signers.data(), signers.size()};
  state.digest16 = digest16;
  state.digest20 = digest20;
  state.digest32 = digest32;
  state.auxDigest20 = auxDigest20;
  state.deviceID = deviceID;
  state.fileID = fileID;
  state.feedback = feedback;
  return state;
}
