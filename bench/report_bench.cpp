// The catalogue report over 100,000 receipts and their outputs (small
// files, as a warm page cache holds them), against a plain read of the same
// files in the same run, so what parsing and checking add shows apart from
// the file system. Goal: 100,000 receipts under 30 s. Not part of the test
// suite: it writes some 400 MB of small files.
//
//   build/bench/report_bench [COUNT]

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "bench_support.h"
#include "export/receipt.h"
#include "export/receipt_report.h"
#include "support/files.h"
#include "support/sha256.h"

using namespace tarnbloom;
namespace fs = std::filesystem;

namespace {

// Writes `count` outputs of a few kilobytes, each with a real receipt
// beside it, spread over folders of 1,000 as a catalogue's shards would be.
void makeCatalogue(const fs::path& root, int count) {
  const auto created = std::chrono::system_clock::now();
  std::string bytes(4096, '\0');
  for (int i = 0; i < count; ++i) {
    const fs::path folder = root / ("shard-" + std::to_string(i / 1000));
    if (i % 1000 == 0) fs::create_directories(folder);
    const fs::path output = folder / ("photo " + std::to_string(i) + ".png");
    std::snprintf(bytes.data(), bytes.size(), "%d", i);
    exporting::ReceiptInputs inputs;
    inputs.sourcePath = "/catalogue/photo " + std::to_string(i) + ".jpg";
    inputs.sourceSHA256 = std::string(64, 'a');
    inputs.outputPath = output;
    inputs.outputSHA256 = sha256Hex(std::as_bytes(std::span(bytes)));
    inputs.options.method = ResampleMethod::exact;
    inputs.outputWidth = 800;
    inputs.outputHeight = 600;
    inputs.timings = {{"load", 0.01}, {"render", 0.1}, {"encode", 0.02}};
    writeFileAtomically(output, bytes, Durability::ordered);
    writeFileAtomically(
        output.string() + ".tarnbloomreceipt",
        exporting::Receipt::text(exporting::Receipt::build("1.0", "1", created, inputs)),
        Durability::ordered);
  }
}

// The floor: every file under `root` opened and read once, nothing parsed.
size_t readEverything(const fs::path& root) {
  std::vector<char> buffer(1 << 16);
  size_t total = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    FileDescriptor fd(::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC));
    for (ssize_t got; (got = ::read(fd.get(), buffer.data(), buffer.size())) > 0;) total += got;
  }
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 100000;
  const fs::path root = fs::temp_directory_path() / "tarnbloom-report-bench";
  fs::remove_all(root);
  fs::create_directories(root);
  auto start = std::chrono::steady_clock::now();
  makeCatalogue(root, count);
  std::printf("made %d outputs with receipts in %.1f s\n", count, bench::secondsSince(start));

  readEverything(root);  // warm-up: the page cache as after the cluster wrote the files
  std::vector<double> reports, reads;
  size_t verified = 0;
  for (int pass = 0; pass < 3; ++pass) {
    start = std::chrono::steady_clock::now();
    const auto report = exporting::ReceiptReportReader::read(root, {});
    reports.push_back(bench::secondsSince(start));
    verified = report.count(exporting::ReportStatus::ok);
    start = std::chrono::steady_clock::now();
    readEverything(root);
    reads.push_back(bench::secondsSince(start));
  }
  const double report = bench::median(reports), read = bench::median(reads);
  std::printf("report of %d receipts: %.2f s (%zu verified), %.0f receipts/s\n", count, report,
              verified, count / report);
  std::printf("plain read of the same files: %.2f s; report / read = %.2f\n", read, report / read);
  std::printf("peak RSS %.0f MiB\n", bench::peakRssMiB());
  fs::remove_all(root);
  return report < 30.0 && verified == static_cast<size_t>(count) ? 0 : 1;
}
