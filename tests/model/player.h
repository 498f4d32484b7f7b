// A host that runs a story on one engine and records everything it sees.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "harness/captured_output.h"
#include "harness/records.h"
#include "model/engine_interface.h"
#include "model/operation.h"
#include "model/ticking_clock.h"

// Two players of one story see the same if their engines behave the same. Each has
// its own clock, directory and output records.
//
// Threads: one; players take turns.
class Player {
 public:
  // The directory exists already. portable leaves out of the trace what is documented
  // to differ between targets.
  Player(EngineInterface& engine, const Operations& operations, const std::string& directory,
         CapturedOutput& output, bool portable);
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  // Where the story is. A step takes in the nested ones that a callback runs.
  size_t Position() const { return next_; }
  bool IsAtEnd() const { return next_ == operations_.size(); }
  void Step();

  // What the last step showed: results, records, callbacks, messages, clock.
  const std::string& Trace() const { return trace_; }

 private:
  struct Call;

  static int AnswerHash(metadata_input_s* in, metadata_output_s* out, void* ctx);
  static int AnswerFileType(metadata_input_s* in, metadata_output_s* out, void* ctx);
  template <char kName>
  static void Hear(unsigned int level, unsigned int line, const char* function, const char* file,
                   const char* message, unsigned int length);

  void Run(const Operation& operation);
  void RunAdministration(const Operation& operation);
  void Query(const Operation& operation);
  void Update(const Operation& operation);
  void Init(const Operation& operation);
  void GetMetrics(const Operation& operation);
  int AnswerAs(bool isHash, metadata_input_s* in, metadata_output_s* out, const Call& call);
  void RunNested(const Operation& operation);
  void Mutate(bool isHash, metadata_input_s& in, const Operation& operation) const;
  void NoteMessage(char callback, unsigned int level, const char* function, const char* file,
                   std::string message, unsigned int length);
  // Removes from a message what may differ between players, and between targets if
  // asked to. Returns whether its length is then the same on all of them.
  bool MakeComparable(std::string& message) const;
  void NoteOutput();
  void NoteRecord(const metadata_output_s& out);

  EngineInterface& engine_;
  const Operations& operations_;
  CapturedOutput& output_;
  const bool portable_;
  int directory_;
  TickingClock clock_;
  Answer records_[3];
  size_t next_ = 0;
  int depth_ = 0;
  bool hasLogCallback_ = false;
  // Paths whose hash callback is running: asking for them again would hang.
  std::set<std::string> beingAnswered_;
  const void* lastIn_ = nullptr;
  const void* lastOut_ = nullptr;
  CallState calls_;
  std::string trace_;
};
