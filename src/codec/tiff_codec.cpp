#include <tiffio.h>

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "codec/cmyk.h"
#include "codec/codec_error.h"
#include "codec/formats.h"
#include "support/c_handle.h"

namespace tarnbloom::codec::detail {
namespace {

// libtiff refuses any single internal allocation above this (tag arrays,
// compressed strip buffers), so a forged count cannot exhaust memory.
constexpr tmsize_t kMaxLibraryAllocation = tmsize_t{512} << 20;
// No real tile is anywhere near this; a forged tile size would be.
constexpr uint64_t kMaxTileBytes = uint64_t{256} << 20;

// ---- Reading from memory ------------------------------------------------------

struct MemoryFile {
  const uint8_t* data;
  uint64_t size;
  uint64_t position;
};

tmsize_t readMemory(thandle_t handle, void* out, tmsize_t length) {
  auto* file = static_cast<MemoryFile*>(handle);
  if (length <= 0 || file->position >= file->size) return 0;
  const uint64_t count =
      std::min<uint64_t>(static_cast<uint64_t>(length), file->size - file->position);
  std::memcpy(out, file->data + file->position, count);
  file->position += count;
  return static_cast<tmsize_t>(count);
}

tmsize_t refuseWrite(thandle_t, void*, tmsize_t) { return -1; }

toff_t seekMemory(thandle_t handle, toff_t offset, int whence) {
  auto* file = static_cast<MemoryFile*>(handle);
  uint64_t base = 0;
  if (whence == SEEK_CUR) base = file->position;
  if (whence == SEEK_END) base = file->size;
  // Offsets come from the file; one past the end is allowed (reads then
  // return nothing), wrapping around is not.
  if (offset > UINT64_MAX / 2 || base + offset < base) return static_cast<toff_t>(-1);
  file->position = base + offset;
  return file->position;
}

int closeMemory(thandle_t) { return 0; }
toff_t memorySize(thandle_t handle) { return static_cast<MemoryFile*>(handle)->size; }
int noMap(thandle_t, void**, toff_t*) { return 0; }
void noUnmap(thandle_t, void*, toff_t) {}

// libtiff's messages stay out of stderr; the first error is kept for the
// CodecError detail. The handlers return 1 so the global ones stay silent.
struct TiffDiagnostics {
  bool failed = false;
  char message[256] = {};
};

int onTiffError(TIFF*, void* user, const char* module, const char* format, va_list args) {
  auto* diagnostics = static_cast<TiffDiagnostics*>(user);
  if (!diagnostics->failed) {
    diagnostics->failed = true;
    std::vsnprintf(diagnostics->message, sizeof diagnostics->message, format, args);
  }
  return 1;
}

int onTiffWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

using TiffHandle = CHandle<TIFF, TIFFClose>;
using OpenOptions = CHandle<TIFFOpenOptions, TIFFOpenOptionsFree>;

// An open TIFF over bytes in memory. libtiff keeps pointers to the memory
// state and the diagnostics, so the object stays where it was made.
class TiffFile {
 public:
  explicit TiffFile(Bytes bytes)
      : m_file{reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), 0} {
    OpenOptions options(TIFFOpenOptionsAlloc());
    if (!options) return;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), kMaxLibraryAllocation);
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), onTiffError, &m_diagnostics);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), onTiffWarning, nullptr);
    // "m": never ask to map; the bytes already are in memory.
    m_tiff.reset(TIFFClientOpenExt("memory", "rm", &m_file, readMemory, refuseWrite, seekMemory,
                                   closeMemory, memorySize, noMap, noUnmap, options.get()));
  }
  TiffFile(const TiffFile&) = delete;
  TiffFile& operator=(const TiffFile&) = delete;

  TIFF* get() const { return m_tiff.get(); }
  explicit operator bool() const { return m_tiff != nullptr; }
  TiffDiagnostics& diagnostics() { return m_diagnostics; }

 private:
  MemoryFile m_file;
  TiffDiagnostics m_diagnostics;
  TiffHandle m_tiff;
};

// Pages of the file. Reduced-resolution copies (previews) and transparency
// masks belong to a page and are not counted. Leaves the directory moved.
int countPages(TIFF* tiff) {
  const int directories = TIFFNumberOfDirectories(tiff);
  int companions = 0;
  while (TIFFReadDirectory(tiff)) {
    uint32_t subfileType = 0;
    if (TIFFGetField(tiff, TIFFTAG_SUBFILETYPE, &subfileType) &&
        (subfileType & (FILETYPE_REDUCEDIMAGE | FILETYPE_MASK)))
      ++companions;
  }
  return std::max(1, directories - companions);
}

