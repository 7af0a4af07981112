// SPDX-License-Identifier: Apache-2.0
/* olvex_det.h - object detection on the camera's neural-network accelerator. The public interface
 * of libolvex_det, in C99 and C++11.
 *
 * CONVENTIONS THAT HOLD FOR ALL FUNCTIONS
 *
 * Handle     An opaque pointer made by ALGO_DET_CreateHandle, one per model instance. Its life:
 *            created -> initialised (ALGO_DET_InitHandle or ALGO_DET_InitHandle2 returned 0) ->
 *            freed (ALGO_DET_DeinitHandle returned 0). Options are set on an initialised handle;
 *            before that they are ignored, with a line in the log. An initialised handle is not
 *            initialised again.
 * Results    Every function returns an E_ALGO_ERRORCODE_E value (algo_types.h) as QV_S32; 0 is
 *            success. Where a call of the chip's interface fails, the platform's own code may be
 *            returned instead.
 * NULL       Only what a function's comment names is checked. Everything else is the caller's
 *            promise: a wrong pointer is undefined behaviour, as in the C library.
 * Threads    The library starts none. One handle must not be used by two threads at once; separate
 *            handles may run side by side, but initialise one at a time.
 * Device     The accelerator device is one per process. Let one handle create it, the one with the
 *            model of the largest working memory, and free that handle last: with the device go the
 *            channels of all others. Set had_create_device to 1 for the others. An application can
 *            also create it by itself (qv_ipu.h) and set had_create_device to 1 everywhere.
 * Memory     The caller owns every record and buffer that it passes, and the library keeps nothing
 *            of them after the call. One is taken away: see model_buffer below. Lack of memory is
 *            reported by the C++ runtime's allocation exception, which passes through these
 *            functions; the handle stays valid.
 * Output     Diagnostics go to standard output, each line with a time stamp but for the release
 *            banner; failures of open, fstat, mmap and fopen print the system's message on
 *            standard error. The lines are written with printf and its like while the function
 *            runs. Where standard output is a pipe, a reader that has exited ends the process by
 *            SIGPIPE, unless the application ignores that signal, and a reader that has stopped
 *            makes the function wait, in the middle of a frame, too, as soon as the pipe is full.
 * Numbers    Results are for rounding to nearest, which every thread begins with. The library sets
 *            no mode of the processor: a thread that chose another rounding (fesetround) or flushes
 *            denormal numbers to zero gets other bits.
 * Pixels     Boxes come in display pixels: the network's coordinates scaled to disp_size, x to the
 *            right, y down, (0, 0) at the upper left corner.
 *
 * ENVIRONMENT
 *
 * ALGO_DEBUG  read once when the library is loaded; a number above 1 prints a line for each frame
 *             that was dumped.
 * QK_ALGO_S   read by each initialisation; the path of an INI file. While its section [SET_ENV]
 *             has a line QK_ALGO_I=DIRECTORY, every frame is written to a file
 *             DIRECTORY/algo_dump_data[...].bin before tracking. The INI file is read again for
 *             every frame. The line's own newline is part of the value: end the file right after
 *             the directory's name, without a newline, or the name will hold it.
 *
 * Read algo_types.h for the codes and qv_ipu.h for the element formats. */
#ifndef OLVEX_DET_H
#define OLVEX_DET_H

#include "algo_types.h"
#include "qv_ipu.h"
#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Version of this header and of the library that it belongs to. A change of PATCH changes no interface, one of MINOR
 * adds to it, one of MAJOR needs applications to be compiled again: it is the number behind libolvex_det.so. */
#define OLVEX_DET_VERSION_MAJOR 1
#define OLVEX_DET_VERSION_MINOR 0
#define OLVEX_DET_VERSION_PATCH 0

/* Boxes that one call of ALGO_DET_Run can report. */
#define ALGO_DET_MAX_BOXES 200

/* ---- Records -------------------------------------------------------------------------------- */

/* A width and a height in pixels. */
typedef struct Rect_t {
  QV_U32 width;
  QV_U32 height;
} Rect_t;

