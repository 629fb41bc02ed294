#include "export/receipt_report.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "export/receipt.h"
#include "support/files.h"
#include "support/sha256.h"
#include "support/strict_json.h"

namespace tarnbloom::exporting {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

constexpr std::string_view kSchema = "com.tarnbloom.receipt";
// A receipt is a few kilobytes. Far more is not one of ours, and reading it
// whole would let one planted file exhaust the memory of the report.
constexpr size_t kMaximumReceiptBytes = size_t{1} << 20;
// Our receipts nest four levels; anything deeper is not one.
constexpr int kMaximumReceiptDepth = 16;

bool isDigest(const std::string& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

ReceiptReportRow unreadable(const fs::path& receipt, std::string note) {
  ReceiptReportRow row;
  row.receipt = receipt;
  row.status = ReportStatus::unreadableReceipt;
  row.note = std::move(note);
  return row;
}

std::string stringOr(const Json& object, const char* key, std::string fallback = {}) {
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : fallback;
}

int64_t integerOr(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_number_integer() ? it->get<int64_t>() : 0;
}

const Json& objectAt(const Json& document, const char* key) {
  static const Json kNull;
  const auto it = document.find(key);
  return it != document.end() && it->is_object() ? *it : kNull;
}

std::optional<double> secondsOf(const Json& document) {
  const Json& timings = objectAt(document, "timings");
  if (!timings.is_object()) return std::nullopt;
  double total = 0;
  for (const auto& [stage, seconds] : timings.items())
    if (seconds.is_number()) total += seconds.get<double>();
  return total;
}

// Opens a file for reading without following a link and without waiting on
// a FIFO; its status is checked on the descriptor, not the name.
FileDescriptor openPlain(const fs::path& path, struct stat& info) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (fd.get() >= 0 && ::fstat(fd.get(), &info) != 0) return FileDescriptor();
  return fd;
}

// Hashes the output a row describes, reading it once, and settles its status.
void checkOutput(ReceiptReportRow& row) {
  struct stat info {};
  FileDescriptor fd = openPlain(row.output, info);
  if (fd.get() < 0) {
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR) {
      row.status = ReportStatus::missing;
      row.note = "The output is not there.";
    } else if (error == ELOOP) {
      row.status = ReportStatus::mismatched;
      row.note = "The output is a symbolic link, not the file this receipt describes.";
    } else {
      row.status = ReportStatus::unreadableOutput;
      row.note = FileError(row.output, "read", error).description();
    }
    return;
  }
  if (!S_ISREG(info.st_mode)) {
    row.status = ReportStatus::mismatched;
    row.note = "The output is not a regular file.";
    return;
  }
  row.bytes = static_cast<uint64_t>(info.st_size);
  ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  const auto digest = sha256OfDescriptor(fd.get());
  if (!digest) {
    row.status = ReportStatus::unreadableOutput;
    row.note = FileError(row.output, "read", errno).description();
  } else if (*digest != row.outputSHA256) {
    row.status = ReportStatus::mismatched;
    row.note =
        "The output’s bytes are not the ones this receipt describes (SHA-256 " + *digest + ").";
  }
}

ReceiptReportRow readReceiptFile(const fs::path& receipt,
                                 const std::optional<fs::path>& besideOutput) {
  struct stat info {};
  FileDescriptor fd = openPlain(receipt, info);
  if (fd.get() < 0) {
    if (errno == ELOOP)
      return unreadable(receipt, "A symbolic link, not a receipt; links are not followed.");
    return unreadable(receipt, FileError(receipt, "read", errno).description());
  }
  if (!S_ISREG(info.st_mode)) return unreadable(receipt, "Not a regular file.");
  if (static_cast<uint64_t>(info.st_size) > kMaximumReceiptBytes)
    return unreadable(receipt,
                      "Too large to be a receipt (" + std::to_string(info.st_size) + " bytes).");
  try {
    const auto bytes = readToEnd(fd.get(), receipt, kMaximumReceiptBytes, info.st_size);
    if (!bytes) return unreadable(receipt, "Too large to be a receipt.");
    return readReceiptRow(*bytes, receipt, besideOutput);
  } catch (const FileError& error) {
    return unreadable(receipt, error.description());
  }
}

