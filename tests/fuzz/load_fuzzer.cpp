// Feeds arbitrary bytes to the header probe and the frame decoder. Either
// may refuse the input; neither may crash, hang or allocate without bound.

#include <cstddef>
#include <cstdint>
#include <span>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  (void)tarnbloom::codec::probeContainer(bytes);
  try {
    (void)tarnbloom::codec::decodeFrame(bytes);
  } catch (const tarnbloom::codec::CodecError&) {
  }
  return 0;
}
