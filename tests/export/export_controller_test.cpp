// Faults one export item can meet: a full disk, a read-only folder, a
// source edited while it renders, a crash right after publication. Each
// ends with its message and leaves nothing behind.

#include "export/export_controller.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include "export/receipt.h"
#include "fixtures.h"
#include "support/files.h"
#include "test_support.h"

namespace tarnbloom::exporting {
namespace {

namespace fs = std::filesystem;
using testing::filesIn;
using testing::TempDir;

struct ControllerFixture : ::testing::Test {
  TempDir dir;
  fs::path state = dir / "state";
  fs::path out = dir / "out";
  fs::path source = dir / "photo.png";
  EventLoop loop;
  std::unique_ptr<ExportQueueStore> queue;
  std::unique_ptr<ExportOperationLedger> ledger;
  std::unique_ptr<ExportController> controller;

  void SetUp() override {
    fs::create_directories(out);
    // Noise, so the output cannot compress below the small disk's size.
    std::vector<uint16_t> noise(160 * 120 * 3);
    uint32_t state = 12345;
    for (auto& v : noise) v = static_cast<uint16_t>((state = state * 1664525u + 1013904223u) >> 24);
    testing::writePng(source, 160, 120, 3, 8, noise);
  }

  void start(ExportDependencies dependencies = {}) {
    queue = std::make_unique<ExportQueueStore>(state);
    ledger = std::make_unique<ExportOperationLedger>(state / "Operations");
    controller = std::make_unique<ExportController>(loop, *queue, *ledger, std::move(dependencies));
  }

  void submit(const fs::path& folder) {
    Submission submission;
    submission.urls = {source};
    submission.destinations = {folder};
    submission.options.method = ResampleMethod::exact;
    submission.options.sizeMode = SizeMode::x2;
    submission.receiptsBesideExports = true;
    controller->submit(std::move(submission));
  }

  // Starts a job with `begin` and runs the loop until it ends.
  JobReport runJob(const std::function<void()>& begin) {
    JobReport report;
    ExportObserver observer;
    observer.jobFinished = [&](const Job&, const JobReport& r, const JobOutcome&) {
      report = r;
      loop.quit();
    };
    controller->setObserver(observer);
    begin();
    loop.run();
    return report;
  }

  JobReport exportSource(const fs::path& folder) {
    return runJob([&] { submit(folder); });
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
};

TEST_F(ControllerFixture, AFullDiskFailsTheItemAndLeavesNoPartialFile) {
  // A real small file system when this process may mount one; otherwise
  // the write fails the way a full disk makes it fail.
  const fs::path tiny = dir / "tiny";
  fs::create_directories(tiny);
  const bool mounted = ::mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=16k") == 0;
  ExportDependencies dependencies;
  if (!mounted)
    dependencies.writeStaged = [](const fs::path& path, std::span<const uint8_t>) {
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
    dependencies.writeStaged = [](const fs::path& path, std::span<const uint8_t>) {
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
  dependencies.writeStaged = [this](const fs::path& path, std::span<const uint8_t> bytes) {
    testing::writeText(source, "edited by another application");
    testing::writeBytes(path, bytes);
  };
  start(std::move(dependencies));
  expectFailedLeavingNothing(exportSource(out), out, "The source file changed after loading");
}

// A plan made from a wrong reading of the file (a rotated HEIF whose
// writer stored the shown size) must not squash the picture into it.
TEST_F(ControllerFixture, APlanWithTheSidesSwappedIsRefused) {
  start();
  const JobReport report = runJob([&] {
    Submission submission;
    submission.urls = {source};
    submission.destinations = {out};
    submission.options.sizeMode = SizeMode::x2;
    submission.plannedSizes = {std::pair<int64_t, int64_t>{240, 320}};  // the source is 160 × 120
    controller->submit(std::move(submission));
  });
  expectFailedLeavingNothing(
      report, out,
      "“photo.png” is 160 × 120 pixels upright, but its export was planned with the sides "
      "swapped, so it was not exported.");
}

TEST_F(ControllerFixture, ACrashAfterPublicationIsCountedDoneAtTheNextLaunch) {
  ExportDependencies dependencies;
  dependencies.hooks.afterPublished = [] { throw ExportInterrupted{}; };
  start(std::move(dependencies));
  submit(out);
  // The interrupted job never reports; the controller just goes idle.
  std::function<void()> poll = [&] {
    if (controller->idle()) return loop.quit();
    loop.postAt(EventLoop::Clock::now() + std::chrono::milliseconds(10), poll);
  };
  loop.post(poll);
  loop.run();
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
  const auto receipt = ReceiptLocation::existingURL(output);
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

}  // namespace
}  // namespace tarnbloom::exporting
