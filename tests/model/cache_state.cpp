// What the caches hold, as both engines expose it for comparison.
#include "model/cache_state.h"

#include "model/text.h"

bool KeyState::operator==(const KeyState& other) const {
  return flags == other.flags && size == other.size && mtime == other.mtime &&
         deviceID == other.deviceID && fileID == other.fileID && path == other.path;
}

void KeyState::AppendTo(std::string& text) const {
  Append(text, " key flags=", flags, " path=", path, " size=", size, " mtime=", mtime,
         " device=", deviceID, " file=", fileID, "\n");
}

bool NodeState::operator==(const NodeState& other) const {
  return hasEntry == other.hasEntry && queryFlags == other.queryFlags &&
         fileOperation == other.fileOperation && invOperation == other.invOperation &&
         recordTime == other.recordTime && size == other.size && mtime == other.mtime &&
         signerCount == other.signerCount && deviceID == other.deviceID && fileID == other.fileID &&
         feedback == other.feedback && major == other.major && minor == other.minor &&
         path == other.path && signers == other.signers && digest16 == other.digest16 &&
         digest20 == other.digest20 && digest32 == other.digest32 &&
         auxDigest20 == other.auxDigest20;
}

void NodeState::AppendTo(std::string& text) const {
  Append(text, " node path=", path, " entry=", hasEntry, " flags=", queryFlags,
         " fileOp=", fileOperation, " invOp=", invOperation, " time=", recordTime, " size=", size,
         " mtime=", mtime, " signers=", signerCount, ":", Print(signers), " d16=", Print(digest16),
         " d20=", Print(digest20), " d32=", Print(digest32), " aux=", Print(auxDigest20),
         " device=", deviceID, " file=", fileID, " feedback=", feedback, " type=", major, ".",
         minor, "\n");
}

bool CacheState::operator==(const CacheState& other) const {
  return active == other.active && capacity == other.capacity && nodes == other.nodes &&
         keys == other.keys;
}

void CacheState::AppendTo(std::string& text) const {
  Append(text, "active=", active, " capacity=", capacity, "\n");
  for (const NodeState& node : nodes) node.AppendTo(text);
  for (const KeyState& key : keys) key.AppendTo(text);
}

bool CallState::operator==(const CallState& other) const {
  return threads == other.threads && setActive == other.setActive &&
         pathsBeingCalculated == other.pathsBeingCalculated;
}

void CallState::AppendTo(std::string& text) const {
  Append(text, "threads=", threads, " set=", setActive, "\n");
  for (const std::string_view path : pathsBeingCalculated)
    Append(text, " calculating ", path, "\n");
}

bool EngineState::operator==(const EngineState& other) const {
  return logEnable == other.logEnable && logLevel == other.logLevel &&
         profiling == other.profiling && counters == other.counters && calls == other.calls &&
         broken == other.broken && hash == other.hash && fileType == other.fileType;
}

void EngineState::AppendTo(std::string& text) const {
  Append(text, "log ", logEnable, " level ", logLevel, " profiling ", profiling, "\ncounters");
  for (const int64_t counter : counters) Append(text, " ", counter);
  Append(text, "\nhash cache: ");
  calls.AppendTo(text);
  hash.AppendTo(text);
  Append(text, "file type cache: ");
  fileType.AppendTo(text);
  if (!broken.empty()) Append(text, "broken: ", broken, "\n");
}
