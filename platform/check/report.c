// SPDX-License-Identifier: Apache-2.0
/* report.c - lines to standard output, and notes in memory that both processes share; and the table of
 * faults, which `accel-check --faults` prints and docs/platform.md has. */
#define _DEFAULT_SOURCE
#include "report.h"

#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>

const struct fault_text kFaultTexts[FAULT_COUNT] = {
    [FAULT_CALL_FAILS] =
        {"a call fails", "stops where it needs the call; ALGO_DET_InitHandle or ALGO_DET_Run fails",
         "return 0 where the call has done its work"},
    [FAULT_SMALL_CODE] =
        {"a code of 1 to 13",
         "hands it on; the application takes it for one of the library's own codes",
         "use other values, such as negative ones"},
    [FAULT_NOT_REFUSED] = {"a call that cannot work succeeds",
                           "goes on with a device, model or channel that is none",
                           "return a code other than 0"},
    [FAULT_SECOND_DEVICE] =
        {"a second device is accepted",
         "takes the device down that another handle still uses, when the first one ends",
         "refuse QV_IPU_CreateDevice while a device is up"},
    [FAULT_STATIC_INFO] =
        {"static information differs by path and by callback",
         "asks by callback and creates the device with that size of working memory",
         "count from the start pattern on, whatever stands before it in the file"},
    [FAULT_READS_OUTSIDE] =
        {"reads outside the model",
         "copies what lies there: its callback checks no bounds, and may end the process",
         "read offsets from 0 up to the model's size only"},
    [FAULT_CONTEXT] = {"the read callback gets another context",
                       "takes it for the address of the model's first byte: the process ends, or "
                       "other memory is read",
                       "hand path_or_context on as it came; beside a callback it is no text and "
                       "not to be copied"},
    [FAULT_MODEL_KEPT] =
        {"the model is used after QV_IPU_CreateCHN",
         "has unmapped the model by then: the process ends, or other memory is read",
         "copy what is needed before QV_IPU_CreateCHN returns"},
    [FAULT_DESCRIPTION] =
        {"the description contradicts itself",
         "chooses the wrong decoder or none: ALGO_DET_Run returns 12, or wrong boxes",
         "describe 1, H, W, C in u32TensorShape, with 0 in the entries that are not in use"},
    [FAULT_OTHER_MODEL] = {"not the shapes of the probe network", "cannot be told from this model",
                           "compile probe.onnx as it is; for another model give --other-model"},
    [FAULT_LAYOUT] = {"channels are not innermost",
                      "reads channels of other cells: wrong boxes, with result 0",
                      "write N, H, W, C, or transpose the outputs in QV_IPU_Invoke"},
    [FAULT_PADDED] =
        {"outputs are padded", "reads the padding as values: wrong boxes, with result 0",
         "copy the elements together in QV_IPU_Invoke, without gaps between cells and rows"},
    [FAULT_BUFFER_SIZE] = {"a buffer is smaller than its tensor",
                           "refuses the output: ALGO_DET_Run returns 12",
                           "set u32BufSize to the bytes of all elements"},
    [FAULT_ELEMENT_TYPE] = {"an element type that is not read",
                            "reads it as the type of the first output: wrong boxes; where it is "
                            "the first: none, or 13 for decoded outputs",
                            "convert to FP32 or INT16, and describe what the buffer holds"},
    [FAULT_MIXED_TYPES] = {"outputs of several element types",
                           "reads all outputs by the type of the first: wrong boxes, with result 0",
                           "give all outputs one element type"},
    [FAULT_SCALE] = {"a wrong scale",
                     "multiplies INT16 elements by fScalar: wrong scores and boxes, with result 0",
                     "set fScalar to the real value of 1; it is not looked at for FP32, which "
                     "holds real values"},
    [FAULT_ZERO_POINT] =
        {"a zero point", "does not look at s64ZeroPoint: all values are shifted, with result 0",
         "compile for symmetric outputs, or subtract the zero point in QV_IPU_Invoke"},
    [FAULT_ACTIVATION] =
        {"an activation of the platform's own",
         "applies its own after it: scores that cannot go below one half, or boxes without extent",
         "hand out the network's outputs as they are"},
    [FAULT_WRAPS] = {"integers wrap around",
                     "takes the highest values for the lowest: the best boxes go missing",
                     "saturate at the ends of the range"},
    [FAULT_VALUES] = {"other values than the network's",
                      "decodes what it finds: wrong boxes, with result 0",
                      "compare with the listed cell; look at quantisation, order and layout"},
    [FAULT_ALIGNMENT] = {"a buffer that is not aligned",
                         "reads elements where they stand: 32-bit ARM ends the process (SIGBUS)",
                         "begin each buffer at a multiple of its element's size"},
    [FAULT_LENDING] =
        {"output buffers are not lent once",
         "takes them once, holds them, and gives them back; others may get the same ones",
         "hand out as many sets as u32OutputBufDepth, and take back only what is out"},
    [FAULT_OTHER_ADDRESS] =
        {"outputs are not where they were lent",
         "reads the addresses of QV_IPU_GetOutputTensors for every frame: boxes never change",
         "let QV_IPU_Invoke write to the buffers that were handed out"},
    [FAULT_INCOMPLETE] = {"outputs are not complete",
                          "decodes what an earlier frame left in the rest",
                          "write every element in every invocation"},
    [FAULT_LATE] = {"QV_IPU_Invoke returns before the end",
                    "decodes the frame before, or half of each",
                    "wait for the accelerator before QV_IPU_Invoke returns"},
    [FAULT_CACHED_OUTPUT] = {"outputs stay behind the CPU's cache",
                             "does not flush outputs: boxes of an earlier frame, in part or whole",
                             "invalidate the output buffers at the end of QV_IPU_Invoke"},
    [FAULT_NOT_REPEATABLE] = {"one frame gives two results",
                              "shows boxes that flicker over a still picture",
                              "look for memory that is used before it is written"},
    [FAULT_STALE_INPUT] =
        {"a frame is not read again",
         "passes the application's buffer, often the same one: boxes never change",
         "read the frame in each QV_IPU_Invoke, at the address that it brings"},
    [FAULT_FLUSH] = {"QV_SYS_FlushInvCache harms the frame",
                     "calls it before each invocation and ignores its result",
                     "write the cache back before it is invalidated; accept any part of a frame"},
    [FAULT_READS_BEYOND_FRAME] =
        {"reads beyond the frame",
         "passes frames that end where the picture ends: the process ends",
         "read rows at the pitches of the device's attributes, and no further"},
    [FAULT_INPUT_VALUES] = {"input values are not the frame's",
                            "does not look at them; the network sees another picture",
                            "compile the probe with mean 0 and scale 1, so that 0 to 255 reach it"},
    [FAULT_INPUT_PITCH] =
        {"input rows are read at another pitch",
         "passes frames with rows at multiples of 16 bytes (NV12, 4-byte formats) or none: sheared "
         "pictures, few boxes",
         "keep to the pitch alignments of QV_IPU_CreateDevice"},
    [FAULT_COLOUR_ORDER] =
        {"colours are exchanged", "does not look at them; the network sees blue for red",
         "compile for the format of the frames and the order of the network's planes"},
    [FAULT_SECOND_PLANE] =
        {"U and V are read elsewhere",
         "passes one address: U and V follow Y after an even number of rows, at the same pitch",
         "compute the second plane from the first, as phyTensorAddr[1] and ptTensorData[1] are 0"},
    [FAULT_CHANNELS_MIX] = {"channels disturb each other",
                            "mixes the boxes of handles, with result 0",
                            "give each channel its own buffers, and lock what channels share"},
    [FAULT_TEARDOWN] =
        {"a teardown order fails",
         "closes a channel once more after a failed invocation, and the device with channels open",
         "return a code for what is closed already, and close channels with their device"},
    [FAULT_GROWTH] = {"memory or descriptors grow",
                      "opens a channel for each ALGO_DET_InitHandle: the camera runs out",
                      "free with QV_IPU_DestroyCHN what QV_IPU_CreateCHN made"},
};

