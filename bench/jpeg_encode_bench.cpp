// JPEG output of a 32-megapixel render, in one run:
//  1. JPEGEncoder at quality 90, 4:2:0, against libjpeg-turbo's own `cjpeg`
//     (libjpeg-turbo-progs) at the same quality and sampling, reading the
//     same pixels as a binary PPM from the page cache. Goal: within 1.1x.
//  2. The size-ceiling search against ImageMagick's `-define jpeg:extent=`
//     for the same target on the same pixels: our encodes, both times, and
//     the quality each picked. Goal: fewer encodes, less time, a quality no lower.
// The photo is samples/rocket.jpg scaled to 6928 × 4619 with grain, so it
// compresses like a camera's. Reports peak RSS.
//
//   build/bench/jpeg_encode_bench [RUNS]     (best of RUNS, default 3)

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench_support.h"
#include "encoding/jpeg_encoder.h"

using namespace tarnbloom;

namespace {

std::string commandOutput(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  char buffer[256];
  while (pipe && std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
  if (pipe) ::pclose(pipe);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  const int width = 6928, height = 4619;
  const auto folder = std::filesystem::temp_directory_path() / "tarnbloom-jpeg-bench";
  std::filesystem::create_directories(folder);
  const bench::Photo photo = bench::scaledPhoto(bench::samplePhoto("rocket.jpg"), width, height, 6.0);

  codec::PixelBuffer image;
  image.allocate(width, height, 3, codec::SampleFormat::uint8);
  std::copy(photo.rgb.begin(), photo.rgb.end(), image.data.begin());
  const auto ppm = folder / "render.ppm";
  bench::writePpm(ppm, photo);
  const std::string cjpeg = "cjpeg -quality 90 -sample 2x2 -outfile '" + (folder / "cjpeg.jpg").string() + "' '" + ppm.string() + "'";
  bench::timeCommand(cjpeg);  // warm the page cache and the binary

  double ours = 1e9, theirs = 1e9;
  size_t ourSize = 0;
  const encoding::OutputMetadata none;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    ourSize = encoding::JPEGEncoder::encodeOnce(image, none, 90, encoding::JPEGSubsampling::s420).size();
    ours = std::min(ours, bench::secondsSince(start));
    theirs = std::min(theirs, bench::timeCommand(cjpeg));
  }
  std::printf("32 MP encode, Q90 4:2:0: ours %.3f s (%.1f MB), cjpeg %.3f s (%.1f MB), ratio %.2f (goal <= 1.10)\n",
              ours, ourSize / 1e6, theirs, std::filesystem::file_size(folder / "cjpeg.jpg") / 1e6,
              ours / theirs);

  // The ceiling: a target between the quality-95 and quality-40 sizes.
  const size_t size95 = encoding::JPEGEncoder::encodeOnce(image, none, 95, {}).size();
  const int64_t target = static_cast<int64_t>(size95 * 0.45);
  encoding::JPEGEncodeResult result;
  double oursCeiling = 1e9, magickCeiling = 1e9;
  const auto magickOut = folder / "magick.jpg";
  // ImageMagick's extent is in its own kilobytes (1024 bytes).
  const std::string magick = "convert '" + ppm.string() + "' -sampling-factor 2x2 -define jpeg:extent=" +
                             std::to_string(target / 1024) + "kb '" + magickOut.string() + "'";
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    result = encoding::JPEGEncoder::encode(image, none, {95, encoding::JPEGSubsampling::s420, (target / 1024) * 1024, 40});
    oursCeiling = std::min(oursCeiling, bench::secondsSince(start));
    magickCeiling = std::min(magickCeiling, bench::timeCommand(magick));
  }
  const std::string magickQuality = commandOutput("identify -format %Q '" + magickOut.string() + "'");
  std::printf("ceiling %.2f MB: ours Q%d in %d encodes, %.2f s (%.2f MB); ImageMagick Q%s in %.2f s "
              "(%.2f MB, PPM read included), time ratio %.2f\n",
              (target / 1024) * 1024 / 1e6, result.report.qualityUsed, result.attempts, oursCeiling,
              result.report.bytesActual / 1e6, magickQuality.c_str(), magickCeiling,
              std::filesystem::file_size(magickOut) / 1e6, oursCeiling / magickCeiling);
  std::printf("peak RSS %.0f MiB\n", bench::peakRssMiB());
  std::filesystem::remove_all(folder);
  return 0;
}
