// The report for programs: follows its schema, and is true.
#include <doctest/doctest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "harness/scan_run.h"
#include "harness/signed_pe.h"
#include "harness/temporary_directory.h"
#include "inventory/inventory.h"

namespace {

using nlohmann::json;

// As much of JSON Schema as the schema uses. An unknown keyword is an error too: a check
// that is skipped would look like one that passed.
class Schema {
 public:
  explicit Schema(json schema) : root_(std::move(schema)) {}

  std::vector<std::string> FaultsIn(const json& value) const {
    std::vector<std::string> faults;
    Check(root_, value, "", &faults);
    return faults;
  }

 private:
  static bool IsOfType(const json& value, const std::string& type) {
    if (type == "object") return value.is_object();
    if (type == "array") return value.is_array();
    if (type == "string") return value.is_string();
    if (type == "integer") return value.is_number_integer();
    if (type == "number") return value.is_number();
    if (type == "boolean") return value.is_boolean();
    return type == "null" && value.is_null();
  }

  void Check(const json& schema, const json& value, const std::string& at,
             std::vector<std::string>* faults) const {
    const auto require = [&](bool holds, const std::string& what) {
      if (!holds) faults->push_back(at + ": " + what);
    };
    for (const auto& [word, rule] : schema.items()) {
      if (word == "$schema" || word == "title" || word == "definitions") continue;
      if (word == "$ref") {
        Check(root_.at(json::json_pointer(rule.get<std::string>().substr(1))), value, at, faults);
      } else if (word == "type") {
        require(IsOfType(value, rule), "is no " + rule.get<std::string>());
      } else if (word == "enum") {
        require(std::find(rule.begin(), rule.end(), value) != rule.end(), "is not one of them");
      } else if (word == "pattern") {
        require(value.is_string() && std::regex_search(value.get<std::string>(),
                                                       std::regex(rule.get<std::string>())),
                "does not fit");
      } else if (word == "minimum") {
        require(value >= rule, "is too small");
      } else if (word == "maximum") {
        require(value <= rule, "is too large");
      } else if (word == "required") {
        for (const auto& name : rule) {
          require(value.contains(name.get<std::string>()), "lacks " + name.get<std::string>());
        }
      } else if (word == "properties") {
        for (const auto& [name, property] : value.items()) {
          if (rule.contains(name)) Check(rule[name], property, at + "/" + name, faults);
        }
      } else if (word == "additionalProperties") {
        for (const auto& [name, property] : value.items()) {
          if (schema["properties"].contains(name)) continue;
          require(rule != false, "has an unknown " + name);
          if (rule.is_object()) Check(rule, property, at + "/" + name, faults);
        }
      } else if (word == "items") {
        for (size_t i = 0; i < value.size(); ++i) {
          Check(rule, value[i], at + "/" + std::to_string(i), faults);
        }
      } else if (word == "anyOf") {
        const bool any = std::any_of(rule.begin(), rule.end(), [&](const json& one) {
          std::vector<std::string> ignored;
          Check(one, value, at, &ignored);
          return ignored.empty();
        });
        require(any, "is neither");
      } else {
        require(false, "the schema has an unknown word " + word);
      }
    }
  }

  const json root_;
};

Schema ReportSchema() { return Schema(json::parse(std::ifstream(ORVEX_SCAN_SCHEMA))); }

}  // namespace

TEST_CASE("the JSON report follows its schema") {
  const TemporaryDirectory directory;
  directory.Write("plain", "x");
  directory.Write("byte\xff", "x");
  directory.Write("signed.exe", PeFile(TableEntry(Signature("Signer"))));
  directory.Write("bad.exe", PeFile(TableEntry(Signature("Signer")), true, 1 << 20));
  const json report = RunScan(directory.path(), "--json - --snapshot s . missing").Json();
  CHECK(report["files"].size() == 5);
  CHECK(FileIn(report, "./signed.exe")["signature"] == "unchecked");
  const auto faults = ReportSchema().FaultsIn(report);
  for (const std::string& fault : faults) MESSAGE(fault);
  CHECK(faults.empty());
  const json chosen = RunScan(directory.path(), "--digests md5,sm3 --json - plain").Json();
  CHECK(ReportSchema().FaultsIn(chosen).empty());
  // The schema would object to each of these.
  json other = report;
  other["files"][0].erase("visits");
  CHECK(ReportSchema().FaultsIn(other).size() == 1);
  other = report;
  other["passes"][0]["more"] = 1;
  CHECK(ReportSchema().FaultsIn(other).size() == 1);
  other = chosen;
  other["files"][0]["answer"]["more"] = "no digest";
  CHECK(ReportSchema().FaultsIn(other).size() == 1);
}

TEST_CASE("a time before 1970 has negative seconds and nanoseconds to add") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  REQUIRE(OutputOf(directory.path(), "touch -d '1969-12-31 23:59:58.25 UTC' file && echo done") ==
          "done\n");
  const json answer = FileIn(RunScan(directory.path(), "--json - file").Json(), "file")["answer"];
  CHECK(answer["mtime"]["seconds"] == -2);
  CHECK(answer["mtime"]["nanoseconds"] == 250000000);
}

TEST_CASE("the JSON report says whether an answer could be kept") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  const json young = RunScan(directory.path(), "--json - file").Json();
  CHECK(FileIn(young, "file")["answer"]["settled"] == false);
  const json any = RunScan(directory.path(), "--json - --settle 0 file").Json();
  CHECK(FileIn(any, "file")["answer"]["settled"] == true);
}

TEST_CASE("an answer and a failure replace each other") {
  using orvexscan::FailureReason;
  using orvexscan::FileFailure;
  orvexscan::Inventory inventory;
  inventory.AddVisit("file");
  const auto& record = inventory.records()[0];
  inventory.StoreFailure(0, 1, FileFailure(FailureReason::kUnreadable, "open"));
  CHECK(record.failure);
  inventory.StoreAnswer(0, orvexscan::Answer(), orvexscan::CertificateFindings{{"fault"}});
  CHECK(record.answer);
  CHECK_FALSE(record.failure);
  inventory.StoreAnswer(0, orvexscan::Answer(), std::nullopt);
  CHECK(record.certificates.faults.size() == 1);
  inventory.StoreFailure(0, 2, FileFailure(FailureReason::kVanished, "open"));
  CHECK_FALSE(record.answer);
  CHECK(record.certificates.faults.empty());
  REQUIRE(record.failure);
  CHECK(record.failure->pass == 2);
}