// One table in output order, as the catalogue lies on disk; a receipt that
// names no output sits where the receipt is.
bool inCatalogueOrder(const ReceiptReportRow& a, const ReceiptReportRow& b) {
  const auto& placeA = a.output.empty() ? a.receipt : a.output;
  const auto& placeB = b.output.empty() ? b.receipt : b.output;
  return std::tie(placeA, a.receipt) < std::tie(placeB, b.receipt);
}

bool isHidden(const fs::path& path) { return path.filename().string().starts_with("."); }

bool isReceiptName(const fs::path& path) {
  return path.extension() == "." + std::string(kReceiptExtension);
}

fs::path standard(const fs::path& path) { return fs::absolute(path).lexically_normal(); }

// Lists a folder tree without following links. Calls `file` for every entry
// that is not a folder (links included, so they can be reported) and skips
// hidden entries and the folders `skip` names. Throws FileError for a folder
// it cannot list: a report that left one out would claim more than it knows.
template <typename OnFile>
void walk(const fs::path& root, const std::set<fs::path>& skip, OnFile file) {
  std::vector<fs::path> pending{root};
  while (!pending.empty()) {
    const fs::path folder = std::move(pending.back());
    pending.pop_back();
    std::error_code error;
    fs::directory_iterator it(folder, error);
    if (error) throw FileError(folder, "read", error.value());
    for (; it != fs::directory_iterator(); it.increment(error)) {
      const fs::directory_entry& entry = *it;
      if (isHidden(entry.path())) continue;
      std::error_code statusError;
      const auto status = entry.symlink_status(statusError);
      if (fs::is_directory(status)) {
        if (!skip.contains(entry.path())) pending.push_back(entry.path());
      } else {
        file(entry.path());
      }
    }
    if (error) throw FileError(folder, "read", error.value());
  }
}

}  // namespace

std::string_view rawValue(ReportStatus status) {
  switch (status) {
    case ReportStatus::ok:
      return "ok";
    case ReportStatus::missing:
      return "missing";
    case ReportStatus::mismatched:
      return "mismatched";
    case ReportStatus::duplicate:
      return "duplicate";
    case ReportStatus::unreadableReceipt:
      return "unreadable-receipt";
    case ReportStatus::unreadableOutput:
      return "unreadable-output";
    case ReportStatus::unreceipted:
      return "unreceipted";
  }
  return "";
}

ReceiptReportRow readReceiptRow(std::span<const std::byte> text, const fs::path& receipt,
                                const std::optional<fs::path>& besideOutput) {
  Json document;
  try {
    document = parseStrictJson(text, kMaximumReceiptDepth);
  } catch (const StrictJsonError& error) {
    return unreadable(receipt, "Not a receipt: " + error.description());
  }
  if (!document.is_object() || stringOr(document, "schema") != kSchema)
    return unreadable(receipt, "Not a receipt: it does not name the receipt schema.");
  const Json& source = objectAt(document, "source");
  const Json& output = objectAt(document, "output");
  if (!source.is_object() || !output.is_object())
    return unreadable(receipt, "Not a receipt: it has no source or no output.");

  ReceiptReportRow row;
  row.receipt = receipt;
  row.created = stringOr(document, "created");
  row.source = stringOr(source, "path");
  row.sourceSHA256 = stringOr(source, "hash");
  row.outputSHA256 = stringOr(output, "sha256");
  if (!isDigest(row.outputSHA256))
    return unreadable(receipt, "Not a receipt: it records no SHA-256 of its output.");
  const std::string recordedOutput = stringOr(output, "path");
  // Beside its output, a receipt's place names the output wherever the tree
  // is mounted now; the recorded path is where it was written.
  const bool beside =
      besideOutput && besideOutput->filename().string() == stringOr(output, "filename");
  row.output = beside ? *besideOutput : fs::path(recordedOutput);
  if (row.output.empty()) return unreadable(receipt, "Not a receipt: it names no output.");
  row.width = integerOr(output, "width");
  row.height = integerOr(output, "height");
  row.format = stringOr(output, "format");
  row.method = stringOr(objectAt(document, "method"), "name");
  row.seconds = secondsOf(document);
  const Json& claims = objectAt(document, "claims");
  if (claims.is_object()) {
    row.detailEffect = stringOr(claims, "detail_effect");
    if (const auto codes = claims.find("codes"); codes != claims.end() && codes->is_array())
      for (const auto& code : *codes)
        if (code.is_string()) row.claims.push_back(code.get<std::string>());
  }
  const auto field = [&](const char* key) {
    const auto it = document.find(key);
    return it == document.end() ? Json(nullptr) : *it;
  };
  // nlohmann::json keeps object keys sorted, so equal settings dump alike.
  row.settingsKey = Json::array({row.method, field("dimensions_mode"), row.format, field("canvas"),
                                 field("crop")})
                        .dump();
  return row;
}

