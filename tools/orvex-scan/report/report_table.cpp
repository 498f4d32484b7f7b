#include "report/report_table.h"

#include <fmt/format.h>
#include <libsmartcols/libsmartcols.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <memory>
#include <new>

#include "terminal/printable.h"

namespace orvexscan {
namespace {

// More would push the table off the screen; --json has them all.
constexpr size_t kMostListed = 50;

// An aligned table, printed when it is complete.
class Table {
 public:
  Table() : table_(scols_new_table()) {
    if (!table_) throw std::bad_alloc();
  }

  void AddColumn(const std::string& name, int flags) {
    libscols_column* column = scols_table_new_column(table_.get(), name.c_str(), 0, flags);
    // Cells have already been made printable; their backslashes are intended.
    if (column == nullptr || scols_column_set_safechars(column, "\\") != 0) throw std::bad_alloc();
  }

  void AddLine(const std::vector<std::string>& cells) {
    libscols_line* line = scols_table_new_line(table_.get(), nullptr);
    if (line == nullptr) throw std::bad_alloc();
    for (size_t i = 0; i < cells.size(); ++i) {
      if (scols_line_set_data(line, i, cells[i].c_str()) != 0) throw std::bad_alloc();
    }
  }

  void Print(std::FILE* to) {
    scols_table_set_stream(table_.get(), to);
    scols_print_table(table_.get());
  }

