#include "codec/decode_protocol.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace tarnbloom::codec::protocol {

namespace {

constexpr uint32_t kMagic = 0x31444254;  // "TBD1"
constexpr size_t kMaxFds = 2;

struct Header {
  uint32_t magic;
  uint32_t kind;
  uint64_t length;
};

void waitReadable(int socket, std::optional<std::chrono::steady_clock::time_point> deadline) {
  for (;;) {
    int timeout = -1;
    if (deadline) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          *deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) throw ChannelClosed{ChannelClosed::Reason::timedOut};
      timeout = static_cast<int>(std::min<int64_t>(left.count() + 1, 60'000));
    }
    pollfd entry{socket, POLLIN, 0};
    const int ready = ::poll(&entry, 1, timeout);
    if (ready > 0) return;
    if (ready < 0 && errno != EINTR) throw ChannelClosed{ChannelClosed::Reason::broken};
  }
}

// Reads exactly `size` bytes, keeping any descriptors that come with them.
void receiveExactly(int socket, std::byte* into, size_t size, std::vector<FileDescriptor>& fds,
                    std::optional<std::chrono::steady_clock::time_point> deadline) {
  while (size > 0) {
    waitReadable(socket, deadline);
    iovec io{into, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t got = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      throw ChannelClosed{ChannelClosed::Reason::broken};
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; ++i) {
        int fd;
        std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
        fds.emplace_back(fd);  // owned now, so an unwanted one is closed too
      }
    }
    if (message.msg_flags & MSG_CTRUNC) throw ChannelClosed{ChannelClosed::Reason::broken};
    if (got == 0) throw ChannelClosed{ChannelClosed::Reason::endOfStream};
    into += got;
    size -= static_cast<size_t>(got);
  }
}

void sendAll(int socket, const std::byte* data, size_t size, std::span<const int> fds) {
  bool withFds = !fds.empty();
  while (size > 0) {
    iovec io{const_cast<std::byte*>(data), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)] = {};
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    if (withFds) {
      message.msg_control = control;
      message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
      cmsghdr* c = CMSG_FIRSTHDR(&message);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
      std::memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    const ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      throw ChannelClosed{errno == EPIPE ? ChannelClosed::Reason::endOfStream
                                         : ChannelClosed::Reason::broken};
    }
    withFds = false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
}

}  // namespace

void send(int socket, Kind kind, std::span<const std::byte> payload, std::span<const int> fds) {
  if (fds.size() > kMaxFds) throw ChannelClosed{ChannelClosed::Reason::broken};
  std::vector<std::byte> message(sizeof(Header) + payload.size());
  const Header header{kMagic, static_cast<uint32_t>(kind), payload.size()};
  std::memcpy(message.data(), &header, sizeof header);
  std::copy(payload.begin(), payload.end(), message.begin() + sizeof header);
  sendAll(socket, message.data(), message.size(), fds);
}

Message receive(int socket, std::optional<std::chrono::steady_clock::time_point> deadline) {
  Message message;
  Header header{};
  receiveExactly(socket, reinterpret_cast<std::byte*>(&header), sizeof header, message.fds,
                 deadline);
  if (header.magic != kMagic || header.length > kMaxPayload || message.fds.size() > kMaxFds ||
      header.kind < static_cast<uint32_t>(Kind::probeRequest) ||
      header.kind > static_cast<uint32_t>(Kind::pixelsReply))
    throw ChannelClosed{ChannelClosed::Reason::broken};
  message.kind = static_cast<Kind>(header.kind);
  message.payload.resize(header.length);
  receiveExactly(socket, message.payload.data(), message.payload.size(), message.fds, deadline);
  if (message.fds.size() > kMaxFds) throw ChannelClosed{ChannelClosed::Reason::broken};
  return message;
}

void PayloadWriter::u64(uint64_t value) {
  for (int i = 0; i < 8; ++i) m_payload.push_back(static_cast<std::byte>(value >> (8 * i)));
}

void PayloadWriter::bytes(std::span<const std::byte> value) {
  u64(value.size());
  m_payload.insert(m_payload.end(), value.begin(), value.end());
}

uint64_t PayloadReader::u64() {
  if (m_rest.size() < 8) throw CodecError::unreadable("short reply from the decoder");
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value |= static_cast<uint64_t>(m_rest[i]) << (8 * i);
  m_rest = m_rest.subspan(8);
  return value;
}

int64_t PayloadReader::i64(int64_t min, int64_t max) {
  const auto value = static_cast<int64_t>(u64());
  if (value < min || value > max) throw CodecError::unreadable("bad value from the decoder");
  return value;
}

std::span<const std::byte> PayloadReader::bytes() {
  const uint64_t size = u64();
  if (size > m_rest.size()) throw CodecError::unreadable("short reply from the decoder");
  const auto value = m_rest.first(size);
  m_rest = m_rest.subspan(size);
  return value;
}

