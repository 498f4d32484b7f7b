#include "report/report_json.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "terminal/printable.h"

namespace orvexscan {
namespace {

using OrderedJson = nlohmann::ordered_json;

OrderedJson OptionsJson(const Options& options) {
  return {{"processes", options.processes},
          {"follow", options.followLinks},
          {"oneFileSystem", options.oneFileSystem},
          {"pseudo", options.pseudo},
          {"identity", NameOf(options.identity)},
          {"settleSeconds", options.settleSeconds},
          {"digests", NamesOf(options.parts.digests)},
          {"noType", !options.parts.type},
          {"noSigners", !options.parts.signers},
          {"timeLimitSeconds", options.timeLimitSeconds},
          {"threads", options.threads},
          {"passes", options.passes},
          {"capacity", options.capacity},
          {"snapshot", options.snapshot},
          {"baseline", options.baseline},
          {"paths", options.paths}};
}

OrderedJson PassJson(const PassReport& pass) {
  const orvex_metrics_s& engine = pass.engine;
  return {{"pass", pass.number},
          {"watching", pass.watching},
          {"visits", pass.visits},
          {"failed", pass.failed},
          {"unsettled", pass.unsettled},
          {"fromSnapshot", pass.fromSnapshot},
          {"bytesHashed", pass.bytesHashed},
          {"bytesSaved", pass.bytesSaved},
          {"wallSeconds", pass.wallSeconds},
          {"hashSeconds", pass.hashSeconds},
          {"partSeconds",
           {{"reading", pass.readingSeconds},
            {"digests", pass.digestSeconds},
            {"types", pass.typeSeconds},
            {"signers", pass.signerSeconds}}},
          {"savedSeconds", pass.savedSeconds},
          {"hashCache",
           {{"lookups", engine.cacheQuery},
            {"hits", engine.cacheHit},
            {"partialHits", engine.cachePartialHit},
            {"outOfDate", engine.cacheOutOfDate},
            {"misses", engine.cacheMiss},
            {"waits", engine.cacheWaitInHashCalculation},
            {"callbacks", engine.cacheHelpFuncCalled},
            {"evictions", engine.cacheWipeOuts}}},
          {"fileTypeCache",
           {{"hits", engine.fileTypeHit},
            {"outOfDate", engine.fileTypeOutOfDate},
            {"misses", engine.fileTypeMiss},
            {"callbacks", engine.fileTypeHelpFuncCalled},
            {"evictions", engine.fileTypeWipeOuts}}}};
}

// Two numbers that each fit into a double. Nanoseconds count forward, before 1970 too.
OrderedJson TimeJson(uint64_t nanosecondsSince1970) {
  constexpr int64_t kNsPerSecond = 1000000000;
  const auto time = static_cast<int64_t>(nanosecondsSince1970);
  const int64_t nanoseconds = (time % kNsPerSecond + kNsPerSecond) % kNsPerSecond;
  return {{"seconds", (time - nanoseconds) / kNsPerSecond}, {"nanoseconds", nanoseconds}};
}

OrderedJson TypeJson(const FileType& type) {
  return {{"major", type.major}, {"minor", type.minor}, {"name", NameOfMajor(type.major)}};
}

OrderedJson AnswerJson(const Answer& answer) {
  OrderedJson json = {{"settled", answer.settled},
                      {"size", answer.identity.size},
                      {"mtime", TimeJson(answer.identity.mtimeNs)},
                      {"ctime", TimeJson(answer.identity.ctimeNs)},
                      {"device", answer.identity.device},
                      {"inode", answer.identity.inode},
                      {"permissions", fmt::format("{:04o}", answer.identity.permissions)},
                      {"owner", answer.identity.owner},
                      {"group", answer.identity.group},
                      {"links", answer.identity.links}};
  for (const NamedDigest& digest : DigestsOf(answer)) json[digest.name] = digest.digits;
  json["unverifiedSigners"] = answer.parts.signers ? OrderedJson(answer.signers) : OrderedJson();
  json["type"] = answer.parts.type ? TypeJson(answer.type) : OrderedJson();
  return json;
}

OrderedJson FileJson(const FileRecord& record) {
  OrderedJson file = {{"path", record.path}};
  if (!IsUtf8(record.path)) {
    file["pathHex"] =
        Hex(reinterpret_cast<const unsigned char*>(record.path.data()), record.path.size());
  }
  file["visits"] = record.visits;
  file["answer"] = record.answer ? AnswerJson(*record.answer) : OrderedJson();
  if (record.failure) {
    file["failure"] = {{"pass", record.failure->pass},
                       {"reason", NameOf(record.failure->reason)},
                       {"detail", record.failure->detail}};
  }
  const CertificateFindings& certificates = record.certificates;
  if (certificates.signature != SignatureMatch::kNoSignature) {
    file["signature"] = NameOf(certificates.signature);
  }
  if (!certificates.faults.empty()) file["certificateFaults"] = certificates.faults;
  return file;
}

}  // namespace

std::string JsonReport(const Options& options, const std::vector<PassReport>& passes,
                       const Inventory& inventory, const std::string& advice,
                       const std::vector<Difference>& differences) {
  OrderedJson report;
  report["tool"] = {{"name", "orvex-scan"}, {"version", ORVEX_SCAN_VERSION}};
  report["engine"] = passes.empty() ? ORVEX_VERSION : passes.front().engine.version;
  report["options"] = OptionsJson(options);
  report["notes"] = inventory.notes();
  report["advice"] = advice;
  if (!options.baseline.empty()) {
    report["differences"] = OrderedJson::array();
    for (const Difference& difference : differences) {
      report["differences"].push_back({{"change", difference.change}, {"path", difference.path}});
      if (!difference.from.empty()) report["differences"].back()["from"] = difference.from;
    }
  }
  report["passes"] = OrderedJson::array();
  for (const PassReport& pass : passes) report["passes"].push_back(PassJson(pass));
  report["files"] = OrderedJson::array();
  for (const FileRecord& record : inventory.records()) {
    if (!record.IsForgotten()) report["files"].push_back(FileJson(record));
  }
  return report.dump(2, ' ', false, OrderedJson::error_handler_t::replace) + "\n";
}

std::string FileJsonLine(const FileRecord& record) {
  return FileJson(record).dump(-1, ' ', false, OrderedJson::error_handler_t::replace) + "\n";
}

}  // namespace orvexscan
