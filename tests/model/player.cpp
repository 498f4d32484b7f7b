// A host that runs a story on one engine and records everything it sees.
#include "model/player.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "model/text.h"

namespace {

constexpr char kConfigFile[] = "orvexeng.ini";
constexpr int kDeepest = 3;

Player* currentPlayer = nullptr;

void Empty(metadata_output_s& out) {
  delete[] out.signers;
  out = metadata_output_s{};
}

void GiveSigners(metadata_output_s& out, uint8_t choice) {
  delete[] out.signers;
  out.signers = nullptr;
  out.signerCount = choice & 15U;
  if (out.signerCount == 15) {
    out.signerCount = 0xffffffff;  // more than an address space holds
  } else if (out.signerCount >= 4 && out.signerCount < 12) {
    out.signerCount &= 3U;
  }
  out.queryFlags |= QUERY_SIGNERS;
  if (out.signerCount >= 4) return;  // a count without an array
  if (out.signerCount == 0 && (choice & 0x10) != 0) return;
  const size_t bytes = size_t{out.signerCount} * ORVEX_SIGNER_SLOT;
  out.signers = new char[bytes];
  std::memset(out.signers, choice >> 4, bytes);
}

// What an answer for the hash cache holds, going by the story.
void GiveParts(metadata_output_s& out, const Operation& operation) {
  const uint8_t parts = operation.bytes[place::kParts];
  const uint8_t signers = operation.bytes[place::kSigners];
  GiveDigests(out, parts & kAllDigests, operation.bytes[place::kParts] ^ signers);
  if ((parts & QUERY_SIZE) != 0) out.size = 4242;
  if ((parts & QUERY_MTIME) != 0) out.modificationTime = 4343;
  if ((parts & QUERY_FEEDBACK) != 0) out.feedback = static_cast<int8_t>(signers) / 16;
  out.queryFlags |= parts & (QUERY_SIZE | QUERY_MTIME | QUERY_FEEDBACK);
  if ((parts & QUERY_SIGNERS) != 0) GiveSigners(out, signers);
}

void GiveFileType(metadata_output_s& out, uint8_t choice) {
  static constexpr int32_t kNumbers[] = {0, 1, -1, 2147483647, -2147483647 - 1, 17, 3};
  if (choice >= 0xe0) return;
  out.major = kNumbers[choice % 7];
  out.minor = kNumbers[choice / 7 % 7];
  out.queryFlags |= QUERY_FILE_TYPE;
}

}  // namespace

// What ctx leads to.
struct Player::Call {
  Player* player;
  const Operation& operation;
  const metadata_input_s* in;
  const metadata_output_s* out;
};

Player::Player(EngineInterface& engine, const Operations& operations, const std::string& directory,
               CapturedOutput& output, bool portable)
    : engine_(engine),
      operations_(operations),
      output_(output),
      portable_(portable),
      directory_(open(directory.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC)) {
  if (directory_ < 0) throw std::runtime_error("no directory " + directory);
  unlinkat(directory_, kConfigFile, 0);
}

Player::~Player() {
  if (currentPlayer == this) currentPlayer = nullptr;
  close(directory_);
}

void Player::Step() {
  currentPlayer = this;
  clock_.MakeCurrent();
  if (fchdir(directory_) != 0) throw std::runtime_error("no way into the directory");
  trace_.clear();
  const bool prints = !hasLogCallback_;
  Run(operations_[next_++]);
  if (prints) NoteOutput();
  Append(trace_, "clock ", clock_.monotonicReadings, " slept ", clock_.sleeps, "x ", clock_.sleptUs,
         "\n");
}

void Player::Run(const Operation& operation) {
  switch (operation.GetAction()) {
    case Action::kQuery:
      return Query(operation);
    case Action::kUpdateMetadata:
      return Update(operation);
    case Action::kInit:
      return Init(operation);
    case Action::kGetMetrics:
      return GetMetrics(operation);
    default:
      return RunAdministration(operation);
  }
}