uint16_t field16(TIFF* tiff, uint32_t tag) {
  uint16_t value = 0;
  TIFFGetFieldDefaulted(tiff, tag, &value);
  return value;
}

// ---- Layout -----------------------------------------------------------------

struct Layout {
  uint32_t width = 0;
  uint32_t height = 0;
  uint16_t samples = 1;
  uint16_t bits = 1;
  uint16_t format = SAMPLEFORMAT_UINT;
  uint16_t photometric = PHOTOMETRIC_MINISBLACK;
  uint16_t planar = PLANARCONFIG_CONTIG;
  int colour = 1;  // stored colour samples: 1 grey or palette index, 3 RGB, 4 CMYK
  bool alpha = false;
  bool associated = false;

  bool isFloat() const { return format == SAMPLEFORMAT_IEEEFP; }
  bool palette() const { return photometric == PHOTOMETRIC_PALETTE; }
  bool cmyk() const { return photometric == PHOTOMETRIC_SEPARATED; }
  int planes() const { return planar == PLANARCONFIG_SEPARATE ? samples : 1; }
  int samplesPerPlane() const { return planar == PLANARCONFIG_SEPARATE ? 1 : samples; }
  size_t planeRowBytes() const { return (size_t{width} * samplesPerPlane() * bits + 7) / 8; }
  size_t planeBytes() const { return planeRowBytes() * height; }
  // Channels we produce before any CMYK conversion.
  int workChannels() const { return (palette() ? 3 : colour) + (alpha ? 1 : 0); }
  SampleFormat workFormat() const {
    if (isFloat()) return SampleFormat::float32;
    return palette() || bits <= 8 ? SampleFormat::uint8 : SampleFormat::uint16;
  }
};

void readExtraSamples(TIFF* tiff, Layout& layout) {
  const int extra = layout.samples - layout.colour;
  if (extra <= 0) return;
  uint16_t count = 0;
  uint16_t* types = nullptr;
  if (!TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &count, &types) || count == 0) {
    // Writers that forget ExtraSamples nearly always mean plain alpha.
    layout.alpha = true;
    return;
  }
  layout.alpha = types[0] == EXTRASAMPLE_ASSOCALPHA || types[0] == EXTRASAMPLE_UNASSALPHA;
  layout.associated = types[0] == EXTRASAMPLE_ASSOCALPHA;
}

// ---- Reading stored samples ---------------------------------------------------

// Fills `out` with every plane's rows, packed as the file packs them (plane
// after plane for separate planes). False when a strip or tile is missing,
// short or fails to decompress.
bool readStrips(TIFF* tiff, const Layout& layout, uint8_t* out) {
  uint32_t rowsPerStrip = 0;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
  if (rowsPerStrip == 0 || rowsPerStrip > layout.height) rowsPerStrip = layout.height;
  const uint32_t stripsPerPlane = (layout.height - 1) / rowsPerStrip + 1;
  if (TIFFNumberOfStrips(tiff) < uint64_t{stripsPerPlane} * layout.planes()) return false;
  const size_t rowBytes = layout.planeRowBytes();
  for (int plane = 0; plane < layout.planes(); ++plane) {
    for (uint32_t strip = 0; strip < stripsPerPlane; ++strip) {
      const uint32_t firstRow = strip * rowsPerStrip;
      const size_t bytes = std::min(rowsPerStrip, layout.height - firstRow) * rowBytes;
      uint8_t* target = out + plane * layout.planeBytes() + firstRow * rowBytes;
      const tmsize_t read = TIFFReadEncodedStrip(tiff, plane * stripsPerPlane + strip, target,
                                                 static_cast<tmsize_t>(bytes));
      if (read != static_cast<tmsize_t>(bytes)) return false;
    }
  }
  return true;
}

