// Probing speed: how many files per second SourceProbe classifies from their
// headers alone, over a generated folder of 1,000 JPEG and PNG files made
// from the bundled sample photo (samples/rocket.jpg, from Debian's
// python3-skimage). Goal: at least 5,000 files per second.

#include <cstdio>
#include <filesystem>

#include "bench_support.h"
#include "engine/source_probe.h"

using namespace tarnbloom;

int main() {
  const auto folder = std::filesystem::temp_directory_path() / "tarnbloom-probe-bench";
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);

  const bench::Photo source = bench::samplePhoto("rocket.jpg");
  const bench::Photo jpegPhoto = bench::scaledPhoto(source, 1600, 1068);
  const bench::Photo pngPhoto = bench::scaledPhoto(source, 320, 214);
  const auto jpeg = bench::encodeJpeg(jpegPhoto, 90);
  std::vector<std::filesystem::path> files;
  for (int i = 0; i < 1000; ++i) {
    const auto path = folder / (std::to_string(i) + (i % 2 ? ".png" : ".jpg"));
    if (i % 2)
      bench::writePng(path, pngPhoto);
    else
      bench::writeFile(path, jpeg);
    files.push_back(path);
  }

  // The first pass warms the page cache, as a folder browsed twice would be.
  int readable = 0;
  for (const auto& file : files) readable += SourceProbe::probe(file).readable;
  const int passes = 5;
  const auto start = std::chrono::steady_clock::now();
  for (int pass = 0; pass < passes; ++pass)
    for (const auto& file : files) readable += SourceProbe::probe(file).readable;
  const double seconds = bench::secondsSince(start);

  std::printf("probed %zu files x %d passes in %.3f s: %.0f files/s (goal >= 5000); %d readable\n",
              files.size(), passes, seconds, files.size() * passes / seconds, readable);
  std::printf("peak RSS %.1f MiB\n", bench::peakRssMiB());
  std::filesystem::remove_all(folder);
  return 0;
}