void Player::RunAdministration(const Operation& operation) {
  const uint8_t choice = operation.bytes[1];
  bool enabled = true;
  int status = 5;
  const auto note = [this](const char* name, int code) { Append(trace_, name, " ", code, "\n"); };
  switch (operation.GetAction()) {
    case Action::kDeinit: {
      const int code = engine_.Deinit();
      if (code == ORVEX_OK) beingAnswered_.clear();
      return note("deinit", code);
    }
    case Action::kGetStatus:
      return note("status", engine_.GetStatus());
    case Action::kDumpMetrics:
      return engine_.DumpMetrics();
    case Action::kResetMetrics:
      return note("reset", engine_.ResetMetrics());
    case Action::kDumpCache:
      return engine_.DumpCache();
    case Action::kFlushCache:
      return note("flush", engine_.FlushCache(choice % 16 == 15 ? -1 : choice % 16 / 6));
    case Action::kSetCacheCapacity: {
      const int cacheType = choice % 16 == 15 ? -1 : choice % 16 / 6;
      return note("capacity", engine_.SetCacheCapacity(cacheType, operation.Capacity()));
    }
    case Action::kRegisterLogCallback: {
      const bool none = choice >= 0xf0;
      const orvex_log_cb callback = (choice & 1) != 0 ? &Hear<'A'> : &Hear<'B'>;
      const int code = engine_.RegisterLogCallback(none ? nullptr : callback);
      hasLogCallback_ = hasLogCallback_ || code == ORVEX_OK;
      return note("register", code);
    }
    case Action::kProfilingSetEnable:
      return note("profiling", engine_.ProfilingSetEnable((choice & 1) != 0));
    case Action::kProfilingGetEnable:
      note("is profiling", engine_.ProfilingGetEnable(&enabled));
      return note("  it is", enabled ? 1 : 0);
    case Action::kDbInit:
      return note("db init", engine_.DbInit());
    case Action::kDbSetEnable:
      return note("db set", engine_.DbSetEnable((choice & 1) != 0));
    case Action::kDbGetEnable:
      note("db get", engine_.DbGetEnable(choice % 4 == 0 ? nullptr : &enabled));
      return note("  it is", enabled ? 1 : 0);
    case Action::kDbGetStatus:
      note("db status", engine_.DbGetStatus(choice % 4 == 0 ? nullptr : &status));
      return note("  it is", status);
    case Action::kSetLogEnable:
      return engine_.SetLogEnable(choice % 4 != 0);
    case Action::kSetLogLevel:
      return engine_.SetLogLevel(operation.Level());
    case Action::kSetConfigFilePath: {
      static const std::string kPaths[] = {
          kConfigFile, kConfigFile, kConfigFile, "missing.ini", ".", "", std::string(600, 'x')};
      return engine_.SetConfigFilePath(kPaths[choice % 7]);
    }
    case Action::kWriteConfigFile: {
      const int file = open(kConfigFile, O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
      const std::string content = operation.ConfigFile();
      if (write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        throw std::runtime_error("no configuration file can be written");
      }
      close(file);
      return;
    }
    case Action::kRemoveConfigFile:
      unlink(kConfigFile);
      return;
    default:
      throw std::logic_error("an action that is no administration");
  }
}

void Player::Init(const Operation& operation) {
  metadata_query_fptrs_s callbacks = {&AnswerHash, &AnswerFileType};
  const uint8_t choice = operation.bytes[1];
  if (choice == 0xff) callbacks.metaQueryCallback = nullptr;
  if (choice == 0xfe) callbacks.fileTypeQueryCallback = nullptr;
  const int code = engine_.Init(choice == 0xfd ? nullptr : &callbacks);
  Append(trace_, "init ", code, "\n");
}

void Player::GetMetrics(const Operation& operation) {
  static constexpr unsigned int kSizes[] = {192, 192, 192, 0, 1, 8, 32, 40, 191, 193, 4294967295U};
  char buffer[256];
  std::memset(buffer, 0x5a, sizeof buffer);
  unsigned int outSize = 77;
  const bool none = operation.bytes[2] >= 0xf0;
  auto* const metrics = none ? nullptr : reinterpret_cast<orvex_metrics_s*>(buffer);
  const int code = engine_.GetMetrics(metrics, kSizes[operation.bytes[1] % 11], &outSize);
  Append(trace_, "metrics ", code, " size ", outSize, " ", Print({buffer, sizeof buffer}), "\n");
}

void Player::Query(const Operation& operation) {
  metadata_input_s in = operation.Input();
  const uint8_t choice = operation.bytes[place::kRecords];
  Answer fresh;
  metadata_output_s& out = (choice & 3) < 3 ? records_[choice & 3] : fresh;
  if ((choice & 4) == 0) Empty(out);
  if (choice >> 4 == 0xc) out.queryFlags |= 0x1ff;
  if (choice >> 4 == 0xb) {
    out.resultReady = 77;
    out.feedback = -5;
  }
  const bool noIn = choice >> 4 == 0xf || choice >> 4 == 0xd;
  const bool noOut = choice >> 4 == 0xe || choice >> 4 == 0xd;
  if (in.path != nullptr && beingAnswered_.count(in.path) != 0) in.invOperation |= INV_CACHE_ONLY;
  lastIn_ = noIn ? nullptr : &in;
  lastOut_ = noOut ? nullptr : &out;
  Call call{this, operation, &in, &out};
  Append(trace_, "query\n");
  try {
    const int code = engine_.Query(noIn ? nullptr : &in, noOut ? nullptr : &out, &call);
    Append(trace_, "query ", code, "\n");
  } catch (int thrown) {
    Append(trace_, "query threw ", thrown, "\n");
  } catch (const std::logic_error&) {
    Append(trace_, "query threw a logic error\n");
  } catch (const std::bad_alloc&) {
    Append(trace_, "query threw a bad alloc\n");
  }
  // Now, while the pointers that may have been printed are known.
  if (!hasLogCallback_) NoteOutput();
  NoteRecord(out);
}

void Player::Update(const Operation& operation) {
  metadata_input_s in = operation.Input();
  Answer out;
  GiveParts(out, operation);
  const unsigned int choice = operation.bytes[place::kRecords] >> 4;
  const bool noIn = choice == 0xf || choice == 0xd;
  const bool noOut = choice == 0xe || choice == 0xd;
  const int code = engine_.UpdateMetadata(noIn ? nullptr : &in, noOut ? nullptr : &out);
  Append(trace_, "update ", code, "\n");
  NoteRecord(out);
}

int Player::AnswerHash(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  const Call& call = *static_cast<Call*>(ctx);
  return call.player->AnswerAs(true, in, out, call);
}

int Player::AnswerFileType(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  const Call& call = *static_cast<Call*>(ctx);
  return call.player->AnswerAs(false, in, out, call);
}

int Player::AnswerAs(bool isHash, metadata_input_s* in, metadata_output_s* out, const Call& call) {
  const Operation& operation = call.operation;
  const std::string path = in->path != nullptr ? in->path : "";
  Append(trace_, isHash ? "hash callback " : "file type callback ", in == call.in, out == call.out,
         " ", path, "\n");
  NoteRecord(*out);
  engine_.LookAtCalls(calls_);
  calls_.AppendTo(trace_);

  if (isHash) beingAnswered_.insert(path);
  RunNested(operation);
  if (isHash) beingAnswered_.erase(path);

  Mutate(isHash, *in, operation);
  const uint8_t outcomes = operation.bytes[place::kHashOutcome];
  const unsigned int outcome = isHash ? outcomes & 15U : outcomes >> 4;
  if (outcome == 14) throw 5;
  if (outcome == 15) throw std::bad_alloc();
  if (isHash) {
    GiveParts(*out, operation);
  } else {
    GiveFileType(*out, operation.bytes[place::kFileType]);
  }
  static constexpr int kCodes[] = {7, -1, 3, 100};
  return outcome < 10 ? 0 : kCodes[outcome - 10];
}

void Player::RunNested(const Operation& operation) {
  if (depth_ == kDeepest) return;
  ++depth_;
  for (int rest = operation.bytes[place::kNested] & 3; rest > 0 && !IsAtEnd(); --rest) {
    if (!operations_[next_].IsNested()) break;
    Run(operations_[next_++]);
  }
  --depth_;
}

void Player::Mutate(bool isHash, metadata_input_s& in, const Operation& operation) const {
  const uint8_t choice = operation.bytes[place::kMutation];
  // A file type callback that redirects its query to a path being answered would hang it.
  const bool mayLead = isHash || beingAnswered_.empty();
  switch (choice & 15) {
    case 8:
      in.invOperation &= ~uint32_t{INV_KEEP_IN_CACHE};
      break;
    case 9:
      in.invOperation |= INV_KEEP_IN_CACHE;
      break;
    case 10:
      in.mtime = Operation::Number(choice >> 4);
      break;
    case 11:
      if (mayLead) in.queryFlags ^= (choice >> 4) | uint32_t{choice >> 4 & 1U} << 8;
      break;
    case 12:
      if (mayLead) in.path = "/f/9";
      break;
    case 13:
      in.fileOperation ^= choice >> 4;
      break;
    case 14:
      in.size = Operation::Number(choice >> 4);
      break;
    case 15:
      if (choice >= 0xc0) in.path = nullptr;
      break;
    default:
      break;
  }
}

template <char kName>
void Player::Hear(unsigned int level, unsigned int /*line*/, const char* function, const char* file,
                  const char* message, unsigned int length) {
  if (currentPlayer != nullptr) {
    currentPlayer->NoteMessage(kName, level, function, file, message, length);
  }
}

void Player::NoteMessage(char callback, unsigned int level, const char* function, const char* file,
                         std::string message, unsigned int length) {
  const bool sameEverywhere = MakeComparable(message);
  Append(trace_, std::string_view(&callback, 1), " ", level, " ", function, " ", file, ": ",
         message, " (", sameEverywhere ? length : 0, ")\n");
}

bool Player::MakeComparable(std::string& message) const {
  char pointers[96];
  std::snprintf(pointers, sizeof pointers, "metaIn=0x%08x, metaOut=0x%08x",
                static_cast<unsigned int>(reinterpret_cast<uintptr_t>(lastIn_)),
                static_cast<unsigned int>(reinterpret_cast<uintptr_t>(lastOut_)));
  size_t at = message.find(pointers);
  if (at != std::string::npos) message.replace(at, std::strlen(pointers), "the pointers given");
  if (!portable_) return true;
  // An unsigned long: the rest of the line goes, but for what both widths print.
  static constexpr char kTime[] = "metaOut.modificationTime=";
  at = message.find(kTime);
  if (at != std::string::npos) {
    const uint64_t number = std::stoull(message.substr(at + sizeof kTime - 1));
    message.replace(at, std::string::npos, kTime + std::to_string(static_cast<uint32_t>(number)));
    return false;
  }
  // These numbers do not line up with their labels, differently on each target.
  message.erase(std::min(message.rfind(" major="), message.size()));
  return message.find("Node: path=") == std::string::npos;
}

// Time and line number are the printing engine's own.
void Player::NoteOutput() {
  const std::string text = output_.Take();
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find('\n', start), text.size());
    std::string line = text.substr(start, end - start);
    static constexpr char kTime[] = "dddd dd dd dd:dd:dd ";
    const bool hasTime =
        line.size() >= sizeof kTime &&
        std::equal(kTime, kTime + sizeof kTime - 1, line.begin(), [](char shape, char letter) {
          return shape == 'd' ? letter >= '0' && letter <= '9' : shape == letter;
        });
    if (hasTime) line.replace(0, sizeof kTime - 1, "TIME ");
    const size_t function = line.rfind('|');
    const size_t number = function == std::string::npos ? function : line.rfind('|', function - 1);
    if (number != std::string::npos) line.erase(number + 1, function - number - 1);
    MakeComparable(line);
    Append(trace_, "printed ", line, "\n");
    start = end + 1;
  }
}

void Player::NoteRecord(const metadata_output_s& out) {
  const auto view = [](const auto& bytes) {
    return std::string_view(reinterpret_cast<const char*>(bytes), sizeof bytes);
  };
  const bool hasSigners = out.signers != nullptr;
  const size_t bytes = hasSigners ? size_t{out.signerCount} * ORVEX_SIGNER_SLOT : 0;
  Append(trace_, " out ", out.reserved0, ".", out.reserved1, ".", Print(view(out.reserved2)),
         " flags=", out.queryFlags, " size=", out.size, " mtime=", out.modificationTime,
         " d16=", Print(view(out.digest16)), " d20=", Print(view(out.digest20)),
         " d32=", Print(view(out.digest32)), " aux=", Print(view(out.auxDigest20)),
         " signers=", out.signerCount, ":", hasSigners, ":", Print({out.signers, bytes}),
         " type=", out.major, ".", out.minor, " feedback=", out.feedback,
         " ready=", out.resultReady, "\n");
}
