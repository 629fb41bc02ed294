// Enhance inference speed: seconds per 256 × 256 tile of the real model
// (set-up installs it in models/) with direct and Winograd convolution in
// float32, run alternately in rounds (medians), and in BF16, as a share of
// this machine's float32 peak measured here by an FMA loop on every core
// (counted in direct-convolution operations, so Winograd may pass 100%),
// and how far Winograd and BF16 land from direct float32 on real photo
// tiles. Winograd outside 1/255 largest or 0.05/255 mean fails the run.
// Ratios, not absolute times, compare across machines. PyTorch's
// channels-last figure on the same weights is the peer to beat
// (python3-torch, 2 threads): bench/estimate_vs_torch.sh runs both and
// gives the ratios.
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

// How far two network outputs lie apart, in 8-bit levels of the clamped
// result (what an export can show).
struct Difference {
  double largest = 0;
  double mean = 0;
};

Difference differenceOf(const std::vector<float>& a, const std::vector<float>& b) {
  Difference d;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    const double level =
        std::abs(std::clamp(a[i], 0.0f, 1.0f) - std::clamp(b[i], 0.0f, 1.0f)) * 255;
    d.largest = std::max(d.largest, level);
    sum += level;
  }
  d.mean = sum / a.size();
  return d;
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

  // Two real photo tiles: the whole photo scaled down (busy, many edges)
  // and a crop at its own resolution (as the engine's tiles are).
  const bench::Photo rocket = bench::samplePhoto("rocket.jpg");
  const auto tileOf = [](const bench::Photo& photo, int left, int top) {
    std::vector<float> tile(3 * 256 * 256);
    for (int c = 0; c < 3; ++c)
      for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 256; ++x)
          tile[(c * 256 + y) * 256 + x] =
              photo.rgb[(static_cast<size_t>(top + y) * photo.width + left + x) * 3 + c] / 255.0f;
    return tile;
  };
  const std::vector<std::vector<float>> tiles = {
      tileOf(bench::scaledPhoto(rocket, 256, 256, 0.0), 0, 0),
      tileOf(rocket, std::max(0, rocket.width / 2 - 128), std::max(0, rocket.height / 2 - 128))};
  const std::vector<float>& input = tiles[0];
  std::vector<float> fp32(3 * 1024 * 1024), winograd(fp32.size()), bf16(fp32.size());

  using Convolution = EstimateNetwork::Convolution;
  EstimateNetwork direct(network, 256, 256, 1, EstimateNetwork::Precision::fp32,
                         Convolution::direct);
  EstimateNetwork fast(network, 256, 256, 1, EstimateNetwork::Precision::fp32,
                       Convolution::winograd);
  if (fast.convolution() != Convolution::winograd)
    std::printf("winograd: not available here, direct convolution runs instead\n");

  // Accuracy first: a fast path that is wrong is not worth timing.
  bool accurate = true;
  for (size_t t = 0; t < tiles.size(); ++t) {
    direct.infer(tiles[t].data(), fp32.data());
    fast.infer(tiles[t].data(), winograd.data());
    const Difference d = differenceOf(fp32, winograd);
    const bool within = d.largest <= 1.0 && d.mean <= 0.05;
    accurate = accurate && within;
    std::printf(
        "winograd against direct on photo tile %zu: largest %.3f/255, mean %.4f/255 (limit 1/255, "
        "0.05/255)%s\n",
        t + 1, d.largest, d.mean, within ? "" : "  OUT OF BOUNDS");
  }
  direct.infer(input.data(), fp32.data());
  fast.infer(input.data(), winograd.data());

  // Alternating rounds, the order swapped each round, so a neighbour's
  // build or a clock change hits both paths alike.
  const int rounds = 7;
  std::vector<double> directTimes, winogradTimes, ratios;
  for (int round = 0; round < rounds; ++round) {
    double seconds[2];
    for (int k = 0; k < 2; ++k) {
      const int which = (round + k) % 2;
      const auto start = std::chrono::steady_clock::now();
      (which == 0 ? direct : fast).infer(input.data(), (which == 0 ? fp32 : winograd).data());
      seconds[which] = bench::secondsSince(start);
    }
    directTimes.push_back(seconds[0]);
    winogradTimes.push_back(seconds[1]);
    ratios.push_back(seconds[0] / seconds[1]);
  }
  const double directSeconds = bench::median(directTimes),
               winogradSeconds = bench::median(winogradTimes);
  const auto report = [&](const char* name, double seconds) {
    std::printf("%s: %.3f s per tile, %.0f GFLOP/s, %.0f%% of the float32 peak\n", name, seconds,
                tileGflop / seconds, 100 * tileGflop / seconds / peak);
  };
  report("fp32", directSeconds);
  report("winograd", winogradSeconds);
  std::printf(
      "winograd is %.2fx direct (median of %d alternating rounds; median round ratio %.2fx)\n",
      directSeconds / winogradSeconds, rounds, bench::median(ratios));

  if (EstimateNetwork::processorHasBf16()) {
    EstimateNetwork runner(network, 256, 256, 1, EstimateNetwork::Precision::bf16);
    runner.infer(input.data(), bf16.data());
    std::vector<double> times;
    for (int run = 0; run < 3; ++run) {
      const auto start = std::chrono::steady_clock::now();
      runner.infer(input.data(), bf16.data());
      times.push_back(bench::secondsSince(start));
    }
    report("bf16", bench::median(times));
    const Difference d = differenceOf(fp32, bf16);
    std::printf(
        "bf16 against fp32 on a real photo tile: largest %.2f/255, mean %.3f/255 (limit for "
        "default use: 2/255)\n",
        d.largest, d.mean);
  } else {
    std::printf("bf16: this processor has no native BF16\n");
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
    bench::writeFile(dump / "winograd.f32", bytesOf(winograd));
  }
  std::printf("peak RSS %.0f MiB\n", bench::peakRssMiB());
  if (!accurate) {
    std::fprintf(stderr, "winograd: output outside the accuracy bounds of direct convolution\n");
    return 1;
  }
  return 0;
}
