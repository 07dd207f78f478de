/* A C99 program that uses both public headers. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "ember_logger/ember_logger.h"
#include "kvtileimage/KvTileImage.h"

/* bool is C's one byte; a negative size stops the compiler. */
typedef char bool_is_one_byte[sizeof(bool) == 1 ? 1 : -1];

static int errors_seen;
static uint32_t rows_seen;

static void count_error(int severity, const char* tag, const char* message, void* user) {
  (void)message;
  (void)user;
  errors_seen += severity == 4 && strcmp(tag, "KvTileImage") == 0;
}

static void count_row(uint32_t index, uint32_t count) { rows_seen += index < count; }

static int fail(const char* what) {
  fprintf(stderr, "c_caller: %s\n", what);
  return 1;
}

int main(void) {
  const uint8_t pixel[3] = {1, 2, 3};
  uint8_t back[3] = {0, 0, 0};
  TileImageHandle* image;
  TileImageHandle* turned;
  LookupTableHandle* table;
  LookupTableMapHandle* map;

  EmberLogger_SetSink(count_error, NULL);
  if (KvTileImage_Alloc(0, 1, 3, 8, KVTI_SAMPLEFORMAT_UINT, 0) != NULL || errors_seen != 2) {
    return fail("an image without width was not refused with two errors");
  }
  image = KvTileImage_Alloc(5, 4, 3, 8, KVTI_SAMPLEFORMAT_UINT, 0);
  if (image == NULL || !KvTileImage_SetPixelData(image, 4, 0, pixel, sizeof(pixel))) {
    return fail("an image could not be written");
  }
  turned = KvTileImage_Rotate(image, 90, count_row);
  if (turned == NULL || rows_seen != 4 || !KvTileImage_GetPixelData(turned, 3, 4, back, sizeof(back)) ||
      memcmp(pixel, back, sizeof(pixel)) != 0) {
    return fail("the turned pixel is not where it belongs");
  }
  table = KvTileImage_CreateLookupTable8_Threshold(2, false);
  map = KvTileImage_CreateLookupTableMap8();
  if (!KvTileImage_InsertLookupTable(map, table, 1) || !KvTileImage_AdjustCurveOfSomeChannels(image, map, count_row) ||
      rows_seen != 8 || !KvTileImage_GetPixelData(image, 4, 0, back, sizeof(back)) || back[0] != 1 || back[1] != 255 ||
      back[2] != 3) {
    return fail("a curve did not change the one channel it is for");
  }
  KvTileImage_DestroyLookupTableMap(map);
  KvTileImage_DestroyLookupTable(table);
  KvTileImage_Unload(turned);
  KvTileImage_Unload(image);
  EmberLogger_SetSink(NULL, NULL);
  return 0;
}
