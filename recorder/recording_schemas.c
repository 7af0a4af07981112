// SPDX-License-Identifier: Apache-2.0
/* recording_schemas.c - the definitions of the messages, as every recording carries them. docs/recordings.md
 * explains the fields; recording_format.h has their numbers. */
#include "recorder/recording_format.h"

#define SEPARATOR \
  "================================================================================\n"

static const char kAbout[] =
    "uint32 format  # of the messages of this recording: 1\n"
    "uint32 part  # files that this process wrote before this one\n"
    "string recorder\n"
    "string library  # its build string, where found\n"
    "string library_id  # its GNU build id\n"
    "string machine\n"
    "uint32 pointer_bytes\n"
    "uint64 hwcap\n"
    "uint64 hwcap2\n"
    "RecordSize[] records\n"
    "string[] environment\n"
    "uint64 monotonic  # ns, at the start of the recorder\n"
    "uint64 realtime  # ns since 1970, at the same moment\n"
    "uint32 ring_bytes\n"
    "float32 floor  # score\n"
    "uint32 whole_every\n"
    "uint64 lost_frames  # so far\n"
    "uint64 lost_calls\n"
    "uint8 carried_complete  # 1: all calls in force are there\n" SEPARATOR
    "MSG: olvex_det/RecordSize\n"
    "string name\n"
    "uint32 bytes\n";

static const char kModel[] =
    "uint32 call  # of the initialisation\n"
    "uint64 bytes\n"
    "uint8[] sha256  # of the file or buffer\n"
    "string header  # key/value pairs\n";

static const char kNetwork[] =
    "uint32 call\n"
    "uint32 channel\n"
    "uint32 input_count\n"
    "uint32 output_count\n"
    "Tensor[] inputs\n"
    "Tensor[] outputs\n" SEPARATOR
    "MSG: olvex_det/Tensor\n"
    "uint32 dimensions\n"
    "uint32 format\n"
    "uint32[10] shape\n"
    "string name\n"
    "uint32 innermost_stride\n"
    "float32 scale\n"
    "int64 zero_point\n"
    "int32 aligned_bytes\n"
    "uint32 bytes\n"
    "uint32 width_alignment\n"
    "uint32 height_alignment\n"
    "uint32 layout\n";

static const char kCall[] =
    "uint8 CREATE_HANDLE=1\n"
    "uint8 RELEASE_HANDLE=2\n"
    "uint8 GET_INPUT_ATTR=3  # words: width, height, format\n"
    "uint8 SET_STABLE_BOX=4  # words: stable\n"
    "uint8 INIT_HANDLE=5  # words: threshold, width, height, had_create_device; texts: firmware, "
    "model\n"
    "uint8 INIT_HANDLE2=6  # words: as 5, model_buffer_len\n"
    "uint8 SET_TRACKER=7  # words: tk_type, md_type\n"
    "uint8 SET_TRACKER2=8  # words: the members of DetTrackParams_t\n"
    "uint8 SET_THRESHOLD=9  # words: threshold\n"
    "uint8 DEINIT_HANDLE=11\n"
    "uint8 SET_STRICT_MODE=12  # words: enable\n"
    "uint8 CREATE_DEVICE=21  # words: read given, reserved, the attributes; texts: firmware\n"
    "uint8 DESTROY_DEVICE=22\n"
    "uint8 GET_STATIC_INFO=23  # words: read given, the information; texts: path without read\n"
    "uint8 CREATE_CHANNEL=24  # words: read given, the attributes; texts: path without read\n"
    "uint8 DESTROY_CHANNEL=25\n"
    "uint8 GET_DESCRIPTION=26  # see Network\n"
    "uint8 GET_OUTPUTS=27  # words: count, of each tensor 1 when its address is not NULL\n"
    "uint8 PUT_OUTPUTS=28  # words: count\n"
    "uint8 INVOKE=29  # words: count of inputs\n"
    "uint8 FLUSH=30  # words: size\n"
    "uint8 function\n"
    "uint8 flags  # 1: carried over\n"
    "uint16 thread\n"
    "uint32 call  # in the order of beginning, from 1\n"
    "uint32 outer  # the call that made this one\n"
    "uint32 handle\n"
    "uint32 channel\n"
    "uint32 frames  # of the handle before\n"
    "int32 result\n"
    "uint64 begin  # monotonic, ns\n"
    "uint64 end\n"
    "uint32[] words  # reals by their bits\n"
    "string[] texts\n";

