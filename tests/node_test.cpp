// What the hash cache keeps of one file.
#include <doctest/doctest.h>

#include <algorithm>
#include <new>
#include <string>

#include "cache/orvex_lru_cache_node.h"
#include "harness/recorded_log.h"
#include "harness/records.h"
#include "harness/scripted_clock.h"

namespace {

metadata_input_s FileOf(uint64_t size, uint64_t mtime) {
  metadata_input_s in{};
  in.path = "/bin/true";
  in.size = size;
  in.mtime = mtime;
  return in;
}

}  // namespace

TEST_CASE("a new node is empty but for the time it was made") {
  ScriptedClock clock;
  clock.realTime = {{5, 6}};
  const LRUCacheNode node;
  CHECK_FALSE(node.dataSet);
  CHECK(node.queryFlags == 0);
  CHECK(node.path == "");
  CHECK(node.signers == nullptr);
  CHECK(node.recordTime == 5000000006);
}

TEST_CASE("the digests and numbers of a new node are zero wherever it is made") {
  alignas(LRUCacheNode) unsigned char memory[sizeof(LRUCacheNode)];
  // volatile: otherwise the compiler may assume that a new object does not see them.
  for (volatile unsigned char& byte : memory) byte = 0xff;
  auto* const node = new (memory) LRUCacheNode;
  const auto isZero = [](const auto& field) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&field);
    return std::count(bytes, bytes + sizeof field, 0) == static_cast<int>(sizeof field);
  };
  CHECK(isZero(node->digest16));
  CHECK(isZero(node->digest20));
  CHECK(isZero(node->digest32));
  CHECK(isZero(node->auxDigest20));
  CHECK(node->size == 0);
  CHECK(node->mtime == 0);
  CHECK(node->deviceID == 0);
  CHECK(node->fileID == 0);
  CHECK(node->signerCount == 0);
  CHECK_FALSE(node->feedback);
  node->~LRUCacheNode();
}

TEST_CASE("storing an answer stamps the node with the time of storing") {
  ScriptedClock clock;
  clock.realTime = {{7, 8}, {9, 10}};
  metadata_input_s in = FileOf(1, 2);
  Answer out;
  LRUCacheNode node(in, out);
  CHECK(node.recordTime == 7000000008);
  node.SetDataToCacheNode(in, out);
  CHECK(node.recordTime == 9000000010);
}

TEST_CASE("a node takes over the input's identity and operations") {
  metadata_input_s in = FileOf(1, 2);
  in.deviceID = 3;
  in.fileID = 4;
  in.fileOperation = 5;
  in.invOperation = 6;
  Answer out;
  const LRUCacheNode node(in, out);
  CHECK(node.dataSet);
  CHECK(node.path == "/bin/true");
  CHECK(node.deviceID == 3);
  CHECK(node.fileID == 4);
  CHECK(node.fileOperation == 5);
  CHECK(node.invOperation == 6);
}

TEST_CASE("a node of an input without a path has the empty path") {
  metadata_input_s in{};
  Answer out;
  CHECK(LRUCacheNode(in, out).path == "");
}

TEST_CASE("size and mtime come from the input, not from the answer") {
  metadata_input_s in = FileOf(1000, 5);
  Answer out;
  out.size = 77;
  out.modificationTime = 88;
  LRUCacheNode node(in, out);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK(back.size == 1000);
  CHECK(back.modificationTime == 5);
  CHECK((back.queryFlags & (QUERY_SIZE | QUERY_MTIME)) == (QUERY_SIZE | QUERY_MTIME));
}

TEST_CASE("a size or mtime of 0 leaves what was stored") {
  metadata_input_s in = FileOf(1000, 5);
  Answer out;
  LRUCacheNode node(in, out);
  metadata_input_s unknown = FileOf(0, 0);
  node.SetDataToCacheNode(unknown, out);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK(back.size == 1000);
  CHECK(back.modificationTime == 5);
}

TEST_CASE("a size or mtime that was never given is not given back") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  LRUCacheNode node(in, out);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK((back.queryFlags & (QUERY_SIZE | QUERY_MTIME)) == 0);
}