/* One detected object. */
typedef struct Box_t {
  QV_U32 x;        /* left edge, display pixels, truncated toward zero, negative becomes 0 */
  QV_U32 y;        /* top edge, display pixels, likewise */
  QV_U32 width;    /* display pixels, right edge less left edge before truncation */
  QV_U32 height;   /* display pixels, likewise */
  QV_U32 class_id; /* class, after the model's class mapping */
  QV_FLOAT score;  /* confidence, 0..1 */
  QV_U64 pts;      /* time stamp of the frame that ALGO_DET_Run was given */
} Box_t;

/* One frame. */
typedef struct ALGO_Input_t {
  void* p_vir_addr;  /* the picture in the model's input format, see ALGO_DET_GetInputAttr */
  QV_PHY phy_addr;   /* physical address of the same buffer */
  QV_U32 buf_size;   /* bytes */
  QV_U64 pts;        /* presentation time stamp, any unit; copied into every Box_t */
} ALGO_Input_t;

/* Initialisation from a model file. */
typedef struct DetectionInfo_t {
  char ipu_firmware_path[256]; /* accelerator firmware, terminated; "" selects
                                  /config/dla/ipu_firmware.bin */
  char model[256];             /* path of the offline model file, terminated */
  QV_FLOAT threshold;          /* confidence that a box needs, 0..1, inclusive; not checked here */
  Rect_t disp_size;            /* pixels; boxes are scaled to it and clamped inside it */
  QV_BOOL had_create_device;   /* 1: the device exists; the handle does not create or destroy it */
} DetectionInfo_t;

/* Initialisation from a model in memory. The firmware path is always the default one. */
typedef struct DetectionInfo2_t {
  void* model_buffer;        /* first byte of the offline model, its start pattern. Must be a
                                separate mapping (mmap): initialisation releases it with munmap */
  QV_U32 model_buffer_len;   /* bytes */
  QV_FLOAT threshold;        /* as in DetectionInfo_t */
  Rect_t disp_size;          /* as in DetectionInfo_t */
  QV_BOOL had_create_device; /* as in DetectionInfo_t */
} DetectionInfo2_t;

/* What the model expects as input. */
typedef struct InputAttr_t {
  QV_U32 width;                 /* pixels */
  QV_U32 height;                /* pixels */
  QV_IPU_ELEMENT_FORMAT format; /* picture format. With a device that a handle created, NV12 rows
                                   start at multiples of 16 bytes and the Y plane has an even number
                                   of rows, rows of the 4-byte formats start at multiples of 16
                                   bytes, and all others are packed */
} InputAttr_t;

/* Settings of tracker, static-object filter and stabiliser in one record. */
typedef struct DetTrackParams_t {
  QV_BOOL enable;                /* 1: track objects */
  QV_BOOL ignore_static_objects; /* 1: report only objects that move */
  QV_FLOAT static_sensitive;     /* overlap from which an object counts as standing still, 0..1;
                                    0 selects 0.85 */
  QV_BOOL stable_bbox;           /* 1: hold boxes still while they overlap the previous ones,
                                    measured on whole pixels; boxes far apart on a diagonal can
                                    count as overlapping */
  QV_FLOAT stable_sensitive;     /* overlap above which a box is held, 0..1; 0 is taken as 0 */
  QV_S32 ignore_frame_number;    /* frames an object must be seen before it is reported, 1..10; 0
                                    selects 1, less counts as 1, and with more than 10 nothing is
                                    ever reported; stored in 16 bits */
} DetTrackParams_t;

/* Setting of strict mode. */
typedef struct DetStrictModeParams_t {
  QV_BOOL enable; /* 1: objects of class 0 that never moved need a box that confirms them */
} DetStrictModeParams_t;

/* ---- Functions, in the order in which they are called ---------------------------------------- */

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* Makes a handle with all options at their defaults (tracker, filter, stabiliser and strict mode
 * off).
 *
 *   handle  out: the new handle, the caller's until ALGO_DET_DeinitHandle frees it; not checked
 *
 * Returns
 *   E_ALGO_SUCCESS
 * State: leaves a created handle. Initialise it next, or free it with ALGO_DET_DeinitHandle. */
QV_S32 ALGO_DET_CreateHandle(void** handle);

