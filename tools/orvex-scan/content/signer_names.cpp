#include "content/signer_names.h"

#include <openssl/err.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>

#include "content/faults.h"

namespace orvexscan {
namespace {

constexpr const char* kIndirectContent = "1.3.6.1.4.1.311.2.1.4";
constexpr const char* kNestedSignature = "1.3.6.1.4.1.311.2.4.1";
// Real files nest once. A malicious file could nest until the stack overflows.
constexpr int kDeepestNesting = 8;
// Real ones hold a chain or two.
constexpr int kMostCertificates = 512;

template <typename T, void (*kFree)(T*)>
struct FreeWith {
  void operator()(T* object) const { kFree(object); }
};
using Pkcs7 = std::unique_ptr<PKCS7, FreeWith<PKCS7, PKCS7_free>>;
using Bio = std::unique_ptr<BIO, FreeWith<BIO, BIO_free_all>>;
using Object = std::unique_ptr<ASN1_OBJECT, FreeWith<ASN1_OBJECT, ASN1_OBJECT_free>>;

// Cuts at a character boundary and replaces NULs, which would end the name early: a certificate
// could be made to show only half of what it was issued to.
std::string FitForSlot(std::string name) {
  std::replace(name.begin(), name.end(), '\0', '?');
  if (name.size() <= kMostNameBytes) return name;
  size_t end = kMostNameBytes;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80) --end;
  name.resize(end);
  return name;
}

std::string WholeName(const X509_NAME* subject) {
  Bio text(BIO_new(BIO_s_mem()));
  if (!text || X509_NAME_print_ex(text.get(), subject, 0, XN_FLAG_RFC2253) < 0) return {};
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(text.get(), &bytes);
  return length > 0 ? std::string(bytes, static_cast<size_t>(length)) : std::string();
}

std::string CommonName(const X509_NAME* subject) {
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) return WholeName(subject);
  unsigned char* text = nullptr;
  const int length =
      ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  if (length < 0) return WholeName(subject);
  std::string name(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
  OPENSSL_free(text);
  return name;
}

// Bytes of DER. TakeElement moves past one element and sets *inside to its content; false if it is
// incomplete or has another tag. Never reads past the bytes.
struct Bytes {
  const unsigned char* at;
  long length;
};

bool TakeElement(Bytes* bytes, int tag, Bytes* inside) {
  const unsigned char* at = bytes->at;
  long length = 0;
  int found = 0;
  int kind = 0;
  const int flags = ASN1_get_object(&at, &length, &found, &kind, bytes->length);
  // 0x80: unreadable. 1, next to the constructed bit 0x20: indefinite length.
  if ((flags & 0x80) != 0 || (flags & 1) != 0 || found != tag || kind != V_ASN1_UNIVERSAL) {
    ERR_clear_error();
    return false;
  }
  *inside = {at, length};
  bytes->length -= static_cast<long>(at + length - bytes->at);
  bytes->at = at + length;
  return true;
}

// The digest in a signature of this kind, whose content is a sequence:
// something, then { { algorithm, ... }, digest }.
SignedDigest DigestIn(const PKCS7* content) {
  if (content == nullptr || content->d.other == nullptr ||
      OBJ_cmp(content->type, Object(OBJ_txt2obj(kIndirectContent, 1)).get()) != 0 ||
      content->d.other->type != V_ASN1_SEQUENCE) {
    return {};
  }
  const ASN1_STRING* der = content->d.other->value.sequence;
  Bytes whole{ASN1_STRING_get0_data(der), ASN1_STRING_length(der)};
  Bytes parts{};
  Bytes part{};
  Bytes kind{};
  Bytes digest{};
  if (!TakeElement(&whole, V_ASN1_SEQUENCE, &parts) ||
      !TakeElement(&parts, V_ASN1_SEQUENCE, &part) ||
      !TakeElement(&parts, V_ASN1_SEQUENCE, &part) || !TakeElement(&part, V_ASN1_SEQUENCE, &kind)) {
    return {};
  }
  const unsigned char* name = kind.at;
  const Object algorithm(d2i_ASN1_OBJECT(nullptr, &name, kind.length));
  ERR_clear_error();
  if (!algorithm || !TakeElement(&part, V_ASN1_OCTET_STRING, &digest)) return {};
  return {OBJ_obj2nid(algorithm.get()), {digest.at, digest.at + digest.length}};
}

void AddSignature(const unsigned char* der, size_t length, int depth, SignerNames* found);

// NOLINTNEXTLINE(misc-no-recursion): as deep as kDeepestNesting allows.
void AddNested(const PKCS7_SIGNER_INFO* signer, int depth, SignerNames* found) {
  const Object nested(OBJ_txt2obj(kNestedSignature, 1));
  for (int i = 0; i < sk_X509_ATTRIBUTE_num(signer->unauth_attr); ++i) {
    X509_ATTRIBUTE* attribute = sk_X509_ATTRIBUTE_value(signer->unauth_attr, i);
    if (OBJ_cmp(X509_ATTRIBUTE_get0_object(attribute), nested.get()) != 0) continue;
    for (int j = 0; j < X509_ATTRIBUTE_count(attribute); ++j) {
      const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(attribute, j);
      if (value == nullptr || value->type != V_ASN1_SEQUENCE) {
        AddFault("a nested signature is not a sequence", &found->faults);
        continue;
      }
      const ASN1_STRING* der = value->value.sequence;
      AddSignature(ASN1_STRING_get0_data(der), static_cast<size_t>(ASN1_STRING_length(der)),
                   depth + 1, found);
    }
  }
}

// NOLINTNEXTLINE(misc-no-recursion): see AddNested.
void AddSignature(const unsigned char* der, size_t length, int depth, SignerNames* found) {
  if (depth > kDeepestNesting) {
    AddFault("signatures are nested too deeply", &found->faults);
    return;
  }
  // Bytes after the signature are padding of its entry.
  const Pkcs7 signature(d2i_PKCS7(nullptr, &der, static_cast<long>(length)));
  ERR_clear_error();
  if (!signature || !PKCS7_type_is_signed(signature.get()) || signature->d.sign == nullptr) {
    AddFault("a signature is not signed PKCS#7 data", &found->faults);
    return;
  }
  if (sk_X509_num(signature->d.sign->cert) > kMostCertificates) {
    AddFault("there are more than 512 certificates in a signature", &found->faults);
    return;
  }
  if (found->digests.size() < kMostSigners) {
    found->digests.push_back(DigestIn(signature->d.sign->contents));
  }
  STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(signature.get());
  if (sk_PKCS7_SIGNER_INFO_num(signers) <= 0) AddFault("a signature has no signer", &found->faults);
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(signers); ++i) {
    // Counted even if not found: each is searched for among all certificates.
    if (found->lookedAt == kMostSigners) {
      AddFault("there are more than 256 signers", &found->faults);
      return;
    }
    ++found->lookedAt;
    const PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(signers, i);
    X509* certificate =
        X509_find_by_issuer_and_serial(signature->d.sign->cert, signer->issuer_and_serial->issuer,
                                       signer->issuer_and_serial->serial);
    if (certificate == nullptr) {
      AddFault("a signer's certificate is missing", &found->faults);
    } else {
      found->names.push_back(FitForSlot(CommonName(X509_get_subject_name(certificate))));
    }
    AddNested(signer, depth, found);
  }
}

}  // namespace

void AddSigners(const std::vector<unsigned char>& signature, SignerNames* found) {
  AddSignature(signature.data(), signature.size(), 0, found);
}

}  // namespace orvexscan
