#include "harness/signed_pe.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

namespace {

template <typename T, void (*kFree)(T*)>
struct FreeWith {
  void operator()(T* object) const { kFree(object); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, FreeWith<X509, X509_free>>;
using Pkcs7 = std::unique_ptr<PKCS7, FreeWith<PKCS7, PKCS7_free>>;
using Bio = std::unique_ptr<BIO, FreeWith<BIO, BIO_free_all>>;

void Require(bool done) {
  if (!done) throw std::runtime_error("OpenSSL refuses to make a fixture");
}

void AddToSubject(X509_NAME* subject, const char* field, const std::string& text) {
  if (text.empty()) return;
  Require(X509_NAME_add_entry_by_txt(subject, field, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()), -1, 0) == 1);
}

// A common name longer than the standard's 64 characters, as a hostile file may have.
void AddCommonName(X509_NAME* subject, const std::string& text) {
  X509_NAME_ENTRY* entry = nullptr;
  Require(X509_NAME_ENTRY_create_by_NID(&entry, NID_commonName, V_ASN1_UTF8STRING,
                                        reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size())) != nullptr);
  const int added = X509_NAME_add_entry(subject, entry, -1, 0);
  X509_NAME_ENTRY_free(entry);
  Require(added == 1);
}

Certificate CertificateFor(const SubjectName& name, EVP_PKEY* key, long serial) {
  Certificate certificate(X509_new());
  Require(X509_set_version(certificate.get(), 2) == 1);
  Require(ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial) == 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  AddToSubject(subject, "O", name.organisation);
  if (!name.commonName.empty()) AddCommonName(subject, name.commonName);
  Require(X509_set_issuer_name(certificate.get(), subject) == 1);
  Require(X509_set_pubkey(certificate.get(), key) == 1);
  Require(X509_sign(certificate.get(), key, EVP_sha256()) > 0);
  return certificate;
}

Bytes DerOf(PKCS7* signature) {
  unsigned char* der = nullptr;
  const int length = i2d_PKCS7(signature, &der);
  Require(length > 0);
  Bytes bytes(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

void Nest(PKCS7_SIGNER_INFO* signer, const Bytes& nested) {
  static const int kKind =
      OBJ_create("1.3.6.1.4.1.311.2.4.1", "nestedSignature", "nestedSignature");
  ASN1_STRING* der = ASN1_STRING_type_new(V_ASN1_SEQUENCE);
  Require(ASN1_STRING_set(der, nested.data(), static_cast<int>(nested.size())) == 1);
  Require(PKCS7_add_attribute(signer, kKind, V_ASN1_SEQUENCE, der) == 1);
}

void Put16(std::string* bytes, size_t at, uint32_t value) {
  bytes->at(at) = static_cast<char>(value);
  bytes->at(at + 1) = static_cast<char>(value >> 8);
}

void Put32(std::string* bytes, size_t at, uint32_t value) {
  Put16(bytes, at, value);
  Put16(bytes, at + 2, value >> 16);
}

}  // namespace

Bytes Signature(const std::vector<SubjectName>& signers, const std::vector<Bytes>& nested,
                bool withCertificates) {
  const unsigned flags = PKCS7_BINARY | PKCS7_PARTIAL | (withCertificates ? 0u : PKCS7_NOCERTS);
  const Bio content(BIO_new_mem_buf("signed", -1));
  const Pkcs7 signature(
      PKCS7_sign(nullptr, nullptr, nullptr, content.get(), static_cast<int>(flags)));
  Require(signature != nullptr);
  long serial = 1;
  for (const SubjectName& name : signers) {
    const Key key(EVP_EC_gen("P-256"));
    const Certificate certificate = CertificateFor(name, key.get(), serial++);
    PKCS7_SIGNER_INFO* signer = PKCS7_sign_add_signer(signature.get(), certificate.get(), key.get(),
                                                      EVP_sha256(), static_cast<int>(flags));
    Require(signer != nullptr);
    for (const Bytes& inner : nested) Nest(signer, inner);
  }
  Require(PKCS7_final(signature.get(), content.get(), static_cast<int>(flags)) == 1);
  return DerOf(signature.get());
}

Bytes SignatureWithCertificates(size_t idle) {
  const Bytes plain = Signature("Signer");
  const unsigned char* at = plain.data();
  const Pkcs7 signature(d2i_PKCS7(nullptr, &at, static_cast<long>(plain.size())));
  Require(signature != nullptr);
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate = CertificateFor({"Idle", ""}, key.get(), 2);
  for (size_t i = 0; i < idle; ++i) {
    Require(PKCS7_add_certificate(signature.get(), certificate.get()) == 1);
  }
  return DerOf(signature.get());
}

Bytes Signature(const std::string& commonName) { return Signature({{commonName, ""}}); }

Bytes TableEntry(const Bytes& content, uint16_t revision, uint16_t type, int64_t length) {
  std::string header(8, '\0');
  Put32(&header, 0, static_cast<uint32_t>(length < 0 ? int64_t(content.size()) + 8 : length));
  Put16(&header, 4, revision);
  Put16(&header, 6, type);
  Bytes entry(header.begin(), header.end());
  entry.insert(entry.end(), content.begin(), content.end());
  entry.resize((entry.size() + 7) / 8 * 8);
  return entry;
}

std::string PeFile(const Bytes& table, bool wide, int64_t size) {
  constexpr size_t kHeaders = 512;
  constexpr size_t kPeAt = 64;
  constexpr size_t kOptionalAt = kPeAt + 24;
  const size_t directories = kOptionalAt + (wide ? 112 : 96);
  std::string file(kHeaders, '\0');
  file.replace(0, 2, "MZ");
  Put32(&file, 60, kPeAt);
  file.replace(kPeAt, 2, "PE");
  Put16(&file, kPeAt + 4, wide ? 0x8664 : 0x14c);
  Put16(&file, kPeAt + 20, wide ? 240 : 224);
  Put16(&file, kOptionalAt, wide ? 0x20b : 0x10b);
  Put32(&file, directories - 4, 16);
  if (!table.empty() || size >= 0) Put32(&file, directories + 4 * 8, kHeaders);
  Put32(&file, directories + 4 * 8 + 4,
        static_cast<uint32_t>(size < 0 ? int64_t(table.size()) : size));
  return file + std::string(table.begin(), table.end());
}

Bytes Join(const Bytes& first, const Bytes& second) {
  Bytes both = first;
  both.insert(both.end(), second.begin(), second.end());
  return both;
}
