// Random stories.
#include "model/generator.h"

namespace {

// SplitMix64: the same numbers everywhere, which the standard's distributions
// do not promise.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15U) {}

  uint64_t Next() {
    uint64_t bits = state_ += 0x9e3779b97f4a7c15U;
    bits = (bits ^ bits >> 30) * 0xbf58476d1ce4e5b9U;
    bits = (bits ^ bits >> 27) * 0x94d049bb133111ebU;
    return bits ^ bits >> 31;
  }
  unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(Next() % limit); }
  bool OneIn(unsigned int chances) { return Below(chances) == 0; }
  uint8_t Byte() { return static_cast<uint8_t>(Next()); }

 private:
  uint64_t state_;
};

// What the steps of one story have in common.
struct Mood {
  explicit Mood(Random& random)
      : wide(random.OneIn(256)),
        wild(!wide && random.OneIn(8)),
        mixedMasks(random.OneIn(3)),
        mask(random.OneIn(3) ? random.Byte() : static_cast<uint8_t>(random.OneIn(2) ? 0x1f : 1)),
        paths(wide ? 8193 : 2 + random.Below(random.OneIn(4) ? 400 : 12)),
        numbers(1 + random.Below(random.OneIn(4) ? 16 : 3)),
        capacity(static_cast<uint8_t>(random.OneIn(4) ? 10 : random.Below(8))),
        adminIn(wide ? 400 : 2 + random.Below(20)),
        steps(wide ? 9000 : 20 + random.Below(400)) {}

  bool wide;  // fills a cache of default capacity
  bool wild;  // bytes, whatever they mean
  bool mixedMasks;
  uint8_t mask;
  unsigned int paths;
  unsigned int numbers;  // of different sizes, times and identifiers
  uint8_t capacity;
  unsigned int adminIn;  // one step in this many is administration
  unsigned int steps;
};

Operation Administration(Random& random, Action action) {
  Operation operation;
  for (uint8_t& byte : operation.bytes) byte = random.Byte();
  operation.bytes[place::kAction] = static_cast<uint8_t>(action);
  return operation;
}

Operation Administration(Random& random, const Mood& mood) {
  Action action = static_cast<Action>(random.Below(static_cast<unsigned int>(Action::kQuery)));
  // Otherwise caches would never grow and logs would mostly be off.
  const bool disturbs = action == Action::kFlushCache || action == Action::kDeinit ||
                        action == Action::kSetCacheCapacity || action == Action::kSetLogEnable;
  if (disturbs && (mood.wide || random.OneIn(2))) action = Action::kInit;
  return Administration(random, action);
}

Operation Question(Random& random, const Mood& mood) {
  Operation operation;
  auto& bytes = operation.bytes;
  const auto number = [&] { return random.Below(mood.numbers); };
  bytes[place::kAction] =
      static_cast<uint8_t>(random.OneIn(6) ? Action::kUpdateMetadata : Action::kQuery);
  const unsigned int path = mood.paths == 8193 || random.OneIn(4) ? random.Below(mood.paths)
                                                                  : random.Below(mood.paths) + 8;
  bytes[place::kPath] = static_cast<uint8_t>(path);
  bytes[place::kPath + 1] = static_cast<uint8_t>(path >> 8);
  if (random.OneIn(300)) {  // no path
    bytes[place::kPath] = 0;
    bytes[place::kPath + 1] = 0x20;
  }
  bytes[place::kSizeAndMtime] = static_cast<uint8_t>(number() | number() << 4);
  bytes[place::kIDs] = static_cast<uint8_t>(number() | number() << 4);
  bytes[place::kKeyMask] = mood.mixedMasks ? random.Byte() : mood.mask;
  bytes[place::kInv] = random.OneIn(8) ? random.Byte() : uint8_t{INV_KEEP_IN_CACHE};
  if (random.OneIn(10)) bytes[place::kInv] |= INV_CACHE_ONLY;
  bytes[place::kWanted] = random.OneIn(2) ? random.Byte() : uint8_t{QUERY_DIGEST20};
  bytes[place::kWanted + 1] = random.OneIn(2) ? 1 : 0;
  if (random.OneIn(50)) bytes[place::kWanted + 1] = random.Byte();
  if (random.OneIn(30)) bytes[place::kWanted] = 0;
  bytes[place::kRecords] = random.OneIn(4) ? random.Byte() : random.Byte() & 7;
  if (mood.wide || random.OneIn(2)) bytes[place::kRecords] = 3;
  bytes[place::kHashOutcome] = random.OneIn(4) ? random.Byte() : 0;
  bytes[place::kNested] = random.OneIn(6) ? random.Byte() : 0;
  bytes[place::kParts] = random.OneIn(2) ? random.Byte() : 0xff;
  bytes[place::kSigners] = mood.wide ? 0 : random.Byte();
  bytes[place::kMutation] = random.OneIn(8) ? random.Byte() : 0;
  bytes[place::kFileType] = random.Byte();
  return operation;
}

