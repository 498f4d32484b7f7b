#include "harness/watching_scan.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace {

struct Pipe {
  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  }
  int ends[2];
};

[[noreturn]] void Become(const std::string& directory, const std::vector<std::string>& words,
                         const Pipe& output, const Pipe& errors) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  if (chdir(directory.c_str()) == 0) {
    dup2(output.ends[1], STDOUT_FILENO);
    dup2(errors.ends[1], STDERR_FILENO);
    execvp(arguments[0], arguments.data());
  }
  _exit(127);
}

}  // namespace

WatchingScan::WatchingScan(const std::string& directory, const std::vector<std::string>& arguments)
    : WatchingScan(directory, {}, arguments) {}

WatchingScan::WatchingScan(const std::string& directory, const std::vector<std::string>& command,
                           const std::vector<std::string>& arguments, const std::string& mode) {
  std::vector<std::string> words = command;
  words.insert(words.end(), {ORVEX_SCAN, mode});
  words.insert(words.end(), arguments.begin(), arguments.end());
  const Pipe output;
  const Pipe errors;
  process_ = fork();
  if (process_ == 0) Become(directory, words, output, errors);
  close(output.ends[1]);
  close(errors.ends[1]);
  output_.reset(fdopen(output.ends[0], "r"));
  errors_.reset(fdopen(errors.ends[0], "r"));
  std::string line;
  while (line.find(": watching ") == std::string::npos) {
    if (!ReadLine(errors_.get(), &line)) throw std::runtime_error("never watching: " + greeting_);
    greeting_ += line + "\n";
  }
}

WatchingScan::~WatchingScan() {
  if (process_ <= 0) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

std::string WatchingScan::NextLine() {
  std::string line;
  if (!ReadLine(output_.get(), &line)) throw std::runtime_error("no more changes");
  return line;
}

ChangeLine WatchingScan::Next() {
  std::istringstream fields(NextLine());
  ChangeLine change;
  std::getline(fields, change.time, '\t');
  std::getline(fields, change.what, '\t');
  std::getline(fields, change.path, '\t');
  std::getline(fields, change.digests);
  return change;
}

ChangeLine WatchingScan::Await(const std::string& what, const std::string& path,
                               const std::string& end) {
  for (;;) {
    const ChangeLine change = Next();
    const bool ends = change.digests.size() >= end.size() &&
                      change.digests.substr(change.digests.size() - end.size()) == end;
    if (change.what == what && change.path == path && ends) return change;
  }
}

void WatchingScan::Send(int signal) { kill(process_, signal); }

void WatchingScan::AwaitStop() { waitpid(process_, nullptr, WUNTRACED); }

int WatchingScan::ExitCode() {
  int status = 0;
  waitpid(process_, &status, 0);
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string WatchingScan::Rest() {
  std::string rest;
  for (std::string line; ReadLine(output_.get(), &line);) rest += line + "\n";
  return rest;
}

bool WatchingScan::ReadLine(std::FILE* from, std::string* line) {
  line->clear();
  for (int next = std::fgetc(from); next != EOF; next = std::fgetc(from)) {
    if (next == '\n') return true;
    *line += static_cast<char>(next);
  }
  return false;
}
