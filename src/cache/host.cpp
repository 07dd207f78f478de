#include "cache/host.h"

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <filesystem>

#include "platform/paths.h"
#include "platform/program_name.h"

namespace cache {
namespace {

constexpr const wchar_t* kHostCacheRoot = L"KvTileImageFileMappingCaches/";

}  // namespace

std::wstring dataFolder(const std::wstring& userData) { return userData + L"Korvane/KvTileImage/"; }

Host Host::current() { return {platform::executablePath(), platform::localDataFolder()}; }

Host::Host(std::wstring executable, const std::wstring& userData)
    : executable_(std::move(executable)), dataFolder_(cache::dataFolder(userData)) {
  const std::wstring folder = executable_.substr(0, executable_.rfind(L'/') + 1);
  std::error_code unknown;
  // Another user of the same program may have made the folder there for himself.
  const bool ours = platform::mayHoldHostFiles(folder) &&
                    (!std::filesystem::exists(platform::filesystemPath(folder + kHostCacheRoot), unknown) ||
                     platform::mayHoldHostFiles(folder + kHostCacheRoot));
  hostFolder_ = ours ? folder : dataFolder_;
}

// Programs look for these names as they are spelled.
std::wstring Host::configurationFile() const { return dataFolder_ + L"KvTileImage_FileMapingConfig.json"; }

std::wstring Host::hostCacheRoot() const { return hostFolder_ + kHostCacheRoot; }

std::wstring Host::executableName() const { return executable_.substr(executable_.rfind(L'/') + 1); }

std::wstring Host::tag() const {
  const boost::uuids::name_generator_sha1 generator(boost::uuids::ns::dns());
  const std::wstring name = executableName();
  return std::wstring(platform::programStem(name)) + L'_' + boost::uuids::to_wstring(generator(executable_));
}

std::wstring Host::cleanUpLockFile() const { return hostCacheRoot() + tag() + L".filelock"; }

}  // namespace cache