bool readTiles(TIFF* tiff, const Layout& layout, uint8_t* out) {
  uint32_t tileWidth = 0;
  uint32_t tileHeight = 0;
  TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
  TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight);
  const uint64_t tileRowBytes =
      (uint64_t{tileWidth} * layout.samplesPerPlane() * layout.bits + 7) / 8;
  // Tiles must start on whole bytes for us to place them.
  if (tileWidth == 0 || tileHeight == 0 ||
      (uint64_t{tileWidth} * layout.samplesPerPlane() * layout.bits) % 8 ||
      tileRowBytes * tileHeight > kMaxTileBytes ||
      static_cast<uint64_t>(TIFFTileRowSize64(tiff)) != tileRowBytes)
    return false;
  const tmsize_t tileBytes = static_cast<tmsize_t>(tileRowBytes * tileHeight);
  SampleBytes tile(static_cast<size_t>(tileBytes));
  const size_t rowBytes = layout.planeRowBytes();
  for (int plane = 0; plane < layout.planes(); ++plane) {
    for (uint32_t y = 0; y < layout.height; y += tileHeight) {
      for (uint32_t x = 0; x < layout.width; x += tileWidth) {
        const uint32_t index = TIFFComputeTile(tiff, x, y, 0, static_cast<uint16_t>(plane));
        if (TIFFReadEncodedTile(tiff, index, tile.data(), tileBytes) != tileBytes) return false;
        const uint32_t rows = std::min(tileHeight, layout.height - y);
        const uint32_t columns = std::min(tileWidth, layout.width - x);
        const size_t offset = size_t{x} * layout.samplesPerPlane() * layout.bits / 8;
        const size_t bytes = (size_t{columns} * layout.samplesPerPlane() * layout.bits + 7) / 8;
        for (uint32_t r = 0; r < rows; ++r)
          std::memcpy(out + plane * layout.planeBytes() + (y + r) * rowBytes + offset,
                      tile.data() + r * tileRowBytes, bytes);
      }
    }
  }
  return true;
}

// ---- Converting samples ---------------------------------------------------------

// One stored sample after libtiff's byte swapping: whole-byte sizes are in
// host order, narrower ones are packed from the most significant bit.
uint32_t unpackInteger(const uint8_t* row, size_t index, int bits) {
  switch (bits) {
    case 8:
      return row[index];
    case 16: {
      uint16_t v;
      std::memcpy(&v, row + index * 2, 2);
      return v;
    }
    case 32: {
      uint32_t v;
      std::memcpy(&v, row + index * 4, 4);
      return v;
    }
    case 24: {
      const uint8_t* p = row + index * 3;
      return std::endian::native == std::endian::little
                 ? uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16
                 : uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2];
    }
    default: {
      uint32_t value = 0;
      for (size_t bit = index * bits, end = bit + bits; bit < end; ++bit)
        value = value << 1 | (row[bit >> 3] >> (7 - (bit & 7)) & 1u);
      return value;
    }
  }
}

float halfToFloat(uint16_t h) {
  const uint32_t sign = uint32_t{h & 0x8000u} << 16;
  uint32_t exponent = h >> 10 & 0x1f;
  uint32_t mantissa = h & 0x3ffu;
  uint32_t bits;
  if (exponent == 0x1f) {
    bits = sign | 0x7f800000u | mantissa << 13;
  } else if (exponent != 0) {
    bits = sign | (exponent + 112) << 23 | mantissa << 13;
  } else if (mantissa == 0) {
    bits = sign;
  } else {  // subnormal: normalise it
    exponent = 113;
    while (!(mantissa & 0x400u)) {
      mantissa <<= 1;
      --exponent;
    }
    bits = sign | exponent << 23 | (mantissa & 0x3ffu) << 13;
  }
  return std::bit_cast<float>(bits);
}

float unpackFloat(const uint8_t* row, size_t index, int bits) {
  if (bits == 16) return halfToFloat(static_cast<uint16_t>(unpackInteger(row, index, 16)));
  float v;
  std::memcpy(&v, row + index * 4, 4);
  return v;
}

// Palette entries as 8-bit RGB triples. Colour maps are 16-bit, but some old
// writers stored 8-bit values in them; those are recognised as libtiff does,
// by no entry exceeding 255.
std::vector<uint8_t> paletteTable(TIFF* tiff, int bits) {
  uint16_t* red = nullptr;
  uint16_t* green = nullptr;
  uint16_t* blue = nullptr;
  if (!TIFFGetField(tiff, TIFFTAG_COLORMAP, &red, &green, &blue) || !red || !green || !blue)
    throw CodecError::unreadable("palette image without a colour map");
  const size_t entries = size_t{1} << bits;
  bool eightBit = true;
  for (size_t i = 0; i < entries && eightBit; ++i)
    eightBit = red[i] < 256 && green[i] < 256 && blue[i] < 256;
  std::vector<uint8_t> table(entries * 3);
  auto to8 = [eightBit](uint16_t v) {
    return static_cast<uint8_t>(eightBit ? v : (v * 255u + 32767u) / 65535u);
  };
  for (size_t i = 0; i < entries; ++i) {
    table[i * 3] = to8(red[i]);
    table[i * 3 + 1] = to8(green[i]);
    table[i * 3 + 2] = to8(blue[i]);
  }
  return table;
}

