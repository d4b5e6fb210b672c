/* qorasdk.h - the appliance SDK: service state and start. */
#ifndef QORASDK_H
#define QORASDK_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(QORASDK_BUILD)
#define QLIBSDK_API __attribute__((visibility("default")))
#else
#define QLIBSDK_API
#endif

/* 1: running, 0: not running (also for a service the SDK does not know). */
QLIBSDK_API int QLIBServiceIsRunning(const char *szService);
/* Starts the service and returns once it answers; negative on failure. */
QLIBSDK_API int QLIBServiceStart(const char *szService, int iOptions);

#ifdef __cplusplus
}
#endif
#endif /* QORASDK_H */
