// Enhance inference speed: seconds per 256 × 256 tile of the real model
// (set-up installs it in models/) in float32 and BF16, as a share of this
// machine's float32 peak measured here by an FMA loop on every core, and
// how far BF16 lands from float32. Ratios, not absolute times, compare
// across machines. PyTorch's channels-last figure on the same weights is
// the peer to beat (python3-torch, 2 threads): bench/estimate_vs_torch.sh
// runs both and gives the ratios.
//
//   estimate_bench [MODEL.param [--dump DIR]]

#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_support.h"
#include "engine/estimate_network.h"

using namespace tarnbloom;

// Multiply-adds per second with 12 independent AVX-512 chains on every
// core: the ceiling any convolution can reach. Float32 uses FMA (16 per
// instruction); BF16 uses dot products (vdpbf16ps: 32 multiply-adds of
// BF16 pairs into float32). Both count two operations per multiply-add, so
// whether BF16 can double the arithmetic rate on this processor is the
// ratio of the two, not a datasheet's.
__attribute__((target("avx512f,avx512bf16"))) double measurePeakGflops(bool bf16) {
  const int64_t iterations = 100'000'000 / 16;
  double best = 0;
  for (int run = 0; run < 3; ++run) {
    const auto start = std::chrono::steady_clock::now();
#pragma omp parallel
    {
      __m512 a[12];
      for (int i = 0; i < 12; ++i) a[i] = _mm512_set1_ps(1.0f + i * 1e-7f);
      if (bf16) {
        const __m512bh b = (__m512bh)_mm512_set1_epi16(0x3f80);
        for (int64_t k = 0; k < iterations; ++k)
          for (int i = 0; i < 12; ++i) a[i] = _mm512_dpbf16_ps(a[i], b, b);
      } else {
        const __m512 b = _mm512_set1_ps(0.999999f), c = _mm512_set1_ps(1e-7f);
        for (int64_t k = 0; k < iterations; ++k)
          for (int i = 0; i < 12; ++i) a[i] = _mm512_fmadd_ps(a[i], b, c);
      }
      float sink = 0;
      for (int i = 0; i < 12; ++i) sink += _mm512_reduce_add_ps(a[i]);
      if (sink == 42) std::printf(" ");
    }
    const double seconds = bench::secondsSince(start);
    const double perInstruction = bf16 ? 32 : 16;
    best = std::max(best,
                    omp_get_max_threads() * iterations * 12.0 * perInstruction * 2 / seconds / 1e9);
  }
  return best;
}

int main(int argc, char** argv) {
  const std::string model =
      argc > 1 ? argv[1] : std::string(TARNBLOOM_SOURCE_DIR) + "/models/realesr-general-x4v3.param";
  const SrvggNetwork network = SrvggNetwork::read(model);
  const double tileGflop = network.flopsPerInputPixel() * 256 * 256 / 1e9;
  const double peak = measurePeakGflops(false);
  std::printf("float32 peak: %.0f GFLOP/s on %d threads; one tile is %.1f GFLOP (floor %.3f s)\n",
              peak, omp_get_max_threads(), tileGflop, tileGflop / peak);
  if (EstimateNetwork::processorHasBf16()) {
    const double bf16Peak = measurePeakGflops(true);
    std::printf("bf16 dot-product peak: %.0f GFLOP/s, %.2fx the float32 peak (floor %.3f s)\n",
                bf16Peak, bf16Peak / peak, tileGflop / bf16Peak);
  }

  std::vector<float> input(3 * 256 * 256);
  const bench::Photo photo = bench::scaledPhoto(bench::samplePhoto("rocket.jpg"), 256, 256, 0.0);
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < 256 * 256; ++i) input[c * 65536 + i] = photo.rgb[i * 3 + c] / 255.0f;
  std::vector<float> fp32(3 * 1024 * 1024), bf16(fp32.size());

  for (const auto precision :
       {EstimateNetwork::Precision::fp32, EstimateNetwork::Precision::bf16}) {
    if (precision == EstimateNetwork::Precision::bf16 && !EstimateNetwork::processorHasBf16()) {
      std::printf("bf16: this processor has no native BF16\n");
      continue;
    }
    EstimateNetwork runner(network, 256, 256, 1, precision);
    auto& out = precision == EstimateNetwork::Precision::fp32 ? fp32 : bf16;
    runner.infer(input.data(), out.data());
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
      const auto start = std::chrono::steady_clock::now();
      runner.infer(input.data(), out.data());
      best = std::min(best, bench::secondsSince(start));
    }
    std::printf("%s: %.3f s per tile, %.0f GFLOP/s, %.0f%% of the float32 peak\n",
                precision == EstimateNetwork::Precision::fp32 ? "fp32" : "bf16", best,
                tileGflop / best, 100 * tileGflop / best / peak);
  }
  if (EstimateNetwork::processorHasBf16()) {
    double worst = 0, sum = 0;
    for (size_t i = 0; i < fp32.size(); ++i) {
      const double d =
          std::abs(std::clamp(fp32[i], 0.0f, 1.0f) - std::clamp(bf16[i], 0.0f, 1.0f)) * 255;
      worst = std::max(worst, d);
      sum += d;
    }
    std::printf(
        "bf16 against fp32 on a real photo tile: largest %.2f/255, mean %.3f/255 (limit for "
        "default use: 2/255)\n",
        worst, sum / fp32.size());
  }
  // For bench/estimate_vs_torch.sh: the tile and our float32 answer.
  if (argc > 3 && std::string(argv[2]) == "--dump") {
    const std::filesystem::path dump = argv[3];
    const auto bytesOf = [](const std::vector<float>& v) {
      return std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(v.data()),
                                  reinterpret_cast<const uint8_t*>(v.data() + v.size()));
    };
    bench::writeFile(dump / "input.f32", bytesOf(input));
    bench::writeFile(dump / "fp32.f32", bytesOf(fp32));
  }
  std::printf("peak RSS %.0f MiB\n", bench::peakRssMiB());
  return 0;
}
