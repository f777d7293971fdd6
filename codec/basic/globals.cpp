// Process-wide state of the arithmetic layer: the sticky overflow flag, a
// spare slot for a host to save it in, and the weighted operation counter.
#include "codec/basic/fixed_point.h"

extern "C" {
alignas(64) EVRC_API Word32 evrc_giOverflow = 0;
EVRC_API Word32 evrc_giOldOverflow = 0;
alignas(64) EVRC_API UWord32 evrc_op_counter = 0;
}

namespace fx::detail {
__thread UWord32 t_pending_ops EVRC_TLS_MODEL = 0;
__thread int t_call_depth EVRC_TLS_MODEL = 0;
}  // namespace fx::detail
