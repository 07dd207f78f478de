// Where the systems keep what the workers need.
#pragma once

#include <filesystem>

#include "support/child_process.h"

namespace interprocess {

// The folder of the running test program, where the worker is, too.
std::filesystem::path testFolder();

// The worker's file name extension.
extern const char* const kProgramExtension;

// The user's data folder of a test that has `scratch` to itself.
std::filesystem::path userDataFolder(const std::filesystem::path& scratch);

// What a copy of the worker that stands elsewhere has to find in its environment.
support::ChildProcess::Environment workerEnvironment(const std::filesystem::path& userData);

}  // namespace interprocess
