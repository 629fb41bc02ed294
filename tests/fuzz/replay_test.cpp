// Every input the fuzzer ever crashed on is kept in crashes/ and replayed
// here on each test run, so a fixed fault stays fixed.

#include <gtest/gtest.h>

#include <filesystem>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

TEST(FuzzReplay, EveryKeptCrashFileIsRefusedCleanly) {
  const auto folder = std::filesystem::path(TARNBLOOM_SOURCE_DIR) / "tests" / "fuzz" / "crashes";
  if (!std::filesystem::exists(folder)) GTEST_SKIP() << "no crash files kept";
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file() || entry.path().extension() == ".md") continue;
    const auto bytes = testing::readBytes(entry.path());
    (void)codec::probeContainer(bytes);
    try {
      (void)codec::decodeFrame(bytes);
    } catch (const codec::CodecError&) {
    }
  }
}

}  // namespace
}  // namespace tarnbloom