// A callback that stops the engine under its own query and starts it again.
void AppendRestartInside(Random& random, const Mood& mood, Operations& story) {
  story.push_back(Question(random, mood));
  story.back().bytes[place::kAction] = static_cast<uint8_t>(Action::kQuery);
  story.back().bytes[place::kNested] = static_cast<uint8_t>(1 + random.Below(3));
  story.push_back(Administration(random, Action::kDeinit));
  story.push_back(Administration(random, Action::kInit));
  story.push_back(random.OneIn(2) ? Question(random, mood) : Administration(random, mood));
  for (size_t nested = story.size() - 3; nested < story.size(); ++nested) {
    story[nested].bytes[place::kAction] |= 0x80;
  }
}

Operation Wild(Random& random) {
  Operation operation;
  for (uint8_t& byte : operation.bytes) byte = random.Byte();
  if (random.OneIn(2)) operation.bytes[place::kPath] &= 15;
  if (!random.OneIn(8)) operation.bytes[place::kPath + 1] = 0;
  return operation;
}

}  // namespace

Operations StoryOf(uint64_t seed) {
  Random random(seed);
  const Mood mood(random);
  Operations story;
  if (!random.OneIn(20)) story.push_back(Administration(random, Action::kRegisterLogCallback));
  if (!random.OneIn(4) && !mood.wide) {
    story.push_back(Administration(random, Action::kSetLogLevel));
    story.back().bytes[1] = 0;
  }
  if (!mood.wide) {
    for (uint8_t cache = 0; cache < 2; ++cache) {
      story.push_back(Administration(random, Action::kSetCacheCapacity));
      story.back().bytes[1] = static_cast<uint8_t>(cache * 6);
      story.back().bytes[2] = mood.capacity;
    }
  }
  if (!random.OneIn(20)) {
    story.push_back(Administration(random, Action::kInit));
    story.back().bytes[1] = 0;
  }
  while (story.size() < mood.steps) {
    if (mood.wild) {
      story.push_back(Wild(random));
    } else if (random.OneIn(mood.adminIn)) {
      story.push_back(Administration(random, mood));
      const bool isConfig = story.back().GetAction() == Action::kWriteConfigFile;
      if (isConfig && !mood.wide) {  // and have it read
        story.push_back(Administration(random, Action::kDeinit));
        story.push_back(Administration(random, Action::kInit));
      }
    } else if (!mood.wide && random.OneIn(60)) {
      AppendRestartInside(random, mood, story);
      continue;
    } else {
      story.push_back(Question(random, mood));
    }
    const bool invites =
        story.size() > 1 && (story[story.size() - 2].bytes[place::kNested] & 3) != 0;
    if (invites && !random.OneIn(4)) story.back().bytes[place::kAction] |= 0x80;
  }
  return story;
}
