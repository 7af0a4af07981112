// SPDX-License-Identifier: Apache-2.0
/* olvex_recorder.h - what an application can ask of the recorder. docs/recordings.md has the rest.
 *
 * C99 and C++11. The declaration is weak: a program that calls it as
 *
 *     if (olvex_recorder_trigger) olvex_recorder_trigger("door opened");
 *
 * runs with and without a recorder. */
#ifndef OLVEX_RECORDER_H
#define OLVEX_RECORDER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Has the recorder write what is in its ring, and what comes in the seconds after.
 *
 *   reason  terminated; its first 63 bytes get into the recording. May be NULL
 *
 * Returns 0, or -1 when nothing is recorded. May be called from any thread, not from a signal handler. */
int olvex_recorder_trigger(const char* reason)
#if defined(__GNUC__)
    __attribute__((weak, visibility("default")))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif /* OLVEX_RECORDER_H */
