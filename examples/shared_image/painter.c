/* Makes a shared image and paints it row by row, slowly enough to watch. viewer.c shows what is there so far.
 *
 *     painter [IDENTIFIER]
 */
#define _POSIX_C_SOURCE 199309L /* for pause.h */

#include <stdint.h>
#include <stdio.h>

#include "kvtileimage/KvTileImage.h"
#include "pause.h"

enum { WIDTH = 640, HEIGHT = 320, SAMPLES = 3, PAUSE_MS = 20 };

/* Slanting bands that are dark, become bright over 200 pixels and dark again. No sample is 0, as they are in a new
 * image. */
static void mixColours(uint32_t y, uint8_t* row) {
  for (uint32_t x = 0; x < WIDTH; ++x) {
    uint32_t phase = (x + 2 * y) % 400;
    uint32_t light = phase < 200 ? phase : 400 - phase;
    row[SAMPLES * x + 0] = (uint8_t)(55 + light);
    row[SAMPLES * x + 1] = (uint8_t)(1 + light);
    row[SAMPLES * x + 2] = (uint8_t)(255 - light);
  }
}

/* Programs agree on a sign for what is finished: the library has none, and others may see a row half written. Here it
 * is the first pixel of a row, which is not black any more; it is written last, by a call of its own. */
static bool paintRow(TileImageHandle* image, uint32_t y) {
  static uint8_t row[WIDTH * SAMPLES];
  mixColours(y, row);
  return KvTileImage_SetRowData(image, y, 1, WIDTH, row + SAMPLES, sizeof(row) - SAMPLES) &&
         KvTileImage_SetRowData(image, y, 0, 1, row, SAMPLES);
}

int main(int count, char** arguments) {
  static const uint8_t black[WIDTH * SAMPLES];
  const char* identifier = count > 1 ? arguments[1] : "example";

  /* If there is an image of this identifier and format already, this attaches to it: it may be another painter's. If
   * there is none, the library says so on stderr, in three lines that do no harm, and makes it. */
  TileImageHandle* image =
      KvTileImage_InterprocessA_Alloc(identifier, WIDTH, HEIGHT, SAMPLES, 8, KVTI_SAMPLEFORMAT_UINT);
  if (image == NULL) {
    fprintf(stderr, "painter: there is no shared image \"%s\"; the lines above tell why\n", identifier);
    return 1;
  }

  /* Its pixels would still be there: begin with black in any case. */
  bool good = true;
  for (uint32_t y = 0; good && y < HEIGHT; ++y) good = KvTileImage_SetFullRowData(image, y, black, sizeof(black));

  printf("painting \"%s\", %d x %d pixels; start: viewer %s\n", identifier, WIDTH, HEIGHT, identifier);
  fflush(stdout);
  for (uint32_t y = 0; good && y < HEIGHT; ++y) {
    good = paintRow(image, y); /* from here on the viewer sees it */
    pauseFor(PAUSE_MS);
  }

  /* Lets go. If a viewer still holds the image it stays until that one lets go, else it is gone now. */
  KvTileImage_Unload(image);
  puts(good ? "painted all of it" : "could not paint all of it");
  return good ? 0 : 1;
}