/* Loads a model from a file, brings the accelerator up and opens a channel for the model. Prints
 * the release banner.
 *
 *   handle     from ALGO_DET_CreateHandle
 *   init_info  see DetectionInfo_t; read during the call only
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_HANDLE_NULL      handle is NULL
 *   E_ALGO_INPUT_DATA_NULL  init_info is NULL
 *   E_ALGO_DEVICE_FAULT     the model could not be opened: file missing, shorter than 4 bytes or
 *                           without a start pattern, model refused by the accelerator
 *   a platform code         the accelerator device could not be created
 * State: needs a created handle; success leaves it initialised. After a failure it is still
 * created: call this function again or free the handle. When a channel cannot be opened the device
 * is destroyed, also one that the caller or another handle created. When no model could be read at
 * all, the device that this call created stays up and is the application's: the next attempt needs
 * had_create_device = 1, and QV_IPU_DestroyDevice takes it down in the end. */
QV_S32 ALGO_DET_InitHandle(void* handle, DetectionInfo_t* init_info);

/* The same from a model in memory. The model's key/value pairs are read from the name of its first
 * output tensor, as no file header exists.
 *
 *   handle     from ALGO_DET_CreateHandle
 *   init_info  see DetectionInfo2_t. model_buffer must stay valid during the call and is unmapped
 *              when the channel exists, and also when the channel cannot be opened
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_HANDLE_NULL      handle is NULL
 *   E_ALGO_INPUT_DATA_NULL  init_info is NULL
 *   E_ALGO_DEVICE_FAULT     the model could not be opened
 *   a platform code         the accelerator device could not be created; model_buffer stays mapped
 * State: as for ALGO_DET_InitHandle. */
QV_S32 ALGO_DET_InitHandle2(void* handle, DetectionInfo2_t* init_info);

/* Tells the size and format of the picture that the model expects.
 *
 *   handle      not checked for NULL
 *   input_attr  out; left as it is when the handle is not initialised; not checked for NULL
 *
 * Returns
 *   E_ALGO_SUCCESS, always
 * State: needs an initialised handle; changes nothing. */
QV_S32 ALGO_DET_GetInputAttr(void* handle, InputAttr_t* input_attr);

/* Sets the confidence that a box needs from the next frame on.
 *
 *   handle     from ALGO_DET_CreateHandle
 *   threshold  0..1, both inclusive; boxes at the threshold are reported
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_HANDLE_NULL    handle is NULL
 *   E_ALGO_INVALID_PARAM  threshold below 0 or above 1 (nothing is logged). A NaN is accepted, and
 *                         no box reaches it
 * State: acts on an initialised handle only. */
QV_S32 ALGO_DET_SetThreshold(void* handle, QV_FLOAT threshold);

/* Switches the tracker and the static-object filter, with the other tracking options at their
 * defaults.
 *
 *   handle   not checked for NULL
 *   tk_type  1: track objects; 0: do not, except that tracking stays on under strict mode
 *   md_type  1: report only objects that move, which needs tk_type 1; 0: report all
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_INVALID_PARAM  tk_type or md_type is neither 0 nor 1, or md_type is 1 without tk_type
 * State: acts on an initialised handle only. */
QV_S32 ALGO_DET_SetTracker(void* handle, QV_S32 tk_type, QV_S32 md_type);

/* Sets tracker, static-object filter and stabiliser together.
 *
 *   handle        not checked for NULL
 *   track_params  see DetTrackParams_t; nothing in it is checked
 *
 * Returns
 *   E_ALGO_SUCCESS, always
 * State: acts on an initialised handle only. Switching the tracker off under strict mode makes
 * ALGO_DET_Run fail. */
QV_S32 ALGO_DET_SetTracker2(void* handle, DetTrackParams_t track_params);

/* Switches the stabiliser, with its sensitivity at 0.63.
 *
 *   handle  not checked for NULL
 *   stable  1: on
 *
 * Returns
 *   E_ALGO_SUCCESS, always
 * State: acts on an initialised handle only. Works with and without the tracker. */
QV_S32 ALGO_DET_SetStableBox(void* handle, QV_BOOL stable);