// Stored samples (any integer width, half or single float, contiguous or
// separate planes, palette indices, min-is-white) to the work buffer.
template <typename T>
void convertSamples(const Layout& layout, const uint8_t* stored,
                    const std::vector<uint8_t>& palette, PixelBuffer& work) {
  const bool inverted = layout.photometric == PHOTOMETRIC_MINISWHITE;
  const uint64_t maxValue = layout.bits >= 32 ? 0xffffffffu : (uint64_t{1} << layout.bits) - 1;
  const uint64_t outMax = sizeof(T) == 1 ? 255 : 65535;
  const int storedChannels = layout.colour + (layout.alpha ? 1 : 0);
  // Where each stored channel's sample sits: plane and step within a pixel.
  const bool separate = layout.planar == PLANARCONFIG_SEPARATE;
  const size_t step = separate ? 1 : layout.samples;

  for (uint32_t y = 0; y < layout.height; ++y) {
    T* out = reinterpret_cast<T*>(work.row(static_cast<int>(y)));
    for (uint32_t x = 0; x < layout.width; ++x) {
      for (int c = 0; c < storedChannels; ++c) {
        const int sample =
            c < layout.colour ? c : layout.colour;  // alpha is the first extra sample
        const uint8_t* row =
            stored + (separate ? sample * layout.planeBytes() : 0) + y * layout.planeRowBytes();
        const size_t index = x * step + (separate ? 0 : sample);
        const bool isColour = c < layout.colour;
        if constexpr (std::is_same_v<T, float>) {
          const float v = unpackFloat(row, index, layout.bits);
          *out++ = inverted && isColour ? 1.0f - v : v;
        } else {
          uint64_t v = unpackInteger(row, index, layout.bits);
          if (isColour && !palette.empty()) {
            const uint8_t* rgb = &palette[v * 3];
            *out++ = rgb[0];
            *out++ = rgb[1];
            *out++ = rgb[2];
            continue;
          }
          if (inverted && isColour) v = maxValue - v;
          *out++ = static_cast<T>((v * outMax + maxValue / 2) / maxValue);
        }
      }
    }
  }
}

template <typename T>
void invertColour(PixelBuffer& work, int colour) {
  const T max = std::numeric_limits<T>::max();
  for (int y = 0; y < work.height; ++y) {
    T* p = reinterpret_cast<T*>(work.row(y));
    for (int x = 0; x < work.width; ++x, p += work.channels)
      for (int c = 0; c < colour; ++c) p[c] = max - p[c];
  }
}

// Associated (premultiplied) alpha to straight alpha.
template <typename T>
void unpremultiply(PixelBuffer& work) {
  const int colour = work.channels - 1;
  for (int y = 0; y < work.height; ++y) {
    T* p = reinterpret_cast<T*>(work.row(y));
    for (int x = 0; x < work.width; ++x, p += work.channels) {
      const T alpha = p[colour];
      for (int c = 0; c < colour; ++c) {
        if constexpr (std::is_same_v<T, float>) {
          p[c] = alpha > 0 ? p[c] / alpha : 0.0f;
        } else {
          constexpr uint32_t kMax = std::numeric_limits<T>::max();
          p[c] = alpha == 0
                     ? 0
                     : static_cast<T>(std::min<uint32_t>(kMax, (p[c] * kMax + alpha / 2u) / alpha));
        }
      }
    }
  }
}

void unpremultiply(PixelBuffer& work) {
  switch (work.format) {
    case SampleFormat::uint8:
      return unpremultiply<uint8_t>(work);
    case SampleFormat::uint16:
      return unpremultiply<uint16_t>(work);
    case SampleFormat::float32:
      return unpremultiply<float>(work);
  }
}

