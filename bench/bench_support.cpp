#include "bench_support.h"

#include <png.h>
#include <sys/resource.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cmath>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tarnbloom::bench {

Photo decodeJpeg(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), {});
  tjhandle tj = tjInitDecompress();
  int w = 0, h = 0, sub = 0, space = 0;
  if (tjDecompressHeader3(tj, bytes.data(), bytes.size(), &w, &h, &sub, &space) != 0) {
    tjDestroy(tj);
    throw std::runtime_error("cannot read JPEG " + path.string());
  }
  Photo photo{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 3)};
  tjDecompress2(tj, bytes.data(), bytes.size(), photo.rgb.data(), w, 0, h, TJPF_RGB, 0);
  tjDestroy(tj);
  return photo;
}

Photo samplePhoto(const std::string& jpegName) {
  return decodeJpeg(std::filesystem::path(TARNBLOOM_SOURCE_DIR) / "samples" / jpegName);
}

Photo scaledPhoto(const Photo& src, int width, int height, double grainAmplitude) {
  Photo out{width, height, std::vector<uint8_t>(static_cast<size_t>(width) * height * 3)};
  uint32_t noise = 12345;
  for (int y = 0; y < height; ++y) {
    const double fy = (y + 0.5) * src.height / height - 0.5;
    const int y0 = std::clamp(static_cast<int>(std::floor(fy)), 0, src.height - 1);
    const int y1 = std::min(y0 + 1, src.height - 1);
    const double wy = std::clamp(fy - y0, 0.0, 1.0);
    for (int x = 0; x < width; ++x) {
      const double fx = (x + 0.5) * src.width / width - 0.5;
      const int x0 = std::clamp(static_cast<int>(std::floor(fx)), 0, src.width - 1);
      const int x1 = std::min(x0 + 1, src.width - 1);
      const double wx = std::clamp(fx - x0, 0.0, 1.0);
      for (int c = 0; c < 3; ++c) {
        auto at = [&](int xx, int yy) { return src.rgb[(static_cast<size_t>(yy) * src.width + xx) * 3 + c]; };
        const double v = (at(x0, y0) * (1 - wx) + at(x1, y0) * wx) * (1 - wy) +
                         (at(x0, y1) * (1 - wx) + at(x1, y1) * wx) * wy;
        noise = noise * 1664525u + 1013904223u;
        const double grain = static_cast<double>(noise >> 24) / 255.0 * grainAmplitude * 2 - grainAmplitude;
        out.rgb[(static_cast<size_t>(y) * width + x) * 3 + c] =
            static_cast<uint8_t>(std::clamp(v + grain, 0.0, 255.0));
      }
    }
  }
  return out;
}

std::vector<uint8_t> encodeJpeg(const Photo& photo, int quality) {
  tjhandle tj = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  if (tjCompress2(tj, photo.rgb.data(), photo.width, 0, photo.height, TJPF_RGB, &jpeg, &size, TJSAMP_420,
                  quality, 0) != 0)
    throw std::runtime_error("JPEG encode failed");
  std::vector<uint8_t> bytes(jpeg, jpeg + size);
  tjFree(jpeg);
  tjDestroy(tj);
  return bytes;
}

void writePng(const std::filesystem::path& path, const Photo& photo) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(photo.width);
  image.height = static_cast<png_uint_32>(photo.height);
  image.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&image, path.c_str(), 0, photo.rgb.data(), 0, nullptr))
    throw std::runtime_error("PNG write failed");
}

void writeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writePpm(const std::filesystem::path& path, const Photo& photo) {
  std::ofstream out(path, std::ios::binary);
  out << "P6\n" << photo.width << ' ' << photo.height << "\n255\n";
  out.write(reinterpret_cast<const char*>(photo.rgb.data()),
            static_cast<std::streamsize>(photo.rgb.size()));
}

double timeCommand(const std::string& command) {
  const auto start = std::chrono::steady_clock::now();
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "failed: %s\n", command.c_str());
    std::exit(1);
  }
  return secondsSince(start);
}

double peakRssMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024.0;
}

}  // namespace tarnbloom::bench
