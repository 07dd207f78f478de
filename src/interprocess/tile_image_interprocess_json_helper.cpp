#include "interprocess/tile_image_interprocess_json_helper.h"

#include <exception>

#include "base/log.h"
#include "cache/json_helper.h"
#include "interprocess/json_values.h"
#include "platform/utf8.h"

namespace interprocess {
namespace {

using base::fail;
using cache::findMember;
using cache::JsonHelper;
using rapidjson::Document;
using rapidjson::Value;

constexpr const char* kSerialize = "TileImageInterprocessJsonHelper::serialize";
constexpr const char* kUnserialize = "TileImageInterprocessJsonHelper::unserialize";

Value metaValue(Document::AllocatorType& allocator) {
  Value meta(rapidjson::kObjectType);
  meta.AddMember("mainVersion", 1, allocator);
  meta.AddMember("subVersion", 0, allocator);
  meta.AddMember("type", "InterprocessTileImageInfo", allocator);
  return meta;
}

Value imageValue(const InterprocessTileImageInfo& info, Document::AllocatorType& allocator) {
  Value image(rapidjson::kObjectType);
  image.AddMember("width", info.width, allocator);
  image.AddMember("height", info.height, allocator);
  image.AddMember("samplesPerPixel", info.samplesPerPixel, allocator);
  image.AddMember("bitsPerSample", info.bitsPerSample, allocator);
  image.AddMember("sampleformat", info.sampleformat, allocator);
  image.AddMember("scanlineOperation", info.scanlineOperation, allocator);
  image.AddMember("tileBaseWidth", info.tileBaseWidth, allocator);
  image.AddMember("tileBaseHeight", info.tileBaseHeight, allocator);
  image.AddMember("tileRowCount", info.tileRowCount, allocator);
  image.AddMember("tileColCount", info.tileColCount, allocator);
  return image;
}

void readImage(const Value& image, InterprocessTileImageInfo& info) {
  info.width = asUint32(findMember(image, "width"));
  info.height = asUint32(findMember(image, "height"));
  info.samplesPerPixel = asUint32(findMember(image, "samplesPerPixel"));
  info.bitsPerSample = asUint32(findMember(image, "bitsPerSample"));
  info.sampleformat = asInt32(findMember(image, "sampleformat"));
  info.scanlineOperation = asInt32(findMember(image, "scanlineOperation"));
  info.tileBaseWidth = asUint64(findMember(image, "tileBaseWidth"));
  info.tileBaseHeight = asUint64(findMember(image, "tileBaseHeight"));
  info.tileRowCount = asUint64(findMember(image, "tileRowCount"));
  info.tileColCount = asUint64(findMember(image, "tileColCount"));
}

}  // namespace

TileImageInterprocessJsonHelper::TileImageInterprocessJsonHelper(std::wstring interprocessTileImageId,
                                                                 const SharedImageFiles& files)
    : interprocessTileImageId_(std::move(interprocessTileImageId)),
      interprocessIdJsonFilePath_(files.descriptor(interprocessTileImageId_)) {}

bool TileImageInterprocessJsonHelper::serialize(const InterprocessTileImageInfo& info) const {
  try {
    return write(info);
  } catch (const std::exception&) {  // no memory, or a folder's name that is no text
    return fail("[%s] serialize InterprocessFileMappingInfo failed", kSerialize);
  }
}

bool TileImageInterprocessJsonHelper::write(const InterprocessTileImageInfo& info) const {
  if (info.interprocessFileMappingInfo == nullptr) {
    return fail("[%s] serialize InterprocessFileMappingInfo failed", kSerialize);
  }
  Document root(rapidjson::kObjectType);
  auto& allocator = root.GetAllocator();
  Value files;
  info.interprocessFileMappingInfo->serialize(files, allocator);
  Value image = imageValue(info, allocator);
  image.AddMember("interprocessFileMappingInfo", files, allocator);
  Value desc(rapidjson::kObjectType);
  desc.AddMember("interprocessTileImageInfo", image, allocator);
  root.AddMember("meta", metaValue(allocator), allocator);
  root.AddMember("desc", desc, allocator);
  return JsonHelper::write(interprocessIdJsonFilePath_, root, false) || fail("[%s] json write failed", kSerialize);
}

bool TileImageInterprocessJsonHelper::unserialize(InterprocessTileImageInfo& info, bool briefOnly) const {
  try {
    return read(info, briefOnly);
  } catch (const std::exception&) {  // no memory, or text that is not UTF-8
    return fail("[%s] unserialize InterprocessFileMappingInfo failed", kUnserialize);
  }
}

bool TileImageInterprocessJsonHelper::read(InterprocessTileImageInfo& info, bool briefOnly) const {
  Document root;
  if (!JsonHelper::read(interprocessIdJsonFilePath_, root)) {
    return fail("[%s] json read failed", kUnserialize);
  }
  // "meta" tells the version; any will do.
  const Value* const desc = findMember(root, "desc");
  if (desc == nullptr) {
    return false;
  }
  const Value missing;
  const Value* const found = findMember(*desc, "interprocessTileImageInfo");
  const Value& image = found != nullptr ? *found : missing;
  readImage(image, info);
  if (briefOnly) {
    return true;
  }
  const Value* const files = findMember(image, "interprocessFileMappingInfo");
  return info.interprocessFileMappingInfo->unserialize(files != nullptr ? *files : missing) ||
         fail("[%s] unserialize InterprocessFileMappingInfo failed", kUnserialize);
}

}  // namespace interprocess
