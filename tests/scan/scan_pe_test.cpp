// Signers of PE files, and hostile tables.
#include <doctest/doctest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "content/pe_certificates.h"
#include "content/signer_names.h"
#include "file/file_reader.h"
#include "file/identity.h"
#include "harness/signed_pe.h"
#include "harness/temporary_directory.h"

using orvexscan::AddSigners;
using orvexscan::FileReader;
using orvexscan::PeCertificates;
using orvexscan::SignerNames;

namespace {

PeCertificates Read(const std::string& content) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file.exe", content);
  FileReader reader(path, orvexscan::IdentityOf(path, false), false);
  return orvexscan::ReadPeCertificates(&reader);
}

SignerNames SignersOf(const Bytes& signature) {
  SignerNames found;
  AddSigners(signature, &found);
  return found;
}

using Texts = std::vector<std::string>;

}  // namespace

TEST_CASE("a file of another format has no certificates and no faults") {
  for (const std::string& content :
       {std::string(), std::string("MZ"), std::string("#!/bin/sh\n"), std::string(64, '\0'),
        "MZ" + std::string(62, '\0'), "MZ" + std::string(62, '\xff')}) {
    const PeCertificates found = Read(content);
    CHECK(found.signatures.empty());
    CHECK(found.faults.empty());
  }
}

TEST_CASE("an unsigned PE file has no certificates and no faults") {
  for (const bool wide : {false, true}) {
    CAPTURE(wide);
    const PeCertificates found = Read(PeFile({}, wide));
    CHECK(found.signatures.empty());
    CHECK(found.faults.empty());
  }
}

TEST_CASE("every entry of a table is found, in PE32 and PE32+") {
  const Bytes first(100, 1);
  const Bytes second(33, 2);  // its entry is padded
  const Bytes third(64, 3);
  const Bytes table = Join(TableEntry(first), Join(TableEntry(second), TableEntry(third, 0x0100)));
  for (const bool wide : {false, true}) {
    CAPTURE(wide);
    const PeCertificates found = Read(PeFile(table, wide));
    CHECK(found.faults.empty());
    CHECK(found.signatures == std::vector<Bytes>{first, second, third});
  }
}

TEST_CASE("a malformed table is reported with its fault, and what comes before is kept") {
  const Bytes good = TableEntry(Bytes(40, 7));
  const Bytes other = TableEntry(Bytes(40, 8));
  const struct {
    const char* fault;
    std::string file;
    size_t kept;
  } rows[] = {
      {"the table ends at", PeFile(good, true, 4096), 0},
      {"the table ends at", PeFile(good, true, 0xffffffff), 0},
      {"the table has zero length", PeFile({}, true, 0), 0},
      {"entry 1 is truncated", PeFile(good, true, 20), 0},
      {"entry 1 is truncated", PeFile(good, true, 4), 0},
      {"entry 2 is truncated", PeFile(Join(good, other), true, int64_t(good.size()) + 10), 1},
      {"entry 1 is truncated", PeFile(TableEntry(Bytes(40, 7), 0x200, 2, 0xffffffff)), 0},
      {"entry 1 has zero length", PeFile(TableEntry(Bytes(40, 7), 0x200, 2, 0)), 0},
      {"entry 2 has zero length", PeFile(Join(good, Bytes(8, 0))), 1},
      {"entry 1 has a length of 7", PeFile(TableEntry(Bytes(40, 7), 0x200, 2, 7)), 0},
      {"entry 1 has the unknown revision 0x0300",
       PeFile(Join(TableEntry(Bytes(40, 7), 0x300), other)), 1},
      {"entry 1 is of type 1", PeFile(Join(TableEntry(Bytes(40, 7), 0x200, 1), other)), 1},
  };
  for (const auto& row : rows) {
    CAPTURE(row.fault);
    const PeCertificates found = Read(row.file);
    REQUIRE(found.faults.size() == 1);
    CHECK(found.faults[0].compare(0, std::strlen(row.fault), row.fault) == 0);
    CHECK(found.signatures.size() == row.kept);
  }
}

