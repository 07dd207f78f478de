#include "cache/file_mapping_dir_helper.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>

#include "base/log.h"
#include "cache/file_mapping_file_path_helper.h"
#include "cache/json_helper.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/program_name.h"
#include "platform/utf8.h"
#include "platform/volumes.h"

namespace cache {
namespace {

using platform::shownUtf8;

constexpr const char* kClearRubbish = "FileMappingDirHelper::clearRubbish";
constexpr const char* kGetFromConfig = "FileMappingDirHelper::getFromConfigW";
constexpr const char* kInitRootDirList = "FileMappingDirHelper::initRootDirList";
constexpr std::uint64_t kRoomToLeave = std::uint64_t{1} << 30;

// Consecutive files of all images of the process go to successive folders.
std::atomic<std::uint64_t> nextTurn{0};

template <class... Arguments>
void logTrace(const char* format, Arguments... arguments) {
  base::logger().log(ember_logger::trace, format, kClearRubbish, arguments...);
}

std::wstring withSlash(const std::wstring& folder) {
  return folder.ends_with(L'/') || folder.ends_with(L'\\') ? folder : folder + L'/';
}

// A root that is relative means the folder that it names now, wherever the program goes later.
std::wstring settled(const std::wstring& root) {
  const std::filesystem::path path = platform::filesystemPath(root);
  const bool relative = !path.has_root_name() && !path.has_root_directory();
  return relative ? platform::widePath(std::filesystem::absolute(path)) : root;
}

// The entry's path if it is a backing file.
std::optional<std::wstring> backingFile(const std::filesystem::directory_entry& entry) {
  try {
    std::error_code unknown;
    const bool found = platform::sameIgnoringCase(platform::widePath(entry.path().extension()),
                                                  FileMappingFilePathHelper::kExtension) &&
                       std::filesystem::is_regular_file(entry.symlink_status(unknown));
    return found ? std::optional(platform::widePath(entry.path())) : std::nullopt;
  } catch (const std::range_error&) {  // a name that is no text is none of ours
    return std::nullopt;
  }
}

rapidjson::Document defaultConfiguration() {
  using rapidjson::Value;
  rapidjson::Document document(rapidjson::kObjectType);
  auto& allocator = document.GetAllocator();
  Value meta(rapidjson::kObjectType);
  meta.AddMember("mainVersion", 1, allocator);
  meta.AddMember("subVersion", 0, allocator);
  meta.AddMember("type", "FileMapingConfig", allocator);
  Value roots(rapidjson::kArrayType);
  roots.PushBack("", allocator).PushBack("", allocator).PushBack("", allocator);
  Value desc(rapidjson::kObjectType);
  desc.AddMember("rootDirList", roots, allocator);
  desc.AddMember("bAlternateUseDisk", true, allocator);
  document.AddMember("meta", meta, allocator);
  document.AddMember("desc", desc, allocator);
  return document;
}

std::vector<std::wstring> configuredRoots(const rapidjson::Value& list, const std::wstring& configuration) {
  std::vector<std::wstring> roots;
  try {
    for (const auto& element : list.GetArray()) {
      if (element.IsString() && element.GetStringLength() > 0) {
        roots.push_back(platform::fromUtf8({element.GetString(), element.GetStringLength()}));
      }
    }
  } catch (const std::range_error& error) {
    throw std::range_error("a folder in " + shownUtf8(configuration) + " is " + error.what());
  }
  return roots;
}

}  // namespace

std::shared_ptr<FileMappingDirHelper> FileMappingDirHelper::instance(FindFileUsers findUsers) {
  using Shared = std::shared_ptr<FileMappingDirHelper>;
  static const Shared& helper = *new Shared(std::make_shared<FileMappingDirHelper>(Host::current(), findUsers));
  return helper;
}

FileMappingDirHelper::FileMappingDirHelper(Host host, FindFileUsers findUsers)
    : host_(std::move(host)), findUsers_(findUsers) {
  if (!initRootDirList()) {
    base::logger().log(ember_logger::error, "[%s] init failed", "FileMappingDirHelper::FileMappingDirHelper");
  }
  clearRubbish();
}

bool FileMappingDirHelper::getFromConfigW(std::vector<std::wstring>& list, bool& bAlternateUseDisk) const {
  list.clear();
  bAlternateUseDisk = true;
  const std::wstring path = host_.configurationFile();
  std::error_code unknown;
  if (!std::filesystem::exists(platform::filesystemPath(path), unknown)) {
    if (!JsonHelper::write(path, defaultConfiguration(), true)) {
      base::logger().log(ember_logger::error, "[%s] json write failed", kGetFromConfig);
      return false;
    }
    return true;
  }
  rapidjson::Document document;
  if (!JsonHelper::read(path, document)) {
    base::logger().log(ember_logger::error, "[%s] json read failed", kGetFromConfig);
    return false;
  }
  // "meta" tells the version; any will do.
  const rapidjson::Value* const desc = findMember(document, "desc");
  if (desc == nullptr) {
    return false;
  }
  if (const auto* roots = findMember(*desc, "rootDirList"); roots != nullptr && roots->IsArray()) {
    list = configuredRoots(*roots, path);
  }
  if (const auto* alternate = findMember(*desc, "bAlternateUseDisk")) {
    bAlternateUseDisk = alternate->IsTrue();
  }
  return true;
}

std::vector<std::wstring> FileMappingDirHelper::defaultRoots() const {
  return {host_.dataFolder() + L"caches/", host_.hostCacheRoot()};
}

bool FileMappingDirHelper::initRootDirList() {
  std::vector<std::wstring> roots;
  getFromConfigW(roots, bAlternateUseDisk_);  // what it could not read shows as an empty list
  const bool configured = !roots.empty();
  if (!configured) {
    roots = defaultRoots();
  }
  rootDirList_.clear();
  std::set<std::wstring> drives;
  std::vector<std::string> leftOut;
  for (const std::wstring& candidate : roots) {
    const std::wstring root = settled(candidate);
    const std::wstring drive = platform::driveKey(root);
    if (drives.contains(drive)) {
      continue;
    }
    const std::wstring folder = withSlash(root) + host_.tag() + L'/';
    if (const std::error_code error = platform::createFolders(folder); !error) {
      drives.insert(drive);
      rootDirList_.push_back(folder);
    } else if (configured) {
      // What the user asked for has to work; a default folder may lie where this user must not write.
      throw std::filesystem::filesystem_error("create_directories(p): invalid argument",
                                              platform::filesystemPath(folder), error);
    } else {
      leftOut.push_back(shownUtf8(folder) + " cannot be made and is left out: " + error.message());
    }
  }
  for (const std::string& reason : leftOut) {
    base::logger().log(rootDirList_.empty() ? ember_logger::error : ember_logger::warning, "[%s] %s", kInitRootDirList,
                       reason.c_str());
  }
  if (rootDirList_.empty()) {
    base::logger().log(ember_logger::error, "[%s] rootDirList is empty", kInitRootDirList);
    return false;
  }
  return true;
}

bool FileMappingDirHelper::hasRoom(std::size_t index, std::uint64_t fileBytes) const {
  const std::uint64_t available = platform::fixedDriveFreeBytes(rootDirList_[index]);
  return available >= kRoomToLeave && available - kRoomToLeave >= fileBytes;
}

std::int64_t FileMappingDirHelper::getSuitableRootDirIndex(std::uint64_t fileBytes) const {
  const std::size_t count = rootDirList_.size();
  if (count == 1) {
    return 0;
  }
  const std::uint64_t first = bAlternateUseDisk_ && count > 0 ? nextTurn++ % count : 0;
  for (std::size_t step = 0; step < count; ++step) {
    const std::size_t index = (first + step) % count;
    if (hasRoom(index, fileBytes)) {
      return static_cast<std::int64_t>(index);
    }
  }
  base::logger().log(ember_logger::error, "[%s] not find suitable dir",
                     "FileMappingDirHelper::getSuitableRootDirIndex");
  return -1;
}

std::wstring FileMappingDirHelper::rootDir(std::int64_t index) const {
  const bool inside = index >= 0 && static_cast<std::uint64_t>(index) < rootDirList_.size();
  return inside ? rootDirList_[static_cast<std::size_t>(index)] : std::wstring();
}

bool FileMappingDirHelper::lockForCleanUp() {
  const std::wstring path = host_.cleanUpLockFile();
  if (platform::createFolders(host_.hostCacheRoot())) {
    base::logger().log(ember_logger::error, "[%s] createDirWithFilePath failed:%s!", kClearRubbish,
                       shownUtf8(path).c_str());
    return false;
  }
  lockFile_ = platform::openLockFile(path);
  logTrace(lockFile_ == nullptr ? "[%s] not clear cache!" : "[%s] need to clear cache!");
  return lockFile_ != nullptr;
}

std::vector<std::wstring> FileMappingDirHelper::backingFiles() const {
  std::vector<std::wstring> files;
  for (const std::wstring& folder : rootDirList_) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(platform::filesystemPath(folder), error), end;
         !error && entry != end; entry.increment(error)) {
      if (const auto file = backingFile(*entry)) {
        files.push_back(*file);
      }
    }
  }
  return files;
}

