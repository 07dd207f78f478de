// The host's header-only libraries serve both systems: known answers through the include paths that the library uses.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <string>

namespace {

TEST(BoostTest, MakesNameBasedUuids) {
  // The example of RFC 9562, A.4: version 5, DNS namespace, "www.example.com".
  const boost::uuids::name_generator_sha1 generate(boost::uuids::ns::dns());
  EXPECT_EQ(boost::uuids::to_string(generate("www.example.com")), "2ed6657d-e927-568b-95e1-2665a8aea6a2");
}

TEST(RapidjsonTest, ParsesAndPrints) {
  rapidjson::Document document;
  document.Parse("{\"a\":[1,true]}");
  ASSERT_FALSE(document.HasParseError());
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  document.Accept(writer);
  EXPECT_EQ(std::string(buffer.GetString()), "{\n    \"a\": [\n        1,\n        true\n    ]\n}");
}

}  // namespace