TEST_CASE("each digest is stored, assigned and given back by its own bit") {
  // Every subset: handling one does not depend on another.
  for (unsigned int chosen = 0; chosen < 16; ++chosen) {
    CAPTURE(chosen);
    uint32_t parts = 0;
    if ((chosen & 1) != 0) parts |= QUERY_DIGEST16;
    if ((chosen & 2) != 0) parts |= QUERY_DIGEST20;
    if ((chosen & 4) != 0) parts |= QUERY_DIGEST32;
    if ((chosen & 8) != 0) parts |= QUERY_AUX_DIGEST20;
    const auto byteOf = [parts](uint32_t part) { return (parts & part) != 0 ? 0xab : 0x11; };
    metadata_input_s in = FileOf(0, 0);
    Answer out;
    GiveDigests(out, kAllDigests, 0xab);
    out.queryFlags = parts;
    LRUCacheNode node(in, out);
    LRUCacheNode assigned;
    assigned = node;
    for (LRUCacheNode* from : {&node, &assigned}) {
      Answer back;
      GiveDigests(back, kAllDigests, 0x11);
      back.queryFlags = 0;
      from->GetDataFromCacheNode(back);
      CHECK((back.queryFlags & kAllDigests) == parts);
      CHECK(back.digest16[15] == byteOf(QUERY_DIGEST16));
      CHECK(back.digest20[19] == byteOf(QUERY_DIGEST20));
      CHECK(back.digest32[31] == byteOf(QUERY_DIGEST32));
      CHECK(back.auxDigest20[19] == byteOf(QUERY_AUX_DIGEST20));
    }
  }
}

TEST_CASE("parts gather over several answers") {
  metadata_input_s in = FileOf(0, 0);
  Answer first;
  GiveDigests(first, QUERY_DIGEST32, 1);
  LRUCacheNode node(in, first);
  Answer second;
  GiveDigests(second, QUERY_DIGEST20, 2);
  node.SetDataToCacheNode(in, second);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK(back.digest32[0] == 1);
  CHECK(back.digest20[0] == 2);
}

TEST_CASE("signers are given back as a copy of their own") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  GiveSigners(out, {"Kelda", std::string(256, 'n')});
  LRUCacheNode node(in, out);
  out.signers[0] = 'X';
  Answer back;
  CHECK(node.GetDataFromCacheNode(back) == 0);
  CHECK((back.queryFlags & QUERY_SIGNERS) != 0);
  CHECK(SignersIn(back) == Names{"Kelda", std::string(256, 'n')});
  CHECK(back.signers != node.signers.get());
}

TEST_CASE("an answer without signers removes the stored ones") {
  metadata_input_s in = FileOf(0, 0);
  Answer signedAnswer;
  GiveSigners(signedAnswer, {"Kelda"});
  LRUCacheNode node(in, signedAnswer);
  Answer unsignedAnswer;
  node.SetDataToCacheNode(in, unsignedAnswer);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK((back.queryFlags & QUERY_SIGNERS) == 0);
  CHECK(node.signerCount == 0);
}

TEST_CASE("new signers replace the stored ones") {
  metadata_input_s in = FileOf(0, 0);
  Answer first;
  GiveSigners(first, {"Old", "Older"});
  LRUCacheNode node(in, first);
  Answer second;
  GiveSigners(second, {"New"});
  node.SetDataToCacheNode(in, second);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK(SignersIn(back) == Names{"New"});
}

TEST_CASE("a file known to have no signers answers with a count of 0 and the bit") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  out.queryFlags = QUERY_SIGNERS;
  LRUCacheNode node(in, out);
  Answer back;
  GiveSigners(back, {"stale"});
  CHECK(node.GetDataFromCacheNode(back) == 0);
  CHECK((back.queryFlags & QUERY_SIGNERS) != 0);
  CHECK(back.signerCount == 0);
  CHECK(back.signers == nullptr);
}

TEST_CASE("a node that never had the signers part leaves the output's array alone") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  LRUCacheNode node(in, out);
  Answer back;
  GiveSigners(back, {"the caller's"});
  const char* const array = back.signers;
  node.GetDataFromCacheNode(back);
  CHECK(back.signers == array);
  CHECK(SignersIn(back) == Names{"the caller's"});
}

TEST_CASE("signers without an array are stored as none at all") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  out.signerCount = 3;
  out.queryFlags = QUERY_SIGNERS;
  const LRUCacheNode node(in, out);
  CHECK(node.signerCount == 0);
  CHECK((node.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("more signers than fit the address space are stored as none at all") {
  if (sizeof(void*) > 4) return;  // They all fit.
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  GiveSigners(out, {"one"});
  out.signerCount = 0x00ff0100;  // times 257 is 0 in 32 bits, and a little more
  const LRUCacheNode node(in, out);
  CHECK(node.signerCount == 0);
  CHECK((node.queryFlags & QUERY_SIGNERS) == 0);
  out.signerCount = 1;
}

TEST_CASE("a node whose signers are counted but not there gives back none") {
  LRUCacheNode node;
  node.signerCount = 2;
  node.queryFlags = QUERY_SIGNERS;
  Answer back;
  GiveSigners(back, {"Kelda"});
  back.queryFlags = 0;
  CHECK(node.GetDataFromCacheNode(back) == 0);
  CHECK((back.queryFlags & QUERY_SIGNERS) != 0);
  CHECK(back.signerCount == 0);
  CHECK(back.signers == nullptr);
}

TEST_CASE("feedback is given back as 0 or 1") {
  metadata_input_s in = FileOf(0, 0);
  for (const int given : {7, -1, 1}) {
    Answer out;
    out.feedback = given;
    out.queryFlags = QUERY_FEEDBACK;
    LRUCacheNode node(in, out);
    Answer back;
    node.GetDataFromCacheNode(back);
    CHECK(back.feedback == 1);
  }
}

TEST_CASE("an answer can take feedback back to 0") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  out.feedback = 7;
  out.queryFlags = QUERY_FEEDBACK;
  LRUCacheNode node(in, out);
  out.feedback = 0;
  node.SetDataToCacheNode(in, out);
  CHECK_FALSE(node.feedback);
}

TEST_CASE("a node that was never given feedback answers 0 with the bit") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  out.feedback = 7;  // Ignored without its bit.
  LRUCacheNode node(in, out);
  Answer back;
  back.feedback = 9;
  node.GetDataFromCacheNode(back);
  CHECK(back.feedback == 0);
  CHECK((back.queryFlags & QUERY_FEEDBACK) != 0);
}