/* Texts are in the program itself, which both processes are copies of. */
struct notes {
  volatile unsigned proven;
  volatile unsigned findings;
  volatile unsigned not_proven;
  volatile enum fault fault;
  const char* volatile stage;
  const char* volatile call;
};

static struct notes* notes;

int report_start(void) {
  void* const memory =
      mmap(NULL, sizeof(struct notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return -1;
  }
  notes = memory;
  notes->stage = "start";
  return 0;
}

static void print_line(const char* word, const char* format, va_list values) {
  printf("%-12s", word);
  vprintf(format, values);
  printf("\n");
}

void proven(const char* format, ...) {
  va_list values;
  va_start(values, format);
  print_line("proven", format, values);
  va_end(values);
  ++notes->proven;
}

void finding(enum fault fault, const char* format, ...) {
  va_list values;
  const struct fault_text* const text = &kFaultTexts[fault];
  printf("%-12s%s\n", "FINDING", text->name);
  va_start(values, format);
  print_line("  seen", format, values);
  va_end(values);
  printf("%-12s%s\n%-12s%s\n", "  library", text->library, "  remedy", text->remedy);
  ++notes->findings;
}

void not_proven(const char* format, ...) {
  va_list values;
  va_start(values, format);
  print_line("not proven", format, values);
  va_end(values);
  ++notes->not_proven;
}

void report_stage(enum fault fault, const char* stage) {
  notes->fault = fault;
  notes->stage = stage;
}

void report_call(const char* name) {
  notes->call = name;
}

unsigned report_findings(void) {
  return notes->findings;
}

int report_end(int wait_status) {
  if (WIFSIGNALED(wait_status)) {
    const int number = WTERMSIG(wait_status);
    const char* const call = notes->call != NULL ? notes->call : "no call";
    if (number == SIGALRM) {
      finding(FAULT_CALL_FAILS, "%s did not return for a minute; %s", call, notes->stage);
    } else {
      finding(notes->fault, "signal %d ended the process in %s; %s", number, call, notes->stage);
    }
    not_proven("what comes after that; put it right and run this again");
  } else if (WEXITSTATUS(wait_status) != 0) {
    finding(FAULT_CALL_FAILS, "the platform ended the process with exit code %d; %s",
            WEXITSTATUS(wait_status), notes->stage);
  }
  printf("%u proven, %u findings, %u not proven\n", notes->proven, notes->findings,
         notes->not_proven);
  return notes->findings == 0 ? 0 : 1;
}

void report_fault_table(void) {
  for (int k = 0; k < FAULT_COUNT; ++k) {
    printf("%s\n  library   %s\n  remedy    %s\n", kFaultTexts[k].name, kFaultTexts[k].library,
           kFaultTexts[k].remedy);
  }
}
