#include "platform/win_interprocess.h"

#include <limits>

#include "platform/mapped_files.h"
#include "platform/system_info.h"

namespace win_interprocess {
namespace {

bool isMode(std::uint32_t mode) { return mode <= kCopyOnWrite; }

}  // namespace

file_mapping::file_mapping(const std::string& fileName, std::uint32_t mode) : fileName_(fileName), mode_(mode) {
  if (fileName.empty()) {
    throw interprocess_exception("fileName is empty");
  }
  if (!isMode(mode)) {
    throw interprocess_exception("invalid file_mapping mode");
  }
  platform::OpenMapping opened = platform::openMapping(fileName, mode);
  fileHandle_ = std::move(opened.file);
  mappingHandle_ = std::move(opened.mapping);
  size_ = opened.size;
}

mapped_region::mapped_region(const file_mapping& mapping, std::uint32_t mode, std::uint64_t offset, std::uint64_t size)
    : mode_(mode), fileName_(mapping.name()) {
  if (!isMode(mode)) {
    throw interprocess_exception("invalid mapped_region mode");
  }
  pageOffset_ = offset % platform::allocationGranularity();
  size_ = size;
  if (size == 0) {
    const auto fileSize = static_cast<std::uint64_t>(mapping.size());
    if (fileSize < offset) {
      throw interprocess_exception("num overflow");
    }
    size_ = fileSize - offset;
  }
  if (size_ > std::numeric_limits<std::uint64_t>::max() - pageOffset_) {
    throw interprocess_exception("map_view_of_file_ex failed");
  }
  viewStart_ = offset - pageOffset_;
  address_ = platform::mapView(mapping.mapping_handle(), mode, viewStart_, size_ + pageOffset_) + pageOffset_;
  fileHandle_ = mapping.file_handle();
}

mapped_region::~mapped_region() {
  if (address_ != nullptr) {
    platform::unmapView(address_ - pageOffset_, size_ + pageOffset_);
  }
}

void mapped_region::flush() const noexcept {
  platform::flushView(fileHandle_, address_ - pageOffset_, viewStart_, size_ + pageOffset_);
}

}  // namespace win_interprocess
