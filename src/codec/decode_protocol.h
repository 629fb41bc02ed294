#pragma once

// What the decoder helper and its callers say to each other over their
// socket. A message is a fixed header (magic, kind, payload length), the
// payload, and up to two descriptors passed with the header. Requests carry
// the file as a descriptor. A frame's pixels never go through the socket:
// the caller copies them straight out of the helper's memory (the reply
// says where) and then says pixelsTaken; where the system does not allow
// that, it says pixelsWanted and gets them as a sealed memory file. Either
// way the helper keeps the frame until then.
//
// The caller treats every reply as hostile: a helper may have been taken
// over by the file it was reading. Every length, count and size is checked
// before it is used.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"
#include "support/files.h"

namespace tarnbloom::codec::protocol {

enum class Kind : uint32_t {
  probeRequest = 1,   // fd: the file, read-only
  decodeRequest = 2,  // fd: the file's bytes, sealed
  probeReply = 3,
  frameReply = 4,   // the frame's facts and where its pixels are
  refusal = 5,      // a CodecError
  pixelsTaken = 6,  // the helper may let the frame go
  pixelsWanted = 7,
  pixelsReply = 8,  // fd: the pixels, sealed
};

// The helper's end of its socket, the only descriptor it starts with
// besides /dev/null on 0, 1 and 2.
inline constexpr int kHelperChannel = 3;

// Payloads larger than this are a broken or hostile peer.
inline constexpr uint64_t kMaxPayload = uint64_t{1} << 30;

struct Message {
  Kind kind = Kind::refusal;
  std::vector<std::byte> payload;
  std::vector<FileDescriptor> fds;
};

// Why a conversation with a helper ended early.
struct ChannelClosed {
  enum class Reason { endOfStream, timedOut, broken } reason;
};

// Sends one whole message; throws ChannelClosed. Never raises SIGPIPE.
void send(int socket, Kind kind, std::span<const std::byte> payload, std::span<const int> fds = {});
// Receives one whole message; throws ChannelClosed. `deadline` bounds the
// wait for every part of it; none waits for ever.
Message receive(int socket,
                std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);

// Little-endian fields, strings and byte strings with their lengths.
class PayloadWriter {
 public:
  void u64(uint64_t value);
  void i64(int64_t value) { u64(static_cast<uint64_t>(value)); }
  void bytes(std::span<const std::byte> value);
  void text(const std::string& value) { bytes(std::as_bytes(std::span(value))); }
  void blob(const std::vector<uint8_t>& value) { bytes(std::as_bytes(std::span(value))); }
  const std::vector<std::byte>& payload() const { return m_payload; }

 private:
  std::vector<std::byte> m_payload;
};

// Throws CodecError (unreadable) when the payload ends early or a value
// is out of its range.
class PayloadReader {
 public:
  explicit PayloadReader(std::span<const std::byte> payload) : m_rest(payload) {}
  uint64_t u64();
  int64_t i64(int64_t min, int64_t max);
  std::span<const std::byte> bytes();
  std::string text();
  std::vector<uint8_t> blob();

 private:
  std::span<const std::byte> m_rest;
};

std::vector<std::byte> encodeProbe(const ContainerProbe& probe);
ContainerProbe decodeProbe(std::span<const std::byte> payload);

std::vector<std::byte> encodeRefusal(const CodecError& error);
CodecError decodeRefusal(std::span<const std::byte> payload);

// A frame's facts and the address of its pixels in the helper.
std::vector<std::byte> encodeFrame(const DecodedFrame& frame);
// Fills everything but pixels.data; returns the pixels' address.
uint64_t decodeFrameFacts(std::span<const std::byte> payload, DecodedFrame& frame);

}  // namespace tarnbloom::codec::protocol
