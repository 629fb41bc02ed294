// Folder preflight: a batch of 2,000 photos walked, classified from their
// headers and named, against the probes alone of the same files in the same
// run, so the share spent probing shows. Goal: 2,000 photos under 2 s.
// The folder holds JPEG and PNG photos made from the bundled sample
// (samples/rocket.jpg, from Debian's python3-skimage) and a few files that
// preflight sets aside.

#include <cstdio>
#include <filesystem>

#include "bench_support.h"
#include "engine/source_probe.h"
#include "recipes/folder_batch_walker.h"

using namespace tarnbloom;
namespace fs = std::filesystem;

int main() {
  const fs::path root = fs::temp_directory_path() / "tarnbloom-preflight-bench";
  const fs::path folder = root / "in";
  fs::remove_all(root);
  fs::create_directories(folder);

  const bench::Photo source = bench::samplePhoto("rocket.jpg");
  const auto jpeg = bench::encodeJpeg(bench::scaledPhoto(source, 1600, 1068), 90);
  const bench::Photo pngPhoto = bench::scaledPhoto(source, 320, 214);
  constexpr int kFiles = 2000;
  for (int i = 0; i < kFiles; ++i) {
    const fs::path path = folder / ("photo " + std::to_string(i) + (i % 2 ? ".png" : ".jpg"));
    if (i % 100 == 99)
      bench::writeFile(path, {'n', 'o', 't', 'e', 's'});
    else if (i % 2)
      bench::writePng(path, pngPhoto);
    else
      bench::writeFile(path, jpeg);
  }

  exporting::JobDescription description;
  description.options.sizeMode = SizeMode::longEdge;
  description.options.sizeValue = 3000;
  description.options.format = encoding::ExportFormat::jpeg;
  const exporting::ExportPlanner planner(description, "{source}_{w}x{h}",
                                         exporting::DestinationRule{root / "out"});

  // A warm-up pass, as a folder browsed before would be in the page cache.
  auto walk = recipes::FolderBatchWalker::walkDetailed(folder, false, {root / "out"});
  recipes::FolderBatchWalker::runPreflight(walk.files, planner);

  const int passes = 3;
  double preflight = 0, probes = 0;
  size_t passed = 0, excluded = 0;
  for (int pass = 0; pass < passes; ++pass) {
    auto start = std::chrono::steady_clock::now();
    walk = recipes::FolderBatchWalker::walkDetailed(folder, false, {root / "out"});
    const auto report = recipes::FolderBatchWalker::runPreflight(walk.files, planner);
    preflight += bench::secondsSince(start);
    passed = report.plan.items.size();
    excluded = report.excluded.size();

    start = std::chrono::steady_clock::now();
    int readable = 0;
    for (const auto& file : walk.files) readable += SourceProbe::probe(file).readable;
    probes += bench::secondsSince(start);
    if (readable < 0) return 1;
  }
  preflight /= passes;
  probes /= passes;
  std::printf("preflight of %d files: %.3f s (goal < 2 s), %zu in the batch, %zu set aside\n",
              kFiles, preflight, passed, excluded);
  std::printf("probes alone: %.3f s, %.0f%% of the preflight\n", probes,
              100.0 * probes / preflight);
  std::printf("peak RSS %.1f MiB\n", bench::peakRssMiB());
  fs::remove_all(root);
  return 0;
}
