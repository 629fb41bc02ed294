#pragma once

// The per-container readers behind probeContainer() and decodeFrame(). Each
// probe fills what it can and never throws; each decoder returns frame 0 at
// its native depth or throws CodecError. The dispatchers have already sniffed
// the container and refuse GIF before calling these.

#include <cstddef>
#include <span>

#include "codec/decode.h"
#include "codec/probe.h"

namespace tarnbloom::codec::detail {

using Bytes = std::span<const std::byte>;

ContainerProbe probePng(Bytes bytes);
DecodedFrame decodePng(Bytes bytes);

ContainerProbe probeJpeg(Bytes bytes);
DecodedFrame decodeJpeg(Bytes bytes);

ContainerProbe probeTiff(Bytes bytes);
DecodedFrame decodeTiff(Bytes bytes);

ContainerProbe probeWebp(Bytes bytes);
DecodedFrame decodeWebp(Bytes bytes);

// HEIC and AVIF share libheif; `container` says which one was sniffed.
ContainerProbe probeHeif(Bytes bytes, Container container);
DecodedFrame decodeHeif(Bytes bytes, Container container);

ContainerProbe probeRaw(Bytes bytes);
DecodedFrame decodeRaw(Bytes bytes);

}  // namespace tarnbloom::codec::detail
