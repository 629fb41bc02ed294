#include "engine/resample_engine.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/decoder_pool.h"
#include "engine/engine_error.h"
#include "support/files.h"
#include "support/sha256.h"

namespace tarnbloom {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;

// Redraws the frame at the target depth. Samples already use their type's
// full range, so 8 -> 16 multiplies by 257 and 16 -> 8 rounds; floats are
// clamped to 0...1 (standard dynamic range) with NaN read as 0.
PixelBuffer redraw(const PixelBuffer& from, SampleFormat target) {
  PixelBuffer to;
  to.allocate(from.width, from.height, from.channels, target);
  const size_t count = static_cast<size_t>(from.width) * from.height * from.channels;
  const auto* in8 = from.data.data();
  const auto* in16 = reinterpret_cast<const uint16_t*>(from.data.data());
  const auto* inF = reinterpret_cast<const float*>(from.data.data());
  auto* out8 = to.data.data();
  auto* out16 = reinterpret_cast<uint16_t*>(to.data.data());
  auto clampUnit = [](float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; };

#pragma omp parallel for schedule(static)
  for (size_t i = 0; i < count; ++i) {
    if (target == SampleFormat::uint16) {
      if (from.format == SampleFormat::uint8)
        out16[i] = static_cast<uint16_t>(in8[i] * 257);
      else
        out16[i] = static_cast<uint16_t>(std::lround(clampUnit(inF[i]) * 65535.0f));
    } else {
      if (from.format == SampleFormat::uint16)
        out8[i] = static_cast<uint8_t>((in16[i] * 255u + 32767u) / 65535u);
      else
        out8[i] = static_cast<uint8_t>(std::lround(clampUnit(inF[i]) * 255.0f));
    }
  }
  return to;
}

[[noreturn]] void rethrowAsEngineError(const codec::CodecError& error, const std::filesystem::path& url) {
  using Kind = codec::CodecError::Kind;
  switch (error.kind()) {
    case Kind::gif: throw EngineError::unsupportedFormat(url);
    case Kind::multiFrame: throw EngineError::multiFrame(url, error.count());
    case Kind::animatedWebP: throw EngineError::animatedWebP(url, error.count());
    case Kind::unsupportedDepth: throw EngineError::unsupportedDepth(url, error.bits());
    case Kind::unreadable: break;
  }
  throw EngineError::unreadable(url, error.detail());
}

}  // namespace

std::optional<int> ResampleEngine::normalizedDepth(int nativeDepth, bool isFloat) {
  if (nativeDepth < 1 || nativeDepth > 32) return std::nullopt;
  if (isFloat) return 16;
  return nativeDepth <= 8 ? 8 : 16;
}

SourceImage ResampleEngine::load(const std::filesystem::path& url) {
  SealedBytes bytes;
  try {
    bytes = SealedBytes::readFile(url);
  } catch (const FileError& error) {
    // Something that is not a file is not an image; any other failure
    // (no permission, an I/O error) is the system's to report, unchanged.
    if (error.errnoValue() == EINVAL || error.errnoValue() == EISDIR)
      throw EngineError::unreadable(url, error.description());
    throw;
  }
  return load(url, bytes);
}

SourceImage ResampleEngine::load(const std::filesystem::path& url, const SealedBytes& bytes) {
  SourceImage image;
  image.url = url;

  // The helper decodes while this thread hashes the same sealed bytes.
  codec::DecodedFrame frame;
  try {
    frame = codec::DecoderPool::shared().decode(
        bytes, [&] { image.sourceHash = sha256Hex(bytes.bytes()); });
  } catch (const codec::CodecError& error) {
    rethrowAsEngineError(error, url);
  } catch (const std::bad_alloc&) {
    throw EngineError::unreadable(url);
  }

  const auto depth = normalizedDepth(frame.nativeBits, frame.isFloat);
  if (!depth) throw EngineError::unsupportedDepth(url, frame.nativeBits);
  const SampleFormat target = *depth == 8 ? SampleFormat::uint8 : SampleFormat::uint16;
  if (frame.pixels.format != target) {
    try {
      frame.pixels = redraw(frame.pixels, target);
    } catch (const std::exception&) {
      throw EngineError::unsupportedDepth(url, frame.nativeBits);
    }
  }
  if (frame.nativeBits != *depth) image.nativeBitDepth = frame.nativeBits;

  image.bitsPerComponent = *depth;
  image.hasAlpha = frame.pixels.hasAlpha();
  image.colorSpace = codec::ColourSpace::forFrame(frame.iccProfile, frame.pixels.isGrey());
  image.orientation = frame.orientation >= 1 && frame.orientation <= 8 ? frame.orientation : 1;
  if (!frame.xmp.empty()) image.xmpMetadata = std::move(frame.xmp);
  image.exif = std::move(frame.exif);
  image.container = frame.container;
  image.properties = {
      {"PixelWidth", frame.pixels.width},
      {"PixelHeight", frame.pixels.height},
      {"Depth", frame.nativeBits},
      {"IsFloat", frame.isFloat},
      {"Orientation", image.orientation},
      {"HasAlpha", image.hasAlpha},
      {"ColorModel", image.isRGB() ? "RGB" : "Gray"},
      {"ProfileName", image.profileName()},
      {"Container", std::string(codec::containerName(frame.container))},
  };
  image.bitmap = std::make_shared<const PixelBuffer>(std::move(frame.pixels));
  return image;
}

bool ResampleEngine::isSourceDestination(const std::filesystem::path& destination,
                                         const std::filesystem::path& source) {
  struct stat a {}, b {};
  if (::stat(destination.c_str(), &a) == 0 && ::stat(source.c_str(), &b) == 0)
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
  auto normalised = [](const std::filesystem::path& p) {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(p, error);
    return error ? std::filesystem::absolute(p).lexically_normal() : canonical;
  };
  return normalised(destination) == normalised(source);
}

void ResampleEngine::validateDestination(const std::filesystem::path& destination,
                                         const SourceImage& source) {
  if (isSourceDestination(destination, source.url))
    throw SourceProtectionError(SourceProtectionError::Case::destinationIsSource);
  if (!source.sourceHash) return;
  const auto now = sha256OfFile(source.url);
  if (!now || *now != *source.sourceHash)
    throw SourceProtectionError(SourceProtectionError::Case::sourceChanged);
}

}  // namespace tarnbloom
