// A C++ host: it makes up signers for each path and asks for them twice.
#include <cstdio>
#include <orvexeng.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

int Signers(metadata_input_s& in, orvexeng::answer& out) {
  if (std::string_view(in.path) == "/bin/broken") throw std::runtime_error("cannot be read");
  out.set_signers({"Example Builds", std::string("of ") + in.path});
  return ORVEX_OK;
}

int NoFileType(metadata_input_s&, orvexeng::answer&) { return -1; }

void Ask(orvexeng::engine& engine, const char* path) {
  metadata_input_s in{};
  in.path = path;
  in.size = 43872;
  in.mtime = 1663661352;
  in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_SIGNERS;
  orvexeng::answer out;
  std::printf("%s: code %d", path, engine.query(in, out));
  for (const std::string_view name : out.signer_names()) {
    std::printf(", \"%.*s\"", static_cast<int>(name.size()), name.data());
  }
  std::printf("\n");
}

}  // namespace

int main() {
  try {
    orvexeng::engine engine(Signers, NoFileType);
    for (const char* path : {"/bin/true", "/bin/true", "/bin/broken"}) Ask(engine, path);
    const orvex_metrics_s metrics = engine.metrics();
    std::printf("%d hit, %d misses\n", static_cast<int>(metrics.cacheHit),
                static_cast<int>(metrics.cacheMiss));
  } catch (const orvexeng::error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
