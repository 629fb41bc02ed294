// PNG output of a 28-megapixel render, in one run: encodePNG against vips
// (`vips copy render.v out.png`, the whole process, from vips's own format
// in the page cache) and against the libpng writer this project used
// before (default filters, zlib level 6), on the same pixels.
// Goals: no slower than vips; a file no more than 10% larger than the
// libpng writer's. The photo is samples/rocket.jpg scaled to 6480 × 4320
// with grain. Reports peak RSS.
//
//   build/bench/png_encode_bench [RUNS]     (best of RUNS, default 3)

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench_support.h"
#include "encoding/image_writer.h"

using namespace tarnbloom;

namespace {

void appendBytes(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + size);
}

// The earlier writer: libpng's adaptive filters and zlib level 6.
std::vector<uint8_t> libpngDefault(const codec::PixelBuffer& image) {
  std::vector<uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) std::exit(1);
  png_set_write_fn(png, &out, appendBytes, nullptr);
  png_set_IHDR(png, info, image.width, image.height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_compression_level(png, 6);
  png_write_info(png, info);
  for (int y = 0; y < image.height; ++y) png_write_row(png, const_cast<png_bytep>(image.row(y)));
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  const int width = 6480, height = 4320;
  const auto folder = std::filesystem::temp_directory_path() / "tarnbloom-png-bench";
  std::filesystem::create_directories(folder);
  const bench::Photo photo = bench::scaledPhoto(bench::samplePhoto("rocket.jpg"), width, height, 3.0);
  codec::PixelBuffer image;
  image.allocate(width, height, 3, codec::SampleFormat::uint8);
  std::copy(photo.rgb.begin(), photo.rgb.end(), image.data.begin());
  bench::writePpm(folder / "render.ppm", photo);
  const std::string v = (folder / "render.v").string(), vipsPng = (folder / "vips.png").string();
  bench::timeCommand("vips copy '" + (folder / "render.ppm").string() + "' '" + v + "'");

  double ours = 1e9, before = 1e9, vips = 1e9;
  size_t oursBytes = 0, beforeBytes = 0;
  for (int i = 0; i < runs; ++i) {
    auto start = std::chrono::steady_clock::now();
    oursBytes = encoding::encodePNG(image, {}).size();
    ours = std::min(ours, bench::secondsSince(start));
    start = std::chrono::steady_clock::now();
    beforeBytes = libpngDefault(image).size();
    before = std::min(before, bench::secondsSince(start));
    vips = std::min(vips, bench::timeCommand("vips copy '" + v + "' '" + vipsPng + "'"));
  }
  const auto vipsBytes = std::filesystem::file_size(vipsPng);
  std::printf("28 MP RGB PNG, best of %d\n", runs);
  std::printf("  encodePNG        %6.2f s  %6.1f MB\n", ours, oursBytes / 1e6);
  std::printf("  libpng level 6   %6.2f s  %6.1f MB\n", before, beforeBytes / 1e6);
  std::printf("  vips pngsave     %6.2f s  %6.1f MB\n", vips, vipsBytes / 1e6);
  std::printf("time / vips %.2f (goal <= 1.00)   size / libpng %.3f (goal <= 1.10)\n", ours / vips,
              static_cast<double>(oursBytes) / beforeBytes);
  std::printf("peak RSS %.1f MiB\n", bench::peakRssMiB());
  std::filesystem::remove_all(folder);
  return 0;
}
