// Programs that others have signed, from packages of the distribution.
#include <doctest/doctest.h>

#include <string>

#include "content/pe_certificates.h"
#include "file/file_reader.h"
#include "file/identity.h"
#include "harness/scan_run.h"

namespace {

std::string PathOf(const char* file) { return std::string(ORVEXENG_SIGNED_PE "/") + file; }

bool BeginsWith(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

// What the tool reports of a file.
nlohmann::json Report(const char* file) {
  const ScanRun run = RunScan(ORVEXENG_SIGNED_PE, std::string("--json - --passes 1 ") + file);
  CHECK(run.exitCode == 0);
  const nlohmann::json report = FileIn(run.Json(), file);
  REQUIRE(report.is_object());
  CHECK_FALSE(report.contains("certificateFaults"));
  CHECK(report["answer"]["type"]["name"] == "program");
  return report;
}

size_t EntriesIn(const char* file) {
  const std::string path = PathOf(file);
  orvexscan::FileReader reader(path, orvexscan::IdentityOf(path, false), false);
  return orvexscan::ReadPeCertificates(&reader).signatures.size();
}

}  // namespace

TEST_CASE("the one signer of a firmware updater is told, in PE32 and PE32+") {
  for (const char* file : {"amd64/usr/libexec/fwupd/efi/fwupdx64.efi.signed",
                           "i386/usr/libexec/fwupd/efi/fwupdia32.efi.signed"}) {
    CAPTURE(file);
    CHECK(EntriesIn(file) == 1);
    const nlohmann::json signers = Report(file)["answer"]["signers"];
    REQUIRE(signers.size() == 1);
    CHECK(BeginsWith(signers[0], "Debian Secure Boot Signer"));
  }
}

TEST_CASE("both signers of a boot loader are told, in PE32 and PE32+") {
  for (const char* file :
       {"amd64/usr/lib/shim/shimx64.efi.signed", "i386/usr/lib/shim/shimia32.efi.signed"}) {
    CAPTURE(file);
    CHECK(EntriesIn(file) == 2);
    const nlohmann::json signers = Report(file)["answer"]["signers"];
    REQUIRE(signers.size() == 2);
    CHECK(BeginsWith(signers[0], "Microsoft Windows UEFI Driver Publisher"));
    CHECK(BeginsWith(signers[1], "Microsoft UEFI CA 2023"));
  }
}
