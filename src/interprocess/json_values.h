// Values of a JSON document that someone else may have written.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>

#include "cache/json_helper.h"
#include "platform/utf8.h"

namespace interprocess {

// `value`, or 0 if it is missing, no number, or a number that the type cannot hold.
inline std::uint64_t asUint64(const rapidjson::Value* value) {
  return value != nullptr && value->IsUint64() ? value->GetUint64() : 0;
}
inline std::uint32_t asUint32(const rapidjson::Value* value) {
  return value != nullptr && value->IsUint() ? value->GetUint() : 0;
}
inline std::int32_t asInt32(const rapidjson::Value* value) {
  return value != nullptr && value->IsInt() ? value->GetInt() : 0;
}

// `value`, or an empty text if it is missing or no text. Throws std::range_error if it is not UTF-8.
inline std::wstring asText(const rapidjson::Value* value) {
  return value != nullptr && value->IsString() ? platform::fromUtf8({value->GetString(), value->GetStringLength()})
                                               : std::wstring();
}

// `text` in UTF-8. Throws std::range_error if it is not well-formed.
inline rapidjson::Value textValue(const std::wstring& text, rapidjson::Document::AllocatorType& allocator) {
  const std::string utf8 = platform::toUtf8(text);
  return rapidjson::Value(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()), allocator);
}

}  // namespace interprocess
