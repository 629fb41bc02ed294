// Every input a fuzzer ever failed on is kept and replayed on each test
// run, so a fixed fault stays fixed. crashes/ holds faults of our own code:
// replayed through the decoders in this process, then as a user would meet
// them. decoder-crashes/ holds faults inside third-party decoders (a crash
// in libheif, a leak in dav1d): those decoders only ever run in the helper,
// so these files must be refused and this process must live.

#include <gtest/gtest.h>

#include <filesystem>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"
#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "engine/source_probe.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> kept(const std::string& folder) {
  std::vector<fs::path> files;
  for (const auto& file : testing::filesIn(fs::path(TARNBLOOM_SOURCE_DIR) / "tests" / "fuzz" / folder))
    if (file.extension() != ".md") files.push_back(file);
  return files;
}

// Probe and load as an export does; true when the file was refused.
bool refusedAsAUserWouldMeetIt(const fs::path& file) {
  (void)SourceProbe::probe(file);
  try {
    (void)ResampleEngine::load(file);
  } catch (const EngineError&) {
    return true;
  }
  return false;
}

TEST(FuzzReplay, OurOwnFaultsStayFixed) {
  const auto files = kept("crashes");
  ASSERT_FALSE(files.empty());
  for (const auto& file : files) {
    const auto bytes = testing::readBytes(file);
    (void)codec::probeContainer(bytes);
    try {
      (void)codec::decodeFrame(bytes);
    } catch (const codec::CodecError&) {
    }
    EXPECT_TRUE(refusedAsAUserWouldMeetIt(file)) << file;
  }
}

TEST(FuzzReplay, DecoderFaultsAreRefusedWithoutHarm) {
  const auto files = kept("decoder-crashes");
  ASSERT_FALSE(files.empty());
  for (const auto& file : files) EXPECT_TRUE(refusedAsAUserWouldMeetIt(file)) << file;
}

}  // namespace
}  // namespace tarnbloom
