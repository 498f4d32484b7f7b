// Small PE files with certificate tables, and signatures to put into them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

// The subject of a signer: what follows CN=, or a whole subject with no common name.
struct SubjectName {
  std::string commonName;
  std::string organisation;
};

// A PKCS#7 signature in DER, made with a key and a self-signed certificate of its own
// for each signer. nested are signatures that it carries inside.
Bytes Signature(const std::vector<SubjectName>& signers, const std::vector<Bytes>& nested = {},
                bool withCertificates = true);
Bytes Signature(const std::string& commonName);

// One with a signer, and this many certificates that no signer needs.
Bytes SignatureWithCertificates(size_t idle);

// One entry of a certificate table, padded as such entries are. length is what its
// header says; -1 for the truth.
Bytes TableEntry(const Bytes& content, uint16_t revision = 0x0200, uint16_t type = 2,
                 int64_t length = -1);

// A PE file that ends in the table. size is what its header says of the table; -1 for
// the truth. wide: PE32+, otherwise PE32.
std::string PeFile(const Bytes& table, bool wide = true, int64_t size = -1);

// One table after the other.
Bytes Join(const Bytes& first, const Bytes& second);
