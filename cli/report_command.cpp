#include "cli/report_command.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "export/receipt_report.h"
#include "support/error.h"

namespace tarnbloom::cli {
namespace {

namespace fs = std::filesystem;
using exporting::ReceiptReport;
using exporting::ReceiptReportRow;
using exporting::ReportStatus;

const std::string kUsage =
    "Usage: tarnbloom report DIR [--json|--csv] [--receipts FOLDER]...\n"
    "Lists every receipt under DIR (receipts kept beside the exports, and those in each\n"
    "receipts FOLDER): source, source SHA-256, output, output SHA-256, size, method, format,\n"
    "time taken and claims. Each output is read and checked against its receipt's SHA-256.\n"
    "Reported: missing outputs, outputs whose bytes changed, duplicates (two receipts for\n"
    "one output, or one source exported twice with the same settings), receipts that\n"
    "cannot be read, and files in DIR that no receipt describes. Hidden files and folders\n"
    "are not part of the catalogue.\n"
    "  --json               one JSON object\n"
    "  --csv                comma-separated values with a header line\n"
    "  --receipts FOLDER    also read the receipts in FOLDER (repeatable)\n"
    "Exit status: 0 every output matches its receipt, 2 problems were found, 1 the report\n"
    "could not be made.\n";

struct Options {
  fs::path tree;
  std::vector<fs::path> receiptFolders;
  bool json = false, csv = false;
};

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& a = arguments[i];
    if (a == "--json") {
      options.json = true;
    } else if (a == "--csv") {
      options.csv = true;
    } else if (a == "--receipts") {
      if (i + 1 >= arguments.size()) throw UsageError("--receipts needs a folder.");
      options.receiptFolders.emplace_back(arguments[++i]);
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("Unknown option “" + a + "”.");
    } else if (options.tree.empty()) {
      options.tree = a;
    } else {
      throw UsageError("Report on one folder at a time.");
    }
  }
  if (options.tree.empty()) throw UsageError("Name the folder to report on.");
  if (options.json && options.csv) throw UsageError("Choose --json or --csv, not both.");
  return options;
}

// A field of a CSV record, quoted when it holds a separator, a quote or a
// line break (file names may hold all three).
std::string csvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string joined(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (const auto& part : parts) text += (text.empty() ? "" : separator) + part;
  return text;
}

std::string secondsText(const std::optional<double>& seconds) {
  if (!seconds) return "";
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.3f", *seconds);
  return buffer;
}

nlohmann::ordered_json rowJson(const ReceiptReportRow& row) {
  using Json = nlohmann::ordered_json;
  Json object;
  object["receipt"] = row.receipt.empty() ? Json(nullptr) : Json(row.receipt.string());
  object["source"] = row.source;
  object["source_sha256"] = row.sourceSHA256;
  object["output"] = row.output.string();
  object["output_sha256"] = row.outputSHA256;
  object["bytes"] = row.bytes ? Json(*row.bytes) : Json(nullptr);
  object["width"] = row.width;
  object["height"] = row.height;
  object["method"] = row.method;
  object["format"] = row.format;
  object["seconds"] = row.seconds ? Json(*row.seconds) : Json(nullptr);
  object["claims"] = row.claims;
  object["detail_effect"] = row.detailEffect;
  object["status"] = std::string(exporting::rawValue(row.status));
  object["note"] = row.note;
  return object;
}

// Counts in the order a reader acts on them.
constexpr ReportStatus kProblems[] = {
    ReportStatus::missing,           ReportStatus::mismatched,       ReportStatus::duplicate,
    ReportStatus::unreadableReceipt, ReportStatus::unreadableOutput, ReportStatus::unreceipted};

void printJson(const Options& options, const ReceiptReport& report) {
  nlohmann::ordered_json document;
  document["folder"] = fs::absolute(options.tree).string();
  document["receipts"] = report.receipts;
  document["verified"] = report.count(ReportStatus::ok);
  auto& problems = document["problems"] = nlohmann::ordered_json::object();
  for (ReportStatus status : kProblems)
    problems[std::string(exporting::rawValue(status))] = report.count(status);
  auto& rows = document["rows"] = nlohmann::ordered_json::array();
  for (const auto& row : report.rows) rows.push_back(rowJson(row));
  // Paths on Linux need not be UTF-8; a stray byte becomes U+FFFD.
  std::cout << document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
            << '\n';
}

