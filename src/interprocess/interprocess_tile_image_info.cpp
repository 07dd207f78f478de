#include "interprocess/interprocess_tile_image_info.h"

#include "base/log.h"
#include "cache/file_mapping_file_path_helper.h"
#include "interprocess/json_values.h"

namespace interprocess {
namespace {

using rapidjson::Value;

constexpr std::size_t kNumbersOfFile = 3;

// The numbers of a file; nothing if there are not three.
std::optional<InterprocessFileMappingInfo::FileBriefInfo> fileOf(const Value& element) {
  if (!element.IsArray() || element.Size() < kNumbersOfFile) {
    return std::nullopt;
  }
  for (rapidjson::SizeType i = 0; i < kNumbersOfFile; ++i) {
    if (!element[i].IsNumber()) {
      return std::nullopt;
    }
  }
  return InterprocessFileMappingInfo::FileBriefInfo{asUint64(&element[0]), asUint64(&element[1]),
                                                    asUint64(&element[2])};
}

// The member `name` if it is an array, else null.
const Value* findArray(const Value& object, const char* name) {
  const Value* const member = cache::findMember(object, name);
  return member != nullptr && member->IsArray() ? member : nullptr;
}

}  // namespace

void InterprocessFileMappingInfo::addFile(std::uint64_t dirIndex, std::uint64_t fileBytes, std::uint64_t fileNumber) {
  if (dirIndex >= dirList.size()) {
    base::logger().log(ember_logger::error, "[%s] dirIndex is out range,check your code!",
                       "InterprocessFileMappingInfo::addFile");
    return;
  }
  fileBriefInfoList.push_back({dirIndex, fileBytes, fileNumber});
}

std::optional<std::pair<std::wstring, std::uint64_t>> InterprocessFileMappingInfo::getFileDetaiInfo(
    std::uint64_t fileIndex) const {
  constexpr const char* kName = "InterprocessFileMappingInfo::getFileDetaiInfo";
  if (fileIndex >= fileBriefInfoList.size()) {
    base::logger().log(ember_logger::error, "[%s] fileIndex is out range,check your code!", kName);
    return std::nullopt;
  }
  const FileBriefInfo& file = fileBriefInfoList[fileIndex];
  if (file.dirIndex >= dirList.size()) {
    base::logger().log(ember_logger::error, "[%s] dirIndex_ is out range,check your code!", kName);
    return std::nullopt;
  }
  return std::pair(cache::FileMappingFilePathHelper::filePath(dirList[file.dirIndex], prefix, suffix, file.fileNumber),
                   file.fileBytes);
}

void InterprocessFileMappingInfo::serialize(Value& object, rapidjson::Document::AllocatorType& allocator) const {
  Value folders(rapidjson::kArrayType);
  for (const std::wstring& folder : dirList) {
    folders.PushBack(textValue(folder, allocator), allocator);
  }
  Value files(rapidjson::kArrayType);
  for (const FileBriefInfo& file : fileBriefInfoList) {
    Value numbers(rapidjson::kArrayType);
    numbers.PushBack(file.dirIndex, allocator).PushBack(file.fileBytes, allocator).PushBack(file.fileNumber, allocator);
    files.PushBack(numbers, allocator);
  }
  object.SetObject();
  object.AddMember("dirList", folders, allocator);
  object.AddMember("prefix", textValue(prefix, allocator), allocator);
  object.AddMember("suffix", textValue(suffix, allocator), allocator);
  object.AddMember("blocksPerFile", blocksPerFile, allocator);
  object.AddMember("fileBriefInfoList", files, allocator);
}

bool InterprocessFileMappingInfo::unserialize(const Value& object) {
  const Value* const folders = findArray(object, "dirList");
  if (folders == nullptr) {
    return false;
  }
  dirList.clear();
  for (rapidjson::SizeType i = 0; i < folders->Size(); ++i) {
    dirList.push_back(asText(&(*folders)[i]));
  }
  prefix = asText(cache::findMember(object, "prefix"));
  suffix = asText(cache::findMember(object, "suffix"));
  blocksPerFile = asUint64(cache::findMember(object, "blocksPerFile"));
  const Value* const files = findArray(object, "fileBriefInfoList");
  if (files == nullptr) {
    return false;
  }
  fileBriefInfoList.reserve(fileBriefInfoList.size() + files->Size());
  for (rapidjson::SizeType i = 0; i < files->Size(); ++i) {
    const auto file = fileOf((*files)[i]);
    if (!file) {
      return false;
    }
    fileBriefInfoList.push_back(*file);
  }
  return true;
}

}  // namespace interprocess
