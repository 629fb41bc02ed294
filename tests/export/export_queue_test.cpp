// The persisted queue and its options: what survives a restart, what a
// damaged or newer file does, and how launch-time recovery settles the
// ledger's records.

#include <gtest/gtest.h>

#include "export/export_operation_ledger.h"
#include "export/export_options.h"
#include "export/export_queue_store.h"
#include "export/file_bookmark.h"
#include "support/files.h"
#include "test_support.h"

namespace tarnbloom::exporting {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeText;

std::string readText(const fs::path& path) {
  const auto bytes = testing::readBytes(path);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

ExportOptions decoded(nlohmann::json json) {
  return ExportOptionsSnapshot::fromJson(json).options();
}

TEST(ExportOptionsSnapshot, RestoresWhatWasStoredAndClampsOnlyTheStrength) {
  ExportOptions options;
  options.sizeMode = SizeMode::boundingBox;
  options.boxWidth = 1200;
  options.boxHeight = 800;
  options.format = encoding::ExportFormat::webp;
  options.colourPolicy.profile = encoding::ProfilePolicy::srgb;
  options.colourPolicy.gps = encoding::MetadataToggle::keep;
  options.colourPolicy.flatten = "#112233";
  options.jpeg.maxBytes = 500000;
  options.jpeg.subsampling = encoding::JPEGSubsampling::s444;
  options.webp.lossless = true;
  options.method = ResampleMethod::clarity;
  options.estimateStrength = 0.3;
  const nlohmann::json stored = ExportOptionsSnapshot(options).json();
  const ExportOptions restored = decoded(stored);
  EXPECT_EQ(ExportOptionsSnapshot(restored).json(), ExportOptionsSnapshot(options).json());

  auto with = [&](const char* key, nlohmann::json value) {
    nlohmann::json copy = stored;
    if (value.is_null())
      copy.erase(key);
    else
      copy[key] = value;
    return copy;
  };
  EXPECT_DOUBLE_EQ(decoded(with("estimateStrength", 0.05)).estimateStrength, 0.1);
  EXPECT_DOUBLE_EQ(decoded(with("estimateStrength", 7)).estimateStrength, 1.0);
  EXPECT_DOUBLE_EQ(decoded(with("estimateStrength", nullptr)).estimateStrength, 1.0);
  EXPECT_FALSE(decoded(with("jpegSubsampling", "4:1:1")).jpeg.subsampling);
  EXPECT_FALSE(decoded(with("formatFollowsSource", nullptr)).formatFollowsSource);
  EXPECT_EQ(decoded(with("formatFollowsSource", nullptr)).format, encoding::ExportFormat::webp);

  for (const auto& [key, value] :
       std::vector<std::pair<const char*, nlohmann::json>>{{"format", "gif"},
                                                           {"sizeMode", "x3"},
                                                           {"method", "magic"},
                                                           {"profile", "p3"},
                                                           {"gps", "blur"}}) {
    try {
      decoded(with(key, value));
      ADD_FAILURE() << key;
    } catch (const ExportQueueError& error) {
      EXPECT_EQ(error.description(),
                "This queued export has settings that this version cannot read.");
    }
  }
  // Missing or mistyped values are a damaged file, not unknown settings.
  EXPECT_THROW(ExportOptionsSnapshot::fromJson(with("jpegQuality", nullptr)), ExportQueueError);
  EXPECT_THROW(ExportOptionsSnapshot::fromJson(with("sizeValue", "big")), ExportQueueError);
}

struct QueueFixture : ::testing::Test {
  TempDir dir;
  fs::path state = dir / "state";
  fs::path source = dir / "photo.png";
  void SetUp() override {
    fs::create_directories(state);
    writeText(source, "not really pixels");
  }
  std::vector<PlannedItem> items(int files = 1) {
    std::vector<PlannedItem> planned(files);
    for (auto& item : planned) item.url = source, item.destination = dir.path();
    return planned;
  }
};

TEST_F(QueueFixture, KeepsFilesItCannotReadAndStillQueuesNewWork) {
  const fs::path file = state / "export-queue.json";
  writeText(file, R"({"schemaVersion": 2, "jobs": "something new"})");
  {
    ExportQueueStore store(state);
    ASSERT_TRUE(store.loadFailure());
    EXPECT_EQ(store.loadFailure()->description(),
              "This export queue was written by a newer Tarnbloom (format 2).");
    store.enqueue({}, items());
    EXPECT_EQ(store.jobs().size(), 1u);
  }
  EXPECT_EQ(readText(file), R"({"schemaVersion": 2, "jobs": "something new"})");

  writeText(file, "{\"schemaVersion\": 1, \"jobs\": [tru");
  ExportQueueStore store(state);
  ASSERT_TRUE(store.loadFailure());
  EXPECT_EQ(store.loadFailure()->description(), "The saved export queue is damaged.");
  ASSERT_TRUE(store.quarantinedAt());
  const std::string aside = store.quarantinedAt()->filename().string();
  EXPECT_TRUE(aside.starts_with("export-queue.corrupt-") && aside.ends_with(".json")) << aside;
  EXPECT_EQ(readText(*store.quarantinedAt()), "{\"schemaVersion\": 1, \"jobs\": [tru");
  EXPECT_TRUE(store.jobs().empty());
  JobDescription confirmed;
  confirmed.confirmed16BitReduction = true;  // a resumed job must not ask again
  store.enqueue(confirmed, items(2));
  const ExportQueueStore reread(state);
  EXPECT_EQ(reread.jobs().at(0).items.size(), 2u);
  EXPECT_TRUE(reread.jobs().at(0).confirmed16BitReduction);
}

TEST_F(QueueFixture, AJobWithUnknownSettingsIsListedButCannotRun) {
  {
    ExportQueueStore store(state);
    store.enqueue({}, items());
  }
  auto document = nlohmann::json::parse(readText(state / "export-queue.json"));
  document["jobs"][0]["options"]["format"] = "gif";
  writeText(state / "export-queue.json", document.dump());
  ExportQueueStore store(state);
  EXPECT_FALSE(store.loadFailure());
  ASSERT_EQ(store.jobs().size(), 1u);
  EXPECT_THROW(store.jobs()[0].options.options(), ExportQueueError);
}

TEST_F(QueueFixture, FindsAMovedSourceOrNamesTheOneItLost) {
  ExportQueueStore store(state);
  const auto& item = store.enqueue({}, items()).items.at(0);
  const std::string bookmark = item.inputBookmark;
  fs::rename(source, dir / "renamed.png");
  EXPECT_EQ(store.resolvedURL(bookmark, item.sourceName), dir / "renamed.png");
  fs::remove(dir / "renamed.png");
  try {
    store.resolvedURL(bookmark, item.sourceName);
    ADD_FAILURE();
  } catch (const ExportQueueError& error) {
    EXPECT_EQ(error.description(),
              "Tarnbloom no longer has permission to read or save photo.png. Choose it again, then "
              "retry.");
  }
}

TEST_F(QueueFixture, RecoverySettlesEachInterruptedExport) {
  ExportQueueStore store(state);
  ExportOperationLedger ledger(state / "Operations");
  const auto job = store.enqueue({}, items(4));
  // Item 0 crashed while encoding, 1 after the move into place, 2 after
  // "published", 3 with only the record's clearing lost.
  const OperationStage stages[] = {OperationStage::planned, OperationStage::publishing,
                                   OperationStage::published, OperationStage::committed};
  std::vector<ExportOperationRecord> records;
  for (int i = 0; i < 4; ++i) {
    ExportOperationRecord r;
    r.operationID = ExportOperationLedger::makeOperationID();
    r.jobID = job.id;
    r.itemID = job.items[i].id;
    r.intendedOutputPath = (dir / ("out" + std::to_string(i) + ".png")).string();
    r.stagedPath = ExportOperationLedger::stagedURL(r.intendedOutputPath, r.operationID).string();
    r.stage = stages[i];
    ledger.write(r);
    store.recordIntendedOutput(job.id, r.itemID, r.intendedOutputPath, 8, 8, r.operationID);
    store.mark(job.id, r.itemID,
               i == 3 ? ExportQueueItemState::completed : ExportQueueItemState::running,
               i == 3 ? std::optional(r.intendedOutputPath) : std::nullopt);
    records.push_back(r);
  }
  writeText(records[0].stagedPath, "half an im");
  writeText(records[1].intendedOutputPath, "moved into place");
  writeText(records[2].intendedOutputPath, "moved into place");
  // Killed between creating a record and writing it.
  writeText(state / "Operations" / "op-cut-short.json", "");

  const RecoveryReport report = store.recoverInterruptedWork(ledger);
  EXPECT_EQ(report.completed, 2);
  EXPECT_EQ(report.toRunAgain, 1);
  EXPECT_FALSE(fs::exists(records[0].stagedPath));
  EXPECT_TRUE(fs::is_empty(state / "Operations"));
  const ExportQueueStore reloaded(state);
  const auto& items = reloaded.jobs().at(0).items;
  EXPECT_EQ(items[0].state, ExportQueueItemState::pending);
  EXPECT_EQ(items[0].intendedOutputPath, records[0].intendedOutputPath);  // same name next time
  for (int i = 1; i < 4; ++i) {
    EXPECT_EQ(items[i].state, ExportQueueItemState::completed);
    EXPECT_EQ(items[i].outputPath, records[i].intendedOutputPath);
  }
}

}  // namespace
}  // namespace tarnbloom::exporting
