#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include "encoding/encoder_error.h"
#include "encoding/image_writer.h"

namespace tarnbloom::encoding {
namespace {

// Filtered bytes per band: each band is filtered and deflated on its own,
// on every core, and the pieces joined into one zlib stream. Fixed, so the
// file is the same for any number of threads.
constexpr size_t kBandBytes = size_t{4} << 20;

enum Filter : uint8_t { none, sub, up, average, paeth };

uint8_t paethPredictor(int a, int b, int c) {
  const int p = a + b - c;
  const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  return static_cast<uint8_t>(pa <= pb && pa <= pc ? a : pb <= pc ? b : c);
}

// How busy a filtered row looks: the sum of its bytes read as signed. The
// smallest usually deflates best (libpng's own heuristic).
uint64_t cost(const uint8_t* row, size_t size) {
  uint64_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum += static_cast<uint64_t>(std::abs(static_cast<int8_t>(row[i])));
  return sum;
}

// Writes the best of the five filters of `row` (above: the previous row,
// zeros for the first) to `out`: the filter type, then the filtered bytes.
// `scratch` holds 4 × size bytes.
void filterRow(const uint8_t* row, const uint8_t* above, size_t size, size_t bpp, uint8_t* out,
               uint8_t* scratch) {
  uint8_t* candidates[5] = {nullptr, scratch, scratch + size, scratch + 2 * size,
                            scratch + 3 * size};
  for (size_t i = 0; i < size; ++i) {
    const int a = i >= bpp ? row[i - bpp] : 0;
    candidates[sub][i] = static_cast<uint8_t>(row[i] - a);
    candidates[up][i] = static_cast<uint8_t>(row[i] - above[i]);
    candidates[average][i] = static_cast<uint8_t>(row[i] - ((a + above[i]) >> 1));
    const int c = i >= bpp ? above[i - bpp] : 0;
    candidates[paeth][i] = static_cast<uint8_t>(row[i] - paethPredictor(a, above[i], c));
  }
  Filter best = none;
  uint64_t bestCost = cost(row, size);
  for (const Filter f : {sub, up, average, paeth})
    if (const uint64_t c = cost(candidates[f], size); c < bestCost) best = f, bestCost = c;
  out[0] = best;
  std::memcpy(out + 1, best == none ? row : candidates[best], size);
}

// Row y in PNG's byte order (16-bit samples big-endian), in `scratch` when
// it has to be converted.
const uint8_t* pngRow(const codec::PixelBuffer& image, int y, uint8_t* scratch) {
  const uint8_t* row = image.row(y);
  if (image.format != codec::SampleFormat::uint16) return row;
  const size_t size = image.rowBytes();
  for (size_t i = 0; i + 1 < size; i += 2) {
    scratch[i] = row[i + 1];
    scratch[i + 1] = row[i];
  }
  return scratch;
}

struct Band {
  std::vector<uint8_t> deflated;
  uLong adler = 1;
  size_t filteredSize = 0;
};

// Filters rows [y0, y1) and deflates them as raw deflate ending on a byte
// boundary (a sync flush), or with the final block when `last`.
// Run-length matching only: on filtered photographs it takes a fifth of
// zlib's default time and deflates no worse.
Band deflateBand(const codec::PixelBuffer& image, int y0, int y1, bool last) {
  const size_t size = image.rowBytes();
  const size_t bpp = static_cast<size_t>(image.channels) * image.bytesPerSample();
  std::vector<uint8_t> filtered((size + 1) * static_cast<size_t>(y1 - y0));
  std::vector<uint8_t> scratch(4 * size), current(size), previous(size, 0);
  if (y0 > 0) std::memcpy(previous.data(), pngRow(image, y0 - 1, previous.data()), size);
  for (int y = y0; y < y1; ++y) {
    const uint8_t* row = pngRow(image, y, current.data());
    filterRow(row, previous.data(), size, bpp, filtered.data() + (size + 1) * (y - y0),
              scratch.data());
    std::memcpy(previous.data(), row, size);
  }

  Band band;
  band.filteredSize = filtered.size();
  band.adler = adler32(1, filtered.data(), static_cast<uInt>(filtered.size()));
  z_stream z{};
  if (deflateInit2(&z, 1, Z_DEFLATED, -15, 8, Z_RLE) != Z_OK) throw std::bad_alloc();
  band.deflated.resize(deflateBound(&z, filtered.size()) + 16);
  z.next_in = filtered.data();
  z.avail_in = static_cast<uInt>(filtered.size());
  z.next_out = band.deflated.data();
  z.avail_out = static_cast<uInt>(band.deflated.size());
  const int status = deflate(&z, last ? Z_FINISH : Z_SYNC_FLUSH);
  const size_t produced = band.deflated.size() - z.avail_out;
  deflateEnd(&z);
  if (status != (last ? Z_STREAM_END : Z_OK) || z.avail_in != 0) throw std::bad_alloc();
  band.deflated.resize(produced);
  return band;
}

// The image data as one zlib stream, in pieces to be written as IDAT
// chunks in order.
std::vector<std::vector<uint8_t>> imageData(const codec::PixelBuffer& image) {
  const size_t rowBytes = image.rowBytes() + 1;
  const int rowsPerBand = static_cast<int>(std::max<size_t>(1, kBandBytes / rowBytes));
  const int bands = (image.height + rowsPerBand - 1) / rowsPerBand;
  std::vector<Band> pieces(static_cast<size_t>(bands));
  std::exception_ptr failure;
#pragma omp parallel for schedule(dynamic)
  for (int b = 0; b < bands; ++b) {
    try {
      const int y0 = b * rowsPerBand;
      pieces[b] = deflateBand(image, y0, std::min(image.height, y0 + rowsPerBand), b == bands - 1);
    } catch (...) {
#pragma omp critical
      if (!failure) failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);

  std::vector<std::vector<uint8_t>> chunks;
  uLong adler = 1;
  // zlib header: deflate with a 32 KB window, fastest level, no dictionary.
  chunks.push_back({0x78, 0x01});
  for (Band& band : pieces) {
    adler = adler32_combine(adler, band.adler, static_cast<z_off_t>(band.filteredSize));
    chunks.push_back(std::move(band.deflated));
  }
  chunks.push_back({static_cast<uint8_t>(adler >> 24), static_cast<uint8_t>(adler >> 16),
                    static_cast<uint8_t>(adler >> 8), static_cast<uint8_t>(adler)});
  return chunks;
}

void quietWarning(png_structp, png_const_charp) {}

void appendBytes(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + size);
}

// libpng reports errors by longjmp; only trivial locals live here, so the
// jump skips no destructor. libpng writes the header and metadata chunks;
// the image data, already deflated, goes in as IDAT chunks of its own.
bool writeChunks(png_structp png, png_infop info, const codec::PixelBuffer* image,
                 const OutputMetadata* metadata, png_text* xmpText,
                 const std::vector<std::vector<uint8_t>>* data, std::vector<uint8_t>* out) {
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
  png_write_info(png, info);
  // Written by hand: this libpng puts an eXIf set in `info` after the image
  // data, where some readers never look.
  if (!metadata->exif.empty())
    png_write_chunk(png, reinterpret_cast<png_const_bytep>("eXIf"), metadata->exif.data(),
                    metadata->exif.size());
  for (const auto& piece : *data)
    png_write_chunk(png, reinterpret_cast<png_const_bytep>("IDAT"), piece.data(), piece.size());
  png_write_chunk(png, reinterpret_cast<png_const_bytep>("IEND"), nullptr, 0);
  return true;
}

}  // namespace

std::vector<uint8_t> encodePNG(const codec::PixelBuffer& image, const OutputMetadata& metadata) {
  if (image.format == codec::SampleFormat::float32 || image.channels < 1 || image.channels > 4)
    throw EncoderError::writerFailed("PNG", "unsupported sample layout");
  std::vector<std::vector<uint8_t>> data;
  try {
    data = imageData(image);
  } catch (const std::bad_alloc&) {
    throw EncoderError::writerFailed("PNG", "out of memory");
  }
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
  const bool ok = png && info &&
                  writeChunks(png, info, &image, &metadata, metadata.xmp ? &text : nullptr, &data,
                              &out);
  png_destroy_write_struct(&png, &info);
  if (!ok) throw EncoderError::writerFailed("PNG");
  return out;
}

}  // namespace tarnbloom::encoding
