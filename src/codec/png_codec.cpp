#include <lcms2.h>
#include <png.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "codec/codec_error.h"
#include "codec/formats.h"
#include "codec/tiff_structure.h"
#include "support/c_handle.h"

namespace tarnbloom::codec::detail {
namespace {

constexpr std::array<uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr std::string_view kXmpKeyword = "XML:com.adobe.xmp";
// Metadata chunks (iCCP, iTXt, eXIf) larger than this are dropped by libpng
// rather than allocated: a hostile length field must not cost gigabytes.
constexpr png_alloc_size_t kMaxChunkBytes = 32u << 20;

uint32_t readBigEndian32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

constexpr std::array<uint32_t, 256> makeCrcTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = c & 1 ? 0xedb88320u ^ (c >> 1) : c >> 1;
    table[n] = c;
  }
  return table;
}
constexpr auto kCrcTable = makeCrcTable();

uint32_t crc32(std::span<const uint8_t> bytes) {
  uint32_t c = 0xffffffffu;
  for (uint8_t b : bytes) c = kCrcTable[(c ^ b) & 0xff] ^ (c >> 8);
  return c ^ 0xffffffffu;
}

bool validDepth(int colourType, int depth) {
  switch (colourType) {
    case 0:
      return depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16;
    case 3:
      return depth == 1 || depth == 2 || depth == 4 || depth == 8;
    case 2:
    case 4:
    case 6:
      return depth == 8 || depth == 16;
    default:
      return false;
  }
}

// What the chunk layout tells us without inflating anything. The probe uses
// it alone; the decoder uses it to refuse animations before libpng runs,
// since Debian's libpng knows nothing of acTL.
struct ChunkScan {
  bool headerValid = false;
  uint32_t width = 0;
  uint32_t height = 0;
  int bitDepth = 0;
  int colourType = 0;
  int frameCount = 1;
  uint32_t orientation = 1;
  uint64_t imageDataBytes = 0;  // compressed, over all IDAT chunks
  // A chunk claims more bytes than the file has left before IEND.
  bool chunkOverrun = false;
};

ChunkScan scanChunks(std::span<const uint8_t> bytes) {
  ChunkScan scan;
  // Signature, then IHDR: length, type, 13 bytes of data, CRC.
  if (bytes.size() < 8 + 8 + 13 + 4 ||
      !std::equal(kSignature.begin(), kSignature.end(), bytes.begin()))
    return scan;
  const uint8_t* ihdr = bytes.data() + 8;
  if (readBigEndian32(ihdr) != 13 || std::memcmp(ihdr + 4, "IHDR", 4) != 0) return scan;
  if (crc32(bytes.subspan(12, 17)) != readBigEndian32(ihdr + 21)) return scan;
  scan.width = readBigEndian32(ihdr + 8);
  scan.height = readBigEndian32(ihdr + 12);
  scan.bitDepth = ihdr[16];
  scan.colourType = ihdr[17];
  if (scan.width == 0 || scan.height == 0 || scan.width > 0x7fffffffu ||
      scan.height > 0x7fffffffu || !validDepth(scan.colourType, scan.bitDepth) || ihdr[18] != 0 ||
      ihdr[19] != 0 || ihdr[20] > 1)
    return scan;
  scan.headerValid = true;

  // Walking the remaining chunk headers is cheap even for large files: only
  // lengths are read and the data is skipped. eXIf may follow the image data.
  bool seenImageData = false;
  size_t at = 8 + 25;
  while (bytes.size() - at >= 12) {
    const uint32_t length = readBigEndian32(bytes.data() + at);
    if (length > 0x7fffffffu || bytes.size() - at - 12 < length) {
      scan.chunkOverrun = true;
      break;
    }
    const std::string_view type(reinterpret_cast<const char*>(bytes.data() + at + 4), 4);
    const auto data = bytes.subspan(at + 8, length);
    if (type == "IDAT") {
      seenImageData = true;
      scan.imageDataBytes += length;
    } else if (type == "acTL" && !seenImageData && length >= 8) {
      // An acTL after the image data is invalid and ignored by APNG readers.
      const uint32_t frames = readBigEndian32(data.data());
      if (frames > 1)
        scan.frameCount = frames > 0x7fffffffu ? 0x7fffffff : static_cast<int>(frames);
    } else if (type == "eXIf") {
      scan.orientation = exifOrientation(data);
    } else if (type == "IEND") {
      break;
    }
    at += 12 + size_t{length};
  }
  return scan;
}

// State the libpng callbacks reach through their user pointers. Plain data
// only: the callbacks leave by longjmp.
struct PngInput {
  const uint8_t* data;
  size_t size;
  size_t position;
  char message[160];
};

