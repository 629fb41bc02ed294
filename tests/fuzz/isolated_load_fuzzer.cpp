// Feeds arbitrary bytes to probe and load as the program runs them: our own
// header readers here, the third-party decoders in tarnbloom-decode helpers,
// and everything done here with what a helper returns. A helper may die on
// an input (it is counted, and printed at the end); this process may not.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "codec/decoder_pool.h"
#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "engine/source_probe.h"

using namespace tarnbloom;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::atexit([] {
    const auto statistics = codec::DecoderPool::shared().statistics();
    std::fprintf(stderr, "decoder helpers: %lld started, %lld died or were stopped\n",
                 static_cast<long long>(statistics.started),
                 static_cast<long long>(statistics.buried));
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  (void)SourceProbe::fromHeader(codec::probeIsolated(bytes, -1));
  try {
    (void)ResampleEngine::load("input", SealedBytes::copyOf(bytes));
  } catch (const EngineError&) {
  }
  return 0;
}
