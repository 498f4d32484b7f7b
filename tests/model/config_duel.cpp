// One configuration file, read by the engine and by its model.
#include "model/config_duel.h"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

#include "model/captured_messages.h"
#include "model/model_engine.h"
#include "model/real_engine.h"
#include "model/text.h"
#include "model/ticking_clock.h"
#include "support/orvex_config.h"

namespace {

const char* const kKeys[] = {"LogEnable",       "LogLevel",      "DatabaseEnable",
                             "ProfilingEnable", "CacheCapacity", "Absent"};

int AnswerNothing(metadata_input_s* /*in*/, metadata_output_s* /*out*/, void* /*ctx*/) { return 0; }

// An in-memory file with a path: cheaper than one on disk.
class ConfigFile {
 public:
  explicit ConfigFile(const std::string& content)
      : file_(memfd_create("configuration", MFD_CLOEXEC)) {
    if (write(file_, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
      throw std::runtime_error("no configuration file can be written");
    }
  }
  ~ConfigFile() { close(file_); }
  ConfigFile(const ConfigFile&) = delete;
  ConfigFile& operator=(const ConfigFile&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  const int file_;
};

// What starting the engine shows.
std::string Start(EngineInterface& engine) {
  TickingClock clock;
  clock.MakeCurrent();
  CapturedMessages messages;
  engine.RegisterLogCallback(&CapturedMessages::Hear);
  metadata_query_fptrs_s callbacks = {&AnswerNothing, &AnswerNothing};
  std::string text;
  Append(text, "init ", engine.Init(&callbacks), "\n");
  // Whatever level was set, a dump at the end shows what is logged.
  engine.DumpCache();
  engine.DumpMetrics();
  EngineState state;
  engine.Look(state);
  state.AppendTo(text);
  return text + messages.Take();
}

void AppendEntry(std::string& text, const char* key, const std::string* value,
                 const std::optional<unsigned int>& number, const std::optional<bool>& flag) {
  Append(text, key, " text=", value != nullptr ? *value : "absent",
         " number=", number ? std::to_string(*number) : "none",
         " flag=", flag ? std::to_string(static_cast<int>(*flag)) : "none", "\n");
}

std::string EntriesOf(ORVEX_Config& config) {
  std::string text;
  for (const char* key : kKeys) {
    std::string value;
    unsigned int number = 77;
    bool flag = false;
    const bool isThere = config.GetConfigString(key, value) == 0;
    const unsigned int numberCode = config.GetConfigInteger(key, number);
    const unsigned int flagCode = config.GetConfigBool(key, flag);
    const unsigned int refusal = isThere ? 601 : 600;
    if ((numberCode != 0 && numberCode != refusal) || (flagCode != 0 && flagCode != refusal)) {
      Append(text, "wrong code ", numberCode, " ", flagCode, "\n");
    }
    AppendEntry(text, key, isThere ? &value : nullptr,
                numberCode == 0 ? std::optional(number) : std::nullopt,
                flagCode == 0 ? std::optional(flag) : std::nullopt);
  }
  return text;
}

std::string EntriesOf(const ModelConfig& config) {
  std::string text;
  for (const char* key : kKeys) {
    AppendEntry(text, key, config.Text(key), config.Integer(key), config.Bool(key));
  }
  return text;
}

}  // namespace

std::optional<std::string> FindConfigDifference(const std::string& content) {
  const ConfigFile file(content);
  RealEngine real;
  ModelEngine model;
  real.SetConfigFilePath(file.Path());
  model.SetConfigFilePath(file.Path());
  std::string realText = Start(real);
  std::string modelText = Start(model);
  ORVEX_Config& config = *ORVEX_Singleton<ORVEX_Config>::GetInstance();
  realText += EntriesOf(config);
  modelText += EntriesOf(model.Config());
  real.SetLogEnable(true);
  real.SetLogLevel(4);
  CapturedMessages messages;
  config.Dump();
  realText += messages.Take();
  modelText += "4 Dump orvex_config: Dump config map ...\n";
  for (const auto& [key, value] : model.Config().Sorted()) {
    Append(modelText, "4 Dump orvex_config: [CONFIG] ", key, "=", value, "\n");
  }
  if (realText == modelText) return std::nullopt;
  return "-- the engine:\n" + realText + "-- its model:\n" + modelText;
}