std::string PayloadReader::text() {
  const auto value = bytes();
  return {reinterpret_cast<const char*>(value.data()), value.size()};
}

std::vector<uint8_t> PayloadReader::blob() {
  const auto value = bytes();
  const auto* first = reinterpret_cast<const uint8_t*>(value.data());
  return {first, first + value.size()};
}

namespace {

constexpr int64_t kContainerLast = static_cast<int64_t>(Container::raw);
constexpr int64_t kIntMax = std::numeric_limits<int>::max();

}  // namespace

std::vector<std::byte> encodeProbe(const ContainerProbe& probe) {
  PayloadWriter out;
  out.i64(static_cast<int64_t>(probe.container));
  out.i64(probe.opened);
  out.i64(probe.frameCount);
  out.i64(probe.hasProperties);
  out.i64(probe.width);
  out.i64(probe.height);
  out.i64(probe.bitsPerSample);
  out.i64(probe.isFloat);
  out.i64(probe.orientation);
  return out.payload();
}

ContainerProbe decodeProbe(std::span<const std::byte> payload) {
  PayloadReader in(payload);
  ContainerProbe probe;
  probe.container = static_cast<Container>(in.i64(0, kContainerLast));
  probe.opened = in.i64(0, 1);
  probe.frameCount = static_cast<int>(in.i64(0, kIntMax));
  probe.hasProperties = in.i64(0, 1);
  probe.width = in.i64(0, std::numeric_limits<uint32_t>::max());
  probe.height = in.i64(0, std::numeric_limits<uint32_t>::max());
  probe.bitsPerSample = static_cast<int>(in.i64(0, 1024));
  probe.isFloat = in.i64(0, 1);
  probe.orientation = static_cast<uint32_t>(in.i64(0, std::numeric_limits<uint32_t>::max()));
  return probe;
}

std::vector<std::byte> encodeRefusal(const CodecError& error) {
  PayloadWriter out;
  out.i64(static_cast<int64_t>(error.kind()));
  out.i64(error.count());
  out.text(error.detail());
  return out.payload();
}

CodecError decodeRefusal(std::span<const std::byte> payload) {
  PayloadReader in(payload);
  const auto kind = static_cast<CodecError::Kind>(
      in.i64(0, static_cast<int64_t>(CodecError::Kind::unsupportedDepth)));
  const auto value = static_cast<int>(in.i64(std::numeric_limits<int>::min(), kIntMax));
  std::string detail = in.text();
  if (detail.size() > 1000) detail.resize(1000);
  return CodecError::of(kind, value, std::move(detail));
}

std::vector<std::byte> encodeFrame(const DecodedFrame& frame) {
  PayloadWriter out;
  out.i64(static_cast<int64_t>(frame.container));
  out.i64(frame.frameCount);
  out.i64(frame.pixels.width);
  out.i64(frame.pixels.height);
  out.i64(frame.pixels.channels);
  out.i64(static_cast<int64_t>(frame.pixels.format));
  out.i64(frame.nativeBits);
  out.i64(frame.isFloat);
  out.i64(frame.orientation);
  out.i64(frame.convertedFromCmyk);
  out.blob(frame.iccProfile);
  out.blob(frame.exif);
  out.text(frame.xmp);
  out.u64(reinterpret_cast<uintptr_t>(frame.pixels.data.data()));
  return out.payload();
}

uint64_t decodeFrameFacts(std::span<const std::byte> payload, DecodedFrame& frame) {
  PayloadReader in(payload);
  frame.container = static_cast<Container>(in.i64(0, kContainerLast));
  frame.frameCount = static_cast<int>(in.i64(0, kIntMax));
  PixelBuffer& pixels = frame.pixels;
  pixels.width = static_cast<int>(in.i64(1, kMaxSourceSide));
  pixels.height = static_cast<int>(in.i64(1, kMaxSourceSide));
  if (int64_t{pixels.width} * pixels.height > kMaxSourcePixels)
    throw CodecError::unreadable("frame too large");
  pixels.channels = static_cast<int>(in.i64(1, 4));
  pixels.format = static_cast<SampleFormat>(in.i64(0, static_cast<int64_t>(SampleFormat::float32)));
  frame.nativeBits = static_cast<int>(in.i64(0, 1024));
  frame.isFloat = in.i64(0, 1);
  frame.orientation = static_cast<uint32_t>(in.i64(0, std::numeric_limits<uint32_t>::max()));
  frame.convertedFromCmyk = in.i64(0, 1);
  frame.iccProfile = in.blob();
  frame.exif = in.blob();
  frame.xmp = in.text();
  return in.u64();
}

}  // namespace tarnbloom::codec::protocol
