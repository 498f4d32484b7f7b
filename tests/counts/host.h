// The host behind every contender: what a miss costs apart from the cache.
#pragma once

#include <atomic>
#include <chrono>

#include "orvexeng.h"

namespace cost {

// Answers every part but signers with bytes that depend on the file number.
// An orvex_query_cb; the other contenders call it with a null ctx.
int AnswerHash(metadata_input_s* in, metadata_output_s* out, void* ctx);
int AnswerFileType(metadata_input_s* in, metadata_output_s* out, void* ctx);
// As AnswerHash, with three signers.
int AnswerWithSigners(metadata_input_s* in, metadata_output_s* out, void* ctx);

// What the engine was initialised with and the other contenders call.
extern metadata_query_fptrs_s hostCallbacks;

// How often AnswerHash was called. Relaxed: read once all threads are gone.
extern std::atomic<int> hashCalls;
// ... and by this thread.
extern thread_local int hashCallsHere;
// How long AnswerHash takes. Changed only while no thread queries.
extern std::chrono::milliseconds hashTakes;

}  // namespace cost