void FileMappingDirHelper::clearRubbish() {
  const std::lock_guard lock(mutex_);
  if (cleared_) {
    return;
  }
  cleared_ = true;
  try {
    logTrace("[%s] clear rubbish");
    if (lockForCleanUp()) {
      removeLeftovers();
    }
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::warning, "[%s] ended early: %s", kClearRubbish, exception.what());
  }
}

void FileMappingDirHelper::removeLeftovers() const {
  const std::vector<std::wstring> files = backingFiles();
  std::set<std::int32_t> ids;
  for (const std::wstring& file : files) {
    if (const auto id = FileMappingFilePathHelper::processIdOf(file)) {
      ids.insert(*id);
    }
  }
  logTrace("[%s] isProcessesExisted begin ----------------!");
  const std::set<std::int32_t> alive = platform::runningProcesses(ids, host_.executableName());
  logTrace("[%s] isProcessesExisted end ----------------!");
  const auto users = findUsers_ != nullptr ? findUsers_() : nullptr;
  for (const std::wstring& file : files) {
    const auto id = FileMappingFilePathHelper::processIdOf(file);
    if (id && alive.contains(*id)) {
      logTrace("[%s] pid:%d is alive ----------------!", *id);
      continue;
    }
    logTrace(id ? "[%s] pid:%d is dead ----------------!" : "[%s] pid:%d invalid fileMapping path ----------------!",
             id.value_or(0));
    const bool removed = (users == nullptr || !users->use(file)) && platform::removeUnlessInUse(file);
    logTrace(removed ? "[%s] file:%s is removed!" : "[%s] file:%s is being used by other process!",
             shownUtf8(file).c_str());
  }
}

}  // namespace cache
