#include <libheif/heif.h>

#include <cstring>

#include "encoding/encoder_error.h"
#include "encoding/image_writer.h"
#include "support/c_handle.h"

namespace tarnbloom::encoding {
namespace {

using Context = CHandle<heif_context, heif_context_free>;
using Image = CHandle<heif_image, heif_image_release>;
using Encoder = CHandle<heif_encoder, heif_encoder_release>;
using Handle = CHandle<heif_image_handle, heif_image_handle_release>;

struct HeifOutput {
  std::vector<uint8_t> bytes;
};

heif_error writeToSink(heif_context*, const void* data, size_t size, void* userdata) {
  auto* sink = static_cast<HeifOutput*>(userdata);
  const auto* p = static_cast<const uint8_t*>(data);
  try {
    sink->bytes.insert(sink->bytes.end(), p, p + size);
  } catch (const std::bad_alloc&) {
    return {heif_error_Memory_allocation_error, heif_suberror_Unspecified, "out of memory"};
  }
  return {heif_error_Ok, heif_suberror_Unspecified, "Success"};
}

// One interleaved RGB(A) plane at `bits` per sample. Grey renders are
// spread to RGB: the HEIF encoders here take colour input only.
Image makeImage(const codec::PixelBuffer& source, int bits) {
  const bool alpha = source.hasAlpha();
  const heif_chroma chroma =
      bits == 8 ? (alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB)
                : (alpha ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RRGGBB_LE);
  heif_image* raw = nullptr;
  if (heif_image_create(source.width, source.height, heif_colorspace_RGB, chroma, &raw).code !=
      heif_error_Ok)
    return nullptr;
  Image image(raw);
  if (heif_image_add_plane(raw, heif_channel_interleaved, source.width, source.height, bits).code !=
      heif_error_Ok)
    return nullptr;
  int stride = 0;
  uint8_t* plane = heif_image_get_plane(raw, heif_channel_interleaved, &stride);
  if (!plane) return nullptr;
  const int outChannels = alpha ? 4 : 3;
  for (int y = 0; y < source.height; ++y) {
    uint8_t* out = plane + static_cast<size_t>(stride) * y;
    if (bits == 8) {
      const uint8_t* in = source.row(y);
      for (int x = 0; x < source.width; ++x, in += source.channels, out += outChannels) {
        const bool g = source.isGrey();
        out[0] = in[0];
        out[1] = g ? in[0] : in[1];
        out[2] = g ? in[0] : in[2];
        if (alpha) out[3] = in[source.channels - 1];
      }
    } else {
      const auto* in = reinterpret_cast<const uint16_t*>(source.row(y));
      auto* o = reinterpret_cast<uint16_t*>(out);
      for (int x = 0; x < source.width; ++x, in += source.channels, o += outChannels) {
        const bool g = source.isGrey();
        // Rounded reduction from 16 bits to the encoder's depth.
        auto reduce = [&](uint16_t v) {
          const uint32_t max = (1u << bits) - 1;
          return static_cast<uint16_t>((v * max + 32767u) / 65535u);
        };
        o[0] = reduce(in[0]);
        o[1] = reduce(g ? in[0] : in[1]);
        o[2] = reduce(g ? in[0] : in[2]);
        if (alpha) o[3] = reduce(in[source.channels - 1]);
      }
    }
  }
  return image;
}

}  // namespace

std::vector<uint8_t> encodeHEIF(ExportFormat format, const codec::PixelBuffer& image,
                                const OutputMetadata& metadata, int quality) {
  const std::string name(title(format));
  if (format != ExportFormat::heic && format != ExportFormat::avif)
    throw EncoderError::writerFailed(name, "not a HEIF format");
  if (!isWritable(format)) throw EncoderError::writerFailed(name, "no encoder installed");
  if (image.format == codec::SampleFormat::float32 || image.channels < 1 || image.channels > 4)
    throw EncoderError::writerFailed(name, "unsupported sample layout");

  const heif_compression_format compression =
      format == ExportFormat::avif ? heif_compression_AV1 : heif_compression_HEVC;
  // A 16-bit render keeps as much precision as the encoder takes: 12 bits,
  // else 10. The first depth it accepts wins; 8-bit renders stay 8-bit.
  const std::vector<int> depths = image.format == codec::SampleFormat::uint16
                                      ? std::vector<int>{12, 10, 8}
                                      : std::vector<int>{8};
  std::string detail;
  for (const int bits : depths) {
    Context context(heif_context_alloc());
    heif_encoder* rawEncoder = nullptr;
    if (!context ||
        heif_context_get_encoder_for_format(context.get(), compression, &rawEncoder).code !=
            heif_error_Ok)
      throw EncoderError::writerFailed(name, "no encoder");
    Encoder encoder(rawEncoder);
    heif_encoder_set_lossy_quality(encoder.get(), quality);
    Image heifImage = makeImage(image, bits);
    if (!heifImage) throw EncoderError::writerFailed(name, "image");
    if (!metadata.icc.empty())
      heif_image_set_raw_color_profile(heifImage.get(), "prof", metadata.icc.data(),
                                       metadata.icc.size());
    heif_encoding_options* options = heif_encoding_options_alloc();
    // Our pixels are already upright; nothing to transform on write.
    heif_image_handle* rawHandle = nullptr;
    const heif_error encoded = heif_context_encode_image(context.get(), heifImage.get(),
                                                         encoder.get(), options, &rawHandle);
    heif_encoding_options_free(options);
    Handle handle(rawHandle);
    if (encoded.code != heif_error_Ok) {
      detail = encoded.message ? encoded.message : "encode";
      continue;  // this depth was refused; try the next
    }
    if (!metadata.exif.empty() &&
        heif_context_add_exif_metadata(context.get(), handle.get(), metadata.exif.data(),
                                       static_cast<int>(metadata.exif.size()))
                .code != heif_error_Ok)
      throw EncoderError::writerFailed(name, "EXIF");
    if (metadata.xmp &&
        heif_context_add_XMP_metadata(context.get(), handle.get(), metadata.xmp->data(),
                                      static_cast<int>(metadata.xmp->size()))
                .code != heif_error_Ok)
      throw EncoderError::writerFailed(name, "XMP");
    HeifOutput sink;
    heif_writer writer{1, writeToSink};
    if (heif_context_write(context.get(), &writer, &sink).code != heif_error_Ok)
      throw EncoderError::writerFailed(name, "write");
    return std::move(sink.bytes);
  }
  throw EncoderError::writerFailed(name, detail);
}

}  // namespace tarnbloom::encoding
