#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec::detail {

ContainerProbe probeHeif(Bytes, Container) { return {}; }
DecodedFrame decodeHeif(Bytes, Container) { throw CodecError::unreadable("not implemented"); }

}  // namespace tarnbloom::codec::detail
