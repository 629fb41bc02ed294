#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarnbloom {

// One 3 × 3 convolution of the network (stride 1, zero padding 1), with the
// PReLU that follows it, if any.
struct NetworkConvolution {
  int inputChannels = 0;
  int outputChannels = 0;
  std::vector<float> weights;      // [out][in][3][3]
  std::vector<float> bias;         // [out]
  std::vector<float> preluSlopes;  // [out], empty when no PReLU follows
};

// The compact super-resolution network the Enhance method runs: a chain of
// 3 × 3 convolutions with PReLU, a last convolution to 3 · r² channels, a
// pixel shuffle by r, plus the input upsampled r times (nearest) added on.
// Read from ncnn's param/bin pair; anything else, or sizes that do not add
// up, is refused with EstimateError::modelFailed and a detail naming it.
struct SrvggNetwork {
  std::vector<NetworkConvolution> convolutions;
  int upscale = 4;

  // `param` names the text graph; the weights are the ".bin" beside it.
  static SrvggNetwork read(const std::filesystem::path& param);
  static SrvggNetwork parse(std::string_view paramText, std::span<const std::byte> weights);

  // Multiply-adds per input pixel (for progress and benchmark figures).
  double flopsPerInputPixel() const;
};

}  // namespace tarnbloom
