/* KvTileImage: raster images larger than memory, held as tiles, read and written by rows, columns and pixels.
 *
 * Plain C (C99 and later), also valid C++ (C++11 and later).
 *
 * Handles. An allocating function returns a handle that the caller owns and gives back, once, with
 * KvTileImage_Unload. Every function accepts a null handle and then returns its failure value.
 *
 * Failure. Functions report failure by their result (null, false or 0) and log the reason through EmberLogger
 * (see ember_logger/ember_logger.h for how to take the messages over). No function throws, and none aborts.
 *
 * Pixels. A pixel is samplesPerPixel samples of bitsPerSample bits each, bitsPerPixel in all. In every buffer the
 * samples of a pixel follow each other in channel order and the pixels follow each other without padding:
 *  - bitsPerSample 1, 2 and 4 are packed, most significant bit first: bit i of the run is in byte i / 8 at bit
 *    position 7 - i % 8, counted from the least significant bit. A run starts at the first bit of its buffer, and the
 *    bits behind its end in the last byte keep their values when the library writes into the buffer.
 *  - every other bitsPerSample is copied as whole bytes, in the machine's byte order (little-endian); use multiples
 *    of 8.
 * A column run has the same layout: the pixels of successive rows follow each other as the pixels of a row would.
 * A run of n pixels occupies (n * bitsPerPixel + 7) / 8 bytes.
 *
 * Coordinates are pixels, x to the right and y downwards from 0; ranges are half-open: [begin, end).
 *
 * Threads. Functions may be called from any thread. Threads may read and write one image at the same time as long as
 * none writes pixels that another reads or writes, packed pixels that share a byte included. Setting the resolution
 * must not overlap other uses of it, and unloading an image no other use of the image.
 */
#ifndef KVTILEIMAGE_KVTILEIMAGE_H
#define KVTILEIMAGE_KVTILEIMAGE_H

#include <stdbool.h>
#include <stdint.h>

#if defined(_WIN32) && !defined(KVTILEIMAGE_BUILD)
#define KVTILEIMAGE_API __declspec(dllimport)
#else
#define KVTILEIMAGE_API
#endif

