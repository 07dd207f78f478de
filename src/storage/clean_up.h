// What is done once in a process before its first image.
#pragma once

#include <memory>

#include "cache/file_mapping_dir_helper.h"

namespace storage {

// The cache folders of this program. Backing files that other processes share are left alone when dead processes' files
// are removed from them. Throws a std::exception that tells the reason if they cannot be had.
std::shared_ptr<cache::FileMappingDirHelper> cacheFolders();

// Removes what dead processes left, of their backing files and of the images that they shared, on the first call.
// Problems are logged.
void cleanUpOnce();

}  // namespace storage
