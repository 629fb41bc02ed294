// Writes a test photo for the shell benchmarks: the bundled samples/rocket.jpg
// (from Debian's python3-skimage) scaled to WIDTH x HEIGHT with grain, as a
// quality-92 JPEG, so a 24-megapixel file is as large as a camera's. RAW,
// when named, receives the JPEG's decoded pixels as 8-bit RGB rows, for a
// peer that cannot read JPEG.
//
//   bench_photo OUT.jpg WIDTH HEIGHT [RAW]

#include <cstdio>
#include <cstdlib>

#include "bench_support.h"

using namespace tarnbloom;

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr, "usage: bench_photo OUT.jpg WIDTH HEIGHT [RAW]\n");
    return 2;
  }
  const int width = std::atoi(argv[2]), height = std::atoi(argv[3]);
  if (width < 1 || height < 1) {
    std::fprintf(stderr, "bench_photo: WIDTH and HEIGHT must be at least 1\n");
    return 2;
  }
  const auto photo = bench::scaledPhoto(bench::samplePhoto("rocket.jpg"), width, height, 14.0);
  bench::writeFile(argv[1], bench::encodeJpeg(photo, 92));
  if (argc == 5) bench::writeFile(argv[4], bench::decodeJpeg(argv[1]).rgb);
  return 0;
}
