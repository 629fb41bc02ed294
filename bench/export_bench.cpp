// What the export pipeline's bookkeeping costs: 200 small photos enlarged
// 2x through the export controller (queue file, ledger, receipts, staged
// publication) against the same loads, renders, encodes and atomic writes
// done directly. Runs alternate in one process; the ratio of medians is
// the result.
//
//   export_bench [WORK_FOLDER]   (default: ./export-bench-work; use a real
//                                 disk, not tmpfs, so syncs cost what they do)

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "bench_support.h"
#include "engine/resample_engine.h"
#include "export/export_controller.h"
#include "export/export_render.h"
#include "support/files.h"

using namespace tarnbloom;
using namespace tarnbloom::exporting;
namespace fs = std::filesystem;

namespace {

// Small photos: 600 × 400, about 0.24 MP, enlarged to about 1 MP.
constexpr int kPhotos = 200;

ExportOptions benchOptions() {
  ExportOptions options;
  options.sizeMode = SizeMode::x2;
  options.method = ResampleMethod::exact;
  options.formatFollowsSource = true;
  return options;
}

double direct(const std::vector<fs::path>& sources, const fs::path& out) {
  const auto start = std::chrono::steady_clock::now();
  const ExportOptions options = benchOptions();
  for (const auto& source : sources) {
    SourceImage image = ResampleEngine::load(source);
    const auto format = options.resolvedFormat(source);
    const auto size = options.resolvedSize(image.orientedWidth(), image.orientedHeight(),
                                           image.bitsPerComponent, format);
    const auto encoded = renderAndEncode(std::move(image), options, size, format, {}, nullptr);
    writeFileAtomically(out / source.filename(), std::as_bytes(std::span(encoded.bytes)));
  }
  return bench::secondsSince(start);
}

double throughController(const std::vector<fs::path>& sources, const fs::path& out,
                         const fs::path& state) {
  const auto start = std::chrono::steady_clock::now();
  EventLoop loop;
  LoopExecutor executor(loop, ExportController::kLanes);
  ExportQueueStore queue(state);
  ExportOperationLedger ledger(state / "Operations");
  ExportContext context;
  context.stateFolder = state;
  context.receiptsFolder = state / "Receipts";
  ExportController controller(executor, queue, ledger, context);
  int exported = 0;
  controller.subscribe([&](const ExportEvent& event) {
    if (const auto* finished = std::get_if<events::JobFinished>(&event))
      exported = finished->outcome.exported;
    if (std::holds_alternative<events::Drained>(event)) loop.quit();
  });
  Submission submission;
  for (const auto& source : sources) submission.items.push_back({source, out});
  submission.description.options = benchOptions();
  submission.description.receiptsBesideExports = true;
  controller.submit(std::move(submission));
  loop.run();
  if (exported != kPhotos) {
    std::fprintf(stderr, "only %d of %d exported\n", exported, kPhotos);
    std::exit(1);
  }
  return bench::secondsSince(start);
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path work = fs::absolute(argc > 1 ? argv[1] : "export-bench-work");
  fs::remove_all(work);
  fs::create_directories(work / "in");
  const bench::Photo sample = bench::samplePhoto("rocket.jpg");
  std::vector<fs::path> sources;
  for (int i = 0; i < kPhotos; ++i) {
    const bench::Photo photo = bench::scaledPhoto(sample, 600 + i % 7, 400 + i % 5, 2.0 + i % 3);
    sources.push_back(work / "in" / ("photo" + std::to_string(i) + ".jpg"));
    bench::writeFile(sources.back(), bench::encodeJpeg(photo, 90));
  }
  ::setenv("TARNBLOOM_HOME", (work / "home").c_str(), 1);
  // Each round runs both, in alternating order, and gives one ratio; the
  // median ratio is the result, so drifts of the machine cancel out.
  constexpr int kRounds = 9;
  std::vector<double> plain, pipeline, ratios;
  for (int round = 0; round < kRounds; ++round) {
    const fs::path out = work / ("out" + std::to_string(round));
    fs::create_directories(out / "direct");
    fs::create_directories(out / "queued");
    const fs::path state = work / ("state" + std::to_string(round));
    double a = 0, b = 0;
    if (round % 2 == 0) {
      a = direct(sources, out / "direct");
      b = throughController(sources, out / "queued", state);
    } else {
      b = throughController(sources, out / "queued", state);
      a = direct(sources, out / "direct");
    }
    plain.push_back(a);
    pipeline.push_back(b);
    ratios.push_back(b / a);
    std::printf("round %d: direct %.3f s, through the export controller %.3f s (%+.1f%%)\n", round,
                a, b, (b / a - 1) * 100);
    fs::remove_all(out);
    fs::remove_all(state);
  }
  std::printf(
      "%d photos 2x: direct %.3f s, controller %.3f s (medians of %d): overhead %.1f%% (median of "
      "the rounds' ratios; goal <= 5%%)\n",
      kPhotos, bench::median(plain), bench::median(pipeline), kRounds, (bench::median(ratios) - 1) * 100);
  fs::remove_all(work);
  return 0;
}
