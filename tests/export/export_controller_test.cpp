// Faults one export item can meet: a full disk, a read-only folder, a
// source edited while it renders, a crash right after publication. Each
// ends with its message and leaves nothing behind.

#include "export/export_controller.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <deque>

#include "export/receipt.h"
#include "fixtures.h"
#include "support/files.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom::exporting {
namespace {

namespace fs = std::filesystem;
using testing::filesIn;
using testing::TempDir;

// The owner's tasks and both lanes run on the test's own thread, one task
// at a time, when the test waits: no event loop, no worker threads.
class ManualExecutor final : public Executor {
 public:
  void post(Task task) override { m_queues[0].push_back(std::move(task)); }
  void run(int lane, Task task) override { m_queues.at(1 + lane).push_back(std::move(task)); }
  void waitUntil(const std::function<bool()>& done) override {
    while (!done() && runOne()) {
    }
  }
  // Runs until no task is left.
  void drain() {
    waitUntil([] { return false; });
  }

 private:
  bool runOne() {
    for (auto& queue : m_queues)
      if (!queue.empty()) {
        Task task = std::move(queue.front());
        queue.pop_front();
        task();
        return true;
      }
    return false;
  }
  std::array<std::deque<Task>, 1 + ExportController::kLanes> m_queues;
};

struct ControllerFixture : ::testing::Test {
  TempDir dir;
  fs::path state = dir / "state";
  fs::path out = dir / "out";
  fs::path source = dir / "photo.png";
  ManualExecutor executor;
  std::unique_ptr<ExportQueueStore> queue;
  std::unique_ptr<ExportOperationLedger> ledger;
  std::unique_ptr<ExportController> controller;
  std::optional<JobReport> lastReport;  // of the job that ended last

  void SetUp() override {
    fs::create_directories(out);
    writeNoise(source);
  }

  // Noise, so the output cannot compress below the small disk's size.
  static void writeNoise(const fs::path& path) {
    std::vector<uint16_t> noise(160 * 120 * 3);
    uint32_t state = 12345;
    for (auto& v : noise) v = static_cast<uint16_t>((state = state * 1664525u + 1013904223u) >> 24);
    testing::writePng(path, 160, 120, 3, 8, noise);
  }

  void start(ExportDependencies dependencies = {}) {
    queue = std::make_unique<ExportQueueStore>(state);
    ledger = std::make_unique<ExportOperationLedger>(state / "Operations");
    ExportContext context;
    context.stateFolder = state;
    context.receiptsFolder = state / "Receipts";
    controller = std::make_unique<ExportController>(executor, *queue, *ledger, context,
                                                    std::move(dependencies));
    controller->subscribe([this](const ExportEvent& event) {
      if (const auto* ended = std::get_if<events::JobFinished>(&event)) lastReport = *ended->report;
    });
  }

  Submission submission(const std::vector<fs::path>& sources, const fs::path& folder) {
    Submission submission;
    for (const auto& file : sources) submission.items.push_back({file, folder});
    submission.description.options.method = ResampleMethod::exact;
    submission.description.options.sizeMode = SizeMode::x2;
    submission.description.receiptsBesideExports = true;
    return submission;
  }

  // Starts a job with `begin` and runs until it ends.
  JobReport runJob(const std::function<void()>& begin) {
    lastReport.reset();
    begin();
    executor.waitUntil([&] { return lastReport.has_value(); });
    EXPECT_TRUE(lastReport) << "the job never finished";
    return lastReport.value_or(JobReport{});
  }

  JobReport exportSource(const fs::path& folder) {
    return runJob([&] { controller->submit(submission({source}, folder)); });
  }

  void expectFailedLeavingNothing(const JobReport& report, const fs::path& folder,
                                  const std::string& text) {
    ASSERT_EQ(report.results.size(), 1u);
    EXPECT_EQ(report.results[0].kind, Result::Kind::failed);
    EXPECT_NE(report.results[0].errorText.find(text), std::string::npos)
        << report.results[0].errorText;
    EXPECT_TRUE(filesIn(folder).empty());
    EXPECT_TRUE(ledger->all().empty());
    EXPECT_TRUE(filesIn(state / "ReceiptPublications").empty());
    EXPECT_EQ(queue->jobs().at(0).items.at(0).state, ExportQueueItemState::failed);
  }

