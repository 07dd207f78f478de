// The worker's images, and what its commands need from each system.
#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include "kvtileimage/KvTileImage.h"

namespace tile_worker {

// By name. They are released by the command "unload" only, not when the worker ends.
std::map<std::string, TileImageHandle*>& images();

// Carries out one command and returns its answer, one line.
std::string answerTo(const std::string& command);

// The same for a command that only this system knows, or knows in its own way; `words` holds what follows `name`.
std::string systemAnswerTo(const std::string& name, std::istream& words);

// Makes, finds, writes, reads and lets go of shared images at random; the words are those behind the command.
std::string stress(std::istream& words);

// Writes a line to stdout, whole and at once.
void say(const std::string& line);

}  // namespace tile_worker
