#include "app/folder_batch_window.h"

#include <gtest/gtest.h>

#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTreeWidget>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "app/export_host.h"
#include "engine/estimate_engine.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::app {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

bool waitFor(const std::function<bool()>& done, int ms = 30000) {
  return QTest::qWaitFor(done, ms);
}

void writePhoto(const fs::path& path, int w, int h) {
  std::vector<uint16_t> samples(static_cast<size_t>(w) * h * 3);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<uint16_t>((i * 7) % 256);
  testing::writePng(path, w, h, 3, 8, samples);
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) out.push_back(line);
  return out;
}

QStringList topLabels(const QTreeWidget* tree) {
  QStringList labels;
  for (int i = 0; i < tree->topLevelItemCount(); ++i) labels << tree->topLevelItem(i)->text(0);
  return labels;
}

// A folder holding two photos that pass, a text file, a PNG cut off in its
// header and a photo wider than the 100 px target; a real host exports.
class FolderBatch : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TARNBLOOM_HOME", home.path().c_str(), 1);
    writePhoto(input / "a.png", 40, 30);
    writePhoto(input / "b.png", 50, 20);
    testing::writeText(input / "notes.txt", "shopping list\n");
    writePhoto(input / "cut.png", 40, 30);
    fs::resize_file(input / "cut.png", 20);  // signature and half an IHDR
    writePhoto(input / "wide.png", 300, 40);
    options.sizeMode = SizeMode::width;
    options.sizeValue = 100;
    options.method = ResampleMethod::exact;
    options.format = encoding::ExportFormat::png;
    host.start();
    ASSERT_TRUE(waitFor([&] { return host.isReady(); }));
  }

  void preflight(FolderBatchWindow& window) {
    window.preflight();
    ASSERT_TRUE(waitFor([&] { return window.result() && !window.preflightRunning(); }));
  }

  TempDir home, input, elsewhere;
  EstimateEngine estimates;
  ExportHost host{&estimates};
  exporting::ExportOptions options;
};

TEST_F(FolderBatch, ListsExclusionsUnderTheirLabelsAndSavesThem) {
  FolderBatchWindow window(host, options);
  window.show();
  // A folder chosen while another is still being read: only the last
  // choice is listed.
  window.setInputFolder(elsewhere.path());
  window.setInputFolder(input.path());
  window.setRecursive(false);
  preflight(window);
  auto* tree = window.findChild<QTreeWidget*>("Preflight results");
  EXPECT_EQ(topLabels(tree), (QStringList{"Not a supported image (1)", "Could not be read (1)",
                                          "Target smaller than the source (1)"}));
  EXPECT_EQ(tree->topLevelItem(2)->child(0)->text(0), "wide.png");
  EXPECT_TRUE(tree->topLevelItem(2)->child(0)->text(1).toStdString().starts_with(
      "Target 100 px wide is smaller than this 300 × 40 source."))
      << tree->topLevelItem(2)->child(0)->text(1).toStdString();
  EXPECT_EQ(window.findChild<QLabel*>("Preflight summary")->text(),
            "2 photos will be enlarged. 3 files set aside.");
  EXPECT_EQ(window.result()->report.passed(),
            (std::vector<fs::path>{input / "a.png", input / "b.png"}));

  auto* save = window.findChild<QPushButton*>("Save Exclusions…");
  EXPECT_TRUE(save->isEnabled());
  EXPECT_EQ(save->toolTip(), "Save the excluded files, their cause and what to do about them.");
  ASSERT_TRUE(window.saveExclusionsTo(elsewhere / "exclusions.tsv").isEmpty());
  const auto saved = lines(testing::readText(elsewhere / "exclusions.tsv"));
  ASSERT_EQ(saved.size(), 4u);
  EXPECT_EQ(saved[0], "file\tcode\tcause\texplanation");
  EXPECT_EQ(saved[1].rfind((input / "cut.png").string() + "\t", 0), 0u);
  for (const auto& line : saved) EXPECT_EQ(std::count(line.begin(), line.end(), '\t'), 3) << line;
  EXPECT_FALSE(window.saveExclusionsTo(elsewhere / "missing" / "x.tsv").isEmpty())
      << "a folder that is not there is an error, not a silent loss";

  // The input as its own destination is refused on the spot.
  window.setDestination(input.path());
  auto* rejection = window.findChild<QLabel*>("Destination problem");
  EXPECT_TRUE(rejection->isVisible());
  EXPECT_TRUE(rejection->text().contains("is the folder you are enlarging"))
      << rejection->text().toStdString();
  EXPECT_FALSE(window.findChild<QPushButton*>("Run")->isEnabled());
  EXPECT_EQ(window.result(), nullptr);

  window.setDestination(elsewhere / "out");
  fs::create_directories(elsewhere / "empty");
  window.setInputFolder(elsewhere / "empty");
  preflight(window);
  EXPECT_EQ(window.findChild<QLabel*>("Preflight summary")->text(),
            "Nothing to preflight.\nNo files found directly inside this folder");
  EXPECT_FALSE(window.findChild<QPushButton*>("Run")->isEnabled());
}

TEST_F(FolderBatch, RunExportsExactlyThePassedFilesIntoTheDestination) {
  FolderBatchWindow window(host, options);
  window.setInputFolder(input.path());
  preflight(window);
  auto* run = window.findChild<QPushButton*>("Run");
  ASSERT_TRUE(run->isEnabled());
  QSignalSpy finished(&host, &ExportHost::jobFinished);
  QTest::mouseClick(run, Qt::LeftButton);
  EXPECT_EQ(window.findChild<QLabel*>("Preflight summary")->text(), "Queued 2 photos.");
  EXPECT_FALSE(run->isEnabled()) << "one click, one batch";
  ASSERT_TRUE(finished.wait(60000));
  const fs::path out = input / "Enlarged";
  const auto written = testing::filesIn(out);
  ASSERT_EQ(written.size(), 2u);
  for (const auto& file : written) {
    EXPECT_TRUE(file.filename().string().starts_with("a") ||
                file.filename().string().starts_with("b"))
        << file;
    EXPECT_EQ(file.extension(), ".png");
  }

  // The outputs sit inside the folder, and a second walk leaves them out.
  window.setRecursive(true);
  preflight(window);
  EXPECT_EQ(window.result()->report.passed().size(), 2u);
  EXPECT_EQ(window.result()->report.excluded.size(), 3u);
}

}  // namespace
}  // namespace tarnbloom::app
