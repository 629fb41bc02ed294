// tarnbloom-decode: runs the third-party image decoders (libheif with its
// codecs, libraw, libtiff, libpng, libjpeg-turbo, libwebp) for Tarnbloom in
// a process of their own, so that a file which crashes, hangs or exhausts a
// decoder ends this helper and not the program that asked. The metadata
// parsers the caller uses later read the frame's metadata here first. Started by
// DecoderPool with one socket as descriptor 3; see decode_protocol.h.
//
//   tarnbloom-decode --memory BYTES --cpu SECONDS

#include <fcntl.h>
#include <libheif/heif.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/decode_protocol.h"
#include "codec/probe.h"
#include "metadata_check.h"
#include "sandbox.h"
#include "support/sealed_bytes.h"

using namespace tarnbloom;
using namespace tarnbloom::codec;

namespace {

// A read-only private view of a descriptor's bytes.
class View {
 public:
  explicit View(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return;
    m_size = static_cast<size_t>(info.st_size);
    if (m_size == 0) return;
    void* map = ::mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (map == MAP_FAILED) {
      m_size = 0;
      return;
    }
    m_data = map;
  }
  ~View() {
    if (m_data) ::munmap(m_data, m_size);
  }
  View(const View&) = delete;
  View& operator=(const View&) = delete;
  std::span<const std::byte> bytes() const { return {static_cast<std::byte*>(m_data), m_size}; }

 private:
  void* m_data = nullptr;
  size_t m_size = 0;
};

void refuse(const CodecError& error) {
  const auto payload = protocol::encodeRefusal(error);
  protocol::send(protocol::kHelperChannel, protocol::Kind::refusal, payload);
}

void serve(const protocol::Message& request) {
  if (request.fds.size() != 1) {
    refuse(CodecError::unreadable("request without its file"));
    return;
  }
  const View file(request.fds[0].get());
  if (request.kind == protocol::Kind::probeRequest) {
    const auto payload = protocol::encodeProbe(probeContainer(file.bytes()));
    protocol::send(protocol::kHelperChannel, protocol::Kind::probeReply, payload);
    return;
  }
  try {
    DecodedFrame frame = decodeFrame(file.bytes());
    decodehelper::readMetadataAsTheCallerWill(frame);
    protocol::send(protocol::kHelperChannel, protocol::Kind::frameReply,
                   protocol::encodeFrame(frame));
    // The caller reads the pixels out of this process, or asks for them.
    const auto answer = protocol::receive(protocol::kHelperChannel);
    if (answer.kind == protocol::Kind::pixelsWanted) {
      // For a caller that may not read this process's memory.
      const SealedBytes pixels = SealedBytes::copyOf(
          std::as_bytes(std::span(frame.pixels.data.data(), frame.pixels.data.size())));
      const int fds[] = {pixels.fd()};
      protocol::send(protocol::kHelperChannel, protocol::Kind::pixelsReply, {}, fds);
    }
  } catch (const CodecError& error) {
    refuse(error);
  } catch (const std::bad_alloc&) {
    refuse(CodecError::unreadable("The decoder ran out of its memory limit."));
  } catch (const FileError& error) {
    refuse(CodecError::unreadable(error.description()));
  } catch (const std::exception& error) {
    refuse(CodecError::unreadable(error.what()));
  }
}

uint64_t argument(int argc, char** argv, const char* name, uint64_t fallback) {
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], name) == 0) return std::strtoull(argv[i + 1], nullptr, 10);
  return fallback;
}

}  // namespace

int main(int argc, char** argv) {
  const uint64_t memory = argument(argc, argv, "--memory", uint64_t{4} << 30);
  const uint64_t cpuSeconds = argument(argc, argv, "--cpu", 600);
  decodehelper::applyLimits(memory);
  // Everything a decoder loads or reads lazily happens now, while files
  // may still be opened.
  heif_init(nullptr);
  decodehelper::prepareMetadataReaders();
  // LibRaw develops with OpenMP, whose runtime sets itself up (shared
  // memory, its thread pool) at the first parallel region.
  [[maybe_unused]] volatile int warmed = 0;
#pragma omp parallel
  warmed = 1;
  if (!decodehelper::lockDown()) {
    // Never decode outside the sandbox: every file is refused, saying why.
    for (;;) {
      try {
        (void)protocol::receive(protocol::kHelperChannel);
        refuse(CodecError::unreadable(
            "The decoder could not close its sandbox: this system refused its system-call "
            "filter."));
      } catch (const protocol::ChannelClosed&) {
        ::_exit(0);
      }
    }
  }
  for (;;) {
    try {
      // Scoped to the request: an idle helper holds no file.
      const protocol::Message request = protocol::receive(protocol::kHelperChannel);
      decodehelper::allowCpuSeconds(cpuSeconds);
      serve(request);
    } catch (const protocol::ChannelClosed&) {
      // The caller went away. _exit: nothing of ours needs flushing, and
      // destructors of decoder libraries have no business running now.
      ::_exit(0);
    } catch (const CodecError& error) {
      refuse(error);
    }
  }
}
