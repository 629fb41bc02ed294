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

  // float32, unless TARNBLOOM_ESTIMATE_PRECISION=bf16 and the processor has
  // native BF16 arithmetic.
  static Precision defaultPrecision();
  static bool processorHasBf16();

  // Prepares the network for `batch` inputs of height × width pixels.
  // Throws EstimateError::modelFailed when oneDNN refuses it.
  EstimateNetwork(const SrvggNetwork& network, int height, int width, int batch,
                  Precision precision);
  ~EstimateNetwork();
  EstimateNetwork(const EstimateNetwork&) = delete;
  EstimateNetwork& operator=(const EstimateNetwork&) = delete;

  // `input`: batch × 3 × height × width floats (planar, 0...1). `output`:
  // batch × 3 × (r·height) × (r·width) floats. Not thread-safe: one call at
  // a time per object.
  void infer(const float* input, float* output);

  Precision precision() const { return m_precision; }
  int upscale() const { return m_upscale; }
  // A truthful account of what is computed, for receipts.
  std::string precisionText() const { return precisionText(m_precision); }
  static std::string precisionText(Precision precision);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  Precision m_precision;
  int m_upscale;
};

}  // namespace tarnbloom