TEST_CASE("a table larger than any real one is not read into memory") {
  constexpr size_t kLarge = (1 << 20) + 8;
  const PeCertificates found = Read(PeFile(TableEntry(Bytes(kLarge - 8, 0))));
  REQUIRE(found.faults.size() == 1);
  CHECK(found.signatures.empty());
}

TEST_CASE("no truncation and no wrong byte in the headers crashes the reader") {
  const std::string whole = PeFile(TableEntry(Bytes(40, 7)));
  const TemporaryDirectory directory;
  const auto read = [&](const std::string& content) {
    // A new file each time: some file systems write one out at once that is emptied and
    // filled again.
    std::filesystem::remove(directory.PathOf("file.exe"));
    const std::string path = directory.Write("file.exe", content);
    FileReader reader(path, orvexscan::IdentityOf(path, false), false);
    return orvexscan::ReadPeCertificates(&reader);
  };
  for (size_t length = 0; length < whole.size(); ++length) {
    CAPTURE(length);
    CHECK(read(whole.substr(0, length)).signatures.empty());
  }
  for (size_t at = 0; at < whole.size(); ++at) {
    for (const char wrong : {'\0', '\x01', '\x7f', '\xff'}) {
      std::string damaged = whole;
      damaged[at] = wrong;
      CHECK(read(damaged).signatures.size() <= 1);
    }
  }
}

TEST_CASE("a signer is named by its common name") {
  const SignerNames found = SignersOf(Signature("Kelda Test Signer"));
  CHECK(found.names == Texts{"Kelda Test Signer"});
  CHECK(found.faults.empty());
}

TEST_CASE("padding after a signature is not a fault") {
  CHECK(SignersOf(Join(Signature("Signer"), Bytes(7, 0))).names == Texts{"Signer"});
}

TEST_CASE("all signers of a signature are reported") {
  const SignerNames found = SignersOf(Signature({{"One", ""}, {"Two", ""}}));
  CHECK(found.names.size() == 2);
  CHECK(found.faults.empty());
}

TEST_CASE("a signer without a common name is named by its whole subject") {
  CHECK(SignersOf(Signature({{"", "Kelda"}})).names == Texts{"O=Kelda"});
}

TEST_CASE("nested signatures are reported after the one that holds them") {
  const Bytes innermost = Signature("Innermost");
  const Bytes inner = Signature({{"Inner", ""}}, {innermost});
  const Bytes other = Signature("Other");
  const SignerNames found = SignersOf(Signature({{"Outer", ""}}, {inner}));
  CHECK(found.names == Texts{"Outer", "Inner", "Innermost"});
  CHECK(found.faults.empty());
}

TEST_CASE("endless nesting is reported and skipped") {
  Bytes signature = Signature("0");
  for (int depth = 1; depth < 12; ++depth) {
    signature = Signature({{std::to_string(depth), ""}}, {signature});
  }
  const SignerNames found = SignersOf(signature);
  CHECK(found.names.size() == 9);
  CHECK(found.faults == Texts{"signatures are nested too deeply"});
}

TEST_CASE("a malformed nested signature is a fault, and its holder's signers are reported") {
  const Bytes inner{0x30, 3, 2, 1, 7};  // a sequence, and no more than that
  Bytes outer = Signature({{"Outer", ""}}, {inner});
  const SignerNames noSignature = SignersOf(outer);
  CHECK(noSignature.names == Texts{"Outer"});
  CHECK(noSignature.faults == Texts{"a signature is not signed PKCS#7 data"});
  const auto at = std::search(outer.begin(), outer.end(), inner.begin(), inner.end());
  REQUIRE(at != outer.end());
  *at = 0x04;  // a string of bytes instead
  const SignerNames noSequence = SignersOf(outer);
  CHECK(noSequence.names == Texts{"Outer"});
  CHECK(noSequence.faults == Texts{"a nested signature is not a sequence"});
}

TEST_CASE("signers beyond the most that an answer may have are a fault") {
  const Bytes signature = Signature("Signer");
  SignerNames found;
  for (int i = 0; i < 256; ++i) AddSigners(signature, &found);
  CHECK(found.names.size() == 256);
  CHECK(found.faults.empty());
  AddSigners(signature, &found);
  CHECK(found.names.size() == 256);
  CHECK(found.faults == Texts{"there are more than 256 signers"});
}