  std::vector<ExportQueueItemState> queueStates() const {
    std::vector<ExportQueueItemState> states;
    for (const auto& job : queue->jobs())
      for (const auto& item : job.items) states.push_back(item.state);
    return states;
  }
};

TEST_F(ControllerFixture, AFullDiskFailsTheItemAndLeavesNoPartialFile) {
  // A real small file system when this process may mount one; otherwise
  // the write fails the way a full disk makes it fail.
  const fs::path tiny = dir / "tiny";
  fs::create_directories(tiny);
  const bool mounted = ::mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=16k") == 0;
  ExportDependencies dependencies;
  if (!mounted)
    dependencies.writeStaged = [](const fs::path& path, const EncodedExport&) {
      throw FileError(path, "write", ENOSPC);
    };
  start(std::move(dependencies));
  const JobReport report = exportSource(tiny);
  expectFailedLeavingNothing(report, tiny, "The file couldn’t be written to “photo_320x240.png”");
  EXPECT_NE(report.results[0].errorText.find(std::strerror(ENOSPC)), std::string::npos);
  if (mounted) ::umount(tiny.c_str());
}

TEST_F(ControllerFixture, AReadOnlyFolderFailsTheItemWithItsReason) {
  ExportDependencies dependencies;
  // Root writes through permission bits, so the refusal is injected there.
  if (::geteuid() == 0)
    dependencies.writeStaged = [](const fs::path& path, const EncodedExport&) {
      throw FileError(path, "write", EROFS);
    };
  else
    fs::permissions(out, fs::perms::owner_read | fs::perms::owner_exec);
  start(std::move(dependencies));
  const JobReport report = exportSource(out);
  fs::permissions(out, fs::perms::owner_all);
  expectFailedLeavingNothing(report, out, "The file couldn’t be written to “photo_320x240.png”");
}

TEST_F(ControllerFixture, ASourceEditedDuringTheExportIsNotPublished) {
  ExportDependencies dependencies;
  dependencies.writeStaged = [this](const fs::path& path, const EncodedExport& encoded) {
    testing::writeText(source, "edited by another application");
    encoded.stage(path);
  };
  start(std::move(dependencies));
  expectFailedLeavingNothing(exportSource(out), out, "The source file changed after loading");
}

// A plan made from a wrong reading of the file (a rotated HEIF whose
// writer stored the shown size) must not squash the picture into it.
TEST_F(ControllerFixture, APlanWithTheSidesSwappedIsRefused) {
  start();
  const JobReport report = runJob([&] {
    Submission planned = submission({source}, out);
    planned.items[0].plannedSize =
        std::pair<int64_t, int64_t>{240, 320};  // the source is 160 × 120
    controller->submit(std::move(planned));
  });
  expectFailedLeavingNothing(
      report, out,
      "“photo.png” is 160 × 120 pixels upright, but its export was planned with the sides "
      "swapped, so it was not exported.");
}

// An item the plan could not size (its header unread) learns its size from
// the decoder; memory admission must still turn it away before it renders
// a HEIC held whole at 108 megapixels.
TEST_F(ControllerFixture, AnUnplannedItemOverTheMemoryCeilingIsRefusedBeforeItRenders) {
  start();
  const JobReport report = runJob([&] {
    Submission unplanned = submission({source}, out);
    unplanned.description.options.format = encoding::ExportFormat::heic;
    unplanned.description.options.sizeMode = SizeMode::width;
    unplanned.description.options.sizeValue = 12000;
    controller->submit(std::move(unplanned));
  });
  expectFailedLeavingNothing(report, out,
                             "Enlarging 160 × 120 to 12,000 × 9,000 needs more memory than this "
                             "batch allows.");
}

TEST_F(ControllerFixture, ACrashAfterPublicationIsCountedDoneAtTheNextLaunch) {
  ExportDependencies dependencies;
  dependencies.hooks.afterPublished = [] { throw ExportInterrupted{}; };
  start(std::move(dependencies));
  controller->submit(submission({source}, out));
  // The interrupted job never reports; the controller just goes idle.
  executor.drain();
  EXPECT_TRUE(controller->idle());
  const fs::path output = out / "photo_320x240.png";
  ASSERT_TRUE(fs::exists(output));
  ASSERT_EQ(ledger->all().size(), 1u);
  EXPECT_EQ(ledger->all()[0].stage, OperationStage::published);
  EXPECT_EQ(queue->jobs()[0].items[0].state, ExportQueueItemState::running);

  controller.reset();
  start();
  const RecoveryReport recovery = queue->recoverInterruptedWork(*ledger);
  EXPECT_EQ(recovery.completed, 1);
  EXPECT_EQ(queue->jobs()[0].items[0].state, ExportQueueItemState::completed);
  EXPECT_TRUE(queue->pendingJobs().empty());
  const auto receipt = ReceiptLocation{state / "Receipts"}.existingURL(output);
  ASSERT_TRUE(receipt);
  EXPECT_EQ(filesIn(out).size(), 2u);
}

TEST_F(ControllerFixture, AResumedItemWhoseFileIsAlreadyPublishedIsNotExportedAgain) {
  start();
  ASSERT_EQ(exportSource(out).results.at(0).kind, Result::Kind::exported);
  ASSERT_EQ(filesIn(out).size(), 2u);
  // The queue forgets the completion, as a power cut before its save could
  // make it; the file and its receipt stand under the reserved name.
  const PersistedExportJob stored = queue->jobs().at(0);
  queue->mark(stored.id, stored.items[0].id, ExportQueueItemState::running);

  const JobReport report = runJob([&] { controller->resume(*queue->job(stored.id)); });
  ASSERT_EQ(report.results.size(), 1u);
  EXPECT_EQ(report.results[0].kind, Result::Kind::exported);
  EXPECT_EQ(report.results[0].output, out / "photo_320x240.png");
  EXPECT_EQ(filesIn(out).size(), 2u);
  EXPECT_EQ(queue->jobs().at(0).items[0].state, ExportQueueItemState::completed);
}

TEST_F(ControllerFixture, AnUnusableReceiptsFolderCostsTheReceiptNotTheExport) {
  fs::create_directories(state);
  testing::writeText(state / "Receipts", "a file where the folder should be");
  start();
  const JobReport report = runJob([&] {
    Submission stored = submission({source}, out);
    stored.description.receiptsBesideExports = false;
    controller->submit(std::move(stored));
  });
  ASSERT_EQ(report.results.size(), 1u);
  EXPECT_EQ(report.results[0].kind, Result::Kind::exported);
  EXPECT_FALSE(report.results[0].receipt);
  ASSERT_TRUE(report.results[0].receiptError);
  EXPECT_NE(report.results[0].receiptError->find("Receipts"), std::string::npos)
      << *report.results[0].receiptError;
  EXPECT_EQ(filesIn(out), std::vector<fs::path>{out / "photo_320x240.png"});
  EXPECT_TRUE(ledger->all().empty());
  EXPECT_EQ(queue->jobs().at(0).items.at(0).state, ExportQueueItemState::completed);
}

// Whether the file went to disk as it was written (JPEG, PNG, TIFF) or was
// held whole (WebP, HEIC, AVIF, a JPEG size ceiling), the receipt's hash,
// taken as the bytes were written, is the hash of the published file.
TEST_F(ControllerFixture, TheReceiptHashesThePublishedFileInEveryFormat) {
  start();
  using encoding::ExportFormat;
  for (const ExportFormat format : {ExportFormat::png, ExportFormat::tiff, ExportFormat::jpeg,
                                    ExportFormat::webp, ExportFormat::heic, ExportFormat::avif})
    for (const bool ceiling : {false, true}) {
      if (ceiling && format != ExportFormat::jpeg) continue;
      SCOPED_TRACE(std::string(encoding::rawValue(format)) + (ceiling ? " with a ceiling" : ""));
      const fs::path folder =
          out / (std::string(encoding::rawValue(format)) + (ceiling ? "-c" : ""));
      fs::create_directories(folder);
      const JobReport report = runJob([&] {
        Submission one = submission({source}, folder);
        one.description.options.format = format;
        if (ceiling) one.description.options.jpeg.maxBytes = 1'000'000;
        controller->submit(std::move(one));
      });
      ASSERT_EQ(report.results.size(), 1u);
      const Result& result = report.results[0];
      ASSERT_EQ(result.kind, Result::Kind::exported) << result.errorText;
      ASSERT_TRUE(result.output && result.receipt);
      const auto receipt = nlohmann::json::parse(testing::readText(*result.receipt));
      EXPECT_EQ(Receipt::outputSHA256(receipt), sha256OfFile(*result.output));
      EXPECT_EQ(filesIn(folder).size(), 2u) << "the output and its receipt, nothing staged";
    }
}

// Three photos; a stop asked for while the first is written ends the item
// in hand at its next step and leaves the rest unstarted.
struct ThreePhotos : ControllerFixture {
  std::vector<fs::path> sources = {source, dir / "b.png", dir / "c.png"};
  void SetUp() override {
    ControllerFixture::SetUp();
    writeNoise(sources[1]);
    writeNoise(sources[2]);
  }
};

TEST_F(ThreePhotos, AStopEndsTheItemInHandAtItsNextStepAndKeepsWhatWasPublished) {
  start();
  bool stopping = false;
  const JobReport report = runJob([&] {
    controller->subscribe([&](const ExportEvent& event) {
      if (std::holds_alternative<events::StopRequested>(event)) stopping = true;
      if (const auto* finished = std::get_if<events::ItemFinished>(&event);
          finished && finished->index == 0)
        controller->requestStop();
    });
    controller->submit(submission(sources, out));
  });
  EXPECT_TRUE(stopping);
  EXPECT_TRUE(report.stopped);
  ASSERT_EQ(report.results.size(), 2u);  // the third never started
  EXPECT_EQ(report.results[0].kind, Result::Kind::exported);
  EXPECT_EQ(report.results[1].kind, Result::Kind::stopped);
  EXPECT_EQ(report.declined, std::vector<fs::path>{sources[2]});
  EXPECT_EQ(queueStates(),
            (std::vector{ExportQueueItemState::completed, ExportQueueItemState::stopped,
                         ExportQueueItemState::stopped}));
  EXPECT_EQ(filesIn(out).size(), 2u);  // one photo and its receipt
  EXPECT_TRUE(ledger->all().empty());
  EXPECT_TRUE(controller->idle());
}

// A file on disk whose record cannot say so halts the job: nothing more is
// written, and what did not start waits for the next run.
TEST_F(ThreePhotos, AnExportThatCannotBeRecordedHaltsTheJob) {
  ExportDependencies dependencies;
  dependencies.hooks.afterPublished = [] { throw FileError("Operations", "write", EIO); };
  start(std::move(dependencies));
  bool drained = false;
  const JobReport report = runJob([&] {
    controller->subscribe([&](const ExportEvent& event) {
      drained = drained || std::holds_alternative<events::Drained>(event);
    });
    controller->submit(submission(sources, out));
    controller->submit(submission({sources[2]}, out));  // held behind the halt
  });
  ASSERT_TRUE(report.halt);
  EXPECT_EQ(report.halt->rfind("“photo_320x240.png” was exported, but Tarnbloom could not finish "
                               "recording it.",
                               0),
            0u)
      << *report.halt;
  EXPECT_NE(report.halt->find("the remaining files are paused until this is fixed."),
            std::string::npos);
  ASSERT_FALSE(report.results.empty());
  EXPECT_EQ(report.results[0].kind, Result::Kind::exported);
  for (size_t i = 1; i < report.results.size(); ++i)
    EXPECT_EQ(report.results[i].kind, Result::Kind::stopped);
  EXPECT_EQ(filesIn(out).size(), 2u);
  executor.drain();
  EXPECT_TRUE(drained);
  EXPECT_TRUE(controller->idle());
  EXPECT_EQ(queue->jobs().at(1).items.at(0).state, ExportQueueItemState::pending);

  // The next launch counts the file done and runs the rest.
  controller.reset();
  start();
  EXPECT_EQ(queue->recoverInterruptedWork(*ledger).completed, 1);
  EXPECT_EQ(queueStates(),
            (std::vector{ExportQueueItemState::completed, ExportQueueItemState::pending,
                         ExportQueueItemState::pending, ExportQueueItemState::pending}));
}

TEST_F(ThreePhotos, AQueueFileThatCannotBeSavedHaltsBeforeAnythingIsWritten) {
  start();
  const JobReport report = runJob([&] {
    controller->submit(submission(sources, out));
    // From here every save fails: the queue file's place is taken by a
    // folder that is not empty.
    fs::remove(state / "export-queue.json");
    fs::create_directories(state / "export-queue.json" / "in the way");
  });
  ASSERT_TRUE(report.halt);
  EXPECT_EQ(
      report.halt->rfind("Couldn’t update this export. The export queue could not be saved:", 0),
      0u)
      << *report.halt;
  EXPECT_TRUE(filesIn(out).empty());
  EXPECT_TRUE(ledger->all().empty());
  EXPECT_EQ(JobOutcome::of(report).exported, 0);
}

// The host may destroy its controller mid-job: it stops after the current
// step and waits, instead of leaving work that refers to it.
TEST_F(ThreePhotos, DestroyingARunningControllerStopsAndWaits) {
  start();
  controller->submit(submission(sources, out));
  executor.waitUntil([&] { return !filesIn(out).empty(); });
  controller.reset();
  executor.drain();  // nothing left refers to the controller
  const ExportQueueStore reread(state);
  for (const auto& item : reread.jobs().at(0).items)
    EXPECT_NE(item.state, ExportQueueItemState::running);
}

}  // namespace
}  // namespace tarnbloom::exporting
