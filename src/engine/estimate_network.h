#pragma once

#include <memory>
#include <string>

#include "engine/ncnn_model.h"

namespace tarnbloom {

// Runs the Enhance network on the CPU with oneDNN: convolutions in the
// library's blocked layouts end to end (no reorders between layers), PReLU
// in place after each convolution, and the pixel shuffle and
// upsampled-input addition done here. Float32 by default; BF16 convolutions
// with float32 accumulation on request where the processor has them.
class EstimateNetwork {
 public:
  enum class Precision { fp32, bf16 };
  // How the float32 layers after the first are computed. Winograd
  // transforms (oneDNN takes F(4×4, 3×3) for 256-pixel tiles) save about a
  // third of the time of direct convolution and land within 1/255 of it on
  // photos; direct is the reference.
  enum class Convolution { direct, winograd };

  // float32, unless TARNBLOOM_ESTIMATE_PRECISION=bf16 and the processor has
  // native BF16 arithmetic.
  static Precision defaultPrecision();
  // Winograd, unless TARNBLOOM_ESTIMATE_CONVOLUTION=direct.
  static Convolution defaultConvolution();
  static bool processorHasBf16();

  // Prepares the network for `batch` inputs of height × width pixels.
  // Winograd is used where the processor and oneDNN have it (float32 only);
  // elsewhere direct convolution runs, as convolution() then says. Throws
  // EstimateError::modelFailed when oneDNN refuses the network.
  EstimateNetwork(const SrvggNetwork& network, int height, int width, int batch,
                  Precision precision, Convolution convolution = Convolution::winograd);
  ~EstimateNetwork();
  EstimateNetwork(const EstimateNetwork&) = delete;
  EstimateNetwork& operator=(const EstimateNetwork&) = delete;

  // `input`: batch × 3 × height × width floats (planar, 0...1). `output`:
  // batch × 3 × (r·height) × (r·width) floats. Not thread-safe: one call at
  // a time per object.
  void infer(const float* input, float* output);

  Precision precision() const { return m_precision; }
  // What runs: winograd only when it was asked for and available.
  Convolution convolution() const { return m_convolution; }
  int upscale() const { return m_upscale; }
  // A truthful account of what is computed, for receipts.
  std::string precisionText() const { return precisionText(m_precision, m_convolution); }
  static std::string precisionText(Precision precision, Convolution convolution);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  Precision m_precision;
  Convolution m_convolution;
  int m_upscale;
};

}  // namespace tarnbloom
