#include "encoding/webp_encoder.h"

#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <climits>
#include <cmath>

#include "encoding/encoder_error.h"
#include "engine/engine_error.h"
#include "support/c_handle.h"
#include "support/settings.h"

namespace tarnbloom::encoding {
namespace {

// Frees the writer's buffer and the picture on every path out.
struct EncodeBuffers {
  WebPPicture picture{};
  WebPMemoryWriter writer{};
  bool pictureReady = false;
  EncodeBuffers() { WebPMemoryWriterInit(&writer); }
  ~EncodeBuffers() {
    if (pictureReady) WebPPictureFree(&picture);
    WebPMemoryWriterClear(&writer);
  }
  EncodeBuffers(const EncodeBuffers&) = delete;
  EncodeBuffers& operator=(const EncodeBuffers&) = delete;
};

using Mux = CHandle<WebPMux, WebPMuxDelete>;

uint8_t to8(uint16_t v) { return static_cast<uint8_t>((uint32_t{v} * 255 + 32767) / 65535); }

// The render as 8-bit RGB or RGBA; the buffer itself when it already is.
codec::PixelBuffer eightBitColour(const codec::PixelBuffer& image, bool keepAlpha) {
  codec::PixelBuffer out;
  const int channels = keepAlpha ? 4 : 3;
  out.allocate(image.width, image.height, channels, codec::SampleFormat::uint8);
  const bool sixteen = image.format == codec::SampleFormat::uint16;
  for (int y = 0; y < image.height; ++y) {
    uint8_t* o = out.row(y);
    for (int x = 0; x < image.width; ++x, o += channels) {
      const size_t i = static_cast<size_t>(x) * image.channels;
      auto sample = [&](int c) {
        return sixteen ? to8(reinterpret_cast<const uint16_t*>(image.row(y))[i + c]) : image.row(y)[i + c];
      };
      const bool grey = image.isGrey();
      o[0] = sample(0);
      o[1] = sample(grey ? 0 : 1);
      o[2] = sample(grey ? 0 : 2);
      if (keepAlpha) o[3] = image.hasAlpha() ? sample(image.channels - 1) : 255;
    }
  }
  return out;
}

void setChunk(WebPMux* mux, const char* fourcc, const uint8_t* bytes, size_t size) {
  const WebPData data{bytes, size};
  const WebPMuxError error = WebPMuxSetChunk(mux, fourcc, &data, 1);
  if (error != WEBP_MUX_OK) throw EncoderError::metadataMuxFailed(static_cast<int>(error));
}

}  // namespace

WebPOptions WebPOptions::normalized() const {
  WebPOptions n = *this;
  n.lossyQuality = std::isnan(lossyQuality) ? defaultLossyQuality : std::clamp(lossyQuality, 0.0f, 100.0f);
  n.effort = std::clamp(effort, 0, 6);
  return n;
}

WebPOptions WebPOptions::saved(const Settings& settings) {
  WebPOptions options;
  if (const auto lossless = settings.boolean("webp.lossless")) options.lossless = *lossless;
  if (const auto quality = settings.number("webp.lossyQuality"))
    options.lossyQuality = static_cast<float>(std::clamp(*quality, -1e6, 1e6));
  if (const auto effort = settings.integer("webp.effort"))
    options.effort = static_cast<int32_t>(std::clamp<int64_t>(*effort, INT32_MIN, INT32_MAX));
  return options;
}

void WebPOptions::save(Settings& settings) const {
  const WebPOptions n = normalized();
  settings.set("webp.lossless", n.lossless);
  settings.set("webp.lossyQuality", n.lossyQuality);
  settings.set("webp.effort", n.effort);
}

MetadataPolicy MetadataPolicy::from(const ColourPolicy& policy) {
  return {policy.exif == MetadataToggle::keep, policy.xmp == MetadataToggle::keep,
          policy.gps == MetadataToggle::strip};
}

void WebPEncoder::preflight(int64_t width, int64_t height) {
  if (width > maximumDimension || height > maximumDimension)
    throw EngineError::webPDimensionExceeded(maximumDimension, width, height);
}

codec::PixelBuffer WebPEncoder::straightRGBA(const codec::PixelBuffer& image) {
  if (image.format == codec::SampleFormat::float32 || image.channels < 1 || image.channels > 4 ||
      image.data.size() < image.rowBytes() * static_cast<size_t>(image.height))
    throw EncoderError::pixelsUnreadable();
  return eightBitColour(image, true);
}

std::vector<uint8_t> WebPEncoder::encode(const codec::PixelBuffer& image,
                                         const OutputMetadata& metadata,
                                         const WebPOptions& options) {
  preflight(image.width, image.height);
  const WebPOptions n = options.normalized();

  WebPConfig config;
  if (!WebPConfigPreset(&config, WEBP_PRESET_DEFAULT, 75.0f))
    throw EncoderError::configurationRejected();
  config.lossless = n.lossless ? 1 : 0;
  config.quality = n.lossless ? 100.0f : n.lossyQuality;
  config.method = n.effort;
  config.alpha_quality = 100;
  // Keep the colour of fully transparent pixels as rendered: lossless must
  // give back exactly what reached it.
  config.exact = n.lossless ? 1 : 0;
  if (!WebPValidateConfig(&config)) throw EncoderError::configurationRejected();

  if (image.format == codec::SampleFormat::float32 || image.channels < 1 || image.channels > 4 ||
      image.width <= 0 || image.height <= 0 ||
      image.data.size() < image.rowBytes() * static_cast<size_t>(image.height))
    throw EncoderError::pixelsUnreadable();
  // An opaque 8-bit RGB render goes in as it is; anything else is converted
  // once to straight 8-bit RGB(A).
  const bool direct = image.format == codec::SampleFormat::uint8 && image.channels >= 3;
  codec::PixelBuffer converted;
  if (!direct) converted = eightBitColour(image, image.hasAlpha());
  const codec::PixelBuffer& pixels = direct ? image : converted;

  EncodeBuffers buffers;
  if (!WebPPictureInit(&buffers.picture)) throw EncoderError::configurationRejected();
  buffers.pictureReady = true;
  buffers.picture.use_argb = 1;
  buffers.picture.width = pixels.width;
  buffers.picture.height = pixels.height;
  const int stride = static_cast<int>(pixels.rowBytes());
  const int imported = pixels.channels == 4
                           ? WebPPictureImportRGBA(&buffers.picture, pixels.data.data(), stride)
                           : WebPPictureImportRGB(&buffers.picture, pixels.data.data(), stride);
  if (!imported) throw EncoderError::pixelsUnreadable();
  buffers.picture.writer = WebPMemoryWrite;
  buffers.picture.custom_ptr = &buffers.writer;
  if (!WebPEncode(&config, &buffers.picture))
    throw EncoderError::encoderFailed(static_cast<int>(buffers.picture.error_code));

  const bool chunks = !metadata.icc.empty() || !metadata.exif.empty() || metadata.xmp.has_value();
  if (!chunks) return {buffers.writer.mem, buffers.writer.mem + buffers.writer.size};

  Mux mux(WebPMuxNew());
  if (!mux) throw EncoderError::metadataMuxFailed(static_cast<int>(WEBP_MUX_MEMORY_ERROR));
  const WebPData bitstream{buffers.writer.mem, buffers.writer.size};
  if (const WebPMuxError error = WebPMuxSetImage(mux.get(), &bitstream, 0); error != WEBP_MUX_OK)
    throw EncoderError::metadataMuxFailed(static_cast<int>(error));
  if (!metadata.icc.empty()) setChunk(mux.get(), "ICCP", metadata.icc.data(), metadata.icc.size());
  if (!metadata.exif.empty()) setChunk(mux.get(), "EXIF", metadata.exif.data(), metadata.exif.size());
  if (metadata.xmp)
    setChunk(mux.get(), "XMP ", reinterpret_cast<const uint8_t*>(metadata.xmp->data()),
             metadata.xmp->size());
  WebPData assembled{};
  if (const WebPMuxError error = WebPMuxAssemble(mux.get(), &assembled); error != WEBP_MUX_OK) {
    WebPDataClear(&assembled);
    throw EncoderError::metadataMuxFailed(static_cast<int>(error));
  }
  std::vector<uint8_t> out(assembled.bytes, assembled.bytes + assembled.size);
  WebPDataClear(&assembled);
  return out;
}

}  // namespace tarnbloom::encoding
