// The configuration file that the library writes where there is none.
#pragma once

namespace support {

inline constexpr const char* kDefaultConfiguration =
    "{\n"
    "    \"meta\": {\n"
    "        \"mainVersion\": 1,\n"
    "        \"subVersion\": 0,\n"
    "        \"type\": \"FileMapingConfig\"\n"
    "    },\n"
    "    \"desc\": {\n"
    "        \"rootDirList\": [\n"
    "            \"\",\n"
    "            \"\",\n"
    "            \"\"\n"
    "        ],\n"
    "        \"bAlternateUseDisk\": true\n"
    "    }\n"
    "}";

}  // namespace support
