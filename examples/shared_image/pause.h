/* Waiting, which C99 has no function for. With a strict compiler (-std=c99) POSIX systems show theirs to programs that
 * define _POSIX_C_SOURCE before their first #include. */
#ifndef SHARED_IMAGE_PAUSE_H
#define SHARED_IMAGE_PAUSE_H

#ifdef _WIN32
#include <windows.h>
static void pauseFor(unsigned milliseconds) { Sleep(milliseconds); }
#else
#include <time.h>
static void pauseFor(unsigned milliseconds) {
  struct timespec time = {(time_t)(milliseconds / 1000), (long)(milliseconds % 1000) * 1000000L};
  nanosleep(&time, NULL);
}
#endif

#endif