 private:
  struct Unref {
    void operator()(libscols_table* table) const { scols_unref_table(table); }
  };
  std::unique_ptr<libscols_table, Unref> table_;
};

std::string Bytes(uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  auto amount = static_cast<double>(bytes);
  size_t unit = 0;
  for (; amount >= 1024; ++unit) amount /= 1024;
  return fmt::format("{:.1f} {}", amount, kUnits[unit]);
}

std::string Share(uint64_t part, uint64_t whole) {
  if (whole == 0) return "-";
  return fmt::format("{:.1f} %", 100 * static_cast<double>(part) / static_cast<double>(whole));
}

struct Row {
  const char* name;
  std::function<std::string(const PassReport&)> cell;
};

Row Counter(const char* name, int64_t orvex_metrics_s::*counter) {
  return {name,
          [counter](const PassReport& pass) { return fmt::format("{}", pass.engine.*counter); }};
}

Row Time(const char* name, double PassReport::*seconds) {
  return {name,
          [seconds](const PassReport& pass) { return fmt::format("{:.3f} s", pass.*seconds); }};
}

std::vector<Row> Rows(const Inventory& inventory) {
  const size_t files = inventory.FileCount();
  using Metrics = orvex_metrics_s;
  return {
      {"files", [files](const PassReport&) { return fmt::format("{}", files); }},
      {"files asked about", [](const PassReport& pass) { return fmt::format("{}", pass.visits); }},
      {"failed", [](const PassReport& pass) { return fmt::format("{}", pass.failed); }},
      {"not kept, changed too recently",
       [](const PassReport& pass) { return fmt::format("{}", pass.unsettled); }},
      {"answered from the snapshot",
       [](const PassReport& pass) { return fmt::format("{}", pass.fromSnapshot); }},
      {"bytes read", [](const PassReport& pass) { return Bytes(pass.bytesHashed); }},
      Time("wall time", &PassReport::wallSeconds),
      Time("worker time: reading", &PassReport::readingSeconds),
      Time("worker time: digests", &PassReport::digestSeconds),
      Time("worker time: types", &PassReport::typeSeconds),
      Time("worker time: signers", &PassReport::signerSeconds),
      Counter("hash cache: full hits", &Metrics::cacheHit),
      Counter("hash cache: partial hits", &Metrics::cachePartialHit),
      Counter("hash cache: out of date", &Metrics::cacheOutOfDate),
      Counter("hash cache: misses", &Metrics::cacheMiss),
      Counter("hash cache: waits", &Metrics::cacheWaitInHashCalculation),
      Counter("hash cache: callbacks", &Metrics::cacheHelpFuncCalled),
      Counter("hash cache: evictions", &Metrics::cacheWipeOuts),
      Counter("file type cache: hits", &Metrics::fileTypeHit),
      Counter("file type cache: out of date", &Metrics::fileTypeOutOfDate),
      Counter("file type cache: misses", &Metrics::fileTypeMiss),
      Counter("file type cache: callbacks", &Metrics::fileTypeHelpFuncCalled),
      Counter("file type cache: evictions", &Metrics::fileTypeWipeOuts),
      {"hashing saved", [](const PassReport& pass) { return Bytes(pass.bytesSaved); }},
      {"hashing saved, share",
       [](const PassReport& pass) {
         return Share(pass.bytesSaved, pass.bytesSaved + pass.bytesHashed);
       }},
      Time("hashing saved, worker time", &PassReport::savedSeconds),
  };
}

// As many at a time as fit into 80 columns.
void PrintPasses(const std::vector<PassReport>& passes, const Inventory& inventory, std::FILE* to) {
  constexpr size_t kPassesInARow = 4;
  const std::vector<Row> rows = Rows(inventory);
  for (size_t from = 0; from < passes.size(); from += kPassesInARow) {
    const size_t end = std::min(from + kPassesInARow, passes.size());
    if (from != 0) fmt::print(to, "\n");
    Table table;
    table.AddColumn("", 0);
    for (size_t i = from; i < end; ++i) {
      table.AddColumn(passes[i].watching ? "WATCH" : fmt::format("PASS {}", passes[i].number),
                      SCOLS_FL_RIGHT);
    }
    for (const Row& row : rows) {
      std::vector<std::string> cells{row.name};
      for (size_t i = from; i < end; ++i) cells.push_back(row.cell(passes[i]));
      table.AddLine(cells);
    }
    table.Print(to);
  }
}

void PrintList(const char* title, std::initializer_list<const char*> columns,
               const std::vector<std::vector<std::string>>& lines, std::FILE* to) {
  if (lines.empty()) return;
  fmt::print(to, "\n{}: {}\n", title, lines.size());
  Table table;
  for (const char* column : columns) table.AddColumn(column, 0);
  for (size_t i = 0; i < lines.size() && i < kMostListed; ++i) table.AddLine(lines[i]);
  table.Print(to);
  if (lines.size() > kMostListed) {
    fmt::print(to, "and {} more; --json lists all\n", lines.size() - kMostListed);
  }
}

}  // namespace

void PrintReport(const std::vector<PassReport>& passes, const Inventory& inventory,
                 const std::string& advice, const std::vector<Difference>& differences,
                 std::FILE* to) {
  PrintPasses(passes, inventory, to);
  std::vector<std::vector<std::string>> failures;
  std::vector<std::vector<std::string>> malformed;
  std::vector<std::vector<std::string>> mismatched;
  for (const FileRecord& record : inventory.records()) {
    const std::string path = Printable(record.path);
    if (record.failure) {
      const Failure& failure = *record.failure;
      failures.push_back({failure.pass == 0 ? "walk" : fmt::format("pass {}", failure.pass),
                          NameOf(failure.reason), Printable(failure.detail), path});
    }
    if (record.certificates.signature == SignatureMatch::kDoesNotMatch) {
      mismatched.push_back(
          {Printable(fmt::format("{}", fmt::join(record.answer->signers, ", "))), path});
    }
    for (const std::string& fault : record.certificates.faults) {
      malformed.push_back({fault, path});
    }
  }
  // For a single file, show the answer too and not only the statistics.
  std::vector<std::vector<std::string>> digests;
  if (inventory.records().size() == 1 && inventory.records()[0].answer) {
    for (const NamedDigest& digest : DigestsOf(*inventory.records()[0].answer)) {
      digests.push_back({digest.name, digest.digits});
    }
  }
  std::vector<std::vector<std::string>> changes;
  changes.reserve(differences.size());
  for (const Difference& difference : differences) {
    changes.push_back({difference.change, Printable(difference.path), Printable(difference.from)});
  }
  PrintList("Digests of the only file", {"OF", "DIGEST"}, digests, to);
  PrintList("Differences from the baseline", {"CHANGE", "PATH", "FROM"}, changes, to);
  PrintList("Files without an answer", {"IN", "REASON", "DETAIL", "PATH"}, failures, to);
  PrintList("Files with a signature of another file", {"SIGNERS (UNVERIFIED)", "PATH"}, mismatched,
            to);
  PrintList("Faults in certificate tables", {"FAULT", "PATH"}, malformed, to);
  if (!inventory.notes().empty() || !advice.empty()) fmt::print(to, "\n");
  for (const std::string& note : inventory.notes()) fmt::print(to, "{}.\n", note);
  if (!advice.empty()) fmt::print(to, "{}\n", advice);
}

}  // namespace orvexscan
