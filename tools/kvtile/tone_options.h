// The command line's options for tone curves.
#ifndef KVTILE_TONE_OPTIONS_H
#define KVTILE_TONE_OPTIONS_H

#include <CLI/CLI.hpp>

#include "tone.h"

namespace kvtile {

// Adds the options that change tones, and --channel, which is described as `channelHelp`, to `command`.
void addToneOptions(CLI::App& command, const std::string& channelHelp);

// What was asked for with them, once `command` has been parsed: the steps in the order in which they stand there.
ToneRequest toneRequestOf(const CLI::App& command);

}  // namespace kvtile

#endif
