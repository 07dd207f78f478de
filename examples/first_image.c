/* Makes a 20,000 x 10,000 greyscale picture, turns it by 90 degrees and reads a row of the result. */
#include <stdint.h>
#include <stdio.h>

#include "kvtileimage/KvTileImage.h"

int main(void) {
  static uint8_t row[20000];
  KvTileImage_SetMaxMemoryStorageBytes((uint64_t)8 << 30); /* heap memory up to an eighth of it, files beyond */
  TileImageHandle* image = KvTileImage_Alloc(20000, 10000, 1, 8, KVTI_SAMPLEFORMAT_UINT, 0);
  for (uint32_t y = 0; image != NULL && y < 10000; ++y) {
    for (uint32_t x = 0; x < 20000; ++x) row[x] = (uint8_t)(x / 100 + y / 50);
    KvTileImage_SetFullRowData(image, y, row, sizeof(row));
  }
  TileImageHandle* turned = KvTileImage_Rotate(image, 90, NULL);
  bool read = KvTileImage_GetFullRowData(turned, 19999, row, sizeof(row));
  if (read)
    printf("%u x %u, first pixel of the last row: %u\n", KvTileImage_GetWidth(turned), KvTileImage_GetHeight(turned),
           row[0]);
  KvTileImage_Unload(turned);
  KvTileImage_Unload(image);
  return read ? 0 : 1;
}
