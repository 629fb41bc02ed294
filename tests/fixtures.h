#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace tarnbloom::testing {

// Small real files made with the real libraries, for tests across folders.

// An 8- or 16-bit PNG; `samples` holds width*height*channels values.
void writePng(const std::filesystem::path& path, int width, int height, int channels, int bits,
              const std::vector<uint16_t>& samples);

// A baseline RGB JPEG at quality 95 with an EXIF orientation when not 0.
void writeJpeg(const std::filesystem::path& path, int width, int height,
               const std::vector<uint8_t>& rgb, uint32_t exifOrientation = 0);

// A minimal TIFF-structured EXIF block holding only an orientation.
std::vector<uint8_t> exifWithOrientation(uint32_t orientation);

}  // namespace tarnbloom::testing