TEST_CASE("bits that the output holds already stay") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  LRUCacheNode node(in, out);
  Answer back;
  back.queryFlags = QUERY_FILE_TYPE | 0x8000;
  node.GetDataFromCacheNode(back);
  CHECK(back.queryFlags == (QUERY_FILE_TYPE | 0x8000 | QUERY_FEEDBACK));
}

TEST_CASE("giving the mtime back is logged at DEBUG") {
  RecordedLog log;
  metadata_input_s in = FileOf(0, 4294967295);
  Answer out;
  LRUCacheNode node(in, out);
  Answer back;
  node.GetDataFromCacheNode(back);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG GetDataFromCacheNode orvex_lru_cache: metaOut.modificationTime=4294967295"}));
}

TEST_CASE("a node without an mtime logs nothing when it gives its parts") {
  const RecordedLog log;
  for (const uint32_t digests : {uint32_t{0}, kAllDigests}) {
    metadata_input_s in = FileOf(10, 0);
    Answer out;
    GiveDigests(out, digests, 1);
    LRUCacheNode node(in, out);
    Answer back;
    node.GetDataFromCacheNode(back);
    CHECK(back.queryFlags == (QUERY_SIZE | QUERY_FEEDBACK | digests));
  }
  CHECK(log.Records().empty());
}

TEST_CASE("assigning a node copies the parts its source holds and keeps the others") {
  metadata_input_s in = FileOf(10, 20);
  Answer targetParts;
  GiveDigests(targetParts, QUERY_DIGEST16, 1);
  LRUCacheNode target(in, targetParts);

  metadata_input_s sourceIn = FileOf(30, 40);
  sourceIn.path = "/bin/false";
  sourceIn.deviceID = 5;
  sourceIn.fileID = 6;
  sourceIn.fileOperation = 7;
  sourceIn.invOperation = 8;
  Answer sourceParts;
  GiveDigests(sourceParts, QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_AUX_DIGEST20, 2);
  sourceParts.feedback = 1;
  sourceParts.queryFlags |= QUERY_FEEDBACK;
  const LRUCacheNode source(sourceIn, sourceParts);

  target = source;
  CHECK(target.path == "/bin/false");
  CHECK(target.recordTime == source.recordTime);
  CHECK(target.deviceID == 5);
  CHECK(target.fileID == 6);
  CHECK(target.fileOperation == 7);
  CHECK(target.invOperation == 8);
  CHECK(target.size == 30);
  CHECK(target.mtime == 20);
  CHECK(target.digest16[0] == 1);
  CHECK(target.digest20[0] == 2);
  CHECK(target.digest32[0] == 2);
  CHECK(target.auxDigest20[0] == 2);
  CHECK(target.feedback);
}

TEST_CASE("assigning a node never copies the mtime nor its bit") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  LRUCacheNode target(in, out);
  metadata_input_s sourceIn = FileOf(0, 40);
  const LRUCacheNode source(sourceIn, out);
  target = source;
  CHECK(target.mtime == 0);
  CHECK((target.queryFlags & QUERY_MTIME) == 0);
}

TEST_CASE("assigning a node copies feedback without its bit") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  out.feedback = 1;
  out.queryFlags = QUERY_FEEDBACK;
  const LRUCacheNode source(in, out);
  LRUCacheNode target;
  target = source;
  CHECK(target.feedback);
  CHECK(target.queryFlags == 0);
}

TEST_CASE("assigning a node leaves whether the target ever stored an answer") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  const LRUCacheNode stored(in, out);
  LRUCacheNode never;
  never = stored;
  CHECK_FALSE(never.dataSet);
  LRUCacheNode once(in, out);
  once = LRUCacheNode();
  CHECK(once.dataSet);
}