#ifdef __cplusplus
#define KVTILEIMAGE_NOEXCEPT noexcept
extern "C" {
#else
#define KVTILEIMAGE_NOEXCEPT
#endif

/* One image. Owned by the caller from the allocating function to KvTileImage_Unload. */
typedef struct TileImageHandle TileImageHandle;

/* A lookup table (LookupTableHandle) or a map of them (LookupTableMapHandle): cells of one form, told apart when they
 * are used. Owned by the caller from the creating function to KvTileImage_DestroyLookupTable. */
typedef struct LookupHandle LookupTableHandle;
typedef struct LookupHandle LookupTableMapHandle;

/* An engine that delivers an image's rows in another size; see KvTileImage_BeginRescaleRowScanline_ThreadSafe. Owned by
 * the caller from the function that makes it to KvTileImage_EndRescaleRowScanline_ThreadSafe. */
typedef struct RescaleEngineHandle RescaleEngineHandle;

/* Called after each row of a tone curve, a rotation or a mirroring: `index` is the row just done, ascending from 0,
 * `count` the number of rows. Runs on the thread that called the library. It must return: no longjmp, no end of the
 * thread. A C++ callback that is built with the library's own compiler (GCC or Clang on Linux, MinGW-w64 on Windows)
 * may throw to stop the work: the exception ends in the library, and the function that was called fails. */
typedef void (*KvTileImage_ProgressCallback)(uint32_t index, uint32_t count);

/* How the image will mostly be accessed; shapes the tiles of images that are kept in files. */
#define KVTI_SCANLINE_OPERATION_ROW UINT32_C(1)    /* whole rows */
#define KVTI_SCANLINE_OPERATION_COL UINT32_C(2)    /* whole columns */
#define KVTI_SCANLINE_OPERATION_ROWCOL UINT32_C(3) /* both */

/* Meaning of a sample's bits, the numbering of TIFF's SampleFormat, the last one aside. The library keeps the value for
 * the caller and hands it on to images made from this one; any value may be stored. Only rescaling looks at it: numbers
 * with 64 bits are _INT64 or _DOUBLE to it, or _UINT or _INT. */
#define KVTI_SAMPLEFORMAT_UINT UINT32_C(1)
#define KVTI_SAMPLEFORMAT_INT UINT32_C(2)
#define KVTI_SAMPLEFORMAT_FLOAT UINT32_C(3) /* 32 bits */
#define KVTI_SAMPLEFORMAT_INT64 UINT32_C(5)
#define KVTI_SAMPLEFORMAT_DOUBLE UINT32_C(6)
#define KVTI_SAMPLEFORMAT_UNSET UINT32_C(0xFFFFFFFF)

/* Mirror codes. */
#define KVTI_MIRROR_NONE UINT32_C(0)
#define KVTI_MIRROR_HORIZONTAL UINT32_C(1) /* left and right change places */
#define KVTI_MIRROR_VERTICAL UINT32_C(2)   /* top and bottom change places */

/* Kernels that rescaling weights pixels with, by the distance from the middle of the new pixel. */
#define KVTI_FILTER_BOX UINT32_C(0)        /* the mean of the pixels below; repeats pixels when enlarging */
#define KVTI_FILTER_BICUBIC UINT32_C(1)    /* Mitchell and Netravali's cubic, B = C = 1/3: soft, hardly any ringing */
#define KVTI_FILTER_BILINEAR UINT32_C(2)   /* straight lines between pixels */
#define KVTI_FILTER_BSPLINE UINT32_C(3)    /* the cubic B-spline: very soft, no ringing */
#define KVTI_FILTER_CATMULLROM UINT32_C(4) /* the cubic through the pixels: sharp, some ringing */
#define KVTI_FILTER_LANCZOS3 UINT32_C(5)   /* a windowed sinc of six pixels: the sharpest, most ringing */

/* ---- Version and memory budget ---------------------------------------------------------------------------------- */

/* Stores the three parts of the version (2, 0, 15) into the targets that are not null. */
KVTILEIMAGE_API void KvTileImage_VersionNum(uint32_t* major, uint32_t* minor, uint32_t* patch) KVTILEIMAGE_NOEXCEPT;

/* Stores the address of the version text "2.0.15" into *out, unless `out` is null. The library owns the text; it stays
 * valid while the library is loaded. */
KVTILEIMAGE_API void KvTileImage_VersionString(const char** out) KVTILEIMAGE_NOEXCEPT;

/* Sets the process-wide heap budget to `bytes`, at least 64 MiB (smaller values are raised). Initially 1 GiB. Images
 * that exist already stay where they are.
 *
 * A new image is kept in heap memory when its size in BITS (width * height * bitsPerPixel) is less than the budget
 * minus the bytes that live heap images use; an image of at most 8192 bits as long as they use less than twice the
 * budget. With the initial budget this keeps pixels of up to 128 MiB in memory. To keep pixels of n bytes there, set a
 * budget of more than 8 * n plus the bytes in use. The tiles of an image count and take a little more than its pixels:
 * the width is rounded up to a multiple of 8. Every other image is kept in files; see KvTileImage_AllocEx. */
KVTILEIMAGE_API void KvTileImage_SetMaxMemoryStorageBytes(uint64_t bytes) KVTILEIMAGE_NOEXCEPT;

/* ---- Allocation and release ------------------------------------------------------------------------------------- */

/* Allocates an image of width * height pixels, all samples zero, at 72 dpi.
 *   sampleformat           stored and returned only; see KVTI_SAMPLEFORMAT_UINT
 *   bForceUseFileMapping   not 0: do not keep the image in heap memory, whatever the budget says
 *   scanlineOperation      KVTI_SCANLINE_OPERATION_ROW, _COL or _ROWCOL; looked at for images kept in files only
 * Returns the image, or null if one of the four sizes is 0, if their product does not fit 64 bits, or if the storage
 * cannot be had.
 *
 * An image that does not fit the budget, or with bForceUseFileMapping set, is kept in files of the library's own, one
 * per tile, which are deleted when it is released; docs/files-on-disk.md tells where they are. It needs as much room on
 * the disk as its tiles take; null, with nothing left on the disk, if there is less. Only the tiles that are being used
 * take memory: those that the last transfer of each thread touched. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_AllocEx(uint32_t width, uint32_t height, uint32_t samplesPerPixel,
                                                     uint32_t bitsPerSample, uint32_t sampleformat,
                                                     uint8_t bForceUseFileMapping,
                                                     uint32_t scanlineOperation) KVTILEIMAGE_NOEXCEPT;

/* KvTileImage_AllocEx with KVTI_SCANLINE_OPERATION_ROWCOL. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_Alloc(uint32_t width, uint32_t height, uint32_t samplesPerPixel,
                                                   uint32_t bitsPerSample, uint32_t sampleformat,
                                                   uint8_t bForceUseFileMapping) KVTILEIMAGE_NOEXCEPT;

/* Releases the image and its storage. Null is ignored. The handle is invalid afterwards; releasing it a second time
 * is an error of the caller that the library cannot detect. A shared image goes with its last holder; see below. */
KVTILEIMAGE_API void KvTileImage_Unload(TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* ---- Shared images ---------------------------------------------------------------------------------------------- */

/* A shared image is held by several processes of one user at the same time, and by any number of handles in each. All
 * see the same pixels: what one writes, the others read at once. Every function takes its handles. Only the resolution
 * (dpi) is each handle's own, and keeping readers and writers of the same pixels apart is up to the programs.
 *
 * It goes by an identifier, a UTF-8 text that the programs agree on. The identifier becomes a part of file names: use
 * what a file name can hold, at most 200 bytes between slashes, and not two that differ in upper and lower case only.
 * Slashes make folders ("scans/page-1"); an identifier that begins with a slash, a backslash or a drive letter, or has
 * a component "..", counts as empty and is refused.
 *
 * The image is always kept in files. They are deleted when its last handle is released, in whichever process: the one
 * that made it may go first. A process that is killed, or ends without releasing, holds the image no longer; if it was
 * the last one, what is left goes when the next process comes to its first image, be it by attaching.
 * docs/files-on-disk.md tells what is kept where.
 *
 * After a fork the child may use the handles that it inherits for as long as the parent holds the image; releasing them
 * there lets go of nothing.
 *
 * These functions, and the release of a shared image, work on one image at a time for all processes of the user. They
 * fail, with a logged reason, if another process does not get done within 30 seconds; a release goes ahead then. */

/* Makes a shared image of width * height pixels, all samples zero, at 72 dpi. If there is one of that identifier with
 * the same five values from width to sampleformat, attaches to it instead, with the pixels that it has. If there is one
 * with other values, makes a new one, which those who attach later get; who holds the old one keeps it, and the files
 * of one of the two may stay until the process that made them has ended and its program starts again - on Linux even
 * the files of the old one are removed then under those who hold it: use another identifier for another image. (That,
 * or files that are missing, is logged as a warning; that there was none before, as errors of the reading functions.)
 *   sampleformat        as for KvTileImage_AllocEx
 *   scanlineOperation   shapes the tiles, as for KvTileImage_AllocEx; those who attach get _ROWCOL
 * Returns the image, or null if the identifier is null, empty or refused, if one of the four sizes is 0 or their
 * product is a multiple of 2^32 (65536 x 65536 pixels of 8 bits, for example), or if the storage cannot be had. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_InterprocessA_AllocEx(const char* interprocessTileImageId, uint32_t width,
                                                                   uint32_t height, uint32_t samplesPerPixel,
                                                                   uint32_t bitsPerSample, uint32_t sampleformat,
                                                                   uint32_t scanlineOperation) KVTILEIMAGE_NOEXCEPT;

/* KvTileImage_InterprocessA_AllocEx with KVTI_SCANLINE_OPERATION_ROWCOL. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_InterprocessA_Alloc(const char* interprocessTileImageId, uint32_t width,
                                                                 uint32_t height, uint32_t samplesPerPixel,
                                                                 uint32_t bitsPerSample,
                                                                 uint32_t sampleformat) KVTILEIMAGE_NOEXCEPT;

/* Attaches to the shared image of that identifier. Null if there is none, if its files are not what its descriptor
 * says (what is left of it may be removed then, if nobody holds it), or if the identifier is null, empty or refused.
 */
KVTILEIMAGE_API TileImageHandle* KvTileImage_InterprocessB_Alloc(const char* interprocessTileImageId)
    KVTILEIMAGE_NOEXCEPT;

/* Stores size and format of the shared image of that identifier into the targets that are not null. Holds nothing: the
 * image may be gone before it is attached to, or have been left by a process that is gone. False, with nothing stored,
 * if there is no descriptor that can be read, or the identifier is null, empty or refused. */
KVTILEIMAGE_API bool KvTileImage_InterprocessB_GetInfo(const char* interprocessTileImageId, uint32_t* width,
                                                       uint32_t* height, uint32_t* samplesPerPixel,
                                                       uint32_t* bitsPerSample,
                                                       uint32_t* sampleformat) KVTILEIMAGE_NOEXCEPT;

/* Whether the shared image of that identifier can be attached to. Does so and lets go again: an image that nobody else
 * holds is gone afterwards. False as KvTileImage_InterprocessB_Alloc is null. */
KVTILEIMAGE_API bool KvTileImage_Interprocess_IsValid(const char* interprocessTileImageId) KVTILEIMAGE_NOEXCEPT;

/* ---- Properties ------------------------------------------------------------------------------------------------- */

/* Size in pixels; 0 for a null handle. */
KVTILEIMAGE_API uint32_t KvTileImage_GetWidth(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint32_t KvTileImage_GetHeight(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* Pixel format; 0 for a null handle. bitsPerPixel = samplesPerPixel * bitsPerSample. */
KVTILEIMAGE_API uint32_t KvTileImage_GetSamplesPerPixel(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint32_t KvTileImage_GetBitsPerSample(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint32_t KvTileImage_GetBitsPerPixel(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* The value given at allocation; KVTI_SAMPLEFORMAT_UNSET for a null handle. */
KVTILEIMAGE_API uint32_t KvTileImage_GetSampleformat(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* Resolution in dots per inch, kept for the caller; 0 for a null handle. A new image, the result of a rotation
 * included, has 72. */
KVTILEIMAGE_API float KvTileImage_GetDpiX(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API float KvTileImage_GetDpiY(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API void KvTileImage_SetDpiX(TileImageHandle* image, float dpi) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API void KvTileImage_SetDpiY(TileImageHandle* image, float dpi) KVTILEIMAGE_NOEXCEPT;

/* ---- Buffer sizes ----------------------------------------------------------------------------------------------- */

/* Bytes of a whole row (width pixels) or column (height pixels) rounded up to a multiple of 4: what to allow for each
 * scanline of a 4-byte aligned array. 0 for a null handle. */
KVTILEIMAGE_API uint64_t KvTileImage_GetRowScanlineStrideBytes(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint64_t KvTileImage_GetColScanlineStrideBytes(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* Bytes of a whole row or column exactly, ceil(bits / 8): the smallest buffer that the transfers below accept for it.
 * 0 for a null handle. */
KVTILEIMAGE_API uint64_t KvTileImage_GetRowScanlineSuitableBytes(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint64_t KvTileImage_GetColScanlineSuitableBytes(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* ---- Pixel, row and column transfer ----------------------------------------------------------------------------- */

/* Bracket a batch of transfers that the calling thread makes on an image. Neither is needed for a transfer. For images
 * kept in files, End lets go of the tiles that this thread's last transfer touched; a thread that has ended without it
 * leaves them in memory (as pages that the system can take back) until the image is released, so call it at the end of
 * a thread's work. Begin does nothing so far. Neither does anything for images in heap memory or a null handle. */
KVTILEIMAGE_API void KvTileImage_BeginCurrentThreadIO(TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API void KvTileImage_EndCurrentThreadIO(TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* Get... copies from the image into `buffer`, Set... from `buffer` into the image. `buffer` belongs to the caller and
 * holds `bufferBytes` bytes, at least as many as the run occupies; bytes behind the run are neither read nor written.
 *
 * False, with a logged reason, if the handle or the buffer is null, the run is empty or reaches outside the image, the
 * buffer is too small, or tiles that are kept in files cannot be mapped into memory; nothing is copied then.
 *
 * Columns of packed formats with pixels of 8 bits and more (for example 3 x 4 bits) fail at the first pixel whose bits
 * start at the same place inside a byte in the image row and in the buffer, the first bit of a byte aside; the pixels
 * before it have been copied. Rows and single pixels have no such limit. */

/* The pixel at (x, y). */
KVTILEIMAGE_API bool KvTileImage_GetPixelData(TileImageHandle* image, uint32_t x, uint32_t y, uint8_t* buffer,
                                              uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_SetPixelData(TileImageHandle* image, uint32_t x, uint32_t y, const uint8_t* buffer,
                                              uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;

/* Pixels [x1, x2) of row y. */
KVTILEIMAGE_API bool KvTileImage_GetRowData(TileImageHandle* image, uint32_t y, uint32_t x1, uint32_t x2,
                                            uint8_t* buffer, uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_SetRowData(TileImageHandle* image, uint32_t y, uint32_t x1, uint32_t x2,
                                            const uint8_t* buffer, uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;

/* Pixels [y1, y2) of column x. */
KVTILEIMAGE_API bool KvTileImage_GetColData(TileImageHandle* image, uint32_t x, uint32_t y1, uint32_t y2,
                                            uint8_t* buffer, uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_SetColData(TileImageHandle* image, uint32_t x, uint32_t y1, uint32_t y2,
                                            const uint8_t* buffer, uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;

/* All pixels of row y. */
KVTILEIMAGE_API bool KvTileImage_GetFullRowData(TileImageHandle* image, uint32_t y, uint8_t* buffer,
                                                uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_SetFullRowData(TileImageHandle* image, uint32_t y, const uint8_t* buffer,
                                                uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;

/* All pixels of column x. */
KVTILEIMAGE_API bool KvTileImage_GetFullColData(TileImageHandle* image, uint32_t x, uint8_t* buffer,
                                                uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_SetFullColData(TileImageHandle* image, uint32_t x, const uint8_t* buffer,
                                                uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;

/* ---- Scaling helper --------------------------------------------------------------------------------------------- */

/* count * scale + 0.5, truncated: the pixels that `count` pixels become under `scale`. Results below 0 and not-a-number
 * give 0, results of 2^64 and more the largest uint64_t. */
KVTILEIMAGE_API uint64_t KvTileImage_ComputeScaledPixelCount(uint64_t count, double scale) KVTILEIMAGE_NOEXCEPT;

/* ---- Lookup tables ---------------------------------------------------------------------------------------------- */

/* A tone curve as a table: one output value for every value that a sample of 8 or 16 bits can have. A table never
 * changes once it is made, and any number of threads may use it at the same time.
 *
 * CreateLookupTable8_... and CreateLookupTable16_... make tables for samples of 8 and 16 bits; CreateLookupTable_...
 * take the depth, `bitsPerSample`, and return null without a message if it is another one. All return a table that the
 * caller owns, or null, with a logged reason, for parameters outside their range or if there is no memory.
 *
 * Below, i is the sample, M its highest value, 255 or 65535, and `middle` 128 or 32768. Results are computed in double
 * precision, cut to 0 .. M and rounded half up. */

/* M * (i / M)^(1 / gamma), computed as i^(1 / gamma) * (M^(-1 / gamma) * M): above 1 brightens, below 1 darkens, black
 * and white stay. `gamma` must be above 0. Below about 0.015 (8 bits: 0.0075) the powers leave the range of double
 * precision and white becomes 0 as well; infinity makes everything M, and not a number, which is accepted, 0. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_Gamma(uint32_t bitsPerSample,
                                                                       double gamma) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_Gamma(double gamma) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_Gamma(double gamma) KVTILEIMAGE_NOEXCEPT;

/* i * (brightness + 1): -1 makes everything 0, 0 changes nothing, 1 doubles. `brightness` in [-1, 1]. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_Brightness(uint32_t bitsPerSample,
                                                                            double brightness) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_Brightness(double brightness) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_Brightness(double brightness) KVTILEIMAGE_NOEXCEPT;

/* (i - middle) * (contrast + 1) + middle from `middle` upwards, and M everywhere below it (`middle` with a contrast of
 * -1): 0 is NOT the identity. Callers rely on this one-sided curve; for a curve that treats both sides of the middle
 * alike use ..._BrightnessContrast with a brightness of 0. `contrast` in [-1, 1]. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_Contrast(uint32_t bitsPerSample,
                                                                          double contrast) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_Contrast(double contrast) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_Contrast(double contrast) KVTILEIMAGE_NOEXCEPT;

/* Three curves in one, rounded once: v = (i - middle) * (contrast + 1) + middle, then v * (brightness + 1), then
 * M * (v / M)^(1 / gamma), each cut to 0 .. M; with `invert`, M minus the result. Contrast and brightness of 0 and a
 * gamma of 1 do nothing, nor does a gamma of 0 and below. No parameter is refused. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_BrightnessContrastGamma(
    uint32_t bitsPerSample, double brightness, double contrast, double gamma, bool invert) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_BrightnessContrastGamma(
    double brightness, double contrast, double gamma, bool invert) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_BrightnessContrastGamma(
    double brightness, double contrast, double gamma, bool invert) KVTILEIMAGE_NOEXCEPT;

/* The same with a gamma of 1 and without inversion. The 8-bit function lacks the last letter of its name: programs find
 * it by that name. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_BrightnessContrast(
    uint32_t bitsPerSample, double brightness, double contrast) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_BrightnessContras(double brightness, double contrast)
    KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_BrightnessContrast(
    double brightness, double contrast) KVTILEIMAGE_NOEXCEPT;

/* 0 below `threshold` and M from it on; with `invert` M below and 0 from it on. `threshold` in 0 .. M. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_Threshold(uint32_t bitsPerSample, int32_t threshold,
                                                                           bool invert) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_Threshold(int32_t threshold,
                                                                            bool invert) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_Threshold(int32_t threshold,
                                                                             bool invert) KVTILEIMAGE_NOEXCEPT;

/* The caller's own entries in ascending order of i, which are copied: 256 bytes, or 131072 bytes, that is 65536 16-bit
 * values in the machine's byte order. `byteCount` is the size of the array; what is behind the entries is ignored. Null
 * if `bytes` is null or `byteCount` is below 256, or for 16 bits below 65536. Mind that a 16-bit table reads 131072
 * bytes whenever byteCount is 65536 or more: the caller makes sure that they are there. */
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable_ByteStream(uint32_t bitsPerSample,
                                                                            const uint8_t* bytes,
                                                                            uint64_t byteCount) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable8_ByteStream(const uint8_t* bytes,
                                                                             uint64_t byteCount) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableHandle* KvTileImage_CreateLookupTable16_ByteStream(const uint8_t* bytes,
                                                                              uint64_t byteCount) KVTILEIMAGE_NOEXCEPT;

/* A map says which table is for which channel, the index of a sample in its pixel. These make an empty one for tables
 * of 8 or 16 bits, which the caller owns; null for another depth or if there is no memory. */
KVTILEIMAGE_API LookupTableMapHandle* KvTileImage_CreateLookupTableMap(uint32_t bitsPerSample) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableMapHandle* KvTileImage_CreateLookupTableMap8(void) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API LookupTableMapHandle* KvTileImage_CreateLookupTableMap16(void) KVTILEIMAGE_NOEXCEPT;

/* Gives `channel` the table, in the place of the one it has, if any. The map shares the table with its handle, which
 * may be destroyed afterwards. False if a handle is null, and, with a logged reason, if the table has another depth
 * than the map or there is no memory. Must not overlap another use of the map. */
KVTILEIMAGE_API bool KvTileImage_InsertLookupTable(LookupTableMapHandle* map, LookupTableHandle* table,
                                                   uint32_t channel) KVTILEIMAGE_NOEXCEPT;

/* Releases the handle of a table or of a map: one function with two names, either of which takes either. Null is
 * ignored. Tables that a map or a running call still uses live as long as that. The handle is invalid afterwards. */
KVTILEIMAGE_API void KvTileImage_DestroyLookupTable(LookupTableHandle* tableOrMap) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API void KvTileImage_DestroyLookupTableMap(LookupTableMapHandle* tableOrMap) KVTILEIMAGE_NOEXCEPT;

/* ---- Tone curves ------------------------------------------------------------------------------------------------ */

/* Replace samples of `image` by their entries of a table, row by row from the top. AdjustCurve...Ex leaves the image as
 * it is and returns a new one of the same size and format at 72 dpi, owned by the caller; the others change the image
 * itself. `progress` may be null; it is called for row y after row y is written and before row y + 1 is.
 *
 * False or null for a null handle, and, with a logged reason, if the image does not have the depth of the table or
 * map, 8 or 16 bits, if storage for the result or memory for a row cannot be had, or if a row cannot be transferred: an
 * image that is changed in place has the rows before it changed then. Packed images are refused, not converted.
 *
 * Threads that work on one image at the same time must not overlap, as in all transfers of pixels. */

/* Every sample of every pixel. */
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels(TileImageHandle* image, LookupTableHandle* table,
                                                          KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx(
    TileImageHandle* image, LookupTableHandle* table, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* The channels that have a table in `map`; the others keep their values, and tables for channels that the image does
 * not have are ignored. With an empty map the first returns true at once, without calling `progress`, and the second a
 * copy. */
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfSomeChannels(TileImageHandle* image, LookupTableMapHandle* map,
                                                           KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfSomeChannelsEx(
    TileImageHandle* image, LookupTableMapHandle* map, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* Every sample, with the table that the function for lookup tables of the same name makes for the image's depth; false
 * where it makes none. Parameters that change nothing (gamma 1; brightness 0; contrast 0, although its table is not the
 * identity; all three without inversion) return true at once, whatever the depth of the image, without calling
 * `progress`. */
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels_Gamma(
    TileImageHandle* image, double gamma, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels_Brightness(
    TileImageHandle* image, double brightness, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels_Contrast(
    TileImageHandle* image, double contrast, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(
    TileImageHandle* image, double brightness, double contrast, double gamma, bool invert,
    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels_BrightnessContrast(
    TileImageHandle* image, double brightness, double contrast,
    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* The same; no threshold changes nothing. */
KVTILEIMAGE_API bool KvTileImage_AdjustCurveOfAllChannels_Threshold(
    TileImageHandle* image, int32_t threshold, bool invert, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* The same into a new image, which is made for parameters that change nothing too; the table of contrast 0 is applied
 * then. ..._BrightnessContrast never calls `progress`: callers rely on it. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(
    TileImageHandle* image, double gamma, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_Brightness(
    TileImageHandle* image, double brightness, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_Contrast(
    TileImageHandle* image, double contrast, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrastGamma(
    TileImageHandle* image, double brightness, double contrast, double gamma, bool invert,
    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrast(
    TileImageHandle* image, double brightness, double contrast,
    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* ---- Rotation and mirroring ------------------------------------------------------------------------------------- */

/* Turns `image` clockwise by `rotation` degrees, any positive or negative multiple of 90, and mirrors it by `mirror`
 * (KVTI_MIRROR_...): the turned image if `mirrorAfterRotation`, else the image before it is turned. Width and height
 * change places at 90 and 270 degrees. The source stays as it is.
 *
 * Returns a new image of the same format at 72 dpi, owned by the caller, or null, with a logged reason, for a null
 * handle, another angle, storage that cannot be had, or a row or column that cannot be transferred. A mirror code above
 * 2 with `mirrorAfterRotation` set gives an image of the right shape with all samples zero; with it clear it counts as
 * no mirroring.
 *
 * `progress` may be null; it is called once for each row of the source.
 *
 * Two packed layouts have limits that callers rely on and that therefore stay:
 *  - 2 bits per sample: where the pixels of a source row come to stand in the opposite order (a horizontal mirror, 180
 *    and 270 degrees without mirroring, for example), samples that are not 0 come back altered, because the packing of
 *    2-bit rows adds a second, 4-bit pass over the same bytes.
 *  - pixels of 8 bits and more that do not start on whole bytes (for example 3 x 4 bits): 90 and 270 degrees fail where
 *    the column transfer does.
 * A caller that needs these turns keeps a byte per sample in the image and packs rows when it reads them. Rows with
 * more than 65,535 samples, bits per sample or bytes per pixel cannot be reversed: null. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_RotateAndMirror(
    TileImageHandle* image, int32_t rotation, uint32_t mirror, bool mirrorAfterRotation,
    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* KvTileImage_RotateAndMirror without mirroring. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_Rotate(TileImageHandle* image, int32_t rotation,
                                                    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* KvTileImage_RotateAndMirror without turning. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_Mirror(TileImageHandle* image, uint32_t mirror,
                                                    KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* KvTileImage_Mirror with KVTI_MIRROR_HORIZONTAL. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_HorizontalMirror(
    TileImageHandle* image, KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* KvTileImage_Mirror with KVTI_MIRROR_VERTICAL. */
KVTILEIMAGE_API TileImageHandle* KvTileImage_VerticalMirror(TileImageHandle* image,
                                                            KvTileImage_ProgressCallback progress) KVTILEIMAGE_NOEXCEPT;

/* ---- Rescaling -------------------------------------------------------------------------------------------------- */

/* Every sample of the result is one weighted sum of samples of the source: those within the reach of the kernel
 * `filter` (KVTI_FILTER_...) around the place of the new pixel, in double precision, source row by source row from the
 * top and pixel by pixel from the left. Enlarging, the kernel spans source pixels; shrinking, new pixels, up to 100
 * source pixels in each direction. The weights of a pixel are divided by their sum, and at the edges the kernel is cut
 * off.
 *
 * Mind one limit that callers rely on and that therefore stays: each weight of less than 2.3e-16 makes the sum of its
 * pixel end one source pixel earlier, at the right or lower end, even where it stands elsewhere; the sum comes out too
 * dark or too bright then. With KVTI_FILTER_CATMULLROM and KVTI_FILTER_LANCZOS3 there are weights of 0 where a side
 * keeps its length or becomes a whole odd number of times as long or short, and the last pixels of that side come out
 * black. A scale that is smaller by one part in 10^12, which the functions by scale take, has none and gives the same
 * size.
 *
 * Integers are rounded by adding 0.5 and cutting off the fraction, then cut to the range of their type; floating-point
 * numbers are cut to the largest finite values. Samples have 8, 16, 32 or 64 bits: KVTI_SAMPLEFORMAT_UINT and _INT,
 * with 32 bits _FLOAT and with 64 bits _INT64 and _DOUBLE too. Samples of other formats are refused, by most functions
 * when the first row is computed; where the result has the size of the source, rows of any format are copied.
 *
 * The source rectangle is pixels [x1, x2) of rows [y1, y2). It may not be empty nor reach beyond the width of the
 * image. It may reach below the image: rows that need pixels from there cannot be computed, or, where the result has
 * the size of the source, are left 0, which counts as success. */

/* Writes the whole source, or its rectangle, into all of `destination`, another image of the same samplesPerPixel and
 * bitsPerSample, whose size is that of the result; its sample format is not looked at. Rectangles of 4096 rows and
 * 67,108,864 samples or more are worked on by several threads, which all end before the call does. False without a
 * message for a null handle, and, with a logged reason, for a filter or a rectangle that is refused, images that do not
 * fit each other, without memory, or if a row cannot be read or written: the destination is partly written then.
 * Neither image may be written to by others meanwhile. */
KVTILEIMAGE_API bool KvTileImage_Rescale(TileImageHandle* source, TileImageHandle* destination,
                                         uint32_t filter) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_RescaleEx(TileImageHandle* source, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2,
                                           TileImageHandle* destination, uint32_t filter) KVTILEIMAGE_NOEXCEPT;

/* Prepares `image` to deliver its rectangle in another size, row by row: dstWidth * dstHeight pixels, or by scale,
 * trunc(size * scale + 0.5) pixels each way. Source rows are held while they are needed: the image must not be written
 * to until End. What an earlier Begin prepared is replaced, unless this one fails: false without a message for a null
 * handle, and, with a logged reason, for samples of other than 8, 16, 32 and 64 bits, an unknown filter, a rectangle
 * that is refused, scales that are not finite and above 0, a result without pixels or with sides beyond 32 bits, and
 * without memory. One thread at a time may stream from an image this way. */
KVTILEIMAGE_API bool KvTileImage_BeginRescaleRowScanline(TileImageHandle* image, uint32_t x1, uint32_t y1, uint32_t x2,
                                                         uint32_t y2, uint32_t dstWidth, uint32_t dstHeight,
                                                         uint32_t filter) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_BeginRescaleRowScanlineEx(TileImageHandle* image, uint32_t x1, uint32_t y1,
                                                           uint32_t x2, uint32_t y2, double scaleX, double scaleY,
                                                           uint32_t filter) KVTILEIMAGE_NOEXCEPT;

/* Computes row `row` of the result and copies it to `buffer`, of at least as many bytes as the row takes:
 * KvTileImage_WidthAfterRescale(image) * bitsPerPixel / 8. Rows may be asked for in any order; neighbouring ones share
 * the source rows that have been read. False, with a logged reason and the buffer as it was, for a row at or beyond
 * KvTileImage_HeightAfterRescale(image), a buffer that is null or too small, samples that cannot be rescaled, or source
 * rows that cannot be read; without a message for a null handle or if nothing was begun. */
KVTILEIMAGE_API bool KvTileImage_RescaleRowScanline(TileImageHandle* image, uint32_t row, uint8_t* buffer,
                                                    uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;

/* The same without the copy: stores the address of the row and its size in bytes. The row belongs to the image; it
 * stays until the next row is computed and until End, Begin or KvTileImage_Unload. False without a message if `buffer`
 * or `bytes` is null. */
KVTILEIMAGE_API bool KvTileImage_RescaleRowScanlineEx(TileImageHandle* image, uint32_t row, const uint8_t** buffer,
                                                      uint64_t* bytes) KVTILEIMAGE_NOEXCEPT;

/* Lets go of what Begin prepared. Nothing happens for a null handle or if nothing was begun. */
KVTILEIMAGE_API void KvTileImage_EndRescaleRowScanline(TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* The size of the result in pixels; 0 for a null handle and if nothing was begun. */
KVTILEIMAGE_API uint64_t KvTileImage_WidthAfterRescale(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint64_t KvTileImage_HeightAfterRescale(const TileImageHandle* image) KVTILEIMAGE_NOEXCEPT;

/* The same with an engine that the caller holds, so that several threads can stream from one image, each with an engine
 * of its own. Null in the place of false. The engine keeps the image's pixels alive, even beyond KvTileImage_Unload,
 * until KvTileImage_EndRescaleRowScanline_ThreadSafe, which ignores null. Threads that are done with an image in files
 * call KvTileImage_EndCurrentThreadIO. */
KVTILEIMAGE_API RescaleEngineHandle* KvTileImage_BeginRescaleRowScanline_ThreadSafe(
    TileImageHandle* image, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2, uint32_t dstWidth, uint32_t dstHeight,
    uint32_t filter) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API RescaleEngineHandle* KvTileImage_BeginRescaleRowScanlineEx_ThreadSafe(
    TileImageHandle* image, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2, double scaleX, double scaleY,
    uint32_t filter) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_RescaleRowScanline_ThreadSafe(RescaleEngineHandle* engine, uint32_t row,
                                                               uint8_t* buffer,
                                                               uint64_t bufferBytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API bool KvTileImage_RescaleRowScanlineEx_ThreadSafe(RescaleEngineHandle* engine, uint32_t row,
                                                                 const uint8_t** buffer,
                                                                 uint64_t* bytes) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API void KvTileImage_EndRescaleRowScanline_ThreadSafe(RescaleEngineHandle* engine) KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint64_t KvTileImage_WidthAfterRescale_ThreadSafe(const RescaleEngineHandle* engine)
    KVTILEIMAGE_NOEXCEPT;
KVTILEIMAGE_API uint64_t KvTileImage_HeightAfterRescale_ThreadSafe(const RescaleEngineHandle* engine)
    KVTILEIMAGE_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
