#include "cli/image_writers.h"

#include <png.h>
#include <stdio.h>
#include <jpeglib.h>

#include <csetjmp>
#include <cstring>
#include <stdexcept>

#include "engine/engine_error.h"

namespace tarnbloom::cli {
namespace {

void quietWarning(png_structp, png_const_charp) {}

void appendPng(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + size);
}

// libpng reports errors by longjmp; this function keeps only trivial locals
// so nothing with a destructor is skipped.
bool writePngRows(png_structp png, png_infop info, const codec::PixelBuffer& image,
                  std::span<const uint8_t> icc, std::vector<uint8_t>* out) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_write_fn(png, out, appendPng, nullptr);
  const int colourType = image.channels == 1   ? PNG_COLOR_TYPE_GRAY
                         : image.channels == 2 ? PNG_COLOR_TYPE_GRAY_ALPHA
                         : image.channels == 3 ? PNG_COLOR_TYPE_RGB
                                               : PNG_COLOR_TYPE_RGBA;
  const int bits = image.format == codec::SampleFormat::uint16 ? 16 : 8;
  png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height),
               bits, colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!icc.empty())
    png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, icc.data(),
                 static_cast<png_uint_32>(icc.size()));
  else
    png_set_sRGB_gAMA_and_cHRM(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  png_set_compression_level(png, 6);
  png_write_info(png, info);
  if (bits == 16) png_set_swap(png);  // our samples are little-endian in memory
  for (int y = 0; y < image.height; ++y) png_write_row(png, const_cast<png_bytep>(image.row(y)));
  png_write_end(png, info);
  return true;
}

struct JpegErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

void jpegErrorExit(j_common_ptr cinfo) {
  std::longjmp(reinterpret_cast<JpegErrorManager*>(cinfo->err)->jump, 1);
}

bool writeJpegRows(jpeg_compress_struct* cinfo, const codec::PixelBuffer& image, int quality,
                   std::span<const uint8_t> icc, unsigned char** buffer, unsigned long* size) {
  if (setjmp(reinterpret_cast<JpegErrorManager*>(cinfo->err)->jump)) return false;
  jpeg_create_compress(cinfo);
  jpeg_mem_dest(cinfo, buffer, size);
  cinfo->image_width = static_cast<JDIMENSION>(image.width);
  cinfo->image_height = static_cast<JDIMENSION>(image.height);
  cinfo->input_components = image.channels;
  cinfo->in_color_space = image.channels == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(cinfo);
  jpeg_set_quality(cinfo, quality, TRUE);
  jpeg_start_compress(cinfo, TRUE);
  if (!icc.empty()) jpeg_write_icc_profile(cinfo, icc.data(), static_cast<unsigned>(icc.size()));
  while (cinfo->next_scanline < cinfo->image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(image.row(static_cast<int>(cinfo->next_scanline)));
    jpeg_write_scanlines(cinfo, &row, 1);
  }
  jpeg_finish_compress(cinfo);
  return true;
}

}  // namespace

std::vector<uint8_t> encodePng(const codec::PixelBuffer& image, std::span<const uint8_t> iccProfile) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, quietWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  // A source's profile that libpng knows to be slightly off (old sRGB
  // profiles) is still the profile the pixels are in: keep it.
  if (png) png_set_benign_errors(png, 1);
  std::vector<uint8_t> out;
  const bool ok = png && info && writePngRows(png, info, image, iccProfile, &out);
  png_destroy_write_struct(&png, &info);
  if (!ok) throw std::runtime_error("PNG encoding failed");
  return out;
}

std::vector<uint8_t> encodeJpeg(const codec::PixelBuffer& image, int quality,
                                std::span<const uint8_t> iccProfile) {
  if (image.format != codec::SampleFormat::uint8 || image.hasAlpha()) throw EngineError::jpegEncode();
  jpeg_compress_struct cinfo{};
  JpegErrorManager errors{};
  cinfo.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = jpegErrorExit;
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  const bool ok = writeJpegRows(&cinfo, image, quality, iccProfile, &buffer, &size);
  jpeg_destroy_compress(&cinfo);
  std::vector<uint8_t> out;
  if (ok) out.assign(buffer, buffer + size);
  std::free(buffer);
  if (!ok) throw EngineError::jpegEncode();
  return out;
}

}  // namespace tarnbloom::cli
