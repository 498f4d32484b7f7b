// The engine against a second description of what it does.
//
// ORVEXENG_MODEL_OPERATIONS and ORVEXENG_MODEL_SEED set how long the random test
// goes on and where it begins.
#include <doctest/doctest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "model/config_duel.h"
#include "model/duel.h"
#include "model/generator.h"
#include "model/trial.h"

namespace {

uint64_t Setting(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

std::string ContentOfFile(const std::filesystem::path& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

std::vector<std::filesystem::path> FilesIn(const char* corpus) {
  std::vector<std::filesystem::path> files;
  for (const auto& file : std::filesystem::directory_iterator(corpus)) {
    files.push_back(file.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

TEST_CASE("the engine behaves as its model in every story of the corpus") {
  const auto files = FilesIn(ORVEXENG_MODEL_CORPUS);
  REQUIRE(!files.empty());
  for (const auto& file : files) {
    CAPTURE(file.string());
    const Operations story = OperationsFromHex(ContentOfFile(file));
    REQUIRE(!story.empty());
    if (Fails(story)) FAIL_CHECK(Report(story));
  }
}

TEST_CASE("the engine reads every configuration file of the corpus as its model does") {
  const auto files = FilesIn(ORVEXENG_CONFIG_CORPUS);
  REQUIRE(!files.empty());
  for (const auto& file : files) {
    CAPTURE(file.string());
    const auto difference = FindConfigDifference(ContentOfFile(file));
    if (difference) FAIL_CHECK(*difference);
  }
}

TEST_CASE("the engine behaves as its model over 1,000,000 random operations" *
          doctest::test_suite("slow")) {
  const uint64_t wanted = Setting("ORVEXENG_MODEL_OPERATIONS", 1000000);
  const uint64_t first = Setting("ORVEXENG_MODEL_SEED", 1);
  SharedNumber seed;
  seed.Get() = first;
  const std::string end = RunApart([&] {
    for (uint64_t done = 0; done < wanted; ++seed.Get()) {
      LimitStory();
      const Operations story = StoryOf(seed.Get());
      if (FindDifference(story)) return false;
      done += story.size();
    }
    return true;
  });
  MESSAGE("seeds ", first, " to ", seed.Get());
  if (end.empty()) return;
  CAPTURE(seed.Get());
  FAIL(end, ", shrunk:\n", Report(Shrunk(StoryOf(seed.Get()))));
}

// The number stands for all that the engine shows: it changes when the engine or
// the stories do, and must then be the same for both targets again.
TEST_CASE("the engine tells the same stories on every target" * doctest::test_suite("slow")) {
  uint64_t digest = 0;
  for (uint64_t seed = 1000000; seed < 1000200; ++seed) {
    digest = digest * 31 + DigestOf(StoryOf(seed));
  }
  CHECK(digest == ORVEXENG_STORIES_DIGEST);
}
