#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "codec/decode.h"
#include "codec/decode_protocol.h"
#include "codec/probe.h"
#include "support/sealed_bytes.h"

namespace tarnbloom::codec {

// What each decoder helper may use for one file.
struct DecoderLimits {
  // Private memory of the helper, and the largest frame it may return.
  uint64_t memoryBytes = uint64_t{4} << 30;
  // Wall-clock time the caller waits for a decode or a probe.
  std::chrono::milliseconds decodeTime{120'000};
  std::chrono::milliseconds probeTime{30'000};
  // Processor time of one request over all the helper's threads; the
  // kernel's own stop for a helper nobody waits for any more.
  uint64_t cpuSeconds = 300;
  // Copy pixels straight out of the helper's memory; false takes them as a
  // memory file, as where the system forbids reading another process.
  bool readHelperMemory = true;

  // Three quarters of this computer's memory (1 GiB at least), the times above.
  static DecoderLimits standard();
};

// Runs the third-party decoders in `tarnbloom-decode` helper processes
// (sandboxed, limited, with no descriptors but their socket) and keeps them
// warm between files, so a folder pays one process start, not one per file.
// A helper that crashes, breaks a limit or times out is buried and the file
// refused; the next request gets a new helper. Safe to use from any thread.
class DecoderPool {
 public:
  DecoderPool(std::filesystem::path helper, DecoderLimits limits);
  ~DecoderPool();
  DecoderPool(const DecoderPool&) = delete;
  DecoderPool& operator=(const DecoderPool&) = delete;

  // The pool of this process, with the standard limits and the helper
  // from defaultHelper(). Never destroyed: helpers end when the process
  // does and their socket closes.
  static DecoderPool& shared();
  // $TARNBLOOM_DECODE_HELPER when set, else `tarnbloom-decode` beside this
  // executable, else ../lib/tarnbloom/ from it (the installed layout), else
  // the one in the build tree (tests and benchmarks).
  static std::filesystem::path defaultHelper();

  // Frame 0 of the sealed bytes at its native depth. Throws CodecError as
  // decodeFrame does; a helper that dies, times out, answers nonsense or
  // cannot start gives `unreadable` with the cause as its detail.
  // `meanwhile` runs here while the helper decodes.
  DecodedFrame decode(const SealedBytes& bytes, const std::function<void()>& meanwhile = {});
  // The header probe of the file open at `fd`. Never throws: a helper that
  // dies reports an image container it could not read.
  ContainerProbe probe(int fd, Container sniffed);

  struct Statistics {
    int64_t started = 0;  // helpers started
    int64_t buried = 0;   // helpers that died, were killed or answered nonsense
  };
  Statistics statistics() const;
  // Process ids of the helpers waiting for work.
  std::vector<pid_t> idleHelpers() const;

 private:
  struct Helper;
  std::unique_ptr<Helper> acquire();
  // A helper that has taken a request for the file at `fd`; throws
  // CodecError when none can be started or reached.
  std::unique_ptr<Helper> handOver(protocol::Kind kind, int fd);
  void release(std::unique_ptr<Helper> helper);
  // Ends and reaps a helper that is done with.
  static void retire(Helper& helper);
  // Kills and reaps a helper whose conversation failed; returns the cause.
  std::string bury(std::unique_ptr<Helper> helper, bool timedOut,
                   std::chrono::milliseconds timeout);
  std::unique_ptr<Helper> start();
  // The pixels of the frame the helper just reported; throws CodecError
  // or protocol::ChannelClosed.
  SampleBytes takePixels(Helper& helper, uint64_t address, size_t size);

  std::filesystem::path m_helper;
  DecoderLimits m_limits;
  mutable std::mutex m_mutex;
  std::vector<std::unique_ptr<Helper>> m_idle;
  Statistics m_statistics;
  // Cleared for good once the system refuses to let us read a helper.
  std::atomic<bool> m_readFromHelpers{true};
};

// probeContainer() for a file open at `fd` with `bytes` mapped: our own
// header readers (PNG, JPEG, GIF, the sniffer) run here, the library ones
// through the shared pool.
ContainerProbe probeIsolated(std::span<const std::byte> bytes, int fd);

}  // namespace tarnbloom::codec
