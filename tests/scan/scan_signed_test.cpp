// Programs that others have signed, from packages of the distribution.
#include <doctest/doctest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "content/pe_certificates.h"
#include "file/file_reader.h"
#include "file/identity.h"
#include "harness/scan_run.h"
#include "harness/temporary_directory.h"

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
  CHECK(report["signature"] == "matches");
  return report;
}

size_t EntriesIn(const char* file) {
  const std::string path = PathOf(file);
  orvexscan::FileReader reader(path, orvexscan::IdentityOf(path, false), false);
  return orvexscan::ReadPeCertificates(&reader).signatures.size();
}

}  // namespace

TEST_CASE("the one signer of a firmware updater is reported, in PE32 and PE32+") {
  for (const char* file : {"amd64/usr/libexec/fwupd/efi/fwupdx64.efi.signed",
                           "i386/usr/libexec/fwupd/efi/fwupdia32.efi.signed"}) {
    CAPTURE(file);
    CHECK(EntriesIn(file) == 1);
    const nlohmann::json signers = Report(file)["answer"]["unverifiedSigners"];
    REQUIRE(signers.size() == 1);
    CHECK(BeginsWith(signers[0], "Debian Secure Boot Signer"));
  }
}

TEST_CASE("both signers of a boot loader are reported, in PE32 and PE32+") {
  for (const char* file :
       {"amd64/usr/lib/shim/shimx64.efi.signed", "i386/usr/lib/shim/shimia32.efi.signed"}) {
    CAPTURE(file);
    CHECK(EntriesIn(file) == 2);
    const nlohmann::json signers = Report(file)["answer"]["unverifiedSigners"];
    REQUIRE(signers.size() == 2);
    CHECK(BeginsWith(signers[0], "Microsoft Windows UEFI Driver Publisher"));
    CHECK(BeginsWith(signers[1], "Microsoft UEFI CA 2023"));
  }
}

TEST_CASE("a signed program with one byte changed is reported, unless no signature covers it") {
  const TemporaryDirectory directory;
  for (const char* file :
       {"amd64/usr/lib/shim/shimx64.efi.signed", "i386/usr/lib/shim/shimia32.efi.signed"}) {
    CAPTURE(file);
    std::ostringstream content;
    content << std::ifstream(PathOf(file), std::ios::binary).rdbuf();
    std::string changed = content.str();
    changed[changed.size() / 2] ^= 1;
    directory.Write("changed", changed);
    std::string patched = content.str();
    // The checksum of the header, where the last linker may have left anything.
    const size_t pe =
        static_cast<unsigned char>(patched[60]) + 256u * static_cast<unsigned char>(patched[61]);
    patched[pe + 24 + 64] ^= 1;
    directory.Write("patched", patched);
    const ScanRun run = RunScan(directory.path(), "--json - --passes 1 changed patched");
    CHECK(FileIn(run.Json(), "changed")["signature"] == "does not match");
    CHECK(FileIn(run.Json(), "patched")["signature"] == "matches");
    CHECK(run.errors.find("SIGNERS (UNVERIFIED)") != std::string::npos);
  }
}