TEST_CASE("signers without a certificate count among those looked at") {
  const std::vector<SubjectName> many(300, SubjectName{"Signer", ""});
  const SignerNames found = SignersOf(Signature(many, {}, false));
  CHECK(found.lookedAt == 256);
  CHECK(found.faults ==
        Texts{"a signer's certificate is missing", "there are more than 256 signers"});
}

TEST_CASE("a signature with more certificates than any real one is not searched") {
  CHECK(SignersOf(SignatureWithCertificates(511)).names == Texts{"Signer"});
  const SignerNames found = SignersOf(SignatureWithCertificates(512));
  CHECK(found.names.empty());
  CHECK(found.faults == Texts{"there are more than 512 certificates in a signature"});
}

TEST_CASE("however much is wrong with a table, a few sentences report it") {
  Bytes table;
  for (uint16_t i = 0; i < 300; ++i) {
    table = Join(table, TableEntry(Bytes(8, 0), static_cast<uint16_t>(0x300 + i)));
  }
  const PeCertificates found = Read(PeFile(table));
  REQUIRE(found.faults.size() == 9);
  CHECK(found.faults.back() == "there are more faults");
}

TEST_CASE("no more than 256 entries of a table are looked at") {
  Bytes table;
  for (int i = 0; i < 257; ++i) table = Join(table, TableEntry(Bytes(8, 0)));
  const PeCertificates found = Read(PeFile(table));
  CHECK(found.signatures.size() == 256);
  CHECK(found.faults == Texts{"there are more than 256 entries"});
}

TEST_CASE("a name is cut to what its slot holds, at the beginning of a character") {
  CHECK(SignersOf(Signature(std::string(256, 'a'))).names == Texts{std::string(256, 'a')});
  CHECK(SignersOf(Signature(std::string(257, 'a'))).names == Texts{std::string(256, 'a')});
  const std::string umlauts = "x" + [] {
    std::string text;
    for (int i = 0; i < 200; ++i) text += "\xc3\xbc";
    return text;
  }();
  CHECK(SignersOf(Signature(umlauts)).names == Texts{umlauts.substr(0, 255)});
}

TEST_CASE("a NUL does not end a name early") {
  CHECK(SignersOf(Signature(std::string("trusted\0not", 11))).names == Texts{"trusted?not"});
}

TEST_CASE("a signer whose certificate is missing is a fault") {
  const SignerNames found = SignersOf(Signature({{"Signer", ""}}, {}, false));
  CHECK(found.names.empty());
  CHECK(found.faults == Texts{"a signer's certificate is missing"});
}

TEST_CASE("a signature without a signer is a fault") {
  const SignerNames found = SignersOf(Signature(std::vector<SubjectName>{}));
  CHECK(found.names.empty());
  CHECK(found.faults == Texts{"a signature has no signer"});
}

TEST_CASE("bytes that are no signature are a fault") {
  for (const Bytes& bytes : {Bytes{}, Bytes(100, 0), Bytes(100, 0x30), Bytes{0x30, 0x80}}) {
    const SignerNames found = SignersOf(bytes);
    CHECK(found.names.empty());
    CHECK(found.faults == Texts{"a signature is not signed PKCS#7 data"});
  }
}

TEST_CASE("no truncation and no wrong byte in a signature crashes the reader" *
          doctest::test_suite("slow")) {
  const Bytes whole = Signature({{"Outer", ""}}, {Signature("Inner")});
  for (size_t length = 0; length < whole.size(); ++length) {
    const SignerNames found = SignersOf(Bytes(whole.begin(), whole.begin() + ptrdiff_t(length)));
    CHECK(found.names.empty());
    CHECK(found.faults.size() == 1);
  }
  for (size_t at = 0; at < whole.size(); ++at) {
    for (const uint8_t wrong : Bytes{0x00, 0x7f, 0x80, 0xff}) {
      Bytes damaged = whole;
      damaged[at] = wrong;
      CHECK(SignersOf(damaged).names.size() <= 2);
    }
  }
}
