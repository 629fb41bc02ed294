#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>
#include <cstring>

#include "codec/codec_error.h"
#include "codec/formats.h"
#include "codec/tiff_structure.h"
#include "support/c_handle.h"

namespace tarnbloom::codec::detail {
namespace {

using Demuxer = CHandle<WebPDemuxer, WebPDemuxDelete>;

// Parses the RIFF chunk list (headers only; no pixel data is decoded). Null
// for anything that is not a complete, well-formed WebP file.
Demuxer openDemuxer(Bytes bytes) {
  if (bytes.empty()) return nullptr;
  const WebPData data{reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
  return Demuxer(WebPDemux(&data));
}

// The payload of the first chunk with this FourCC; empty when absent. Only
// extended (VP8X) files carry metadata chunks.
std::span<const uint8_t> chunk(const WebPDemuxer* demux, const char fourcc[4]) {
  WebPChunkIterator iter;
  if (!WebPDemuxGetChunk(demux, fourcc, 1, &iter)) return {};
  const std::span<const uint8_t> payload(iter.chunk.bytes, iter.chunk.size);
  WebPDemuxReleaseChunkIterator(&iter);
  return payload;
}

std::span<const uint8_t> exifChunk(const WebPDemuxer* demux) {
  // Some writers keep the JPEG-style "Exif\0\0" prefix in the chunk.
  return withoutExifPrefix(chunk(demux, "EXIF"));
}

// Decodes one VP8/VP8L bitstream (with its ALPH chunk, if any) into `out`,
// which must already have the bitstream's size.
void decodeInto(const uint8_t* data, size_t size, PixelBuffer& out) {
  const size_t stride = out.rowBytes();
  const size_t total = out.data.size();
  const uint8_t* done =
      out.channels == 4
          ? WebPDecodeRGBAInto(data, size, out.data.data(), total, static_cast<int>(stride))
          : WebPDecodeRGBInto(data, size, out.data.data(), total, static_cast<int>(stride));
  if (!done) throw CodecError::unreadable("WebP bitstream damaged or truncated");
}

}  // namespace

ContainerProbe probeWebp(Bytes bytes) {
  ContainerProbe probe;
  const Demuxer demux = openDemuxer(bytes);
  if (!demux) return probe;
  probe.container = Container::webp;
  probe.opened = true;
  probe.frameCount = static_cast<int>(WebPDemuxGetI(demux.get(), WEBP_FF_FRAME_COUNT));
  probe.width = WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH);
  probe.height = WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT);
  probe.bitsPerSample = 8;
  probe.orientation = exifOrientation(exifChunk(demux.get()));
  // The demuxer has validated the frame headers against the canvas; a still
  // file's bitstream header must parse too, or the frame cannot be decoded.
  WebPBitstreamFeatures features;
  const bool headerOk = WebPGetFeatures(reinterpret_cast<const uint8_t*>(bytes.data()),
                                        bytes.size(), &features) == VP8_STATUS_OK;
  probe.hasProperties = headerOk && probe.frameCount >= 1 && probe.width > 0 && probe.height > 0;
  return probe;
}

DecodedFrame decodeWebp(Bytes bytes) {
  const Demuxer demux = openDemuxer(bytes);
  if (!demux) throw CodecError::unreadable("not a complete WebP file");
  const int frames = static_cast<int>(WebPDemuxGetI(demux.get(), WEBP_FF_FRAME_COUNT));
  if (frames > 1) throw CodecError::animatedWebP(frames);

  WebPIterator frame;
  if (frames < 1 || !WebPDemuxGetFrame(demux.get(), 1, &frame))
    throw CodecError::unreadable("WebP file without a frame");
  // The iterator only points into `bytes`; nothing to keep alive past here.
  const uint8_t* stream = frame.fragment.bytes;
  const size_t streamSize = frame.fragment.size;
  const int frameX = frame.x_offset;
  const int frameY = frame.y_offset;
  const int frameWidth = frame.width;
  const int frameHeight = frame.height;
  const bool frameAlpha = frame.has_alpha;
  WebPDemuxReleaseIterator(&frame);

  const int canvasWidth = static_cast<int>(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH));
  const int canvasHeight = static_cast<int>(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT));
  const uint32_t flags = WebPDemuxGetI(demux.get(), WEBP_FF_FORMAT_FLAGS);
  const bool alpha = frameAlpha || (flags & ALPHA_FLAG);
  const bool coversCanvas =
      frameX == 0 && frameY == 0 && frameWidth == canvasWidth && frameHeight == canvasHeight;

  DecodedFrame out;
  out.container = Container::webp;
  out.frameCount = 1;
  out.nativeBits = 8;
  if (coversCanvas) {
    out.pixels.allocate(canvasWidth, canvasHeight, alpha ? 4 : 3, SampleFormat::uint8);
    decodeInto(stream, streamSize, out.pixels);
  } else {
    // A one-frame animation whose frame is smaller than its canvas: the rest
    // of the canvas is transparent, as a browser shows it.
    checkDimensions(frameWidth, frameHeight);
    out.pixels.allocate(canvasWidth, canvasHeight, 4, SampleFormat::uint8);
    std::fill(out.pixels.data.begin(), out.pixels.data.end(), uint8_t{0});
    PixelBuffer part;
    part.allocate(frameWidth, frameHeight, 4, SampleFormat::uint8);
    decodeInto(stream, streamSize, part);
    for (int y = 0; y < frameHeight; ++y)
      std::memcpy(out.pixels.row(frameY + y) + size_t{4} * frameX, part.row(y), part.rowBytes());
  }

  const auto icc = chunk(demux.get(), "ICCP");
  out.iccProfile.assign(icc.begin(), icc.end());
  const auto exif = exifChunk(demux.get());
  out.exif.assign(exif.begin(), exif.end());
  const auto xmp = chunk(demux.get(), "XMP ");
  out.xmp.assign(reinterpret_cast<const char*>(xmp.data()), xmp.size());
  out.orientation = exifOrientation(exif);
  return out;
}

}  // namespace tarnbloom::codec::detail