/* Switches strict mode: an object of class 0 that has never moved is reported only once its box has
 * covered half of a box, at a score of 0.5 or more, of one of the classes that the model's types
 * name for this purpose. Nothing is held back when the model names no types or types without such
 * classes.
 * Switching it on also switches the tracker on; switching it off leaves the tracker on.
 *
 *   handle  from ALGO_DET_CreateHandle
 *   params  see DetStrictModeParams_t
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_HANDLE_NULL  handle is NULL
 * State: acts on an initialised handle only, as the classes come from the model. */
QV_S32 ALGO_DET_SetStrictMode(void* handle, DetStrictModeParams_t params);

/* Detects objects in one frame, then tracks, filters, confirms and steadies them as configured.
 *
 *   handle      not checked for NULL
 *   algo_input  the frame, in the format of ALGO_DET_GetInputAttr; not checked for NULL
 *   bboxes      out: array of ALGO_DET_MAX_BOXES records; the first *num_bboxes are written
 *   num_bboxes  out: records written, 0..200
 *
 * Only the first 200 entries of the internal list are looked at, and an entry whose class the model
 * hides uses up one of them. Without tracker and stabiliser they come in descending order of score.
 * A raw output layer that cannot be decoded is logged and adds no boxes.
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_INVALID_PARAM        strict mode is on and the tracker is off
 *   E_ALGO_LOADMODEL_FAIL       the model has exactly one output tensor
 *   E_ALGO_NOT_INIT             the handle is not initialised
 *   E_ALGO_FILEIO_ERROR         the frame dump could not be written
 *   E_ALGO_INVALID_OUTPUT_SIZE  no decoder takes the shape of the output tensors, the number of
 *                               classes is neither declared nor to be guessed, or a tensor's
 *                               buffer is missing or, by its u32BufSize, shorter than its shape
 *   E_ALGO_INVALID_DECODE_MODE  accelerator-decoded outputs are neither FP32 nor INT16
 *   a platform code             the accelerator failed; its channel is closed and the handle must
 *                               be freed
 * After any error bboxes and num_bboxes are as they were.
 * State: needs an initialised handle; leaves this frame's boxes as the reference of the next.
 *
 * A complete program:
 *
 *     #include <stdio.h>
 *     #include <string.h>
 *     #include "olvex_det.h"
 *
 *     // Supplied by the application: the next frame in the model's format, 0 at the end.
 *     int next_frame(const InputAttr_t* format, ALGO_Input_t* frame);
 *
 *     int main(int argc, char** argv) {
 *       static Box_t boxes[ALGO_DET_MAX_BOXES];
 *       void* detector = NULL;
 *       DetectionInfo_t info;
 *       InputAttr_t format;
 *       ALGO_Input_t frame;
 *       QV_S32 count = 0, i, result;
 *
 *       if (argc != 2) return 2;
 *       memset(&info, 0, sizeof info);
 *       snprintf(info.model, sizeof info.model, "%s", argv[1]);
 *       info.threshold = 0.5f;
 *       info.disp_size.width = 1920;
 *       info.disp_size.height = 1080;
 *
 *       ALGO_DET_CreateHandle(&detector);
 *       result = ALGO_DET_InitHandle(detector, &info);
 *       if (result == E_ALGO_SUCCESS) {
 *         ALGO_DET_SetTracker(detector, 1, 0);
 *         ALGO_DET_GetInputAttr(detector, &format);
 *         while (next_frame(&format, &frame)) {
 *           result = ALGO_DET_Run(detector, &frame, boxes, &count);
 *           if (result != E_ALGO_SUCCESS) break;
 *           for (i = 0; i < count; ++i)
 *             fprintf(stderr, "class %u at %u,%u size %ux%u score %.2f\n", boxes[i].class_id,
 *                     boxes[i].x, boxes[i].y, boxes[i].width, boxes[i].height, boxes[i].score);
 *         }
 *       }
 *       ALGO_DET_DeinitHandle(detector);
 *       return result == E_ALGO_SUCCESS ? 0 : 1;
 *     }
 */
QV_S32 ALGO_DET_Run(void* handle, const ALGO_Input_t* algo_input, Box_t* bboxes,
                    QV_S32* num_bboxes);