// CMYK (+ alpha) to RGB (+ alpha) in sRGB.
PixelBuffer convertCmyk(const PixelBuffer& work, std::span<const uint8_t> profile) {
  if (work.channels == 4) {
    PixelBuffer rgb;
    convertCmykToSrgb(work, profile, rgb);
    return rgb;
  }
  const size_t sample = work.bytesPerSample();
  PixelBuffer inks;
  inks.allocate(work.width, work.height, 4, work.format);
  for (size_t i = 0, n = size_t(work.width) * work.height; i < n; ++i)
    std::memcpy(inks.data.data() + i * 4 * sample, work.data.data() + i * 5 * sample, 4 * sample);
  PixelBuffer rgb;
  convertCmykToSrgb(inks, profile, rgb);
  PixelBuffer rgba;
  rgba.allocate(work.width, work.height, 4, work.format);
  for (size_t i = 0, n = size_t(work.width) * work.height; i < n; ++i) {
    std::memcpy(rgba.data.data() + i * 4 * sample, rgb.data.data() + i * 3 * sample, 3 * sample);
    std::memcpy(rgba.data.data() + (i * 4 + 3) * sample, work.data.data() + (i * 5 + 4) * sample,
                sample);
  }
  return rgba;
}

// ---- The general fallback ---------------------------------------------------------

class RgbaImage {
 public:
  RgbaImage(TIFF* tiff, char (&message)[1024]) {
    m_begun = TIFFRGBAImageBegin(&m_image, tiff, 0, message);
  }
  ~RgbaImage() {
    if (m_begun) TIFFRGBAImageEnd(&m_image);
  }
  RgbaImage(const RgbaImage&) = delete;
  RgbaImage& operator=(const RgbaImage&) = delete;
  bool begun() const { return m_begun; }
  TIFFRGBAImage& get() { return m_image; }

 private:
  TIFFRGBAImage m_image{};
  bool m_begun = false;
};

// Photometric interpretations we do not read natively (YCbCr without JPEG,
// CIE L*a*b*, LogLuv, old-style JPEG) go through libtiff's 8-bit RGBA
// renderer. It premultiplies any alpha, which is undone here.
PixelBuffer decodeThroughRgba(TIFF* tiff, const Layout& layout) {
  char message[1024] = {};
  if (!TIFFRGBAImageOK(tiff, message)) throw CodecError::unreadable(message);
  RgbaImage image(tiff, message);
  if (!image.begun()) throw CodecError::unreadable(message);
  // Ask for the stored orientation so libtiff does not flip rows: the
  // orientation is reported, not applied.
  image.get().req_orientation = image.get().orientation;
  std::vector<uint32_t> raster(size_t{layout.width} * layout.height);
  if (!TIFFRGBAImageGet(&image.get(), raster.data(), layout.width, layout.height))
    throw CodecError::unreadable("TIFF pixel data is damaged");

  const bool alpha = image.get().alpha != 0;
  PixelBuffer pixels;
  pixels.allocate(static_cast<int>(layout.width), static_cast<int>(layout.height), alpha ? 4 : 3,
                  SampleFormat::uint8);
  uint8_t* out = pixels.data.data();
  for (uint32_t abgr : raster) {
    *out++ = static_cast<uint8_t>(TIFFGetR(abgr));
    *out++ = static_cast<uint8_t>(TIFFGetG(abgr));
    *out++ = static_cast<uint8_t>(TIFFGetB(abgr));
    if (alpha) *out++ = static_cast<uint8_t>(TIFFGetA(abgr));
  }
  if (alpha) unpremultiply(pixels);
  return pixels;
}

// ---- Decoding -----------------------------------------------------------------------

