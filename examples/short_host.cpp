// The host of first_host.c in C++.
#include <cstdio>
#include <cstring>
#include <orvexeng.hpp>

int main() {
  int calls = 0;
  const auto digest = [&calls](metadata_input_s& in, orvexeng::answer& out) {
    ++calls;
    std::memset(out.digest32, static_cast<int>(std::strlen(in.path)), sizeof out.digest32);
    out.add(QUERY_DIGEST32);
    return 0;
  };
  const auto fileType = [](metadata_input_s&, orvexeng::answer&) { return -1; };
  metadata_input_s in{};
  in.path = "/bin/true";
  in.size = 43872;
  in.mtime = 1663661352;
  in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_DIGEST32;

  orvexeng::engine engine(digest, fileType);  // Stops when it goes out of scope.
  orvexeng::answer out;                       // Owns its signers; a query resets it.
  for (int i = 0; i < 2; ++i) {
    if (engine.query(in, out) != ORVEX_OK || !out.has(QUERY_DIGEST32)) return 1;
    std::printf("digest %02x..., computed %d time(s)\n", out.digest32[0], calls);
  }
}
