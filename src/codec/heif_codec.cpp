#include <lcms2.h>
#include <libheif/heif.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

#include "codec/codec_error.h"
#include "codec/formats.h"
#include "codec/tiff_structure.h"
#include "support/c_handle.h"

namespace tarnbloom::codec::detail {
namespace {

// ---------------------------------------------------------------------------
// A bounds-checked reader of ISO base media boxes. libheif parses the file
// for decoding; we read the few boxes it does not expose in this version:
// the primary item's rotation and mirror properties, and the track of an
// image sequence.

using ByteSpan = std::span<const uint8_t>;

uint32_t be16(ByteSpan b, size_t at) { return uint32_t{b[at]} << 8 | b[at + 1]; }
uint32_t be32(ByteSpan b, size_t at) {
  return uint32_t{b[at]} << 24 | uint32_t{b[at + 1]} << 16 | uint32_t{b[at + 2]} << 8 | b[at + 3];
}

struct Box {
  std::string_view type;
  ByteSpan body;
};

// The boxes that lie wholly inside `bytes`; stops at the first one that does
// not, so a truncated file yields the boxes before the damage.
std::vector<Box> boxesIn(ByteSpan bytes) {
  std::vector<Box> boxes;
  size_t at = 0;
  while (bytes.size() - at >= 8) {
    uint64_t size = be32(bytes, at);
    size_t header = 8;
    if (size == 1) {
      if (bytes.size() - at < 16) break;
      size = uint64_t{be32(bytes, at + 8)} << 32 | be32(bytes, at + 12);
      header = 16;
    } else if (size == 0) {
      size = bytes.size() - at;  // extends to the end of the file
    }
    if (size < header || size > bytes.size() - at) break;
    boxes.push_back({std::string_view(reinterpret_cast<const char*>(bytes.data() + at + 4), 4),
                     bytes.subspan(at + header, static_cast<size_t>(size) - header)});
    at += static_cast<size_t>(size);
  }
  return boxes;
}

std::optional<Box> findBox(ByteSpan bytes, std::string_view type) {
  for (const Box& box : boxesIn(bytes))
    if (box.type == type) return box;
  return std::nullopt;
}

// A box path such as {"mdia", "minf", "stbl", "stsz"} below `bytes`.
std::optional<Box> findPath(ByteSpan bytes, std::initializer_list<std::string_view> path) {
  std::optional<Box> box;
  for (const std::string_view type : path) {
    box = findBox(box ? box->body : bytes, type);
    if (!box) return std::nullopt;
  }
  return box;
}

// Version and flags of a full box; nullopt when the box is too short.
struct FullBox {
  uint8_t version;
  uint32_t flags;
  ByteSpan body;
};
std::optional<FullBox> fullBox(const Box& box) {
  if (box.body.size() < 4) return std::nullopt;
  return FullBox{box.body[0], be32(box.body, 0) & 0xffffff, box.body.subspan(4)};
}

// The number of pictures in an image sequence (a 'moov' track, as in
// animated AVIF and HEIF sequences); 0 for a still image file. 2 when the
// file says it is a sequence but its sample table cannot be read.
int sequenceFrameCount(ByteSpan bytes) {
  const auto top = boxesIn(bytes);
  bool sequenceBrand = false;
  bool hasMeta = false;
  std::optional<Box> moov;
  for (const Box& box : top) {
    if (box.type == "ftyp") {
      for (size_t at = 0; at + 4 <= box.body.size(); at += 4) {
        if (at == 4) continue;  // minor version
        const std::string_view brand(reinterpret_cast<const char*>(box.body.data() + at), 4);
        sequenceBrand |= brand == "avis" || brand == "msf1" || brand == "hevs";
      }
    }
    if (box.type == "meta") hasMeta = true;
    if (box.type == "moov") moov = box;
  }
  if (!sequenceBrand && !moov) return 0;
  int samples = 0;
  if (moov) {
    for (const Box& trak : boxesIn(moov->body)) {
      if (trak.type != "trak") continue;
      const auto stsz = findPath(trak.body, {"mdia", "minf", "stbl", "stsz"});
      const auto table = stsz ? fullBox(*stsz) : std::nullopt;
      if (table && table->body.size() >= 8)
        samples = std::max(samples,
                           static_cast<int>(std::min<uint32_t>(be32(table->body, 4), INT32_MAX)));
    }
  }
  // A one-picture "sequence" beside a still primary item is a still image.
  if (samples == 1 && hasMeta) return 0;
  return std::max(samples, 2);
}

// Orientations as integer matrices acting on (x right, y down): a stored
// pixel at p is shown at M·p. Index i holds EXIF orientation i + 1.
struct Matrix {
  int a, b, c, d;
  bool operator==(const Matrix&) const = default;
};
constexpr std::array<Matrix, 8> kExifMatrices = {{
    {1, 0, 0, 1},    // 1 identity
    {-1, 0, 0, 1},   // 2 mirrored left-right
    {-1, 0, 0, -1},  // 3 rotated 180°
    {1, 0, 0, -1},   // 4 mirrored top-bottom
    {0, 1, 1, 0},    // 5 transposed
    {0, -1, 1, 0},   // 6 rotated 90° clockwise for display
    {0, -1, -1, 0},  // 7 transversed
    {0, 1, -1, 0},   // 8 rotated 90° anti-clockwise for display
}};

Matrix then(const Matrix& first, const Matrix& second) {
  return {second.a * first.a + second.b * first.c, second.a * first.b + second.b * first.d,
          second.c * first.a + second.d * first.c, second.c * first.b + second.d * first.d};
}

uint32_t exifOrientationOf(const Matrix& m) {
  for (size_t i = 0; i < kExifMatrices.size(); ++i)
    if (kExifMatrices[i] == m) return static_cast<uint32_t>(i + 1);
  return 1;
}

struct PrimaryTransforms {
  uint32_t orientation = 1;
  bool cropped = false;  // a clean aperture ('clap') applies
};

// Reads meta/pitm and the primary item's property associations (ipma) and
// composes its 'irot' and 'imir' properties in association order, which is
// the order a reader applies them.
PrimaryTransforms primaryTransforms(ByteSpan bytes) {
  PrimaryTransforms result;
  const auto metaBox = findBox(bytes, "meta");
  const auto meta = metaBox ? fullBox(*metaBox) : std::nullopt;
  if (!meta) return result;
  const auto pitmBox = findBox(meta->body, "pitm");
  const auto pitm = pitmBox ? fullBox(*pitmBox) : std::nullopt;
  if (!pitm || pitm->body.size() < (pitm->version == 0 ? 2u : 4u)) return result;
  const uint32_t primary = pitm->version == 0 ? be16(pitm->body, 0) : be32(pitm->body, 0);
  const auto iprp = findBox(meta->body, "iprp");
  if (!iprp) return result;
  const auto children = boxesIn(iprp->body);
  const auto ipco = findBox(iprp->body, "ipco");
  if (!ipco) return result;
  const auto properties = boxesIn(ipco->body);

  Matrix transform = kExifMatrices[0];
  for (const Box& box : children) {
    if (box.type != "ipma") continue;
    const auto ipma = fullBox(box);
    if (!ipma) continue;
    const ByteSpan b = ipma->body;
    const size_t idSize = ipma->version < 1 ? 2 : 4;
    const size_t indexSize = (ipma->flags & 1) ? 2 : 1;
    if (b.size() < 4) continue;
    const uint32_t entries = be32(b, 0);
    size_t at = 4;
    for (uint32_t e = 0; e < entries; ++e) {
      if (b.size() - at < idSize + 1) break;
      const uint32_t item = idSize == 2 ? be16(b, at) : be32(b, at);
      const size_t count = b[at + idSize];
      at += idSize + 1;
      if (b.size() - at < count * indexSize) break;
      if (item == primary) {
        for (size_t i = 0; i < count; ++i) {
          const size_t p = at + i * indexSize;
          const uint32_t index = indexSize == 2 ? be16(b, p) & 0x7fff : b[p] & 0x7f;
          if (index == 0 || index > properties.size()) continue;
          const Box& property = properties[index - 1];
          if (property.type == "clap") result.cropped = true;
          if (property.body.empty()) continue;
          if (property.type == "irot") {
            // Anti-clockwise quarter turns.
            for (int turn = 0; turn < (property.body[0] & 3); ++turn)
              transform = then(transform, kExifMatrices[7]);
          } else if (property.type == "imir") {
            // Axis 0 exchanges top and bottom, 1 left and right (the 2017
            // wording of "axis" was read both ways; libheif and current
            // HEIF readers use this one).
            transform = then(transform, kExifMatrices[(property.body[0] & 1) ? 1 : 3]);
          }
        }
      }
      at += count * indexSize;
    }
  }
  result.orientation = exifOrientationOf(transform);
  return result;
}

// ---------------------------------------------------------------------------

using Context = CHandle<heif_context, heif_context_free>;
using Handle = CHandle<heif_image_handle, heif_image_handle_release>;
using Image = CHandle<heif_image, heif_image_release>;
using DecodingOptions = CHandle<heif_decoding_options, heif_decoding_options_free>;
using Nclx = CHandle<heif_color_profile_nclx, heif_nclx_color_profile_free>;
using Profile = CHandle<void, cmsCloseProfile>;
using ToneCurve = CHandle<cmsToneCurve, cmsFreeToneCurve>;

ByteSpan asUint8(Bytes bytes) {
  return {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
}

// Parses the boxes (no pixels are decoded). The context reads `bytes` in
// place, so it must not outlive them.
Context openContext(Bytes bytes) {
  Context ctx(heif_context_alloc());
  if (!ctx || bytes.empty()) return nullptr;
  const heif_error err =
      heif_context_read_from_memory_without_copy(ctx.get(), bytes.data(), bytes.size(), nullptr);
  if (err.code != heif_error_Ok) return nullptr;
  return ctx;
}

Handle primaryHandle(heif_context* ctx) {
  heif_image_handle* handle = nullptr;
  if (heif_context_get_primary_image_handle(ctx, &handle).code != heif_error_Ok) return nullptr;
  return Handle(handle);
}

bool transposes(uint32_t orientation) { return orientation >= 5 && orientation <= 8; }

// The pixels of `shown` (the picture after `orientation` was applied) put
// back as stored. Used when libheif had to apply the transformations itself.
PixelBuffer unorient(const PixelBuffer& shown, uint32_t orientation) {
  const bool swap = transposes(orientation);
  PixelBuffer stored;
  stored.allocate(swap ? shown.height : shown.width, swap ? shown.width : shown.height,
                  shown.channels, shown.format);
  const int w = stored.width;
  const int h = stored.height;
  const size_t pixelBytes = shown.channels * shown.bytesPerSample();
  for (int y = 0; y < h; ++y) {
    uint8_t* out = stored.row(y);
    for (int x = 0; x < w; ++x) {
      int u = x, v = y;  // where stored (x, y) is shown
      switch (orientation) {
        case 2:
          u = w - 1 - x;
          break;
        case 3:
          u = w - 1 - x, v = h - 1 - y;
          break;
        case 4:
          v = h - 1 - y;
          break;
        case 5:
          u = y, v = x;
          break;
        case 6:
          u = h - 1 - y, v = x;
          break;
        case 7:
          u = h - 1 - y, v = w - 1 - x;
          break;
        case 8:
          u = y, v = w - 1 - x;
          break;
        default:
          break;
      }
      std::memcpy(out + x * pixelBytes, shown.row(v) + u * pixelBytes, pixelBytes);
    }
  }
  return stored;
}

// An ICC profile for an nclx colour description; empty for sRGB (or when
// nothing is declared), which is what we assume for files without one.
std::vector<uint8_t> profileForNclx(const heif_color_profile_nclx& nclx) {
  const int primaries = nclx.color_primaries;
  const int transfer = nclx.transfer_characteristics;
  const bool srgbPrimaries = primaries == heif_color_primaries_ITU_R_BT_709_5 ||
                             primaries == heif_color_primaries_unspecified;
  const bool srgbTransfer = transfer == heif_transfer_characteristic_IEC_61966_2_1 ||
                            transfer == heif_transfer_characteristic_unspecified;
  if (srgbPrimaries && srgbTransfer) return {};

  // Parametric curve type 4: Y = (aX + b)^g for X >= d, else cX.
  std::array<double, 5> curve = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  switch (transfer) {
    case heif_transfer_characteristic_ITU_R_BT_709_5:
    case heif_transfer_characteristic_ITU_R_BT_601_6:
    case heif_transfer_characteristic_ITU_R_BT_2020_2_10bit:
    case heif_transfer_characteristic_ITU_R_BT_2020_2_12bit:
      curve = {1 / 0.45, 1 / 1.099, 0.099 / 1.099, 1 / 4.5, 0.081};
      break;
    case heif_transfer_characteristic_linear:
      curve = {1, 1, 0, 1, 0};
      break;
    case heif_transfer_characteristic_ITU_R_BT_470_6_System_M:
      curve = {2.2, 1, 0, 1, 0};
      break;
    case heif_transfer_characteristic_ITU_R_BT_470_6_System_B_G:
      curve = {2.8, 1, 0, 1, 0};
      break;
    default:
      break;  // sRGB; PQ and HLG have no ICC curve and are shown as sRGB
  }
  // libheif fills in the chromaticities of the declared primaries (BT.709's
  // for unspecified ones).
  const cmsCIExyY white = {nclx.color_primary_white_x, nclx.color_primary_white_y, 1.0};
  const cmsCIExyYTRIPLE xy = {{nclx.color_primary_red_x, nclx.color_primary_red_y, 1.0},
                              {nclx.color_primary_green_x, nclx.color_primary_green_y, 1.0},
                              {nclx.color_primary_blue_x, nclx.color_primary_blue_y, 1.0}};
  if (white.x <= 0 || white.y <= 0 || xy.Red.y <= 0 || xy.Green.y <= 0 || xy.Blue.y <= 0) return {};
  const ToneCurve tone(cmsBuildParametricToneCurve(nullptr, 4, curve.data()));
  if (!tone) return {};
  cmsToneCurve* curves[3] = {tone.get(), tone.get(), tone.get()};
  const Profile profile(cmsCreateRGBProfile(&white, &xy, curves));
  cmsUInt32Number size = 0;
  if (!profile || !cmsSaveProfileToMem(profile.get(), nullptr, &size) || size == 0) return {};
  std::vector<uint8_t> icc(size);
  if (!cmsSaveProfileToMem(profile.get(), icc.data(), &size)) return {};
  return icc;
}

std::vector<uint8_t> colourProfile(const heif_image_handle* handle) {
  // An ICC profile wins over nclx when a file has both.
  if (const size_t size = heif_image_handle_get_raw_color_profile_size(handle); size > 0) {
    std::vector<uint8_t> icc(size);
    if (heif_image_handle_get_raw_color_profile(handle, icc.data()).code == heif_error_Ok)
      return icc;
    return {};
  }
  heif_color_profile_nclx* raw = nullptr;
  const heif_error err = heif_image_handle_get_nclx_color_profile(handle, &raw);
  const Nclx nclx(raw);  // libheif may hand one out even with an error
  return err.code == heif_error_Ok && nclx ? profileForNclx(*nclx) : std::vector<uint8_t>{};
}

std::vector<uint8_t> metadataBlock(const heif_image_handle* handle, heif_item_id id) {
  std::vector<uint8_t> data(heif_image_handle_get_metadata_size(handle, id));
  if (data.empty() || heif_image_handle_get_metadata(handle, id, data.data()).code != heif_error_Ok)
    return {};
  return data;
}

void readMetadata(const heif_image_handle* handle, DecodedFrame& out) {
  const int count = heif_image_handle_get_number_of_metadata_blocks(handle, nullptr);
  if (count <= 0) return;
  std::vector<heif_item_id> ids(static_cast<size_t>(count));
  const int listed =
      heif_image_handle_get_list_of_metadata_block_IDs(handle, nullptr, ids.data(), count);
  ids.resize(static_cast<size_t>(std::clamp(listed, 0, count)));
  for (const heif_item_id id : ids) {
    const std::string_view type = heif_image_handle_get_metadata_type(handle, id);
    if (type == "Exif" && out.exif.empty()) {
      // A 4-byte big-endian offset from its end to the TIFF header comes first.
      const auto block = metadataBlock(handle, id);
      if (block.size() < 4) continue;
      const uint64_t skip = uint64_t{4} + be32(block, 0);
      if (skip >= block.size()) continue;
      const auto tiff = withoutExifPrefix(ByteSpan(block).subspan(static_cast<size_t>(skip)));
      out.exif.assign(tiff.begin(), tiff.end());
    } else if (type == "mime" && out.xmp.empty()) {
      const char* contentType = heif_image_handle_get_metadata_content_type(handle, id);
      if (!contentType || std::string_view(contentType) != "application/rdf+xml") continue;
      const auto block = metadataBlock(handle, id);
      out.xmp.assign(reinterpret_cast<const char*>(block.data()), block.size());
    }
  }
}

// Copies libheif's interleaved samples into `out`, widening 9...16-bit
// samples to the full 16-bit range.
void copyPixels(const heif_image* image, int bits, PixelBuffer& out) {
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(image, heif_channel_interleaved, &stride);
  if (!plane || stride < 0 || static_cast<size_t>(stride) < out.rowBytes())
    throw CodecError::unreadable("HEIF decoder returned no pixels");
  if (out.format == SampleFormat::uint8) {
    for (int y = 0; y < out.height; ++y)
      std::memcpy(out.row(y), plane + static_cast<size_t>(stride) * y, out.rowBytes());
    return;
  }
  const uint32_t max = (1u << bits) - 1;
  std::vector<uint16_t> widen(size_t{1} << bits);
  for (uint32_t v = 0; v <= max; ++v)
    widen[v] = static_cast<uint16_t>((v * 65535u + max / 2) / max);
  const size_t samples = static_cast<size_t>(out.width) * out.channels;
  for (int y = 0; y < out.height; ++y) {
    const uint8_t* in = plane + static_cast<size_t>(stride) * y;
    auto* dst = reinterpret_cast<uint16_t*>(out.row(y));
    for (size_t i = 0; i < samples; ++i) {
      const uint32_t v = uint32_t{in[2 * i]} | uint32_t{in[2 * i + 1]} << 8;  // little-endian
      dst[i] = widen[std::min(v, max)];
    }
  }
}

template <typename T>
void unpremultiply(PixelBuffer& buffer) {
  const T full = std::numeric_limits<T>::max();
  auto* p = reinterpret_cast<T*>(buffer.data.data());
  const size_t pixels = static_cast<size_t>(buffer.width) * buffer.height;
  for (size_t i = 0; i < pixels; ++i, p += 4) {
    const uint32_t a = p[3];
    if (a == 0 || a == full) continue;
    for (int c = 0; c < 3; ++c)
      p[c] = static_cast<T>(std::min<uint32_t>(full, (p[c] * full + a / 2) / a));
  }
}

}  // namespace

ContainerProbe probeHeif(Bytes bytes, Container container) {
  ContainerProbe probe;
  const ByteSpan raw = asUint8(bytes);
  if (const int frames = sequenceFrameCount(raw); frames > 0) {
    // An image sequence: counted, never decoded.
    probe.container = container;
    probe.opened = true;
    probe.frameCount = frames;
    return probe;
  }
  const Context ctx = openContext(bytes);
  if (!ctx) return probe;
  const Handle handle = primaryHandle(ctx.get());
  if (!handle) return probe;
  probe.container = container;
  probe.opened = true;
  probe.frameCount = heif_context_get_number_of_top_level_images(ctx.get());
  const PrimaryTransforms transforms = primaryTransforms(raw);
  probe.orientation = transforms.orientation;
  // The size decodeHeif returns. libheif 1.15 reports the item's 'ispe'
  // as it stands, without its 'irot': that is the stored (coded) size, as
  // phones and libavif write it. A cropped file is decoded as shown and
  // turned back, and libheif reports its size cropped and turned.
  // (libheif's own encoder writes the shown size into 'ispe' of the rotated
  // files it makes; those probe transposed.)
  const int width = heif_image_handle_get_width(handle.get());
  const int height = heif_image_handle_get_height(handle.get());
  const bool swap = transforms.cropped && transposes(probe.orientation);
  probe.width = swap ? height : width;
  probe.height = swap ? width : height;
  const int bits = heif_image_handle_get_luma_bits_per_pixel(handle.get());
  probe.bitsPerSample = std::max(bits, 0);
  probe.hasProperties = bits > 0 && probe.width > 0 && probe.height > 0;
  return probe;
}

DecodedFrame decodeHeif(Bytes bytes, Container container) {
  const ByteSpan raw = asUint8(bytes);
  if (const int frames = sequenceFrameCount(raw); frames > 0) throw CodecError::multiFrame(frames);
  const Context ctx = openContext(bytes);
  if (!ctx) throw CodecError::unreadable("HEIF container damaged or truncated");
  const int frames = heif_context_get_number_of_top_level_images(ctx.get());
  if (frames > 1) throw CodecError::multiFrame(frames);
  const Handle handle = primaryHandle(ctx.get());
  if (frames < 1 || !handle) throw CodecError::unreadable("HEIF file without a primary image");

  // The coded size bounds what the decoder allocates; refuse before it does.
  checkDimensions(heif_image_handle_get_ispe_width(handle.get()),
                  heif_image_handle_get_ispe_height(handle.get()));
  checkDimensions(heif_image_handle_get_width(handle.get()),
                  heif_image_handle_get_height(handle.get()));
  const int bits = heif_image_handle_get_luma_bits_per_pixel(handle.get());
  if (bits < 1) throw CodecError::unreadable("HEIF image without a bit depth");
  if (bits > 16) throw CodecError::unsupportedDepth(bits);
  const bool alpha = heif_image_handle_has_alpha_channel(handle.get());
  const bool deep = bits > 8;

  // Pixels stay as stored and the orientation travels beside them. A clean
  // aperture crop cannot be applied without the transformations, and
  // libheif 1.15 turns an alpha item by its own 'irot'/'imir' even when
  // told to ignore them (then refuses the mismatched planes): such files
  // are decoded upright and turned back afterwards.
  const PrimaryTransforms transforms = primaryTransforms(raw);
  const bool decodeUpright = transforms.cropped || (alpha && transforms.orientation != 1);
  const DecodingOptions options(heif_decoding_options_alloc());
  if (!options) throw CodecError::unreadable("out of memory");
  options->ignore_transformations = decodeUpright ? 0 : 1;
  options->convert_hdr_to_8bit = 0;
  const heif_chroma chroma =
      deep ? (alpha ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RRGGBB_LE)
           : (alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB);
  heif_image* decoded = nullptr;
  const heif_error err =
      heif_decode_image(handle.get(), &decoded, heif_colorspace_RGB, chroma, options.get());
  const Image image(decoded);
  if (err.code != heif_error_Ok || !image)
    throw CodecError::unreadable(err.message ? err.message : "");

  DecodedFrame out;
  out.container = container;
  out.frameCount = 1;
  out.nativeBits = bits;
  out.orientation = transforms.orientation;
  const int width = heif_image_get_width(image.get(), heif_channel_interleaved);
  const int height = heif_image_get_height(image.get(), heif_channel_interleaved);
  out.pixels.allocate(width, height, alpha ? 4 : 3,
                      deep ? SampleFormat::uint16 : SampleFormat::uint8);
  const int range =
      deep ? heif_image_get_bits_per_pixel_range(image.get(), heif_channel_interleaved) : 8;
  if (deep && (range < 9 || range > 16))
    throw CodecError::unreadable("unexpected HEIF sample range");
  copyPixels(image.get(), range, out.pixels);
  if (alpha && heif_image_is_premultiplied_alpha(image.get())) {
    if (deep)
      unpremultiply<uint16_t>(out.pixels);
    else
      unpremultiply<uint8_t>(out.pixels);
  }
  if (decodeUpright && out.orientation != 1) out.pixels = unorient(out.pixels, out.orientation);

  out.iccProfile = colourProfile(handle.get());
  readMetadata(handle.get(), out);
  return out;
}

}  // namespace tarnbloom::codec::detail