// Reads the directory's layout; false when only the RGBA fallback can render it.
bool readLayout(TIFF* tiff, Layout& layout) {
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &layout.width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &layout.height);
  layout.samples = field16(tiff, TIFFTAG_SAMPLESPERPIXEL);
  layout.bits = field16(tiff, TIFFTAG_BITSPERSAMPLE);
  layout.format = field16(tiff, TIFFTAG_SAMPLEFORMAT);
  layout.planar = field16(tiff, TIFFTAG_PLANARCONFIG);
  if (!TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &layout.photometric))
    throw CodecError::unreadable("TIFF without a photometric interpretation");
  if (layout.format == SAMPLEFORMAT_VOID) layout.format = SAMPLEFORMAT_UINT;

  // libjpeg turns JPEG-compressed YCbCr into RGB for us.
  if (layout.photometric == PHOTOMETRIC_YCBCR &&
      field16(tiff, TIFFTAG_COMPRESSION) == COMPRESSION_JPEG) {
    TIFFSetField(tiff, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    layout.photometric = PHOTOMETRIC_RGB;
  }
  switch (layout.photometric) {
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
    case PHOTOMETRIC_PALETTE:
      layout.colour = 1;
      break;
    case PHOTOMETRIC_RGB:
      layout.colour = 3;
      break;
    case PHOTOMETRIC_SEPARATED:
      if (field16(tiff, TIFFTAG_INKSET) != INKSET_CMYK)
        throw CodecError::unreadable("TIFF with a non-CMYK ink set");
      layout.colour = 4;
      break;
    default:
      return false;
  }
  if (layout.samples < layout.colour)
    throw CodecError::unreadable("TIFF has too few samples per pixel");
  // Photographs carry at most CMYK plus a few extra channels; a header that
  // claims thousands would make us allocate gigabytes for a tiny file.
  if (layout.samples > 8) throw CodecError::unreadable("TIFF has too many samples per pixel");
  readExtraSamples(tiff, layout);

  if (layout.format == SAMPLEFORMAT_IEEEFP) {
    if (layout.bits > 32) throw CodecError::unsupportedDepth(layout.bits);
    if ((layout.bits != 16 && layout.bits != 32) || layout.palette())
      throw CodecError::unreadable("unsupported floating-point TIFF layout");
  } else if (layout.format == SAMPLEFORMAT_UINT) {
    if (layout.bits > 32) throw CodecError::unsupportedDepth(layout.bits);
    if (layout.bits == 0 || (layout.palette() && layout.bits > 16))
      throw CodecError::unreadable("unsupported TIFF sample size");
  } else {
    throw CodecError::unreadable("signed or complex TIFF samples");
  }
  return true;
}

PixelBuffer readNative(TIFF* tiff, const Layout& layout, std::span<const uint8_t> profile) {
  PixelBuffer work;
  work.allocate(static_cast<int>(layout.width), static_cast<int>(layout.height),
                layout.workChannels(), layout.workFormat());
  if (static_cast<uint64_t>(TIFFScanlineSize64(tiff)) != layout.planeRowBytes())
    throw CodecError::unreadable("unsupported TIFF row layout");
  auto readPlanes = [&](uint8_t* out) {
    return TIFFIsTiled(tiff) ? readTiles(tiff, layout, out) : readStrips(tiff, layout, out);
  };

  // The common layouts are stored exactly as we hold them: read them in place.
  const bool inPlace = layout.planes() == 1 && !layout.palette() &&
                       layout.format == SAMPLEFORMAT_UINT &&
                       (layout.bits == 8 || layout.bits == 16) && layout.samples == work.channels;
  if (inPlace) {
    if (!readPlanes(work.data.data())) throw CodecError::unreadable("TIFF pixel data is damaged");
    if (layout.photometric == PHOTOMETRIC_MINISWHITE) {
      if (layout.bits == 8)
        invertColour<uint8_t>(work, layout.colour);
      else
        invertColour<uint16_t>(work, layout.colour);
    }
  } else {
    const uint64_t storedBytes = uint64_t{layout.planeBytes()} * layout.planes();
    if (storedBytes > (uint64_t{1} << 32)) throw CodecError::unreadable("TIFF pixel data too large");
    SampleBytes stored(storedBytes);
    if (!readPlanes(stored.data())) throw CodecError::unreadable("TIFF pixel data is damaged");
    const auto palette =
        layout.palette() ? paletteTable(tiff, layout.bits) : std::vector<uint8_t>{};
    switch (work.format) {
      case SampleFormat::uint8:
        convertSamples<uint8_t>(layout, stored.data(), palette, work);
        break;
      case SampleFormat::uint16:
        convertSamples<uint16_t>(layout, stored.data(), palette, work);
        break;
      case SampleFormat::float32:
        convertSamples<float>(layout, stored.data(), palette, work);
        break;
    }
  }
  if (layout.associated) unpremultiply(work);
  return layout.cmyk() ? convertCmyk(work, profile) : std::move(work);
}

