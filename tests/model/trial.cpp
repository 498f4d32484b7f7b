// Stories tried in a process of their own, which may crash or hang.
#include "model/trial.h"

#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "model/duel.h"

namespace {

// After this a longer story is better than none when the test times out.
constexpr std::chrono::seconds kMostShrinking{120};

}  // namespace

SharedNumber::SharedNumber()
    : number_(static_cast<uint64_t*>(mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}

SharedNumber::~SharedNumber() { munmap(number_, sizeof(uint64_t)); }

void LimitStory() {
  itimerval limit{};
  limit.it_value.tv_sec = kCpuSecondsPerStory;
  setitimer(ITIMER_PROF, &limit, nullptr);
}

std::string RunApart(const std::function<bool()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) return "no process to be had";
  if (child == 0) {
    LimitStory();
    _exit(body() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return "a process lost";
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "" : "a difference";
}

bool Fails(const Operations& operations) {
  return !RunApart([&] { return !FindDifference(operations); }).empty();
}

Operations Shrunk(Operations operations) {
  const auto end = std::chrono::steady_clock::now() + kMostShrinking;
  const auto stillFails = [end](const Operations& fewer) {
    return std::chrono::steady_clock::now() < end && Fails(fewer);
  };
  for (size_t length = operations.size(); length > 0; length /= 2) {
    for (size_t start = 0; start < operations.size();) {
      Operations fewer = operations;
      const auto begin = fewer.begin() + static_cast<std::ptrdiff_t>(start);
      const size_t count = std::min(length, fewer.size() - start);
      fewer.erase(begin, begin + static_cast<std::ptrdiff_t>(count));
      if (!fewer.empty() && stillFails(fewer)) {
        operations = std::move(fewer);
      } else {
        start += length;
      }
    }
  }
  for (Operation& operation : operations) {
    for (uint8_t& byte : operation.bytes) {
      const uint8_t was = byte;
      if (was == 0) continue;
      byte = 0;
      if (!stillFails(operations)) byte = was;
    }
  }
  return operations;
}

std::string Report(const Operations& operations) {
  const std::string file = "difference.txt";
  const std::string end = RunApart([&] {
    const auto difference = FindDifference(operations);
    if (difference) {
      std::ofstream(file) << "at operation " << difference->operation << "\n" << difference->text;
    }
    return !difference;
  });
  std::ifstream written(file);
  const std::string difference(std::istreambuf_iterator<char>(written), {});
  std::remove(file.c_str());
  return (end.empty() ? "nothing any more" : end) + "\n" + difference +
         "\nthe story, for tests/model/corpus:\n" + HexOf(operations);
}
