#include <exception>

#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec {

ContainerProbe probeContainer(std::span<const std::byte> bytes) {
  const Container container = sniffContainer(bytes);
  ContainerProbe probe;
  try {
    switch (container) {
      case Container::png: probe = detail::probePng(bytes); break;
      case Container::jpeg: probe = detail::probeJpeg(bytes); break;
      case Container::tiff: probe = detail::probeTiff(bytes); break;
      case Container::webp: probe = detail::probeWebp(bytes); break;
      case Container::heic:
      case Container::avif: probe = detail::probeHeif(bytes, container); break;
      case Container::raw:
        probe = detail::probeRaw(bytes);
        // A camera maker's plain TIFF looks like raw to the sniffer; when the
        // raw reader cannot open it, it is still a TIFF.
        if (!probe.opened) probe = detail::probeTiff(bytes);
        break;
      case Container::gif:
        probe.opened = true;
        probe.frameCount = 1;
        break;
      case Container::unknown: break;
    }
  } catch (const std::exception&) {
    // The probe never fails: an unexpected library exception means we could
    // not open the container.
    probe = ContainerProbe{};
  }
  if (probe.container == Container::unknown && probe.opened) probe.container = container;
  if (!probe.opened && container == Container::gif) probe.container = container;
  return probe;
}

DecodedFrame decodeFrame(std::span<const std::byte> bytes) {
  const Container container = sniffContainer(bytes);
  switch (container) {
    case Container::png: return detail::decodePng(bytes);
    case Container::jpeg: return detail::decodeJpeg(bytes);
    case Container::tiff: return detail::decodeTiff(bytes);
    case Container::webp: return detail::decodeWebp(bytes);
    case Container::heic:
    case Container::avif: return detail::decodeHeif(bytes, container);
    case Container::raw:
      if (!detail::probeRaw(bytes).opened) return detail::decodeTiff(bytes);
      return detail::decodeRaw(bytes);
    case Container::gif: throw CodecError::gif();
    case Container::unknown: break;
  }
  throw CodecError::unreadable("not an image container");
}

}  // namespace tarnbloom::codec
