// SPDX-License-Identifier: Apache-2.0
// commit_det.h - the build string of the release banner. A build sets it with the CMake variable
// OLVEX_COMMIT_DET.
#ifndef VIDEO_DET_INCLUDE_COMMIT_DET_H
#define VIDEO_DET_INCLUDE_COMMIT_DET_H

#ifndef OLVEX_COMMIT_DET
#define OLVEX_COMMIT_DET "commit_det#82144"
#endif

// In writable data, so that a finished library can be stamped.
extern char COMMIT_DET[];

#endif  // VIDEO_DET_INCLUDE_COMMIT_DET_H
