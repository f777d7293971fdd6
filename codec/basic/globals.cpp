// Process-wide state of the arithmetic layer: the sticky overflow flag, a
// spare slot for a host to save it in, and the weighted operation counter.
#include "evrc/basic_op.h"

extern "C" {
EVRC_API Word32 evrc_giOverflow = 0;
EVRC_API Word32 evrc_giOldOverflow = 0;
EVRC_API UWord32 evrc_op_counter = 0;
}