void readFromMemory(png_structp png, png_bytep out, size_t length) {
  auto* input = static_cast<PngInput*>(png_get_io_ptr(png));
  if (length > input->size - input->position) png_error(png, "file is truncated");
  std::memcpy(out, input->data + input->position, length);
  input->position += length;
}

[[noreturn]] void onPngError(png_structp png, png_const_charp message) {
  auto* input = static_cast<PngInput*>(png_get_error_ptr(png));
  std::snprintf(input->message, sizeof input->message, "%s", message);
  png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

class PngReader {
 public:
  explicit PngReader(PngInput& input) {
    m_png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &input, onPngError, onPngWarning);
    if (m_png) m_info = png_create_info_struct(m_png);
    if (!m_png || !m_info) {
      png_destroy_read_struct(&m_png, nullptr, nullptr);
      throw CodecError::unreadable("libpng: out of memory");
    }
    png_set_read_fn(m_png, &input, readFromMemory);
    png_set_user_limits(m_png, static_cast<png_uint_32>(kMaxSourceSide),
                        static_cast<png_uint_32>(kMaxSourceSide));
    png_set_chunk_cache_max(m_png, 1000);
    png_set_chunk_malloc_max(m_png, kMaxChunkBytes);
  }
  ~PngReader() { png_destroy_read_struct(&m_png, &m_info, nullptr); }
  PngReader(const PngReader&) = delete;
  PngReader& operator=(const PngReader&) = delete;

  png_structp png() const { return m_png; }
  png_infop info() const { return m_info; }

 private:
  png_structp m_png = nullptr;
  png_infop m_info = nullptr;
};

// Everything comes out as 8 or 16-bit grey, grey+alpha, RGB or RGBA in host
// byte order; transparency chunks become a real alpha channel.
void configureTransforms(png_structp png, png_infop info) {
  const int colourType = png_get_color_type(png, info);
  const int bitDepth = png_get_bit_depth(png, info);
  if (colourType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colourType == PNG_COLOR_TYPE_GRAY && bitDepth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
  if (bitDepth == 16 && std::endian::native == std::endian::little) png_set_swap(png);
  png_set_interlace_handling(png);
}

// libpng reports errors by longjmp back into these two; their locals are
// trivial so nothing is skipped that needed destroying.
bool readPngHeader(png_structp png, png_infop info) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_info(png, info);
  configureTransforms(png, info);
  png_read_update_info(png, info);
  return true;
}

bool readPngPixels(png_structp png, png_infop info, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_image(png, rows);
  // Reads the chunks after the image data (text, eXIf) and their CRCs, so a
  // file cut short anywhere is refused.
  png_read_end(png, info);
  return true;
}

using Profile = CHandle<void, cmsCloseProfile>;
using ToneCurve = CHandle<cmsToneCurve, cmsFreeToneCurve>;

// A file that declares its gamma (and perhaps its primaries) but no profile
// gets a matching ICC profile, so the colour pipeline sees what the file says.
std::vector<uint8_t> profileFromChromaticities(png_structp png, png_infop info, bool grey) {
  double fileGamma = 0;
  if (!png_get_gAMA(png, info, &fileGamma) || fileGamma < 0.1 || fileGamma > 10) return {};
  ToneCurve curve(cmsBuildGamma(nullptr, 1.0 / fileGamma));
  if (!curve) return {};
  cmsCIExyY white{0.3127, 0.3290, 1.0};
  cmsCIExyYTRIPLE primaries{{0.64, 0.33, 1.0}, {0.30, 0.60, 1.0}, {0.15, 0.06, 1.0}};
  double wx, wy, rx, ry, gx, gy, bx, by;
  if (png_get_cHRM(png, info, &wx, &wy, &rx, &ry, &gx, &gy, &bx, &by)) {
    white = {wx, wy, 1.0};
    primaries = {{rx, ry, 1.0}, {gx, gy, 1.0}, {bx, by, 1.0}};
  }
  cmsToneCurve* curves[3] = {curve.get(), curve.get(), curve.get()};
  Profile profile(grey ? cmsCreateGrayProfile(&white, curve.get())
                       : cmsCreateRGBProfile(&white, &primaries, curves));
  cmsUInt32Number size = 0;
  if (!profile || !cmsSaveProfileToMem(profile.get(), nullptr, &size) || size == 0) return {};
  std::vector<uint8_t> bytes(size);
  if (!cmsSaveProfileToMem(profile.get(), bytes.data(), &size)) return {};
  return bytes;
}

