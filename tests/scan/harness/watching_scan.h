// orvex-scan --watch, or --exec, in the background, talked to through pipes and signals.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// One line of a change.
struct ChangeLine {
  std::string time;
  std::string what;
  std::string path;
  std::string digests;
};

// The tool as a child process.
//
// Reading waits for the tool's output, for as long as the test may run.
class WatchingScan {
 public:
  // Starts the tool with the arguments, in the directory, and waits until it watches.
  WatchingScan(const std::string& directory, const std::vector<std::string>& arguments);
  // The same, as the last words of another command, or watching for something else.
  WatchingScan(const std::string& directory, const std::vector<std::string>& command,
               const std::vector<std::string>& arguments, const std::string& mode = "--watch");
  // Kills the tool if it is still running.
  ~WatchingScan();
  WatchingScan(const WatchingScan&) = delete;
  WatchingScan& operator=(const WatchingScan&) = delete;

  // All lines on standard error up to the one that says it is watching, that one too.
  const std::string& greeting() const { return greeting_; }
  // The next line; throws at the end.
  std::string NextLine();
  // The next change; throws if there are no more.
  ChangeLine Next();
  // Reads changes up to one of this kind and path whose digests end like that.
  ChangeLine Await(const std::string& what, const std::string& path, const std::string& end);

  void Send(int signal);
  // Returns once a signal has stopped the tool.
  void AwaitStop();
  // Waits for it to exit and returns the exit code, or a signal's negative number.
  int ExitCode();
  // What it printed besides the changes already read; call after ExitCode.
  std::string Rest();

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  using File = std::unique_ptr<std::FILE, Close>;
  static bool ReadLine(std::FILE* from, std::string* line);

  pid_t process_ = -1;
  File output_;
  File errors_;
  std::string greeting_;
};
