// Component diagnostics: every line goes to the platform log at error
// priority under the component's tag.
#ifndef EVRC_OMX_LOG_H
#define EVRC_OMX_LOG_H

#include <android/log.h>

#define OMX_EVRC_LOG_TAG "OMX_EVRC_DEC"
#define OMX_EVRC_LOG(...) __android_log_print(ANDROID_LOG_ERROR, OMX_EVRC_LOG_TAG, __VA_ARGS__)

#endif  // EVRC_OMX_LOG_H
