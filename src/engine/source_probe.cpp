#include "engine/source_probe.h"

#include "codec/decoder_pool.h"
#include "engine/resample_engine.h"
#include "support/files.h"

namespace tarnbloom {

SourceProbe SourceProbe::probe(const std::filesystem::path& url) {
  codec::ContainerProbe header;
  try {
    // Mapped, not read: the probe touches only the pages the header needs.
    const MappedFile file(url);
    header = codec::probeIsolated(file.bytes(), file.fd());
  } catch (const Error&) {
    header = {};
  }
  return fromHeader(header);
}

SourceProbe SourceProbe::fromHeader(const codec::ContainerProbe& header) {
  SourceProbe result;
  result.knownContainer = header.container != codec::Container::unknown;
  if (!header.opened || header.frameCount < 1) {
    result.notAnImage = true;
    return result;
  }
  if (header.container == codec::Container::gif || header.frameCount != 1) {
    result.readable = true;
    result.unsupportedType = header.container == codec::Container::gif;
    return result;
  }
  // An image container whose frame has no usable size: damaged, not foreign.
  if (!header.hasProperties || header.width < 1 || header.height < 1) return result;

  const bool transposed = header.orientation >= 5 && header.orientation <= 8;
  result.width = transposed ? header.height : header.width;
  result.height = transposed ? header.width : header.height;
  result.orientation = header.orientation;
  const auto depth = ResampleEngine::normalizedDepth(header.bitsPerSample, header.isFloat);
  result.supportedFormat = depth.has_value();
  result.bitDepth = depth.value_or(8);
  result.readable = true;
  return result;
}

}  // namespace tarnbloom
