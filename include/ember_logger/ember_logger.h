/* EmberLogger: where KvTileImage's messages go.
 *
 * Unless a host takes the messages over, they go to stderr, coloured on a terminal. The C functions below work with any
 * compiler; the C++ class is for libraries that log and are built together with this one.
 *
 * Severities: 0 trace, 1 debug, 2 info, 3 warning, 4 error.
 */
#ifndef EMBER_LOGGER_EMBER_LOGGER_H
#define EMBER_LOGGER_EMBER_LOGGER_H

#if defined(_WIN32)
#if defined(EMBER_LOGGER_BUILD)
#define EMBER_LOGGER_API __declspec(dllexport)
#else
#define EMBER_LOGGER_API __declspec(dllimport)
#endif
#else
#define EMBER_LOGGER_API __attribute__((visibility("default")))
#endif

/* Has the compiler check a printf-style call; the runtime of MinGW needs to be told that the format is C99's. */
#if defined(__MINGW32__) && !defined(__clang__)
#define EMBER_LOGGER_PRINTF(formatIndex, firstArgument) __attribute__((format(gnu_printf, formatIndex, firstArgument)))
#elif defined(__GNUC__)
#define EMBER_LOGGER_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define EMBER_LOGGER_PRINTF(formatIndex, firstArgument)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Receives one message.
 *   severity   0 trace .. 4 error
 *   tag        names the library that logs, "KvTileImage" for example
 *   message    the finished text, UTF-8, without prefix and line end
 *   user       the pointer given to EmberLogger_SetSink
 * The texts belong to the logger and are valid during the call only. Called on the thread that logs, before the logging
 * call returns, one call at a time in the whole process. What a sink logs itself, on its own thread, goes to stderr. It
 * must return, and must not wait for another thread that logs or calls EmberLogger_SetSink: that thread waits for it.
 * A sink shows or stores the message and returns. The library that reports may be in the middle of its work: calling it
 * from the sink can wait for ever.
 *
 * A C++ exception that leaves the sink is dropped if the sink is built with this library's compiler; with another one
 * it must not leave. */
typedef void (*EmberLogger_Sink)(int severity, const char* tag, const char* message, void* user);

/* Sends all messages to `sink`; null sends them to stderr again. When it returns, the sink that was set before is no
 * longer running and will not be called again, unless it is that sink itself that makes this call. */
EMBER_LOGGER_API void EmberLogger_SetSink(EmberLogger_Sink sink, void* user);

/* Passes on messages of `severity` and above only: 0 trace .. 4 error, 5 none. Holds for loggers made before and after,
 * in place of the level they were made with, for stderr and sink alike. Values outside 0 .. 5 count as the nearest. */
EMBER_LOGGER_API void EmberLogger_SetLevel(int severity);

#ifdef __cplusplus
}

#include <cstdint>

namespace ember_logger {

enum severity_level : int { trace = 0, debug = 1, info = 2, warning = 3, error = 4 };

/* One library's way to the process's messages. Loggers may be used from any thread. */
class EMBER_LOGGER_API Logger {
 public:
  /* `tag`, which outlives the logger, goes with each message; null is the empty text. Messages below `level` are
   * dropped until EmberLogger_SetLevel says otherwise. The arguments without a name are reserved for targets other than
   * stderr and have no effect: pass what the library passes, (null, level, false, false, false, true, 0x100000, null,
   * null, null). */
  Logger(const char* tag, const char*, int level, bool, bool, bool, bool, std::uint32_t, const char*, const char*,
         const char*);
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /* Fills `format` (printf's, as in C99: %llu is 64 bits on every system) with the arguments and passes the text on
   * before it returns. Never throws; a text for which there is no memory arrives cut short. */
  EMBER_LOGGER_PRINTF(3, 4)
  void log(severity_level severity, const char* format, ...) noexcept;

 private:
  const char* tag_;
  int level_;
};

}  // namespace ember_logger
#endif

#endif