/* Closes the channel, destroys the device unless had_create_device was 1, and frees the handle. A
 * handle that is not initialised is freed only.
 *
 *   handle  created or initialised; its value is dangling after success
 *
 * Returns
 *   E_ALGO_SUCCESS
 *   E_ALGO_HANDLE_NULL  handle is NULL
 * State: valid in every state of a handle; afterwards there is none. */
QV_S32 ALGO_DET_DeinitHandle(void* handle);

/* Does nothing; ALGO_DET_DeinitHandle frees the handle. Kept for symmetry with
 * ALGO_DET_CreateHandle.
 *
 *   handle  any value
 *
 * Returns
 *   E_ALGO_SUCCESS, always
 * State: none needed, none changed. */
QV_S32 ALGO_DET_ReleaseHandle(void* handle);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

OLVEX_LAYOUT_ASSERT(sizeof(Rect_t) == 8, "Rect_t");
OLVEX_LAYOUT_ASSERT(offsetof(Box_t, class_id) == 16, "Box_t class_id");
OLVEX_LAYOUT_ASSERT(offsetof(Box_t, score) == 20, "Box_t score");
OLVEX_LAYOUT_ASSERT(offsetof(Box_t, pts) == 24, "Box_t pts");
OLVEX_LAYOUT_ASSERT(sizeof(Box_t) == 32, "Box_t");
OLVEX_LAYOUT_ASSERT(offsetof(ALGO_Input_t, phy_addr) == 8, "ALGO_Input_t phy_addr");
OLVEX_LAYOUT_ASSERT(offsetof(ALGO_Input_t, buf_size) == 16, "ALGO_Input_t buf_size");
OLVEX_LAYOUT_ASSERT(offsetof(ALGO_Input_t, pts) == 24, "ALGO_Input_t pts");
OLVEX_LAYOUT_ASSERT(sizeof(ALGO_Input_t) == 32, "ALGO_Input_t");
OLVEX_LAYOUT_ASSERT(offsetof(DetectionInfo_t, model) == 256, "DetectionInfo_t model");
OLVEX_LAYOUT_ASSERT(offsetof(DetectionInfo_t, threshold) == 512, "DetectionInfo_t threshold");
OLVEX_LAYOUT_ASSERT(offsetof(DetectionInfo_t, had_create_device) == 524, "DetectionInfo_t device");
OLVEX_LAYOUT_ASSERT(sizeof(DetectionInfo_t) == 528, "DetectionInfo_t");
OLVEX_LAYOUT_ASSERT(offsetof(DetectionInfo2_t, model_buffer_len) == OLVEX_BY_POINTER_SIZE(8, 4),
                 "DetectionInfo2_t length");
OLVEX_LAYOUT_ASSERT(offsetof(DetectionInfo2_t, had_create_device) == OLVEX_BY_POINTER_SIZE(24, 20),
                 "DetectionInfo2_t device");
OLVEX_LAYOUT_ASSERT(sizeof(DetectionInfo2_t) == OLVEX_BY_POINTER_SIZE(32, 24), "DetectionInfo2_t");
OLVEX_LAYOUT_ASSERT(offsetof(InputAttr_t, format) == 8, "InputAttr_t format");
OLVEX_LAYOUT_ASSERT(sizeof(InputAttr_t) == 12, "InputAttr_t");
OLVEX_LAYOUT_ASSERT(offsetof(DetTrackParams_t, static_sensitive) == 4, "DetTrackParams_t static");
OLVEX_LAYOUT_ASSERT(offsetof(DetTrackParams_t, stable_bbox) == 8, "DetTrackParams_t stable");
OLVEX_LAYOUT_ASSERT(offsetof(DetTrackParams_t, ignore_frame_number) == 16, "DetTrackParams_t frames");
OLVEX_LAYOUT_ASSERT(sizeof(DetTrackParams_t) == 20, "DetTrackParams_t");
OLVEX_LAYOUT_ASSERT(sizeof(DetStrictModeParams_t) == 1, "DetStrictModeParams_t");

#endif /* OLVEX_DET_H */
