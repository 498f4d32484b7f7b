#include "inventory/walk.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <fts.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "file/interruption.h"
#include "file/pseudo_file_system.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

struct Close {
  void operator()(FTS* walk) const { fts_close(walk); }
};

int ByName(const FTSENT** left, const FTSENT** right) {
  return std::strcmp((*left)->fts_name, (*right)->fts_name);
}

FileFailure NotRegular(const char* what) { return FileFailure(FailureReason::kNotRegular, what); }

void Add(const FTSENT& entry, const WalkRules& rules, Inventory* inventory) {
  const bool given = entry.fts_level == FTS_ROOTLEVEL;
  switch (entry.fts_info) {
    case FTS_F:
      inventory->AddVisit(entry.fts_path, static_cast<uint64_t>(entry.fts_statp->st_size));
      break;
    case FTS_DNR:
    case FTS_ERR:
    case FTS_NS:
      inventory->AddFailure(entry.fts_path, FileFailure::OfSystem(entry.fts_errno, "walk"));
      break;
    case FTS_SLNONE:
      if (rules.followLinks || given) {
        inventory->AddFailure(entry.fts_path,
                              FileFailure(FailureReason::kVanished, "a link that leads nowhere"));
      }
      break;
    case FTS_DC:
      inventory->AddFailure(entry.fts_path, FileFailure(FailureReason::kLoop,
                                                        "a directory that holds itself by a link"));
      break;
    case FTS_SL:
      if (given) {
        inventory->AddFailure(entry.fts_path,
                              NotRegular("a symbolic link; --follow reads what it names"));
      }
      break;
    case FTS_DEFAULT:
      if (given) inventory->AddFailure(entry.fts_path, NotRegular("not a regular file"));
      break;
    default:
      break;
  }
}

// By its name or by its whole path. A path that was given is never excluded.
bool IsExcluded(const FTSENT& entry, const WalkRules& rules) {
  return entry.fts_level != FTS_ROOTLEVEL &&
         std::any_of(rules.exclude.begin(), rules.exclude.end(), [&](const std::string& pattern) {
           return fnmatch(pattern.c_str(), entry.fts_name, 0) == 0 ||
                  fnmatch(pattern.c_str(), entry.fts_path, 0) == 0;
         });
}

// Asks the system only where one may be mounted.
bool IsPseudoRoot(const FTSENT& entry) {
  const bool mayBegin =
      entry.fts_level == FTS_ROOTLEVEL || entry.fts_dev != entry.fts_parent->fts_dev;
  return mayBegin && IsOnPseudoFileSystem(entry.fts_path);
}

// What a walk skips and a note reports.
struct LeftOut {
  std::vector<std::string> pseudo;
  size_t tooLarge = 0;
};

void WalkOne(const std::string& path, const WalkRules& rules, Inventory* inventory,
             LeftOut* leftOut) {
  char* const roots[] = {const_cast<char*>(path.c_str()), nullptr};
  const int options = FTS_NOCHDIR | (rules.followLinks ? FTS_LOGICAL : FTS_PHYSICAL) |
                      (rules.oneFileSystem ? FTS_XDEV : 0);
  const std::unique_ptr<FTS, Close> walk(fts_open(roots, options, ByName));
  if (!walk) throw std::system_error(errno, std::generic_category(), "walk");
  dev_t device = 0;
  for (;;) {
    errno = 0;
    FTSENT* entry = Interrupted() ? nullptr : fts_read(walk.get());
    if (entry == nullptr) break;
    if (entry->fts_level == FTS_ROOTLEVEL) device = entry->fts_dev;
    const bool left = rules.oneFileSystem && entry->fts_dev != device;
    if (IsExcluded(*entry, rules)) {
      fts_set(walk.get(), entry, FTS_SKIP);
      continue;
    }
    if (entry->fts_info == FTS_F &&
        static_cast<uint64_t>(entry->fts_statp->st_size) > rules.maxSize) {
      ++leftOut->tooLarge;
      continue;
    }
    if (entry->fts_info == FTS_D && !left && !rules.pseudo && IsPseudoRoot(*entry)) {
      fts_set(walk.get(), entry, FTS_SKIP);
      if (entry->fts_level == FTS_ROOTLEVEL) {
        inventory->AddFailure(path, NotRegular("a pseudo file system; --pseudo enters it"));
      } else {
        leftOut->pseudo.emplace_back(entry->fts_path);
      }
      continue;
    }
    if (entry->fts_info == FTS_D && !left && rules.entering) rules.entering(entry->fts_path);
    Add(*entry, rules, inventory);
  }
  if (errno != 0) throw std::system_error(errno, std::generic_category(), "walk");
}

}  // namespace

void Walk(const std::vector<std::string>& paths, const WalkRules& rules, Inventory* inventory) {
  LeftOut leftOut;
  for (const std::string& path : paths) {
    try {
      WalkOne(path, rules, inventory, &leftOut);
    } catch (const std::system_error& failure) {
      inventory->AddFailure(path, FileFailure::OfSystem(failure.code().value(), "walk"));
    }
  }
  if (!leftOut.pseudo.empty()) {
    inventory->AddNote(
        fmt::format("Pseudo file systems left out, {} first: {}; --pseudo enters them",
                    Printable(leftOut.pseudo.front()), leftOut.pseudo.size()));
  }
  if (leftOut.tooLarge != 0) {
    inventory->AddNote(fmt::format("Files larger than --max-size, left out: {}", leftOut.tooLarge));
  }
}

}  // namespace orvexscan