static const char kFrame[] =
    "uint32 number  # of the process, from 1\n"
    "uint32 call\n"
    "uint16 handle\n"
    "uint16 thread\n"
    "uint8 flags  # 1: address NULL, 2: input_crc set, 4: no result, 8: outputs are there\n"
    "int32 result\n"
    "uint64 begin  # monotonic, ns\n"
    "uint32 duration  # us\n"
    "uint64 pts\n"
    "uint32 buf_size\n"
    "uint32 input_crc  # CRC-32\n"
    "uint32 lost  # frames left out before this one\n"
    "float32 floor  # score; 0: whole\n"
    "uint32 empty_frames  # in a row, this one included\n"
    "PlatformCall[] calls\n"
    "Output[] outputs\n"
    "Box[] boxes\n"
    "LargeBox[] large_boxes  # in place of boxes\n" SEPARATOR
    "MSG: olvex_det/PlatformCall\n"
    "uint8 function\n"
    "int32 result\n"
    "uint32 begin  # us after the frame's\n"
    "uint32 duration  # us\n"
    "uint32 word  # channel, or size\n" SEPARATOR
    "MSG: olvex_det/Output\n"
    "uint8 encoding  # 0: data is the tensor, 1: data is cells\n"
    "uint8 classes  # of a cell\n"
    "uint8[] data  # cell: uint16 gap, uint8 n, uint8[n] classes, 4 values, n logits, other "
    "values\n" SEPARATOR
    "MSG: olvex_det/Box\n"
    "uint16 x\n"
    "uint16 y\n"
    "uint16 width\n"
    "uint16 height\n"
    "uint8 class_id\n"
    "float32 score\n" SEPARATOR
    "MSG: olvex_det/LargeBox\n"
    "uint32 x\n"
    "uint32 y\n"
    "uint32 width\n"
    "uint32 height\n"
    "uint32 class_id\n"
    "float32 score\n";

static const char kAnnotations[] =
    "time timestamp\n"
    "foxglove_msgs/CircleAnnotation[] circles\n"
    "foxglove_msgs/PointsAnnotation[] points\n"
    "foxglove_msgs/TextAnnotation[] texts\n"
    "foxglove_msgs/KeyValuePair[] metadata\n" SEPARATOR
    "MSG: foxglove_msgs/CircleAnnotation\n"
    "time timestamp\n"
    "foxglove_msgs/Point2 position\n"
    "float64 diameter\n"
    "float64 thickness\n"
    "foxglove_msgs/Color fill_color\n"
    "foxglove_msgs/Color outline_color\n"
    "foxglove_msgs/KeyValuePair[] metadata\n" SEPARATOR
    "MSG: foxglove_msgs/Point2\n"
    "float64 x\n"
    "float64 y\n" SEPARATOR
    "MSG: foxglove_msgs/Color\n"
    "float64 r\n"
    "float64 g\n"
    "float64 b\n"
    "float64 a\n" SEPARATOR
    "MSG: foxglove_msgs/KeyValuePair\n"
    "string key\n"
    "string value\n" SEPARATOR
    "MSG: foxglove_msgs/PointsAnnotation\n"
    "uint8 UNKNOWN=0\n"
    "uint8 POINTS=1\n"
    "uint8 LINE_LOOP=2\n"
    "uint8 LINE_STRIP=3\n"
    "uint8 LINE_LIST=4\n"
    "time timestamp\n"
    "uint8 type\n"
    "foxglove_msgs/Point2[] points\n"
    "foxglove_msgs/Color outline_color\n"
    "foxglove_msgs/Color[] outline_colors\n"
    "foxglove_msgs/Color fill_color\n"
    "float64 thickness\n"
    "foxglove_msgs/KeyValuePair[] metadata\n" SEPARATOR
    "MSG: foxglove_msgs/TextAnnotation\n"
    "time timestamp\n"
    "foxglove_msgs/Point2 position\n"
    "string text\n"
    "float64 font_size\n"
    "foxglove_msgs/Color text_color\n"
    "foxglove_msgs/Color background_color\n"
    "foxglove_msgs/KeyValuePair[] metadata\n";

static const char kEvent[] =
    "uint8 TRIGGER=1\n"
    "uint8 FAILURE=2\n"
    "uint8 END=3\n"
    "uint8 kind\n"
    "uint64 time  # monotonic, ns\n"
    "uint64 lost_frames  # so far\n"
    "uint64 lost_calls\n"
    "uint32 failures  # of the recorder itself\n"
    "string text\n";

static const char kPicture[] =
    "uint32 number  # of the frame\n"
    "uint32 x  # of the part that is here, in the picture that the network got\n"
    "uint32 y\n"
    "uint32 width\n"
    "uint32 height\n"
    "uint32 format\n"
    "uint8[] data  # rows without padding\n";

const struct recording_schema recording_schemas[RECORDING_CHANNELS] = {
    {"/olvex/recording", "olvex_det/Recording", kAbout},
    {"/olvex/model", "olvex_det/Model", kModel},
    {"/olvex/network", "olvex_det/Network", kNetwork},
    {"/olvex/call", "olvex_det/Call", kCall},
    {"/olvex/frame", "olvex_det/Frame", kFrame},
    {"/olvex/boxes", "foxglove_msgs/ImageAnnotations", kAnnotations},
    {"/olvex/event", "olvex_det/Event", kEvent},
    {"/olvex/picture", "olvex_det/Picture", kPicture},
};