// A header is untrusted: a few hundred bytes can claim a 200-megapixel
// image. Before allocating for it, the strips or tiles must lie inside the
// file and hold at least as many bytes as any codec could expand that far.
void checkStoredDataIsThere(TIFF* tiff, const Layout& layout, uint64_t fileSize) {
  const uint32_t count = TIFFIsTiled(tiff) ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
  if (count == 0 || count > (uint32_t{1} << 24)) throw CodecError::unreadable("TIFF has no usable strips");
  uint64_t stored = 0;
  for (uint32_t i = 0; i < count; ++i) {
    int error = 0;
    const uint64_t offset = TIFFGetStrileOffsetWithErr(tiff, i, &error);
    const uint64_t size = TIFFGetStrileByteCountWithErr(tiff, i, &error);
    if (error || offset > fileSize || size > fileSize - offset)
      throw CodecError::unreadable("TIFF pixel data lies beyond the end of the file");
    stored += size;
  }
  const uint64_t expanded = uint64_t{layout.planeBytes()} * layout.planes();
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetField(tiff, TIFFTAG_COMPRESSION, &compression);
  // Deflate, the best-compressing codec TIFF photos use, expands at most
  // about 1,032 times; the slack covers other codecs and odd padding.
  const uint64_t maxRatio = compression == COMPRESSION_NONE ? 2 : 4096;
  if (stored * maxRatio < expanded) throw CodecError::unreadable("TIFF pixel data is missing or truncated");
}

}  // namespace

ContainerProbe probeTiff(Bytes bytes) {
  ContainerProbe probe;
  probe.container = Container::tiff;
  TiffFile file(bytes);
  if (!file) return probe;
  TIFF* tiff = file.get();
  uint32_t width = 0;
  uint32_t height = 0;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
  uint16_t photometric = 0;
  TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric);
  const uint16_t bits = field16(tiff, TIFFTAG_BITSPERSAMPLE);
  const uint16_t orientation = field16(tiff, TIFFTAG_ORIENTATION);

  probe.opened = true;
  probe.width = width;
  probe.height = height;
  // Palette entries are 8-bit samples whatever the width of the index.
  probe.bitsPerSample = photometric == PHOTOMETRIC_PALETTE ? 8 : bits;
  probe.isFloat = field16(tiff, TIFFTAG_SAMPLEFORMAT) == SAMPLEFORMAT_IEEEFP;
  probe.orientation = orientation >= 1 && orientation <= 8 ? orientation : 1;
  probe.hasProperties = width >= 1 && height >= 1 && bits >= 1;
  probe.frameCount = countPages(tiff);
  return probe;
}

DecodedFrame decodeTiff(Bytes bytes) {
  TiffFile file(bytes);
  if (!file) throw CodecError::unreadable(file.diagnostics().message);
  TIFF* tiff = file.get();
  if (TIFFNumberOfDirectories(tiff) > 1) {
    const int pages = countPages(tiff);
    if (pages > 1) throw CodecError::multiFrame(pages);
    if (!TIFFSetDirectory(tiff, 0)) throw CodecError::unreadable(file.diagnostics().message);
  }

  Layout layout;
  const bool native = readLayout(tiff, layout);
  checkDimensions(layout.width, layout.height);
  checkStoredDataIsThere(tiff, layout, bytes.size());

  DecodedFrame frame;
  frame.container = Container::tiff;
  frame.isFloat = layout.isFloat();
  frame.nativeBits = layout.palette() || !native ? 8 : layout.bits;
  const uint16_t orientation = field16(tiff, TIFFTAG_ORIENTATION);
  frame.orientation = orientation >= 1 && orientation <= 8 ? orientation : 1;
  uint32_t length = 0;
  void* data = nullptr;
  if (TIFFGetField(tiff, TIFFTAG_ICCPROFILE, &length, &data) && data)
    frame.iccProfile.assign(static_cast<const uint8_t*>(data),
                            static_cast<const uint8_t*>(data) + length);
  if (TIFFGetField(tiff, TIFFTAG_XMLPACKET, &length, &data) && data) {
    frame.xmp.assign(static_cast<const char*>(data), length);
    // Some writers count the C string's terminator as part of the packet.
    while (!frame.xmp.empty() && frame.xmp.back() == '\0') frame.xmp.pop_back();
  }

  // Complaints while reading the directories do not matter; any while
  // decoding pixels do.
  file.diagnostics() = {};
  frame.pixels =
      native ? readNative(tiff, layout, frame.iccProfile) : decodeThroughRgba(tiff, layout);
  if (file.diagnostics().failed) throw CodecError::unreadable(file.diagnostics().message);
  if (layout.cmyk()) {
    frame.iccProfile.clear();
    frame.convertedFromCmyk = true;
  }
  return frame;
}

}  // namespace tarnbloom::codec::detail
