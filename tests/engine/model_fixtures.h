#pragma once

// Small networks of the Enhance graph's shape, written in ncnn's format with
// generated weights, so tests never need the real model.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace tarnbloom::testing {

// Writes a network of the Enhance graph's shape in ncnn's format: `body`
// hidden convolutions of `features` channels, upscale r. Weights are
// generated; float16 when `half` (the tagged layout ncnn writes), else
// float32 with a zero flag.
struct ModelFiles {
  std::string param;
  std::vector<std::byte> bin;
  std::vector<float> firstWeights;
};

inline uint16_t toHalf(float f) {
  // Exact for the small dyadic values the generator uses.
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const int exponent = static_cast<int>((bits >> 23) & 0xff) - 127 + 15;
  if ((bits & 0x7fffffffu) == 0) return static_cast<uint16_t>(sign);
  return static_cast<uint16_t>(sign | (exponent << 10) | ((bits >> 13) & 0x3ffu));
}

inline ModelFiles makeModel(int features, int body, int r, bool half) {
  ModelFiles m;
  std::ostringstream p;
  const int convs = body + 2;
  const int layers = 2 + convs + (convs - 1) + 3;
  p << "7767517\n" << layers << " " << layers + 2 << "\n";
  p << "Input in 0 1 data\nSplit split 1 2 data a b\n";
  auto append = [&](const void* data, size_t size) {
    const auto* bytes = static_cast<const std::byte*>(data);
    m.bin.insert(m.bin.end(), bytes, bytes + size);
  };
  std::string blob = "a";
  int in = 3;
  for (int c = 0; c < convs; ++c) {
    const int out = c == convs - 1 ? 3 * r * r : features;
    const int count = out * in * 9;
    p << "Convolution conv" << c << " 1 1 " << blob << " c" << c << " 0=" << out << " 1=3 4=1 5=1 6=" << count << "\n";
    std::vector<float> w(count);
    // Multiples of 1/256 up to ±1/4 (exact in float16), scattered by a
    // linear congruential generator: about unit gain per layer, so deep
    // test networks neither die out nor blow up.
    uint32_t state = 2463534242u + static_cast<uint32_t>(c) * 7919u;
    for (int i = 0; i < count; ++i) {
      state = state * 1664525u + 1013904223u;
      w[i] = static_cast<float>(static_cast<int>((state >> 16) % 129) - 64) / 256.0f;
    }
    if (c == 0) m.firstWeights = w;
    if (half) {
      const uint32_t tag = 0x01306B47;
      append(&tag, 4);
      std::vector<uint16_t> h(count);
      for (int i = 0; i < count; ++i) h[i] = toHalf(w[i]);
      append(h.data(), h.size() * 2);
      if (count % 2) append("\0\0", 2);
    } else {
      const uint32_t zero = 0;
      append(&zero, 4);
      append(w.data(), w.size() * 4);
    }
    std::vector<float> bias(out, 1.0f / 64);
    append(bias.data(), bias.size() * 4);
    blob = "c" + std::to_string(c);
    if (c < convs - 1) {
      p << "PReLU prelu" << c << " 1 1 " << blob << " p" << c << " 0=" << out << "\n";
      std::vector<float> slopes(out, 0.25f);
      append(slopes.data(), slopes.size() * 4);
      blob = "p" + std::to_string(c);
    }
    in = out;
  }
  p << "PixelShuffle shuffle 1 1 " << blob << " s 0=" << r << "\n";
  p << "Interp up 1 1 b u 0=1 1=" << r << ".000000e+00 2=" << r << ".000000e+00\n";
  p << "BinaryOp add 2 1 s u output\n";
  m.param = p.str();
  return m;
}

}  // namespace tarnbloom::testing