void printCsv(const ReceiptReport& report) {
  std::cout << "receipt,source,source_sha256,output,output_sha256,bytes,width,height,method,"
               "format,seconds,claims,detail_effect,status,note\n";
  for (const auto& row : report.rows) {
    const std::vector<std::string> fields = {row.receipt.string(),
                                             row.source,
                                             row.sourceSHA256,
                                             row.output.string(),
                                             row.outputSHA256,
                                             row.bytes ? std::to_string(*row.bytes) : "",
                                             row.receipt.empty() ? "" : std::to_string(row.width),
                                             row.receipt.empty() ? "" : std::to_string(row.height),
                                             row.method,
                                             row.format,
                                             secondsText(row.seconds),
                                             joined(row.claims, ";"),
                                             row.detailEffect,
                                             std::string(exporting::rawValue(row.status)),
                                             row.note};
    std::string line;
    for (const auto& field : fields) line += (line.empty() ? "" : ",") + csvField(field);
    std::cout << line << '\n';
  }
}

void printText(const Options& options, const ReceiptReport& report) {
  const fs::path root = fs::absolute(options.tree).lexically_normal();
  const auto shown = [&](const fs::path& path) {
    const fs::path relative = path.lexically_relative(root);
    return (relative.empty() || *relative.begin() == "..") ? path.string() : relative.string();
  };
  for (const auto& row : report.rows) {
    std::cout << exporting::rawValue(row.status) << '\t' << shown(row.output);
    if (!row.receipt.empty()) {
      std::cout << "\tfrom " << row.source << '\t' << row.width << " × " << row.height << '\t'
                << row.method << '\t' << row.format;
      if (row.bytes) std::cout << '\t' << *row.bytes << " bytes";
      if (row.seconds) std::cout << '\t' << secondsText(row.seconds) << " s";
      if (!row.claims.empty()) std::cout << '\t' << joined(row.claims, ", ");
    }
    std::cout << '\n';
    if (row.status != ReportStatus::ok) std::cout << "\t" << row.note << '\n';
  }
  std::ostringstream summary;
  summary << report.receipts << (report.receipts == 1 ? " receipt" : " receipts") << ", "
          << report.count(ReportStatus::ok) << " verified";
  for (ReportStatus status : kProblems)
    if (const size_t n = report.count(status))
      summary << ", " << n << ' ' << exporting::rawValue(status);
  std::cout << summary.str() << ".\n";
  if (report.receipts == 0) std::cout << "No receipts found under “" << shown(root) << "”.\n";
}

}  // namespace

int runReport(const std::vector<std::string>& arguments) {
  Options options;
  if (const auto done = parseCommandLine("report", arguments, kUsage, parseOptions, options))
    return *done;
  for (const fs::path& folder : [&] {
         std::vector<fs::path> all{options.tree};
         all.insert(all.end(), options.receiptFolders.begin(), options.receiptFolders.end());
         return all;
       }()) {
    std::error_code error;
    if (!fs::is_directory(folder, error)) {
      std::cerr << "tarnbloom report: “" << folder.string() << "” is not a folder.\n";
      return kExitUsage;
    }
  }
  ReceiptReport report;
  try {
    report = exporting::ReceiptReportReader::read(options.tree, options.receiptFolders);
  } catch (const Error& error) {
    std::cerr << "tarnbloom report: " << error.description() << '\n';
    return kExitUsage;
  }
  if (options.json)
    printJson(options, report);
  else if (options.csv)
    printCsv(report);
  else
    printText(options, report);
  // No receipts at all is no evidence that a catalogue was made.
  return report.clean() && report.receipts > 0 ? kExitSuccess : kExitPartial;
}

}  // namespace tarnbloom::cli
