#include "ask/calculation.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "content/pe_certificates.h"
#include "content/signer_names.h"
#include "file/interruption.h"

namespace orvexscan {
namespace {

constexpr size_t kBufferBytes = 256 << 10;

// Adds its lifetime to *sum.
class Stopwatch {
 public:
  explicit Stopwatch(std::chrono::nanoseconds* sum) : sum_(sum) {}
  ~Stopwatch() { *sum_ += std::chrono::steady_clock::now() - start_; }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  std::chrono::nanoseconds* const sum_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Fills in all of a hash answer but the digests.
void GiveTheRest(const metadata_input_s& in, const std::vector<std::string>& signers,
                 orvexeng::answer* out) {
  if ((in.queryFlags & QUERY_SIGNERS) != 0) out->set_signers({signers.begin(), signers.end()});
  out->size = in.size;
  out->modificationTime = in.mtime;
  out->add(in.queryFlags & (QUERY_SIZE | QUERY_MTIME));
}

void Give(const Answer& known, const metadata_input_s& in, orvexeng::answer* out) {
  std::copy(known.digest16.begin(), known.digest16.end(), out->digest16);
  std::copy(known.digest20.begin(), known.digest20.end(), out->digest20);
  std::copy(known.digest32.begin(), known.digest32.end(), out->digest32);
  out->add(PartsOf(known.parts.digests));
  GiveTheRest(in, known.signers, out);
}

}  // namespace

Tools::Tools(const DigestChoice& choice) : digests(choice), buffer(kBufferBytes) {}

orvexeng::callbacks Calculation::Callbacks() {
  const auto attempt = [this](Step step) {
    return [this, step](metadata_input_s& in, orvexeng::answer& out) {
      return Attempt(step, &in, &out);
    };
  };
  return {attempt(&Calculation::Hash), attempt(&Calculation::FindFileType)};
}

int Calculation::Attempt(Step step, metadata_input_s* in, orvexeng::answer* out) {
  // The file type failed: the digests would fail for the same reason, and the engine still asks for
  // them.
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
  if (const SnapshotEntry* known = FindInSnapshot(in)) {
    Give(known->answer, in, out);
    certificates_ = known->certificates;
    fromSnapshot_ = true;
    return;
  }
  const auto start = std::chrono::steady_clock::now();
  FileReader& file = Open(in);
  tools_->digests.Start();
  bytesHashed_ =
      file.ReadAll(&tools_->buffer, [this, start](const unsigned char* bytes, size_t count) {
        if (Interrupted()) throw FileFailure(FailureReason::kInterrupted, "interrupted");
        if (std::chrono::steady_clock::now() - start >= rules_.timeLimit) {
          throw FileFailure(FailureReason::kTime, "reading it took longer than --time-limit");
        }
        const Stopwatch digesting(&partTimes_.digests);
        tools_->digests.Add(bytes, count);
        if (rules_.onRead) rules_.onRead(count);
      });
  partTimes_.reading = std::chrono::steady_clock::now() - start - partTimes_.digests;
  if (bytesHashed_ != identity_.size) settled_ = false;
  std::vector<std::string> signers;
  if ((in.queryFlags & QUERY_SIGNERS) != 0) signers = FindSigners();
  // Before anything is stored: a failed callback leaves the answer as it was.
  file.CheckUnchanged();

  tools_->digests.Finish(out);
  GiveTheRest(in, signers, out);
  hashed_ = true;
  hashTime_ = std::chrono::steady_clock::now() - start;
}

std::vector<std::string> Calculation::FindSigners() {
  const Stopwatch findingSigners(&partTimes_.signers);
  PeCertificates certificates = ReadPeCertificates(&*file_);
  SignerNames signers;
  for (const auto& signature : certificates.signatures) AddSigners(signature, &signers);
  certificates_.faults = std::move(certificates.faults);
  certificates_.faults.insert(certificates_.faults.end(), signers.faults.begin(),
                              signers.faults.end());
  certificates_.signature = MatchSignatures(&*file_, certificates.layout, signers.digests);
  return std::move(signers.names);
}

const SnapshotEntry* Calculation::FindInSnapshot(const metadata_input_s& in) const {
  return rules_.snapshot == nullptr ? nullptr : rules_.snapshot->Find(in.path, identity_);
}

void Calculation::FindFileType(const metadata_input_s& in, orvexeng::answer* out) {
  const SnapshotEntry* const known = FindInSnapshot(in);
  const FileType type = known != nullptr ? known->answer.type : ReadFileType(in);
  out->major = type.major;
  out->minor = type.minor;
  out->queryFlags |= QUERY_FILE_TYPE;
}

FileType Calculation::ReadFileType(const metadata_input_s& in) {
  FileReader& file = Open(in);
  const Stopwatch findingType(&partTimes_.type);
  const FileType type = tools_->fileType.Read(file.descriptor());
  file.CheckUnchanged();
  return type;
}

FileReader& Calculation::Open(const metadata_input_s& in) {
  if (!file_) {
    // Before anything is read: writes from now on leave later times.
    const Settling::Instant now = rules_.settling.Now();
    if (source_.empty()) {
      file_.emplace(in.path, identity_, rules_.followLinks);
    } else {
      file_.emplace(source_, identity_, true);
    }
    settled_ = rules_.settling.IsSettled(identity_, now) && file_->HasTrueSize() &&
               !(rules_.settling.Judges() && file_->HasWriter());
  }
  return *file_;
}

}  // namespace orvexscan
