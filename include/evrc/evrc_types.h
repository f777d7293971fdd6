/* Fixed-width integer types shared by every part of the EVRC library. */
#ifndef EVRC_TYPES_H
#define EVRC_TYPES_H

#include <stdint.h>

typedef int16_t Word16;
typedef int32_t Word32;
typedef int64_t Word64;
typedef uint16_t UWord16;
typedef uint32_t UWord32;
typedef uint64_t UWord64;

#ifdef __cplusplus
#define EVRC_EXTERN_C_BEGIN extern "C" {
#define EVRC_EXTERN_C_END }
#else
#define EVRC_EXTERN_C_BEGIN
#define EVRC_EXTERN_C_END
#endif

#if defined(__GNUC__)
#define EVRC_API __attribute__((visibility("default")))
#else
#define EVRC_API
#endif

#endif /* EVRC_TYPES_H */
