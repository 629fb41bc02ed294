// Loading a 24-megapixel JPEG: ResampleEngine::load (read, SHA-256, decode
// in the tarnbloom-decode helper) against the same work done in this process
// (read, SHA-256, codec::decodeFrame) and against libjpeg-turbo's own decode
// of the same bytes (tjDecompress2 into RGB), in the same run. The photo is the bundled samples/rocket.jpg (from
// Debian's python3-skimage) scaled to 6000 × 4000 with grain, so the file is as large as a camera's (about 10 MB). Goal: load
// within 1.05x of the in-process load and 1.15x of the plain decode. Reports
// peak RSS.

#include <turbojpeg.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "bench_support.h"
#include "codec/decode.h"
#include "engine/resample_engine.h"
#include "support/files.h"
#include "support/sha256.h"

using namespace tarnbloom;

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
  const auto folder = std::filesystem::temp_directory_path() / "tarnbloom-load-bench";
  std::filesystem::create_directories(folder);
  const auto path = folder / "photo-24mp.jpg";
  const auto jpeg = bench::encodeJpeg(bench::scaledPhoto(bench::samplePhoto("rocket.jpg"), 6000, 4000, 14.0), 92);
  bench::writeFile(path, jpeg);
  std::printf("24 MP JPEG: %.1f MB\n", jpeg.size() / 1e6);

  double bestTurbo = 1e9, bestLoad = 1e9, bestInProcess = 1e9;
  for (int i = 0; i < runs; ++i) {
    {
      const auto start = std::chrono::steady_clock::now();
      // A fresh buffer, as a real decode needs: reusing one would hide the
      // cost of faulting in 72 MB of new pages that load pays.
      std::unique_ptr<unsigned char[]> rgb(new unsigned char[6000u * 4000u * 3u]);
      tjhandle tj = tjInitDecompress();
      tjDecompress2(tj, jpeg.data(), jpeg.size(), rgb.get(), 6000, 0, 4000, TJPF_RGB, 0);
      tjDestroy(tj);
      bestTurbo = std::min(bestTurbo, bench::secondsSince(start));
    }
    {
      const auto start = std::chrono::steady_clock::now();
      const auto bytes = readWholeFile(path);
      const std::string digest = sha256Hex(bytes);
      const codec::DecodedFrame frame = codec::decodeFrame(bytes);
      bestInProcess = std::min(bestInProcess, bench::secondsSince(start));
      if (frame.pixels.width != 6000 || digest.empty()) std::printf("unexpected frame\n");
    }
    {
      const auto start = std::chrono::steady_clock::now();
      const SourceImage image = ResampleEngine::load(path);
      bestLoad = std::min(bestLoad, bench::secondsSince(start));
      if (image.pixelWidth() != 6000) std::printf("unexpected width %d\n", image.pixelWidth());
    }
  }
  std::printf("libjpeg-turbo decode: %.3f s   in-process load: %.3f s   load: %.3f s\n", bestTurbo,
              bestInProcess, bestLoad);
  std::printf("load / in-process %.3f (goal <= 1.05)   load / libjpeg-turbo %.3f (goal <= 1.15)\n",
              bestLoad / bestInProcess, bestLoad / bestTurbo);
  std::printf("peak RSS %.1f MiB (decoded frame %.1f MiB, file %.1f MiB)\n", bench::peakRssMiB(),
              6000.0 * 4000 * 3 / (1 << 20), jpeg.size() / double(1 << 20));
  std::filesystem::remove_all(folder);
  return 0;
}
