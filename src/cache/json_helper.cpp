#include "cache/json_helper.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <exception>
#include <optional>

#include "base/log.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/utf8.h"

namespace cache {
namespace {

using platform::shownUtf8;
using rapidjson::StringBuffer;

constexpr const char* kRead = "JsonHelper::read";
constexpr const char* kWrite = "JsonHelper::write";
constexpr unsigned kIndent = 4;

// A document takes several times as much memory as its text. The largest that the library writes, the descriptor of an
// image of some 800,000 tiles, is smaller.
constexpr std::size_t kMostBytes = std::size_t{16} << 20;

bool refuseEmpty(const std::wstring& path, const char* function) {
  if (!path.empty()) {
    return false;
  }
  base::logger().log(ember_logger::error, "[%s] jsonFilePath is empty!", function);
  return true;
}

// Logs a failure whose format takes the function's name and the path.
void logFailure(const char* format, const char* function, const std::wstring& path) {
  base::logger().log(ember_logger::error, format, function, shownUtf8(path).c_str());
}

// The text of a file; nothing if it is larger than any that is read here.
std::optional<std::string> readAll(std::FILE* stream) {
  std::string text;
  std::array<char, 4096> part{};
  while (const std::size_t count = std::fread(part.data(), 1, part.size(), stream)) {
    text.append(part.data(), count);
    if (text.size() > kMostBytes) {
      return std::nullopt;
    }
  }
  return text;
}

bool serialize(const rapidjson::Value& value, bool pretty, StringBuffer& buffer) {
  if (pretty) {
    rapidjson::PrettyWriter<StringBuffer> writer(buffer);
    writer.SetIndent(' ', kIndent);
    return value.Accept(writer);
  }
  rapidjson::Writer<StringBuffer> writer(buffer);
  return value.Accept(writer);
}

bool readDocument(const std::wstring& path, rapidjson::Document& document) {
  const platform::Stream stream = platform::openTextForReading(path);
  if (stream == nullptr) {
    logFailure("[%s] jsonFilePath:%s open failed!", kRead, path);
    return false;
  }
  const auto text = readAll(stream.get());
  if (!text) {
    base::logger().log(ember_logger::error, "[%s] %s is larger than %llu bytes and no file of this library", kRead,
                       shownUtf8(path).c_str(), base::ull{kMostBytes});
  } else {
    // Without recursion: a hostile file's brackets would use up the stack.
    document.Parse<rapidjson::kParseIterativeFlag>(text->data(), text->size());
  }
  if (!text || document.HasParseError()) {
    logFailure("[%s] jsonFilePath:%s parse failed!", kRead, path);
    return false;
  }
  return true;
}

bool writeDocument(const std::wstring& path, const rapidjson::Value& value, bool pretty) {
  StringBuffer buffer;
  if (!serialize(value, pretty, buffer)) {
    base::logger().log(ember_logger::error, "[%s] json serialization failed!", kWrite);
    return false;
  }
  const std::wstring folder = platform::widePath(platform::filesystemPath(path).parent_path());
  if (!folder.empty() && platform::createFolders(folder)) {
    logFailure("[%s] dir create failed [jsonFilePath:%s]!", kWrite, path);
    return false;
  }
  if (!platform::writeText(path, {buffer.GetString(), buffer.GetSize()})) {
    logFailure("[%s] jsonFilePath:%s create failed!", kWrite, path);
    return false;
  }
  return true;
}

}  // namespace

bool JsonHelper::read(const std::wstring& path, rapidjson::Document& document) {
  if (refuseEmpty(path, kRead)) {
    return false;
  }
  try {
    return readDocument(path, document);
  } catch (const std::exception&) {  // no memory, or a path that is no text
    logFailure("[%s] jsonFilePath:%s open failed!", kRead, path);
    return false;
  }
}

bool JsonHelper::write(const std::wstring& path, const rapidjson::Value& value, bool pretty) {
  if (refuseEmpty(path, kWrite)) {
    return false;
  }
  try {
    return writeDocument(path, value, pretty);
  } catch (const std::exception&) {
    logFailure("[%s] jsonFilePath:%s create failed!", kWrite, path);
    return false;
  }
}

const rapidjson::Value* findMember(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) {
    return nullptr;
  }
  const auto member = object.FindMember(name);
  return member == object.MemberEnd() ? nullptr : &member->value;
}

}  // namespace cache
