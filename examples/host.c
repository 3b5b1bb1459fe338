/* A minimal host in C: create a handle from a configuration file, feed one
 * stacked stereo frame and read its depth. The frame is made in memory, a
 * textured wall seen 16 pixels apart by the two views, so no image library
 * is needed.
 *
 * usage: host CONFIG WIDTH HEIGHT   (WIDTH x HEIGHT: one view, as configured) */
#include <stdio.h>
#include <stdlib.h>

#include "lumetra_depth.h"

/* Blocky value noise, 4x4-pixel cells, so the texture survives rectification's resampling. */
static uint8_t texture(uint32_t u, uint32_t v) {
  uint32_t h = ((u / 4) * 73856093u) ^ ((v / 4) * 19349663u);
  return (uint8_t)((h * 2654435761u) >> 24);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s CONFIG WIDTH HEIGHT\n", argv[0]);
    return 2;
  }
  const uint32_t width = (uint32_t)atoi(argv[2]), height = (uint32_t)atoi(argv[3]);
  const uint32_t shift = 16; /* disparity in pixels */

  /* Stacked frame: the left view in the top half, the right view below. */
  uint8_t* pixels = malloc((size_t)width * height * 2);
  float* depth = malloc(sizeof(float) * width * height); /* depth at the input size */
  if (pixels == NULL || depth == NULL) return 1;
  for (uint32_t v = 0; v < height; ++v) {
    for (uint32_t u = 0; u < width; ++u) {
      pixels[v * width + u] = texture(u, v);                     /* left */
      pixels[(height + v) * width + u] = texture(u + shift, v);  /* right: the same points 16 pixels further left */
    }
  }

  void* handle = NULL;
  KORV_LUMO_D_CreateHandleWithConfig(&handle, argv[1]); /* 0 even for a faulty file: the feed tells */

  LumoImage frame = {0};
  frame.timestamp = 1; /* any non-zero value of the host's clock */
  frame.width = width;
  frame.height = 2 * height;
  frame.channels = 1;
  frame.stride = width;
  frame.size = width * 2 * height;
  frame.data = pixels;

  LumoDepthImage out = {0};
  out.data = depth;
  /* With async_mode 0 the feed returns once the frame's depth is there. */
  int status = KORV_LUMO_D_FeedStereoImage(handle, &frame);
  if (status == 0) status = KORV_LUMO_D_GetDepthImage(handle, &out, NULL, NULL);
  if (status == 0) {
    uint32_t withDepth = 0;
    for (uint32_t i = 0; i < out.width * out.height; ++i) withDepth += out.data[i] > 0.0f;
    printf("depth %ux%u, %.1f %% of pixels with depth, %.3f at the centre\n", out.width, out.height,
           100.0 * withDepth / (out.width * out.height), out.data[(out.height / 2) * out.width + out.width / 2]);
  } else {
    fprintf(stderr, "no depth (see the library's message above)\n");
  }

  KORV_LUMO_D_DestroyHandle(handle);
  free(depth);
  free(pixels);
  return status;
}
