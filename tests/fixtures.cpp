#include "fixtures.h"

#include <png.h>
#include <stdio.h>
#include <jpeglib.h>

#include <stdexcept>

namespace tarnbloom::testing {

void writePng(const std::filesystem::path& path, int width, int height, int channels, int bits,
              const std::vector<uint16_t>& samples) {
  FILE* file = fopen(path.c_str(), "wb");
  if (!file) throw std::runtime_error("cannot create " + path.string());
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    fclose(file);
    throw std::runtime_error("png write failed");
  }
  png_init_io(png, file);
  const int colourType = channels == 1 ? PNG_COLOR_TYPE_GRAY
                         : channels == 2 ? PNG_COLOR_TYPE_GRAY_ALPHA
                         : channels == 3 ? PNG_COLOR_TYPE_RGB
                                         : PNG_COLOR_TYPE_RGBA;
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), bits,
               colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  std::vector<uint8_t> row(static_cast<size_t>(width) * channels * (bits / 8));
  for (int y = 0; y < height; ++y) {
    for (int i = 0; i < width * channels; ++i) {
      const uint16_t v = samples[static_cast<size_t>(y) * width * channels + i];
      if (bits == 16) {
        row[2 * i] = static_cast<uint8_t>(v >> 8);
        row[2 * i + 1] = static_cast<uint8_t>(v & 255);
      } else {
        row[i] = static_cast<uint8_t>(v);
      }
    }
    png_write_row(png, row.data());
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  fclose(file);
}

std::vector<uint8_t> exifWithOrientation(uint32_t orientation) {
  // "II*\0", IFD0 at 8 with one entry: 0x0112 SHORT 1 = orientation.
  return {'I', 'I', 42, 0, 8, 0, 0, 0, 1, 0, 0x12, 0x01, 3, 0, 1, 0, 0, 0,
          static_cast<uint8_t>(orientation), 0, 0, 0, 0, 0, 0, 0};
}

void writeJpeg(const std::filesystem::path& path, int width, int height,
               const std::vector<uint8_t>& rgb, uint32_t exifOrientation) {
  FILE* file = fopen(path.c_str(), "wb");
  if (!file) throw std::runtime_error("cannot create " + path.string());
  jpeg_compress_struct cinfo{};
  jpeg_error_mgr errors{};
  cinfo.err = jpeg_std_error(&errors);
  jpeg_create_compress(&cinfo);
  jpeg_stdio_dest(&cinfo, file);
  cinfo.image_width = static_cast<JDIMENSION>(width);
  cinfo.image_height = static_cast<JDIMENSION>(height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, 95, TRUE);
  jpeg_start_compress(&cinfo, TRUE);
  if (exifOrientation) {
    std::vector<uint8_t> app1 = {'E', 'x', 'i', 'f', 0, 0};
    const auto exif = exifWithOrientation(exifOrientation);
    app1.insert(app1.end(), exif.begin(), exif.end());
    jpeg_write_marker(&cinfo, JPEG_APP0 + 1, app1.data(), static_cast<unsigned>(app1.size()));
  }
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(rgb.data() + static_cast<size_t>(cinfo.next_scanline) * width * 3);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  fclose(file);
}

}  // namespace tarnbloom::testing
