// The command line's options for other sizes.
#ifndef KVTILE_RESIZE_OPTIONS_H
#define KVTILE_RESIZE_OPTIONS_H

#include <CLI/CLI.hpp>
#include <string>

#include "resizing.h"

namespace kvtile {

// As they were given; empty where they were not.
struct ResizeOptions {
  std::string width;
  std::string height;
  std::string scale;
  std::string crop;
  std::string filter;
  std::string threads;
};

// Adds the options to `command`, which needs one of those that say a size or a part. `options` has to outlive it.
void addResizeOptions(CLI::App& command, ResizeOptions& options);

// What they ask for, once the command line has been parsed.
ResizeRequest resizeRequestOf(const ResizeOptions& options);

}  // namespace kvtile

#endif
