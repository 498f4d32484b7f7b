// The configuration file.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_singleton.h"

// Codes of the support layer; they stay inside the library.
enum : unsigned int {
  ORVEX_CONFIG_NOT_OPENED = 7,
  ORVEX_CONFIG_ABSENT = 600,
  ORVEX_CONFIG_MALFORMED = 601,
};

// The settings read from orvexeng.ini: lines of a key, "=" and a value, with "#"
// before a comment.
//
// All keys are kept, five have an effect. Reading again overwrites the keys in the file and keeps
// the others.
// Threads: takes no lock. Used only by orvex_init, which hosts call from one thread at a time.
class ORVEX_API ORVEX_Config {
 public:
  ORVEX_Config();
  virtual ~ORVEX_Config();
  ORVEX_Config(const ORVEX_Config&) = delete;
  ORVEX_Config& operator=(const ORVEX_Config&) = delete;

  // Returns 0 once the file could be opened, whatever it holds, otherwise ORVEX_CONFIG_NOT_OPENED;
  // a pipe, a socket or a device counts as not opened and never blocks the caller. Stops silently
  // at a line of more than 254 characters and after the first mebibyte. If it throws
  // std::bad_alloc, the entries read so far stay.
  unsigned int ReadConfig(std::string path);
  // Splits one NUL-terminated line in place and keeps its entry, if it has one.
  void ParseLine(char* line);
  // Applies what was read. Always 0.
  unsigned int SetConfig();

  // 0 and the value, ORVEX_CONFIG_ABSENT, or ORVEX_CONFIG_MALFORMED: an integer
  // is decimal digits only, a bool exactly "0" or "1".
  unsigned int GetConfigInteger(const char* key, unsigned int& value);
  // For hosts: the library itself does not use it.
  unsigned int GetConfigString(const char* key, std::string& value);
  unsigned int GetConfigBool(const char* key, bool& value);

  // Logs every entry at DEBUG, in key order. For hosts: the library itself does not use it.
  void Dump() const;

  // Where the engine looks for the file: "orvexeng.ini", relative to the working directory, unless
  // the host sets another path before it starts the engine.
  static std::string ConfigFilePath;

 private:
  ORVEX_LOCAL const std::string* Find(const char* key) const;

  std::map<std::string, std::string, std::less<>> entries_;
};

extern template class ORVEX_Singleton<ORVEX_Config>;