void markDuplicates(std::vector<ReceiptReportRow>& rows) {
  using Key = std::pair<std::string, std::string>;
  std::map<Key, std::vector<size_t>> groups;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].status != ReportStatus::ok) continue;
    groups[{"output", standard(rows[i].output).string()}].push_back(i);
    groups[{rows[i].source, rows[i].settingsKey}].push_back(i);
  }
  for (const auto& [key, members] : groups) {
    if (members.size() < 2) continue;
    // The earliest made stands; of two made at once, the one beside its
    // output (published with it) before one kept in a receipts folder.
    const auto apart = [&](size_t i) {
      return rows[i].receipt.filename().string() !=
             rows[i].output.filename().string() + "." + std::string(kReceiptExtension);
    };
    const size_t first = *std::min_element(members.begin(), members.end(), [&](size_t a, size_t b) {
      return std::make_tuple(rows[a].created, apart(a), a) <
             std::make_tuple(rows[b].created, apart(b), b);
    });
    const bool sameOutput = key.first == "output";
    for (size_t i : members) {
      if (i == first || rows[i].status == ReportStatus::duplicate) continue;
      rows[i].status = ReportStatus::duplicate;
      rows[i].note =
          sameOutput ? "Another receipt describes the same output: " + rows[first].receipt.string()
                     : "The same source was already exported with these settings: " +
                           rows[first].output.string();
    }
  }
}

size_t ReceiptReport::count(ReportStatus status) const {
  return static_cast<size_t>(std::count_if(
      rows.begin(), rows.end(), [&](const ReceiptReportRow& row) { return row.status == status; }));
}

bool ReceiptReport::clean() const { return count(ReportStatus::ok) == rows.size(); }

ReceiptReport ReceiptReportReader::read(const fs::path& tree,
                                        const std::vector<fs::path>& receiptFolders) {
  const fs::path root = standard(tree);
  std::set<fs::path> folders;
  for (const auto& folder : receiptFolders) folders.insert(standard(folder));

  // Receipts with the output each stands beside (none for a receipts folder).
  std::vector<std::pair<fs::path, std::optional<fs::path>>> receipts;
  std::vector<fs::path> outputs;
  walk(root, folders, [&](const fs::path& file) {
    if (isReceiptName(file))
      receipts.emplace_back(file, file.parent_path() / file.stem());
    else
      outputs.push_back(file);
  });
  for (const auto& folder : folders)
    walk(folder, {}, [&](const fs::path& file) {
      if (isReceiptName(file)) receipts.emplace_back(file, std::nullopt);
    });
  std::sort(receipts.begin(), receipts.end());
  receipts.erase(std::unique(receipts.begin(), receipts.end()), receipts.end());

  ReceiptReport report;
  report.receipts = receipts.size();
  report.rows.reserve(receipts.size());
  std::set<fs::path> described;
  for (const auto& [receipt, beside] : receipts) {
    ReceiptReportRow row = readReceiptFile(receipt, beside);
    if (row.status == ReportStatus::ok) {
      row.output = standard(row.output);
      described.insert(row.output);
      checkOutput(row);
    }
    report.rows.push_back(std::move(row));
  }
  std::stable_sort(report.rows.begin(), report.rows.end(), inCatalogueOrder);
  markDuplicates(report.rows);

  for (const auto& output : outputs) {
    if (described.contains(output)) continue;
    ReceiptReportRow row;
    row.output = output;
    row.status = ReportStatus::unreceipted;
    row.note = "No receipt describes this file.";
    struct stat info {};
    if (::lstat(output.c_str(), &info) == 0 && S_ISREG(info.st_mode))
      row.bytes = static_cast<uint64_t>(info.st_size);
    report.rows.push_back(std::move(row));
  }
  std::stable_sort(report.rows.begin(), report.rows.end(), inCatalogueOrder);
  return report;
}

}  // namespace tarnbloom::exporting
