// The decoder helper as its callers meet it: the same frames as decoding
// here, a sandbox a taken-over decoder cannot leave, and a helper that
// crashes, hangs or runs out of memory costing only its own file.

#include "codec/decoder_pool.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>

#include "codec/codec_error.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

fs::path decoderCrash(const std::string& name) {
  return fs::path(TARNBLOOM_SOURCE_DIR) / "tests" / "fuzz" / "decoder-crashes" / name;
}

std::string fileText(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The cause a refused decode reports, or "" when it loaded.
std::string refusalDetail(DecoderPool& pool, const fs::path& file) {
  try {
    (void)pool.decode(SealedBytes::readFile(file));
  } catch (const CodecError& error) {
    return error.detail().empty() ? "refused" : error.detail();
  }
  return "";
}

void writeGradient(const fs::path& path, int width, int height, int channels, int bits) {
  std::vector<uint16_t> samples(static_cast<size_t>(width) * height * channels);
  const int top = (1 << bits) - 1;
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<uint16_t>((i * 131) % top);
  testing::writePng(path, width, height, channels, bits, samples);
}

TEST(DecoderPool, GivesTheFramesAndProbesOfDecodingInProcess) {
  testing::TempDir dir;
  // Small frames and large ones (mapped buffers), 8 and 16 bits, with and
  // without alpha, with a profile and EXIF (rocket.jpg), and the formats
  // whose probes need a library.
  writeGradient(dir / "small.png", 31, 17, 2, 16);
  writeGradient(dir / "large.png", 1200, 900, 4, 16);
  const fs::path rocket = testing::samplePath("rocket.jpg");
  ASSERT_EQ(testing::runCommand("/usr/bin/convert " + (dir / "large.png").string() +
                                " -depth 16 " + (dir / "large.tif").string() + " && /usr/bin/convert " +
                                rocket.string() + " " + (dir / "rocket.webp").string()),
            0);
  DecoderPool pool(DecoderPool::defaultHelper(), DecoderLimits::standard());
  for (const auto& file : {dir / "small.png", dir / "large.png", dir / "large.tif",
                           dir / "rocket.webp", rocket}) {
    const auto bytes = testing::readBytes(file);
    const DecodedFrame here = decodeFrame(bytes);
    const DecodedFrame there = pool.decode(SealedBytes::readFile(file));
    EXPECT_EQ(there.container, here.container) << file;
    EXPECT_EQ(there.pixels.width, here.pixels.width) << file;
    EXPECT_EQ(there.pixels.height, here.pixels.height) << file;
    EXPECT_EQ(there.pixels.channels, here.pixels.channels) << file;
    EXPECT_EQ(there.pixels.format, here.pixels.format) << file;
    EXPECT_TRUE(there.pixels.data == here.pixels.data) << file;
    EXPECT_EQ(there.nativeBits, here.nativeBits) << file;
    EXPECT_EQ(there.orientation, here.orientation) << file;
    EXPECT_EQ(there.iccProfile, here.iccProfile) << file;
    EXPECT_EQ(there.exif, here.exif) << file;
    EXPECT_EQ(there.xmp, here.xmp) << file;

    const MappedFile mapped(file);
    const ContainerProbe a = probeContainer(bytes), b = probeIsolated(mapped.bytes(), mapped.fd());
    EXPECT_EQ(b.container, a.container) << file;
    EXPECT_EQ(b.opened, a.opened) << file;
    EXPECT_EQ(b.hasProperties, a.hasProperties) << file;
    EXPECT_EQ(b.width, a.width) << file;
    EXPECT_EQ(b.bitsPerSample, a.bitsPerSample) << file;
  }
  // One helper served them all.
  EXPECT_EQ(pool.statistics().started, 1);

  // Where the system forbids reading the helper, the pixels come as a file.
  DecoderLimits noPeeking = DecoderLimits::standard();
  noPeeking.readHelperMemory = false;
  DecoderPool sealedOnly(DecoderPool::defaultHelper(), noPeeking);
  for (const auto& file : {dir / "small.png", dir / "large.png"})
    EXPECT_TRUE(sealedOnly.decode(SealedBytes::readFile(file)).pixels.data ==
                decodeFrame(testing::readBytes(file)).pixels.data)
        << file;
}

TEST(DecoderPool, HelpersRunSandboxedWithNothingButTheirSocket) {
  testing::TempDir dir;
  writeGradient(dir / "photo.png", 64, 48, 3, 8);
  DecoderPool pool(DecoderPool::defaultHelper(), DecoderLimits::standard());
  ASSERT_EQ(pool.decode(SealedBytes::readFile(dir / "photo.png")).pixels.width, 64);
  const auto helpers = pool.idleHelpers();
  ASSERT_EQ(helpers.size(), 1u);
  const fs::path proc = "/proc/" + std::to_string(helpers[0]);
  const std::string status = fileText(proc / "status");
  EXPECT_NE(status.find("NoNewPrivs:\t1"), std::string::npos) << status;
  EXPECT_NE(status.find("Seccomp:\t2"), std::string::npos) << status;
  // The helper lets go of the file just after the reply.
  std::vector<std::string> fds;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  do {
    fds.clear();
    for (const auto& entry : fs::directory_iterator(proc / "fd")) {
      std::error_code gone;  // closed while we looked
      fds.push_back(entry.path().filename().string() + " " +
                    fs::read_symlink(entry.path(), gone).string());
    }
  } while (fds.size() > 4 && std::chrono::steady_clock::now() < deadline);
  std::sort(fds.begin(), fds.end());
  ASSERT_EQ(fds.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fds[i], std::to_string(i) + " /dev/null");
  EXPECT_TRUE(fds[3].starts_with("3 socket:")) << fds[3];
}

TEST(DecoderPool, AHelperThatCrashesHangsOrRunsOutCostsOnlyItsFile) {
  testing::TempDir dir;
  writeGradient(dir / "photo.png", 640, 480, 3, 8);
  DecoderPool pool(DecoderPool::defaultHelper(), DecoderLimits::standard());

  // A 973-byte HEIC on which libheif 1.15 dereferences a wild pointer
  // (signal 11; under AddressSanitizer the helper aborts after its report).
  EXPECT_NE(refusalDetail(pool, decoderCrash("heif-decode-segv.heic"))
                .find("The decoder stopped with signal"),
            std::string::npos);
  EXPECT_EQ(pool.statistics().buried, 1);
  EXPECT_EQ(refusalDetail(pool, dir / "photo.png"), "");
  // The header probe of the same file goes through a helper too.
  const MappedFile hostile(decoderCrash("heif-decode-segv.heic"));
  EXPECT_NO_FATAL_FAILURE((void)probeIsolated(hostile.bytes(), hostile.fd()));

  // An idle helper the system stopped is not the next file's fault.
  for (const pid_t idle : pool.idleHelpers()) {
    ::kill(idle, SIGKILL);
    // Dead, with every thread gone and so its socket closed (a zombie
    // until the pool reaps it).
    const auto process = fs::path("/proc") / std::to_string(idle);
    for (;;) {
      std::error_code gone;
      const auto threads = std::distance(fs::directory_iterator(process / "task", gone),
                                         fs::directory_iterator());
      if (gone || (threads <= 1 && fileText(process / "stat").find(") Z ") != std::string::npos))
        break;
      ::usleep(1000);
    }
  }
  EXPECT_EQ(refusalDetail(pool, dir / "photo.png"), "");

  DecoderLimits impatient = DecoderLimits::standard();
  impatient.decodeTime = std::chrono::milliseconds(1);
  DecoderPool hurried(DecoderPool::defaultHelper(), impatient);
  EXPECT_NE(refusalDetail(hurried, dir / "photo.png").find("took longer than 1 ms"),
            std::string::npos);

  DecoderPool missing(dir / "no-such-helper", DecoderLimits::standard());
  EXPECT_NE(refusalDetail(missing, dir / "photo.png").find("could not be started"),
            std::string::npos);

  if (!kAddressSanitizer) {  // its shadow memory rules out a data limit
    writeGradient(dir / "large.png", 1600, 1600, 4, 16);  // 20 MB decoded
    DecoderLimits small = DecoderLimits::standard();
    small.memoryBytes = 16 << 20;
    DecoderPool frugal(DecoderPool::defaultHelper(), small);
    EXPECT_NE(refusalDetail(frugal, dir / "large.png"), "");
    EXPECT_EQ(refusalDetail(frugal, dir / "photo.png"), "");
  }
}

}  // namespace
}  // namespace tarnbloom::codec