TEST_CASE("assigning a node without size or feedback leaves the target's") {
  metadata_input_s in = FileOf(10, 0);
  Answer out;
  out.feedback = 1;
  out.queryFlags = QUERY_FEEDBACK;
  LRUCacheNode target(in, out);
  target = LRUCacheNode();
  CHECK(target.size == 10);
  CHECK(target.feedback);
}

TEST_CASE("assigning a node copies signers unless they are the same already") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  GiveSigners(out, {"Kelda"});
  const LRUCacheNode source(in, out);

  LRUCacheNode target;
  target = source;
  REQUIRE(target.signers != nullptr);
  CHECK(target.signers != source.signers);
  CHECK(target.signerCount == 1);
  CHECK((target.queryFlags & QUERY_SIGNERS) != 0);

  const char* const array = target.signers.get();
  target = source;
  CHECK(target.signers.get() == array);

  Answer others;
  GiveSigners(others, {"Other"});
  target = LRUCacheNode(in, others);
  CHECK(std::string(target.signers.get()) == "Other");
}

TEST_CASE("signers that differ from the target's in one byte are copied, wherever it is") {
  constexpr size_t kLength = 2 * ORVEX_SIGNER_SLOT;
  for (const size_t at : {size_t{0}, size_t{ORVEX_SIGNER_SLOT}, kLength - 1}) {
    CAPTURE(at);
    metadata_input_s in = FileOf(0, 0);
    Answer out;
    GiveSigners(out, {"Kelda", "Other"});
    LRUCacheNode target(in, out);
    out.signers[at] = '!';
    const LRUCacheNode source(in, out);
    target = source;
    REQUIRE(target.signerCount == 2);
    CHECK(std::equal(out.signers, out.signers + kLength, target.signers.get()));
  }
}

TEST_CASE("signers that are counted on either side but not there are never the same") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  GiveSigners(out, {"Kelda"});
  const LRUCacheNode whole(in, out);
  LRUCacheNode counted;
  counted.signerCount = 1;
  counted.queryFlags = QUERY_SIGNERS;

  LRUCacheNode gainsThem;
  gainsThem.signerCount = 1;
  gainsThem.queryFlags = QUERY_SIGNERS;
  gainsThem = whole;
  REQUIRE(gainsThem.signers != nullptr);
  CHECK(std::string(gainsThem.signers.get()) == "Kelda");

  LRUCacheNode losesThem(in, out);
  losesThem = counted;
  CHECK(losesThem.signers == nullptr);
  CHECK(losesThem.signerCount == 0);
  CHECK((losesThem.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("assigning a node that is known to have no signers removes the target's") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  GiveSigners(out, {"Kelda"});
  LRUCacheNode target(in, out);
  Answer none;
  none.queryFlags = QUERY_SIGNERS;
  target = LRUCacheNode(in, none);
  CHECK(target.signers == nullptr);
  CHECK(target.signerCount == 0);
  CHECK((target.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("assigning a node that has no signers to another such keeps that known") {
  metadata_input_s in = FileOf(0, 0);
  Answer none;
  none.queryFlags = QUERY_SIGNERS;
  LRUCacheNode target(in, none);
  target = LRUCacheNode(in, none);
  CHECK((target.queryFlags & QUERY_SIGNERS) != 0);
}

TEST_CASE("assigning a node without the signers part leaves the target's") {
  metadata_input_s in = FileOf(0, 0);
  Answer out;
  GiveSigners(out, {"Kelda"});
  LRUCacheNode target(in, out);
  target = LRUCacheNode();
  CHECK(target.signerCount == 1);
  CHECK((target.queryFlags & QUERY_SIGNERS) != 0);
}

TEST_CASE("a node assigned to itself stays what it was") {
  metadata_input_s in = FileOf(10, 20);
  Answer out;
  out.queryFlags = QUERY_SIGNERS;
  LRUCacheNode node(in, out);
  const LRUCacheNode& itself = node;
  node = itself;
  CHECK(node.queryFlags == (QUERY_SIZE | QUERY_MTIME | QUERY_SIGNERS));
}

TEST_CASE("a node dumps itself in one DEBUG line") {
  RecordedLog log;
  ScriptedClock clock;
  clock.realTime = {{1, 2}};
  metadata_input_s in = FileOf(10, 20);
  in.fileOperation = 0x1f;
  in.invOperation = 1;
  Answer out;
  GiveSigners(out, {"a", "b"});
  out.feedback = 7;
  out.queryFlags |= QUERY_FEEDBACK;
  LRUCacheNode(in, out).Dump();
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG Dump orvex_lru_cache: Node: queryFlags=0x000000d1, fileOperation=0x0000001f, "
               "invOperation=0x00000001, path=/bin/true, size=10, mtime=20, signerCount=2, "
               "feedback=1, recordTime=1000000002"}));
}
