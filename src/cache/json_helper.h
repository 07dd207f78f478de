// JSON documents in files.
#pragma once

#include <rapidjson/document.h>

#include <string>

namespace cache {

// Moves whole documents between files and memory. Failures are logged and never thrown. Any thread may call it; other
// processes do not read a file while it is being written, and that is all they are kept from.
class JsonHelper {
 public:
  // Fills `document` from the UTF-8 file at `path`; the caller checks its shape. False, with a logged reason, if the
  // file cannot be opened or is no JSON.
  static bool read(const std::wstring& path, rapidjson::Document& document);

  // Writes `value` to `path` in place of what was there: compact, or with `pretty` in lines indented by 4 spaces. Makes
  // missing folders. False, with a logged reason, if the value cannot be written as JSON or the file not be made.
  static bool write(const std::wstring& path, const rapidjson::Value& value, bool pretty);
};

// The member `name` of `object`; null if there is none, or `object` is none.
const rapidjson::Value* findMember(const rapidjson::Value& object, const char* name);

}  // namespace cache
