#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <memory>

#include "codec/colour_space.h"
#include "codec/pixel_buffer.h"
#include "engine/float_image.h"

namespace tarnbloom {

// Converts a decoded frame into the working format: premultiplied RGBA
// floats in extended (unbounded) linear sRGB. Matrix/TRC profiles (sRGB,
// Display P3, Adobe RGB, ProPhoto, grey gamma) go through their curves and
// colorant matrix directly; other profiles through lcms2. Colours outside
// sRGB keep negative or >1 components, so nothing is clipped until output.
FloatImage convertToLinear(const codec::PixelBuffer& bitmap, const codec::ColourSpace& space);

// The same conversion a few rows at a time, for renders that never hold
// the whole source in floats: every pixel comes out exactly as
// convertToLinear makes it. Keeps a reference to `bitmap`; thread-safe to
// use once built.
class LinearConverter {
 public:
  LinearConverter(const codec::PixelBuffer& bitmap, const codec::ColourSpace& space);
  ~LinearConverter();
  LinearConverter(const LinearConverter&) = delete;
  LinearConverter& operator=(const LinearConverter&) = delete;

  // Rows [firstRow, firstRow + count) of the bitmap in the working format.
  FloatImage rows(int64_t firstRow, int64_t count) const;

 private:
  struct Impl;
  const codec::PixelBuffer& m_bitmap;
  std::unique_ptr<Impl> m_impl;
};

// The sRGB transfer curve, encoded 0...1 to linear light.
inline float linearFromSRGB(double v) {
  return static_cast<float>(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
}

// Converts working-format rows to 8- or 16-bit pixels in a target colour
// space (un-premultiplying alpha). Built once per render; thread-safe to use.
class OutputConverter {
 public:
  // `space`: the output's colour space (the source's when the profile is
  // kept, else sRGB); grey spaces give grey output. `alpha` keeps an alpha
  // channel.
  OutputConverter(const codec::ColourSpace& space, bool sixteenBit, bool alpha);
  ~OutputConverter();
  OutputConverter(OutputConverter&&) noexcept;

  // Composites onto this colour (linear sRGB, 0...1) instead of keeping
  // transparency; used for formats without alpha.
  void setFlatten(std::array<float, 3> linearColour);

  // Every pixel is fully opaque (the source has no alpha), so colours need
  // no un-premultiplying.
  void assumeOpaque();

  // Channels per output pixel: 1-4.
  int channels() const { return m_channels; }
  codec::SampleFormat format() const { return m_format; }

  // Converts `count` pixels of one row.
  void convertRow(const float* rgba, int64_t count, uint8_t* out) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  int m_channels;
  codec::SampleFormat m_format;
};

}  // namespace tarnbloom
