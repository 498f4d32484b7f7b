// Pins the layout of the records that cross the library's boundary: a host built
// against an earlier header must go on reading the same bytes.
#include <cstddef>

#include "orvexeng.h"

namespace {

// Offsets as 32-bit x86 (8-byte numbers aligned to 4) and x86-64 have them.
constexpr bool k32Bits = sizeof(void*) == 4;
constexpr size_t On(size_t in32Bits, size_t in64Bits) { return k32Bits ? in32Bits : in64Bits; }

static_assert(offsetof(metadata_input_s, reserved0) == 0);
static_assert(offsetof(metadata_input_s, reserved1) == 4);
static_assert(offsetof(metadata_input_s, name) == 8);
static_assert(offsetof(metadata_input_s, path) == On(12, 16));
static_assert(offsetof(metadata_input_s, reserved2) == On(16, 24));
static_assert(offsetof(metadata_input_s, size) == On(20, 32));
static_assert(offsetof(metadata_input_s, mtime) == On(28, 40));
static_assert(offsetof(metadata_input_s, deviceID) == On(36, 48));
static_assert(offsetof(metadata_input_s, fileID) == On(44, 56));
static_assert(offsetof(metadata_input_s, fileOperation) == On(52, 64));
static_assert(offsetof(metadata_input_s, invOperation) == On(56, 68));
static_assert(offsetof(metadata_input_s, queryFlags) == On(60, 72));
static_assert(sizeof(metadata_input_s) == On(64, 80));

static_assert(offsetof(metadata_output_s, reserved0) == 0);
static_assert(offsetof(metadata_output_s, reserved1) == 4);
static_assert(offsetof(metadata_output_s, queryFlags) == 8);
static_assert(offsetof(metadata_output_s, size) == On(12, 16));
static_assert(offsetof(metadata_output_s, modificationTime) == On(20, 24));
static_assert(offsetof(metadata_output_s, reserved2) == On(28, 32));
static_assert(offsetof(metadata_output_s, digest20) == On(44, 48));
static_assert(offsetof(metadata_output_s, digest32) == On(64, 68));
static_assert(offsetof(metadata_output_s, digest16) == On(96, 100));
static_assert(offsetof(metadata_output_s, auxDigest20) == On(112, 116));
static_assert(offsetof(metadata_output_s, signerCount) == On(132, 136));
static_assert(offsetof(metadata_output_s, signers) == On(136, 144));
static_assert(offsetof(metadata_output_s, major) == On(140, 152));
static_assert(offsetof(metadata_output_s, minor) == On(144, 156));
static_assert(offsetof(metadata_output_s, feedback) == On(148, 160));
static_assert(offsetof(metadata_output_s, resultReady) == On(152, 164));
static_assert(sizeof(metadata_output_s) == On(156, 168));

static_assert(offsetof(metadata_query_fptrs_s, metaQueryCallback) == 0);
static_assert(offsetof(metadata_query_fptrs_s, fileTypeQueryCallback) == On(4, 8));
static_assert(sizeof(metadata_query_fptrs_s) == On(8, 16));

static_assert(offsetof(orvex_metrics_s, version) == 0);
static_assert(offsetof(orvex_metrics_s, cacheQuery) == 32);
static_assert(offsetof(orvex_metrics_s, cacheMiss) == 40);
static_assert(offsetof(orvex_metrics_s, cacheHit) == 48);
static_assert(offsetof(orvex_metrics_s, cachePartialHit) == 56);
static_assert(offsetof(orvex_metrics_s, cacheOutOfDate) == 64);
static_assert(offsetof(orvex_metrics_s, cacheWipeOuts) == 72);
static_assert(offsetof(orvex_metrics_s, fileTypeHit) == 80);
static_assert(offsetof(orvex_metrics_s, fileTypeMiss) == 88);
static_assert(offsetof(orvex_metrics_s, fileTypeOutOfDate) == 96);
static_assert(offsetof(orvex_metrics_s, fileTypeWipeOuts) == 104);
static_assert(offsetof(orvex_metrics_s, fileTypeHelpFuncCalled) == 112);
static_assert(offsetof(orvex_metrics_s, cacheUpdateMetaDataSuccess) == 120);
static_assert(offsetof(orvex_metrics_s, cacheUpdateMetaDataFailure) == 128);
static_assert(offsetof(orvex_metrics_s, reserved) == 136);
static_assert(offsetof(orvex_metrics_s, cacheHelpFuncCalled) == 176);
static_assert(offsetof(orvex_metrics_s, cacheWaitInHashCalculation) == 184);
static_assert(sizeof(orvex_metrics_s) == 192);

}  // namespace
