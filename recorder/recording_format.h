// SPDX-License-Identifier: Apache-2.0
/* recording_format.h - numbers of a recording: channels, functions, flags, sizes. docs/recordings.md has the
 * format itself and recording_schemas.c the definitions that every file carries.
 *
 * C99 and C++11. For the recorder, which writes recordings, and for whatever reads them. */
#ifndef RECORDER_RECORDING_FORMAT_H
#define RECORDER_RECORDING_FORMAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RECORDING_FORMAT 1u /* of the messages; a reader refuses what it does not know */

/* ---- The container, MCAP ---- */

#define RECORDING_MAGIC "\x89MCAP0\r\n" /* first and last 8 bytes of a file */
#define RECORDING_MAGIC_SIZE 8u

enum recording_record {
  RECORDING_HEADER = 0x01,
  RECORDING_FOOTER = 0x02,
  RECORDING_SCHEMA = 0x03,
  RECORDING_CHANNEL = 0x04,
  RECORDING_MESSAGE = 0x05,
  RECORDING_CHUNK = 0x06,
  RECORDING_MESSAGE_INDEX = 0x07,
  RECORDING_CHUNK_INDEX = 0x08,
  RECORDING_STATISTICS = 0x0b,
  RECORDING_DATA_END = 0x0f
};

/* A record: its number, 8 bytes of length, and so many bytes. */
#define RECORDING_RECORD_HEADER 9u
/* Of a message before its data: channel 2, sequence 4, log time 8, publish time 8. */
#define RECORDING_MESSAGE_HEADER 22u
/* Of a chunk before its records: times 8 + 8, size 8, CRC-32 4, no compression 4, size 8. */
#define RECORDING_CHUNK_HEADER 40u

/* Channels; the schema of each has the same number. */
enum recording_channel {
  RECORDING_ABOUT = 1,
  RECORDING_MODEL = 2,
  RECORDING_NETWORK = 3,
  RECORDING_CALL = 4,
  RECORDING_FRAME = 5,
  RECORDING_ANNOTATIONS = 6,
  RECORDING_EVENT = 7,
  RECORDING_PICTURE = 8
};
#define RECORDING_CHANNELS 8u

struct recording_schema {
  const char* topic;
  const char* name;
  const char* text; /* of the encoding ros1msg */
};
extern const struct recording_schema
    recording_schemas[RECORDING_CHANNELS]; /* that of channel k at k - 1 */

/* ---- Messages ---- */

/* Call.function and PlatformCall.function. */
enum recording_function {
  RECORDING_CREATE_HANDLE = 1,
  RECORDING_RELEASE_HANDLE = 2,
  RECORDING_GET_INPUT_ATTR = 3,
  RECORDING_SET_STABLE_BOX = 4,
  RECORDING_INIT_HANDLE = 5,
  RECORDING_INIT_HANDLE2 = 6,
  RECORDING_SET_TRACKER = 7,
  RECORDING_SET_TRACKER2 = 8,
  RECORDING_SET_THRESHOLD = 9,
  RECORDING_RUN = 10, /* a Frame, never a Call */
  RECORDING_DEINIT_HANDLE = 11,
  RECORDING_SET_STRICT_MODE = 12,
  RECORDING_CREATE_DEVICE = 21,
  RECORDING_DESTROY_DEVICE = 22,
  RECORDING_GET_STATIC_INFO = 23,
  RECORDING_CREATE_CHANNEL = 24,
  RECORDING_DESTROY_CHANNEL = 25,
  RECORDING_GET_DESCRIPTION = 26,
  RECORDING_GET_OUTPUTS = 27,
  RECORDING_PUT_OUTPUTS = 28,
  RECORDING_INVOKE = 29,
  RECORDING_FLUSH = 30
};

/* Call.flags */
#define RECORDING_CALL_CARRIED 1u /* made before the first frame of this file, and still in force */

/* Frame.flags */
#define RECORDING_FRAME_NULL_ADDRESS 1u /* the address of the picture was NULL */
#define RECORDING_FRAME_INPUT_CRC 2u    /* input_crc is set */
#define RECORDING_FRAME_UNFINISHED 4u   /* left by an exception: there is no result */
#define RECORDING_FRAME_INVOKED 8u      /* the network ran: outputs are what it left */

/* Output.encoding */
#define RECORDING_WHOLE 0u
#define RECORDING_CELLS 1u

/* Of the data of an Output in cells: values before the first class of a cell, and the largest gap. */
#define RECORDING_FIRST_CLASS 4u
#define RECORDING_LONGEST_GAP 65535u

/* Event.kind */
enum recording_event {
  RECORDING_EVENT_TRIGGER = 1, /* why this file was begun, or why it goes on for longer */
  RECORDING_EVENT_FAILURE = 2, /* of the recorder itself */
  RECORDING_EVENT_END = 3      /* the file is whole */
};

/* Frames without anything at or above the floor after which no track and no held box is left: the library
 * forgets a track with its eleventh miss. */
#define RECORDING_EMPTY_FRAMES_TO_KEY 11u

#ifdef __cplusplus
}
#endif

#endif /* RECORDER_RECORDING_FORMAT_H */
