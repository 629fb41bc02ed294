#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec::detail {

ContainerProbe probeWebp(Bytes) { return {}; }
DecodedFrame decodeWebp(Bytes) { throw CodecError::unreadable("not implemented"); }

}  // namespace tarnbloom::codec::detail
