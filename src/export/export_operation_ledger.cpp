#include "export/export_operation_ledger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "support/files.h"
#include "support/uuid.h"

namespace tarnbloom::exporting {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kStageNames[] = {"planned", "publishing", "published", "committed"};

nlohmann::ordered_json encode(const ExportOperationRecord& r) {
  nlohmann::ordered_json json = {
      {"operationID", r.operationID},
      {"jobID", r.jobID},
      {"itemID", r.itemID},
      {"sourcePath", r.sourcePath},
      {"intendedOutputPath", r.intendedOutputPath},
      {"stagedPath", r.stagedPath},
      {"stage", rawValue(r.stage)},
      {"plannedAt", r.plannedAt},
  };
  if (!r.stagedReceiptPath.empty()) json["stagedReceiptPath"] = r.stagedReceiptPath;
  return json;
}

std::optional<ExportOperationRecord> decode(const nlohmann::json& json) {
  try {
    ExportOperationRecord r;
    r.operationID = json.at("operationID").get<std::string>();
    r.jobID = json.at("jobID").get<std::string>();
    r.itemID = json.at("itemID").get<std::string>();
    r.sourcePath = json.at("sourcePath").get<std::string>();
    r.intendedOutputPath = json.at("intendedOutputPath").get<std::string>();
    r.stagedPath = json.at("stagedPath").get<std::string>();
    r.stagedReceiptPath = json.value("stagedReceiptPath", std::string());
    const auto stage = operationStageFromRawValue(json.at("stage").get<std::string>());
    if (!stage) return std::nullopt;
    r.stage = *stage;
    r.plannedAt = json.at("plannedAt").get<double>();
    return r;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

// A record's text padded with spaces to a multiple of 64 bytes with room to
// spare, so that any later stage fits the same length.
std::string paddedText(const ExportOperationRecord& record) {
  std::string text;
  try {
    text = encode(record).dump(2);
  } catch (const nlohmann::json::exception&) {
    throw FileError(record.intendedOutputPath, "record", EILSEQ);  // a name that is not UTF-8
  }
  const size_t size = (text.size() + 16 + 63) / 64 * 64;
  text.resize(size - 1, ' ');
  return text + "\n";
}

}  // namespace

std::string_view rawValue(OperationStage stage) { return kStageNames[static_cast<int>(stage)]; }

std::optional<OperationStage> operationStageFromRawValue(std::string_view text) {
  for (int i = 0; i < 4; ++i)
    if (kStageNames[i] == text) return static_cast<OperationStage>(i);
  return std::nullopt;
}

ExportReconciliation ExportReconciler::reconcile(OperationStage stage, bool stagedExists,
                                                 bool outputExists) {
  switch (stage) {
    case OperationStage::planned:
      return ExportReconciliation::notPublished;
    case OperationStage::publishing:
      // The staging file disappears only by being moved into place.
      return !stagedExists && outputExists ? ExportReconciliation::published
                                           : ExportReconciliation::notPublished;
    case OperationStage::published:
      return ExportReconciliation::published;
    case OperationStage::committed:
      return ExportReconciliation::alreadyCommitted;
  }
  return ExportReconciliation::notPublished;
}

ExportOperationLedger::ExportOperationLedger(fs::path folder) : m_folder(std::move(folder)) {}

std::string ExportOperationLedger::makeOperationID() {
  std::string uuid = makeUuid();
  for (char& c : uuid) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return "op-" + uuid;
}

fs::path ExportOperationLedger::stagedURL(const fs::path& output, std::string_view operationID) {
  return output.parent_path() / (".tarnbloom-" + std::string(operationID) + ".tmp");
}

fs::path ExportOperationLedger::fileFor(const std::string& operationID) const {
  return m_folder / (operationID + ".json");
}

void ExportOperationLedger::write(const ExportOperationRecord& record) const {
  std::error_code error;
  fs::create_directories(m_folder, error);
  if (error) throw FileError(m_folder, "create", error.value());
  // The staged output and receipt are synced before they are moved into
  // place; the record itself only has to be whole. A new record goes
  // straight into its own name: cut short, it would only say "planned"
  // before anything was staged. An existing one is replaced atomically.
  const std::string text = paddedText(record);
  const fs::path file = fileFor(record.operationID);
  FileDescriptor fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (fd.get() < 0) {
    if (errno != EEXIST) throw FileError(file, "write", errno);
    writeFileAtomically(file, text, Durability::ordered);
    return;
  }
  if (::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    const int error = errno ? errno : EIO;
    ::unlink(file.c_str());
    throw FileError(file, "write", error);
  }
}

void ExportOperationLedger::advance(const std::string& operationID, OperationStage stage) const {
  auto current = record(operationID);
  if (!current) throw FileError(fileFor(operationID), "read", ENOENT);
  current->stage = stage;
  write(*current);
}

void ExportOperationLedger::advance(ExportOperationRecord& record, OperationStage stage) const {
  record.stage = stage;
  std::string text = paddedText(record);
  const fs::path file = fileFor(record.operationID);
  FileDescriptor fd(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
  struct stat info {};
  if (fd.get() >= 0 && ::fstat(fd.get(), &info) == 0 &&
      static_cast<size_t>(info.st_size) >= text.size()) {
    // Same length as what is there: one write replaces all of it.
    text.insert(text.size() - 1, static_cast<size_t>(info.st_size) - text.size(), ' ');
    if (::pwrite(fd.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()))
      return;
  }
  if (fd.get() < 0 && errno == ENOENT) throw FileError(file, "read", ENOENT);
  write(record);
}

std::optional<ExportOperationRecord> ExportOperationLedger::record(
    const std::string& operationID) const {
  try {
    const auto bytes = readWholeFile(fileFor(operationID), 1 << 20);
    const auto json = nlohmann::json::parse(
        reinterpret_cast<const char*>(bytes.data()),
        reinterpret_cast<const char*>(bytes.data() + bytes.size()), nullptr, false);
    if (json.is_discarded()) return std::nullopt;
    return decode(json);
  } catch (const FileError&) {
    return std::nullopt;
  }
}

std::vector<ExportOperationRecord> ExportOperationLedger::all() const {
  std::vector<ExportOperationRecord> records;
  std::error_code error;
  for (fs::directory_iterator it(m_folder, error), end; !error && it != end; it.increment(error)) {
    const auto name = it->path().filename().string();
    if (name.starts_with(".") || it->path().extension() != ".json") continue;
    if (auto r = record(it->path().stem().string());
        r && r->operationID == it->path().stem().string())
      records.push_back(std::move(*r));
  }
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.plannedAt < b.plannedAt; });
  return records;
}

bool ExportOperationLedger::clear(const std::string& operationID) const {
  std::error_code error;
  return fs::remove(fileFor(operationID), error);
}

void ExportOperationLedger::discard(const ExportOperationRecord& record) const {
  removeFileIfPresent(record.stagedPath);
  removeFileIfPresent(record.stagedReceiptPath);
  clear(record.operationID);
}

ExportReconciliation ExportOperationLedger::reconciliation(
    const ExportOperationRecord& record) const {
  return ExportReconciler::reconcile(record.stage, entryExists(record.stagedPath),
                                     entryExists(record.intendedOutputPath));
}

std::vector<fs::path> ExportOperationLedger::removeEmptyRecords() const {
  std::vector<fs::path> removed;
  std::error_code error;
  for (fs::directory_iterator it(m_folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code e;
    if (it->path().extension() == ".json" && it->is_regular_file(e) && it->file_size(e) == 0 && !e)
      removeFileIfPresent(it->path().string(), &removed);
  }
  return removed;
}

fs::path ExportOperationLedger::readFileFor(const std::string& itemID) const {
  return m_folder / (itemID + ".reading");
}

std::optional<InterruptedRead> ExportOperationLedger::interruptedRead(const fs::path& file) const {
  try {
    const auto bytes = readWholeFile(file, 1 << 16);
    const auto json = nlohmann::json::parse(
        reinterpret_cast<const char*>(bytes.data()),
        reinterpret_cast<const char*>(bytes.data() + bytes.size()), nullptr, false);
    InterruptedRead read;
    read.jobID = json.at("jobID").get<std::string>();
    read.itemID = json.at("itemID").get<std::string>();
    read.attempts = json.at("attempts").get<int>();
    return read;
  } catch (const FileError&) {
  } catch (const nlohmann::json::exception&) {
  }
  return std::nullopt;
}

void ExportOperationLedger::beginRead(const std::string& jobID, const std::string& itemID) const {
  std::error_code error;
  fs::create_directories(m_folder, error);
  if (error) throw FileError(m_folder, "create", error.value());
  const fs::path file = readFileFor(itemID);
  const auto earlier = interruptedRead(file);
  const nlohmann::ordered_json json = {
      {"jobID", jobID},
      {"itemID", itemID},
      {"attempts", (earlier ? earlier->attempts : 0) + 1},
  };
  // One small write in place, as for a new record: the process dying
  // around it leaves the count whole or unreadable, and an unreadable one
  // counts as a read that never started.
  const std::string text = json.dump(2) + "\n";
  FileDescriptor fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd) throw FileError(file, "write", errno);
  if (::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    throw FileError(file, "write", errno ? errno : EIO);
}

void ExportOperationLedger::endRead(const std::string& itemID) const {
  removeFileIfPresent(readFileFor(itemID));
}

std::vector<InterruptedRead> ExportOperationLedger::interruptedReads() const {
  std::vector<InterruptedRead> reads;
  std::error_code error;
  for (fs::directory_iterator it(m_folder, error), end; !error && it != end; it.increment(error)) {
    if (it->path().extension() != ".reading") continue;
    // One that cannot be read was cut short while it was written: the
    // read it announced never started.
    if (auto read = interruptedRead(it->path()); read && read->itemID == it->path().stem())
      reads.push_back(std::move(*read));
    else
      removeFileIfPresent(it->path());
  }
  return reads;
}

std::vector<fs::path> ExportOperationLedger::removeOrphanedStages() const {
  std::vector<fs::path> removed;
  for (const auto& r : all()) {
    if (r.stage < OperationStage::published) continue;
    removeFileIfPresent(r.stagedPath, &removed);
    removeFileIfPresent(r.stagedReceiptPath, &removed);
  }
  return removed;
}

}  // namespace tarnbloom::exporting
