#include <png.h>

#include <csetjmp>

#include "encoding/encoder_error.h"
#include "encoding/image_writer.h"

namespace tarnbloom::encoding {
namespace {

void quietWarning(png_structp, png_const_charp) {}

void appendBytes(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + size);
}

// libpng reports errors by longjmp; only trivial locals live here, so the
// jump skips no destructor.
bool writeRows(png_structp png, png_infop info, const codec::PixelBuffer* image,
               const OutputMetadata* metadata, png_text* xmpText, std::vector<uint8_t>* out) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_write_fn(png, out, appendBytes, nullptr);
  const int colourType = image->channels == 1   ? PNG_COLOR_TYPE_GRAY
                         : image->channels == 2 ? PNG_COLOR_TYPE_GRAY_ALPHA
                         : image->channels == 3 ? PNG_COLOR_TYPE_RGB
                                                : PNG_COLOR_TYPE_RGBA;
  const int bits = image->format == codec::SampleFormat::uint16 ? 16 : 8;
  png_set_IHDR(png, info, static_cast<png_uint_32>(image->width),
               static_cast<png_uint_32>(image->height), bits, colourType, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!metadata->icc.empty())
    png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, metadata->icc.data(),
                 static_cast<png_uint_32>(metadata->icc.size()));
  if (xmpText) png_set_text(png, info, xmpText, 1);
  png_set_compression_level(png, 6);
  png_write_info(png, info);
  // Written by hand: this libpng puts an eXIf set in `info` after the image
  // data, where some readers never look.
  if (!metadata->exif.empty())
    png_write_chunk(png, reinterpret_cast<png_const_bytep>("eXIf"), metadata->exif.data(),
                    metadata->exif.size());
  if (bits == 16) png_set_swap(png);  // our samples are little-endian in memory
  for (int y = 0; y < image->height; ++y) png_write_row(png, const_cast<png_bytep>(image->row(y)));
  png_write_end(png, info);
  return true;
}

}  // namespace

std::vector<uint8_t> encodePNG(const codec::PixelBuffer& image, const OutputMetadata& metadata) {
  if (image.format == codec::SampleFormat::float32 || image.channels < 1 || image.channels > 4)
    throw EncoderError::writerFailed("PNG", "unsupported sample layout");
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, quietWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  // A source profile that libpng knows to be slightly off (old sRGB
  // profiles) is still the profile the pixels are in: keep it.
  if (png) png_set_benign_errors(png, 1);
  std::string xmp = metadata.xmp.value_or("");
  png_text text{};
  text.compression = PNG_ITXT_COMPRESSION_NONE;
  text.key = const_cast<char*>("XML:com.adobe.xmp");
  text.text = xmp.data();
  text.itxt_length = xmp.size();
  text.lang = const_cast<char*>("");
  text.lang_key = const_cast<char*>("");
  std::vector<uint8_t> out;
  const bool ok = png && info && writeRows(png, info, &image, &metadata, metadata.xmp ? &text : nullptr, &out);
  png_destroy_write_struct(&png, &info);
  if (!ok) throw EncoderError::writerFailed("PNG");
  return out;
}

}  // namespace tarnbloom::encoding
