// SPDX-License-Identifier: Apache-2.0
// track_box.h - the tracker's box.
#ifndef BASE_TRACKER_IOU_TRACKER_TRACK_BOX_H
#define BASE_TRACKER_IOU_TRACKER_TRACK_BOX_H

// One box of one frame, in the pixels of the BoxInfo that it was made from.
struct TrackBBox {
  float x;  // left edge
  float y;  // top edge
  float w;  // width
  float h;  // height
  float score;
  // Five landmark points; the detection handle leaves them 0.
  float lm1_x, lm1_y;
  float lm2_x, lm2_y;
  float lm3_x, lm3_y;
  float lm4_x, lm4_y;
  float lm5_x, lm5_y;
  int class_id;
  unsigned long long pts;  // time stamp of the frame

  TrackBBox()
      : x(0),
        y(0),
        w(0),
        h(0),
        score(0),
        lm1_x(0),
        lm1_y(0),
        lm2_x(0),
        lm2_y(0),
        lm3_x(0),
        lm3_y(0),
        lm4_x(0),
        lm4_y(0),
        lm5_x(0),
        lm5_y(0),
        class_id(0),
        pts(0) {}
};

#endif  // BASE_TRACKER_IOU_TRACKER_TRACK_BOX_H
