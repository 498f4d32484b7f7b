// Asks for the signers of one file and frees them: 0 when the host calculated once.
#include <orvexeng.h>

#include <cstring>
#include <memory>

namespace {

int calculations = 0;

int Signers(metadata_input_s* /*in*/, metadata_output_s* out, void* /*ctx*/) {
  ++calculations;
  out->signers = new char[ORVEX_SIGNER_SLOT]();
  std::strcpy(out->signers, "Kelda");
  out->signerCount = 1;
  out->queryFlags |= QUERY_SIGNERS;
  return 0;
}

}  // namespace

int main() {
  metadata_query_fptrs_s callbacks = {Signers, Signers};
  if (orvex_init(&callbacks) != ORVEX_OK) return 1;
  for (int asked = 0; asked < 2; ++asked) {
    metadata_input_s in = {};
    in.path = "/bin/true";
    in.fileOperation = KEY_PATH;
    in.invOperation = INV_KEEP_IN_CACHE;
    in.queryFlags = QUERY_SIGNERS;
    metadata_output_s out = {};
    if (orvex_query(&in, &out, nullptr) != ORVEX_OK) return 2;
    const std::unique_ptr<char[]> signers(out.signers);
    if (out.signerCount != 1 || std::strcmp(signers.get(), "Kelda") != 0) return 3;
  }
  if (calculations != 1) return 4;
  return orvex_deinit();
}
