// One story, run by the engine and by its model.
#include "model/duel.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "model/model_engine.h"
#include "model/player.h"
#include "model/real_engine.h"
#include "model/text.h"

namespace {

// Above this many nodes the caches are compared only every so many steps; messages
// and results still are at each.
constexpr size_t kManyNodes = 256;
constexpr size_t kStepsBetweenLooks = 61;

// The working directory, made and returned to.
class Directories {
 public:
  Directories() {
    mkdir("real", 0700);
    mkdir("model", 0700);
  }
  ~Directories() {
    if (chdir(home_.c_str()) != 0) std::abort();
  }
  Directories(const Directories&) = delete;
  Directories& operator=(const Directories&) = delete;

  std::string Real() const { return home_ + "/real"; }
  std::string Model() const { return home_ + "/model"; }

 private:
  static std::string Text(char* allocated) {
    const std::unique_ptr<char, decltype(&std::free)> text(allocated, &std::free);
    return text.get();
  }

  const std::string home_ = Text(get_current_dir_name());
};

// Both after the same step.
std::string Explain(const std::string& real, const std::string& model) {
  return "-- the engine:\n" + real + "-- its model:\n" + model;
}

}  // namespace

std::optional<Difference> FindDifference(const Operations& operations) {
  const Directories directories;
  CapturedOutput output;
  RealEngine real;
  ModelEngine model;
  Player realPlayer(real, operations, directories.Real(), output, false);
  Player modelPlayer(model, operations, directories.Model(), output, false);
  EngineState realState;
  EngineState modelState;
  size_t stepsSinceLook = 0;
  while (!realPlayer.IsAtEnd()) {
    const size_t start = realPlayer.Position();
    realPlayer.Step();
    modelPlayer.Step();
    if (realPlayer.Trace() != modelPlayer.Trace() ||
        realPlayer.Position() != modelPlayer.Position()) {
      return Difference{start, Explain(realPlayer.Trace(), modelPlayer.Trace())};
    }
    const bool many = modelState.hash.nodes.size() + modelState.fileType.nodes.size() > kManyNodes;
    if (many && ++stepsSinceLook < kStepsBetweenLooks && !realPlayer.IsAtEnd()) continue;
    stepsSinceLook = 0;
    real.Look(realState);
    model.Look(modelState);
    if (realState == modelState) continue;
    std::string realText = realPlayer.Trace();
    std::string modelText = modelPlayer.Trace();
    realState.AppendTo(realText);
    modelState.AppendTo(modelText);
    return Difference{start, Explain(realText, modelText)};
  }
  return std::nullopt;
}

uint64_t DigestOf(const Operations& operations) {
  const Directories directories;
  CapturedOutput output;
  RealEngine engine;
  Player player(engine, operations, directories.Real(), output, true);
  EngineState state;
  std::string text;
  uint64_t digest = Fingerprint("");
  while (!player.IsAtEnd()) {
    player.Step();
    engine.Look(state);
    text = player.Trace();
    state.AppendTo(text);
    digest = Fingerprint(text, digest);
  }
  return digest;
}
