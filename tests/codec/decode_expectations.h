#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"
#include "test_support.h"

namespace tarnbloom::testing {

using codec::CodecError;
using codec::PixelBuffer;
using codec::SampleFormat;

// Decoding must refuse the bytes with `kind` (and `count` frames when given);
// probing them must not crash either.
inline void expectRefused(const std::vector<uint8_t>& bytes,
                          CodecError::Kind kind = CodecError::Kind::unreadable, int count = 0) {
  const auto span = asBytes(bytes);
  codec::probeContainer(span);
  try {
    codec::decodeFrame(span);
    ADD_FAILURE() << "decoded input that should be refused";
  } catch (const CodecError& e) {
    EXPECT_EQ(e.kind(), kind) << e.detail();
    if (count) {
      EXPECT_EQ(e.count(), count);
    }
  }
}

// A file written with this ICC profile, EXIF (orientation 6) and XMP gives
// them back byte for byte; both probe and decode read the orientation, and
// the probe reports the stored size.
inline void expectMetadataCarried(const std::vector<uint8_t>& file, const std::vector<uint8_t>& icc,
                                  const std::vector<uint8_t>& exif, const std::string& xmp,
                                  int storedWidth) {
  const auto frame = codec::decodeFrame(asBytes(file));
  EXPECT_EQ(frame.iccProfile, icc);
  EXPECT_EQ(frame.exif, exif);
  EXPECT_EQ(frame.xmp, xmp);
  EXPECT_EQ(frame.orientation, 6u);
  const auto probe = codec::probeContainer(asBytes(file));
  EXPECT_EQ(probe.orientation, 6u);
  EXPECT_EQ(probe.width, storedWidth);  // stored size: orientation is not applied
}

// Sample i of a frame, whatever its sample format.
inline double sampleAt(const PixelBuffer& p, size_t i) {
  if (p.format == SampleFormat::uint8) return p.data[i];
  if (p.format == SampleFormat::uint16) return reinterpret_cast<const uint16_t*>(p.data.data())[i];
  return reinterpret_cast<const float*>(p.data.data())[i];
}

// Host-order bytes of typed samples.
template <typename T>
std::vector<uint8_t> raw(std::initializer_list<T> values) {
  std::vector<uint8_t> bytes(values.size() * sizeof(T));
  std::memcpy(bytes.data(), values.begin(), bytes.size());
  return bytes;
}

}  // namespace tarnbloom::testing
