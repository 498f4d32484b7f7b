#include "ask/calculation.h"

#include <exception>
#include <utility>

#include "content/pe_certificates.h"
#include "content/signer_names.h"

namespace orvexscan {
namespace {

constexpr size_t kBufferBytes = 256 << 10;

}  // namespace

Tools::Tools() : buffer(kBufferBytes) {}

orvexeng::callbacks Calculation::Callbacks() {
  const auto attempt = [this](Step step) {
    return [this, step](metadata_input_s& in, orvexeng::answer& out) {
      return Attempt(step, &in, &out);
    };
  };
  return {attempt(&Calculation::Hash), attempt(&Calculation::FindFileType)};
}

int Calculation::Attempt(Step step, metadata_input_s* in, orvexeng::answer* out) {
  // The file type failed: the digests would fail for the same reason, and the engine
  // asks for them all the same.
  if (failure_) return static_cast<int>(failure_->reason());
  try {
    (this->*step)(*in, out);
    if (!settled_) in->invOperation &= ~static_cast<uint32_t>(INV_KEEP_IN_CACHE);
    return 0;
  } catch (const FileFailure& failure) {
    failure_ = failure;
  } catch (const std::exception& failure) {
    failure_ = FileFailure(FailureReason::kEngine, failure.what());
  }
  return static_cast<int>(failure_->reason());
}

void Calculation::Hash(const metadata_input_s& in, orvexeng::answer* out) {
  const auto start = std::chrono::steady_clock::now();
  FileReader& file = Open(in);
  tools_->digests.Start();
  bytesHashed_ =
      file.ReadAll(&tools_->buffer, [this, start](const unsigned char* bytes, size_t count) {
        if (std::chrono::steady_clock::now() - start >= rules_.timeLimit) {
          throw FileFailure(FailureReason::kTime, "reading it took longer than --time-limit");
        }
        tools_->digests.Add(bytes, count);
      });
  const std::vector<std::string> signers = FindSigners();
  // Before anything is stored: a failed callback leaves the answer as it was.
  file.CheckUnchanged();

  tools_->digests.Finish(out);
  out->set_signers({signers.begin(), signers.end()});
  out->size = in.size;
  out->modificationTime = in.mtime;
  out->queryFlags |= in.queryFlags & (QUERY_SIZE | QUERY_MTIME);
  hashed_ = true;
  hashTime_ = std::chrono::steady_clock::now() - start;
}

std::vector<std::string> Calculation::FindSigners() {
  PeCertificates certificates = ReadPeCertificates(&*file_);
  SignerNames signers;
  for (const auto& signature : certificates.signatures) AddSigners(signature, &signers);
  certificateFaults_ = std::move(certificates.faults);
  certificateFaults_.insert(certificateFaults_.end(), signers.faults.begin(), signers.faults.end());
  return std::move(signers.names);
}

void Calculation::FindFileType(const metadata_input_s& in, orvexeng::answer* out) {
  FileReader& file = Open(in);
  const FileType type = tools_->fileType.Read(file.descriptor());
  file.CheckUnchanged();
  out->major = type.major;
  out->minor = type.minor;
  out->queryFlags |= QUERY_FILE_TYPE;
}

FileReader& Calculation::Open(const metadata_input_s& in) {
  if (!file_) {
    // Before anything is read: what is written from now on has later times.
    const Settling::Instant now = rules_.settling.Now();
    file_.emplace(in.path, identity_, rules_.followLinks);
    settled_ = rules_.settling.IsSettled(identity_, now);
  }
  return *file_;
}

}  // namespace orvexscan