void collectMetadata(png_structp png, png_infop info, DecodedFrame& frame) {
  png_charp name = nullptr;
  int compression = 0;
  png_bytep profile = nullptr;
  png_uint_32 profileLength = 0;
  if (png_get_iCCP(png, info, &name, &compression, &profile, &profileLength) && profile)
    frame.iccProfile.assign(profile, profile + profileLength);
  else if (!png_get_valid(png, info, PNG_INFO_sRGB))
    frame.iccProfile = profileFromChromaticities(png, info, frame.pixels.isGrey());

  png_uint_32 exifLength = 0;
  png_bytep exif = nullptr;
  if (png_get_eXIf_1(png, info, &exifLength, &exif) && exif) {
    const auto blob = withoutExifPrefix(std::span<const uint8_t>(exif, exifLength));
    frame.exif.assign(blob.begin(), blob.end());
  }

  png_textp texts = nullptr;
  int textCount = 0;
  png_get_text(png, info, &texts, &textCount);
  for (int i = 0; i < textCount; ++i) {
    if (texts[i].key && texts[i].text && texts[i].key == kXmpKeyword) {
      frame.xmp = texts[i].text;
      break;
    }
  }
}

}  // namespace

ContainerProbe probePng(Bytes bytes) {
  ContainerProbe probe;
  probe.container = Container::png;
  const auto scan = scanChunks({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
  if (!scan.headerValid) return probe;
  probe.opened = true;
  probe.frameCount = scan.frameCount;
  probe.hasProperties = true;
  probe.width = scan.width;
  probe.height = scan.height;
  // Palette entries are 8-bit samples whatever the width of the index.
  probe.bitsPerSample = scan.colourType == PNG_COLOR_TYPE_PALETTE ? 8 : scan.bitDepth;
  probe.orientation = scan.orientation;
  return probe;
}

DecodedFrame decodePng(Bytes bytes) {
  const std::span<const uint8_t> data(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  const auto scan = scanChunks(data);
  if (!scan.headerValid) throw CodecError::unreadable("PNG header is damaged");
  if (scan.frameCount > 1) throw CodecError::multiFrame(scan.frameCount);
  checkDimensions(scan.width, scan.height);
  // libpng allocates a chunk's declared length before reading it: a 4 KB
  // file claiming a 1.8 GB text chunk would cost that much first.
  if (scan.chunkOverrun) throw CodecError::unreadable("a PNG chunk runs past the end of the file");
  // Deflate expands at most about 1,032 times. A header claiming more
  // pixels than its image data could ever hold is refused before a frame
  // of that size is allocated (a 100-byte file must not cost gigabytes).
  const uint64_t rawBytes = (uint64_t{scan.width} * scan.bitDepth *
                                 (scan.colourType == 2 ? 3 : scan.colourType == 6 ? 4 : scan.colourType == 4 ? 2 : 1) +
                             7) / 8 * scan.height + scan.height;
  if (rawBytes > scan.imageDataBytes * 1100 + 4096)
    throw CodecError::unreadable("PNG image data is too short for its size");

  PngInput input{data.data(), data.size(), 0, {}};
  PngReader reader(input);
  if (!readPngHeader(reader.png(), reader.info())) throw CodecError::unreadable(input.message);

  DecodedFrame frame;
  frame.container = Container::png;
  frame.orientation = scan.orientation;
  frame.nativeBits = scan.colourType == PNG_COLOR_TYPE_PALETTE ? 8 : scan.bitDepth;
  const int channels = png_get_channels(reader.png(), reader.info());
  const int depth = png_get_bit_depth(reader.png(), reader.info());
  if (channels < 1 || channels > 4 || (depth != 8 && depth != 16))
    throw CodecError::unreadable("unexpected PNG layout");
  auto& pixels = frame.pixels;
  pixels.allocate(static_cast<int>(png_get_image_width(reader.png(), reader.info())),
                  static_cast<int>(png_get_image_height(reader.png(), reader.info())), channels,
                  depth == 16 ? SampleFormat::uint16 : SampleFormat::uint8);
  if (png_get_rowbytes(reader.png(), reader.info()) != pixels.rowBytes())
    throw CodecError::unreadable("unexpected PNG row size");

  std::vector<png_bytep> rows(static_cast<size_t>(pixels.height));
  for (int y = 0; y < pixels.height; ++y) rows[y] = pixels.row(y);
  if (!readPngPixels(reader.png(), reader.info(), rows.data()))
    throw CodecError::unreadable(input.message);

  collectMetadata(reader.png(), reader.info(), frame);
  return frame;
}

}  // namespace tarnbloom::codec::detail
