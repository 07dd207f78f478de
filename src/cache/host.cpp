#include "cache/host.h"

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "platform/paths.h"
#include "platform/program_name.h"

namespace cache {

Host Host::current() { return {platform::executablePath(), platform::localDataFolder()}; }

Host::Host(std::wstring executable, const std::wstring& userData)
    : executable_(std::move(executable)), dataFolder_(userData + L"Korvane/KvTileImage/") {
  const std::wstring folder = executable_.substr(0, executable_.rfind(L'/') + 1);
  hostFolder_ = platform::mayHoldHostFiles(folder) ? folder : dataFolder_;
}

// Programs look for these names as they are spelled.
std::wstring Host::configurationFile() const { return dataFolder_ + L"KvTileImage_FileMapingConfig.json"; }

std::wstring Host::hostCacheRoot() const { return hostFolder_ + L"KvTileImageFileMappingCaches/"; }

std::wstring Host::executableName() const { return executable_.substr(executable_.rfind(L'/') + 1); }

std::wstring Host::tag() const {
  const boost::uuids::name_generator_sha1 generator(boost::uuids::ns::dns());
  const std::wstring name = executableName();
  return std::wstring(platform::programStem(name)) + L'_' + boost::uuids::to_wstring(generator(executable_));
}

std::wstring Host::cleanUpLockFile() const { return hostCacheRoot() + tag() + L".filelock"; }

}  // namespace cache
