// What concurrent callers saw of a cache, and whether its guarantees explain it.
#include "harness/history.h"

#include <algorithm>
#include <map>

#include "orvexeng.h"

namespace {

bool IsBefore(const EventSpan& a, const EventSpan& b) { return a.end < b.begin; }

bool Overlap(const EventSpan& a, const EventSpan& b) { return !IsBefore(a, b) && !IsBefore(b, a); }

// Whether something happened entirely between the two.
bool IsBetween(const EventSpan& a, const EventSpan& between, const EventSpan& b) {
  return IsBefore(a, between) && IsBefore(between, b);
}

template <typename T>
void AppendTo(std::vector<T>& all, const std::vector<T>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

struct FileHistory {
  std::vector<StoredAnswer> stored;
  std::vector<AskedAnswer> asked;
  std::vector<Calculation> calculations;
};

class Judge {
 public:
  Judge(const CacheHistory& history, const FileHistory& file)
      : stops_(history.stops),
        removals_(history.flushes),
        keepsAll_(history.keepsAll),
        file_(file) {
    for (const EngineStop& stop : stops_) removals_.push_back(stop.stop);
  }

  std::string FirstWrong() const {
    for (const AskedAnswer& asked : file_.asked) {
      for (const std::string& wrong :
           {WrongInRefusal(asked), WrongInServed(asked), WrongInCalling(asked)}) {
        if (!wrong.empty()) return wrong + At(asked.span);
      }
    }
    for (const Calculation& first : file_.calculations) {
      for (const Calculation& second : file_.calculations) {
        if (IsSecondTooMany(first, second)) {
          return "calculated twice at once" + At(first.query) + At(second.query);
        }
      }
    }
    return "";
  }

 private:
  static std::string At(const EventSpan& span) {
    return ", " + std::to_string(span.begin) + " to " + std::to_string(span.end);
  }

  std::string WrongInRefusal(const AskedAnswer& asked) const {
    const bool refused =
        asked.code == ORVEX_NOT_INITIALISED || asked.code == ORVEX_CACHE_NOT_INITIALISED;
    bool mayBeRefused = false;
    for (const auto& [stop, start] : stops_) {
      mayBeRefused = mayBeRefused || Overlap(asked.span, {stop.begin, start.end});
      if (IsBetween(stop, asked.span, start) && asked.code != ORVEX_NOT_INITIALISED) {
        return "answered by a stopped engine";
      }
    }
    return refused && !mayBeRefused ? "refused by a running engine" : "";
  }

  std::string WrongInServed(const AskedAnswer& asked) const {
    if (asked.serial == 0) return "";
    const auto served = std::find_if(
        file_.stored.begin(), file_.stored.end(),
        [&asked](const StoredAnswer& stored) { return stored.span.begin == asked.serial; });
    if (served == file_.stored.end()) return "served what nobody calculated";
    if (!served->kept) return "served what was not to be kept";
    if (served->mtime != asked.mtime) return "served out of date";
    for (const StoredAnswer& other : file_.stored) {
      if (other.kept && IsBetween(served->span, other.span, asked.span)) {
        return "served after it was replaced";
      }
    }
    for (const EventSpan& removal : removals_) {
      if (IsBetween(served->span, removal, asked.span)) return "served after it was removed";
    }
    return "";
  }

  std::string WrongInCalling(const AskedAnswer& asked) const {
    if (!keepsAll_ || !asked.hostWasCalled || !asked.anyWillDo) return "";
    for (const StoredAnswer& stored : file_.stored) {
      if (!stored.kept || !IsStoredFor(asked, stored)) continue;
      // A removal during the query, or during the store, explains it as well.
      const EventSpan life{stored.span.begin, asked.span.end};
      const bool mayBeGone =
          std::any_of(removals_.begin(), removals_.end(),
                      [&life](const EventSpan& removal) { return Overlap(life, removal); });
      if (!mayBeGone) return "calculated what is in the cache";
    }
    return "";
  }

  // Whether the answer is in the cache by the time that the query looks there.
  bool IsStoredFor(const AskedAnswer& asked, const StoredAnswer& stored) const {
    if (IsBefore(stored.span, asked.span)) return true;
    return std::any_of(
        file_.calculations.begin(), file_.calculations.end(), [&](const Calculation& calculation) {
          return calculation.query.end == stored.span.end && WaitsFor(calculation, asked.span);
        });
  }

  // A query that begins while the path is marked waits until the mark is gone, which
  // goes after the callback and after its answer is stored.
  bool WaitsFor(const Calculation& calculation, const EventSpan& query) const {
    return query.begin > calculation.callback.begin && !MayBeUnmarked(calculation) &&
           !MayHaveMetStop(calculation);
  }
  bool IsSecondTooMany(const Calculation& first, const Calculation& second) const {
    return Overlap(first.callback, second.callback) && WaitsFor(first, second.query);
  }

  // A thread that finds the path marked calculates without a mark. The other one marked it
  // after this one had looked for a mark and before it tried to set its own.
  bool MayBeUnmarked(const Calculation& calculation) const {
    return std::any_of(file_.calculations.begin(), file_.calculations.end(),
                       [&calculation](const Calculation& other) {
                         return calculation.query.begin < other.callback.begin &&
                                other.query.begin < calculation.callback.begin &&
                                other.callback.begin != calculation.callback.begin;
                       });
  }

  // A stop removes all marks. A thread that lost its own this way removes another's when
  // it leaves, whose owner then removes the next.
  bool MayHaveMetStop(const Calculation& calculation) const {
    EventSpan reach = calculation.query;
    for (bool grown = true; grown;) {
      grown = false;
      for (const Calculation& other : file_.calculations) {
        if (!Overlap(reach, other.query) ||
            (other.query.begin >= reach.begin && other.query.end <= reach.end)) {
          continue;
        }
        reach = {std::min(reach.begin, other.query.begin), std::max(reach.end, other.query.end)};
        grown = true;
      }
    }
    return std::any_of(stops_.begin(), stops_.end(),
                       [&reach](const EngineStop& stop) { return Overlap(reach, stop.stop); });
  }

  const std::vector<EngineStop>& stops_;
  std::vector<EventSpan> removals_;
  const bool keepsAll_;
  const FileHistory& file_;
};

}  // namespace

void CacheHistory::Append(const CacheHistory& other) {
  AppendTo(stored, other.stored);
  AppendTo(asked, other.asked);
  AppendTo(calculations, other.calculations);
  AppendTo(flushes, other.flushes);
  AppendTo(stops, other.stops);
}

std::string WrongInHistory(const CacheHistory& history) {
  std::map<uint16_t, FileHistory> files;
  for (const StoredAnswer& stored : history.stored) files[stored.file].stored.push_back(stored);
  for (const AskedAnswer& asked : history.asked) files[asked.file].asked.push_back(asked);
  for (const Calculation& calculation : history.calculations) {
    files[calculation.file].calculations.push_back(calculation);
  }
  for (const auto& [number, file] : files) {
    const std::string wrong = Judge(history, file).FirstWrong();
    if (!wrong.empty()) return "file " + std::to_string(number) + ": " + wrong;
  }
  return "";
}
