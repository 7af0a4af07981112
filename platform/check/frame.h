// SPDX-License-Identifier: Apache-2.0
/* frame.h - pictures as the camera delivers them, in each format of an input tensor. */
#ifndef PLATFORM_CHECK_FRAME_H
#define PLATFORM_CHECK_FRAME_H

#include <stddef.h>

#include "qv_ipu.h"

#define LEVEL_COUNT 5
extern const unsigned char kLevels[LEVEL_COUNT]; /* of brightness, rising by equal steps */

struct frame {
  QV_IPU_ELEMENT_FORMAT format;
  unsigned width; /* pixels */
  unsigned height;
  size_t row;    /* bytes of a row's pixels */
  size_t pitch;  /* bytes from row to row */
  size_t chroma; /* offset of the plane of U and V; 0: none */
  size_t size;
  unsigned char* data;
  QV_PHY physical;
};

/* Memory for a frame, for as long as the process lives. On a camera whose accelerator needs memory of a certain
 * kind, replace frame_memory.c. Returns NULL when there is none. */
void* frame_memory(size_t size, QV_PHY* physical);

/* Takes format and size from an input tensor, without memory. Returns 0 where it is no picture. */
int frame_shape(struct frame* frame, const QV_IPU_TensorDesc_t* input);

void fill_gray(struct frame* frame, unsigned level);
/* One level per pixel, in an order that no other pitch reproduces. */
void fill_pattern(struct frame* frame);
/* Which of kLevels a pixel of the pattern has that is read with another pitch. */
unsigned pattern_level(const struct frame* frame, size_t pitch, unsigned row, unsigned column);
/* Red, green or blue (0 to 2). Requires: not GRAY. */
void fill_colour(struct frame* frame, unsigned plane);
/* NV12: gray of one brightness with U and V. The bands, of 4 rows and 8 columns,
 * have V of CHROMA_LOW or CHROMA_HIGH. */
void fill_chroma(struct frame* frame, unsigned u, unsigned v);
void fill_chroma_bands(struct frame* frame);
unsigned chroma_band(unsigned row, unsigned column); /* of pixels; 0 or 1 */

#define CHROMA_LOW 90
#define CHROMA_HIGH 166

#endif /* PLATFORM_CHECK_FRAME_H */
