#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarnbloom::exporting {

// What the check of one receipt, or of one output without a receipt, found.
enum class ReportStatus {
  ok,                 // the output is there and its bytes hash to the receipt's digest
  missing,            // the receipt names an output that is not there
  mismatched,         // the output's bytes are not the ones the receipt describes
  duplicate,          // another receipt already stands for this output or this export
  unreadableReceipt,  // not a receipt we can read (not JSON, too large, a link, ...)
  unreadableOutput,   // the output is there but could not be read (permissions, ...)
  unreceipted,        // a file in the tree that no receipt describes
};

// "ok", "missing", "mismatched", "duplicate", "unreadable-receipt",
// "unreadable-output", "unreceipted".
std::string_view rawValue(ReportStatus status);

// One line of a catalogue report.
struct ReceiptReportRow {
  std::filesystem::path receipt;  // empty for an output without a receipt
  std::string source, sourceSHA256;
  std::filesystem::path output;
  std::string outputSHA256;       // as the receipt records it
  std::optional<uint64_t> bytes;  // of the output as found on disk
  int64_t width = 0, height = 0;  // output pixels, as recorded
  std::string method, format;
  std::optional<double> seconds;  // the receipt's compute stages, summed
  std::vector<std::string> claims;
  std::string detailEffect;
  std::string created;  // when the receipt was made; the earliest of duplicates stands
  // Method, size mode, format, canvas and crop: two receipts with the same
  // source and these settings describe the same export made twice.
  std::string settingsKey;
  ReportStatus status = ReportStatus::ok;
  std::string note;  // what went wrong, for every status but ok
};

// Reads the text of one receipt. The output it describes is `besideOutput`
// for a receipt kept beside its output (the tree may have been moved or be
// mounted elsewhere than where the receipt was written), else the path the
// receipt records. A text that is not a receipt gives a row with status
// unreadableReceipt and the reason in `note`; never throws for content.
ReceiptReportRow readReceiptRow(std::span<const std::byte> text,
                                const std::filesystem::path& receipt,
                                const std::optional<std::filesystem::path>& besideOutput);

// Marks rows that repeat another (the earliest made stands, then the first
// in order): a second
// receipt for one output file, or a second output made from one source
// (by its recorded path) with the same settings, as a batch or shard run
// twice would leave. Only rows still `ok` take part: a missing or broken
// output is reported as that and is no evidence of a second export.
void markDuplicates(std::vector<ReceiptReportRow>& rows);

struct ReceiptReport {
  std::vector<ReceiptReportRow> rows;  // in output path order
  size_t receipts = 0;                 // receipt files found, readable or not
  size_t count(ReportStatus status) const;
  bool clean() const;  // every row ok
};

// Reads a destination tree for a catalogue report: every
// "*.tarnbloomreceipt" under `tree` and under each of `receiptFolders`,
// each output hashed once (streamed) against its receipt, and every other
// file under `tree` that no receipt names. Hidden files and folders
// (staging files, state folders kept beside the outputs) are not part of
// the catalogue; links are never followed. Throws FileError when `tree`
// or a receipts folder cannot be listed at all.
class ReceiptReportReader {
 public:
  static ReceiptReport read(const std::filesystem::path& tree,
                            const std::vector<std::filesystem::path>& receiptFolders);
};

}  // namespace tarnbloom::exporting
