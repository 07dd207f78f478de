/* Attaches to the image that painter.c makes and draws it in the terminal as it is being painted.
 *
 *     viewer [IDENTIFIER]
 */
#define _POSIX_C_SOURCE 199309L /* for pause.h */

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "ember_logger/ember_logger.h"
#include "kvtileimage/KvTileImage.h"
#include "pause.h"

enum { COLUMNS = 64, LINES = 16, PAUSE_MS = 50, PATIENCE_MS = 30000 };

static const char SHADES[] = ".,:-=+*#%@"; /* from dark to bright */

/* Waits for the image. Asking for its size holds nothing, so that it can be asked for again and again. */
static TileImageHandle* attach(const char* identifier) {
  TileImageHandle* image = NULL;
  EmberLogger_SetLevel(5); /* that there is none yet is no error here */
  for (unsigned waited = 0; image == NULL && waited < PATIENCE_MS; waited += PAUSE_MS) {
    if (KvTileImage_InterprocessB_GetInfo(identifier, NULL, NULL, NULL, NULL, NULL))
      image = KvTileImage_InterprocessB_Alloc(identifier);
    if (image == NULL) pauseFor(PAUSE_MS);
  }
  EmberLogger_SetLevel(3);
  return image;
}

/* Waits until row y is painted: the painter finishes a row by its first pixel, which is black before that. */
static bool waitForRow(TileImageHandle* image, uint32_t y) {
  for (unsigned waited = 0; waited < PATIENCE_MS; waited += PAUSE_MS) {
    uint8_t first[3] = {0};
    if (!KvTileImage_GetRowData(image, y, 0, 1, first, sizeof(first))) return false;
    if (first[0] != 0) return true;
    pauseFor(PAUSE_MS);
  }
  fprintf(stderr, "viewer: row %u has not been painted for %d seconds\n", (unsigned)y, PATIENCE_MS / 1000);
  return false;
}

/* Draws the image, a line for some rows as soon as they are painted: a character stands for the mean of the green
 * samples below it, which is near to what an eye takes for brightness. */
static bool draw(TileImageHandle* image, uint8_t* row, uint64_t bytes) {
  uint32_t width = KvTileImage_GetWidth(image);
  uint64_t height = KvTileImage_GetHeight(image);
  for (uint32_t line = 0; line < LINES; ++line) {
    uint64_t sums[COLUMNS] = {0}, counts[COLUMNS] = {0};
    char text[COLUMNS + 1] = {0};
    for (uint32_t y = (uint32_t)(line * height / LINES); y < (line + 1) * height / LINES; ++y) {
      if (!waitForRow(image, y) || !KvTileImage_GetFullRowData(image, y, row, bytes)) return false;
      for (uint32_t x = 0; x < width; ++x) {
        uint64_t column = (uint64_t)x * COLUMNS / width;
        sums[column] += row[3 * (uint64_t)x + 1];
        ++counts[column];
      }
    }
    for (int i = 0; i < COLUMNS; ++i) text[i] = SHADES[counts[i] == 0 ? 0 : sums[i] * 10 / (counts[i] * 256)];
    puts(text);
    fflush(stdout);
  }
  return true;
}

int main(int count, char** arguments) {
  const char* identifier = count > 1 ? arguments[1] : "example";
  TileImageHandle* image = attach(identifier);
  if (image == NULL) {
    fprintf(stderr, "viewer: nobody shares an image \"%s\"; start: painter %s\n", identifier, identifier);
    return 1;
  }

  /* Whoever made the image decides what it is. */
  bool good = KvTileImage_GetSamplesPerPixel(image) == 3 && KvTileImage_GetBitsPerSample(image) == 8;
  if (!good) fprintf(stderr, "viewer: \"%s\" is no image of 3 x 8 bits\n", identifier);

  uint64_t bytes = KvTileImage_GetRowScanlineSuitableBytes(image);
  uint8_t* row = malloc(bytes);
  good = good && row != NULL && draw(image, row, bytes);
  if (good)
    printf("%u x %u pixels, all painted\n", (unsigned)KvTileImage_GetWidth(image),
           (unsigned)KvTileImage_GetHeight(image));

  /* Lets go. The image goes with its last holder, whether that is the painter or a viewer. */
  free(row);
  KvTileImage_Unload(image);
  return good ? 0 : 1;
}
