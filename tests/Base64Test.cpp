#include <gtest/gtest.h>

#include <cctype>
#include <cstddef>
#include <string>

#include "Base64.h"
#include "support/EncryptedDiscovery.h"

namespace test {
namespace {

using velo::ssoService::base64Decode;

TEST(Base64Test, DecodesUpToTheFirstCharacterOutsideTheAlphabet) {
  using namespace std::string_literals;
  const struct {
    std::string text;
    std::string bytes;
  } rows[] = {
      {"", ""},
      {"Zg==", "f"},
      {"Zm8=", "fo"},
      {"Zm9v", "foo"},
      {"Zm9vYg==", "foob"},
      {"Zm9vYmE=", "fooba"},
      {"Zm9vYmFy", "foobar"},
      {"Zg", "f"},
      {"Zm8", "fo"},
      {"Zm9vY", "foo"},
      {"Z", ""},
      {"=", ""},
      {"=Zm9v", ""},
      {"Zm9v=YmFy", "foo"},
      {"Zm9v\nYmFy", "foo"},
      {"Zm9v\r\nYmFy", "foo"},
      {" Zm9v", ""},
      {"Zm9v YmFy", "foo"},
      {"Zm9-YmFy", "fo"},
      {"Zm9_YmFy", "fo"},
      {"Zm9v\0YmFy"s, "foo"},
      {"Zm9v\x80YmFy", "foo"},
      {"Zm9v\xFFYmFy", "foo"},
      {"+/+/", "\xFB\xFF\xBF"},
      {"////", "\xFF\xFF\xFF"},
      {"AAAA", "\0\0\0"s},
      {"!!!!", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(base64Decode(row.text), row.bytes) << row.text;
  }
}

TEST(Base64Test, EveryByteOutsideTheAlphabetEndsTheTextAtEveryPosition) {
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    if (value < 128 && (std::isalnum(value) != 0 || byte == '+' || byte == '/')) {
      continue;
    }
    const std::string text = "Zm9vYmFyZm9v";
    for (std::size_t position = 0; position <= text.size(); ++position) {
      const std::string stopped = text.substr(0, position) + byte + text.substr(position);
      EXPECT_EQ(base64Decode(stopped), base64Decode(text.substr(0, position))) << value << " at " << position;
    }
  }
}

TEST(Base64Test, EveryByteAtEveryPosition) {
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    for (const std::string& bytes : {std::string{byte}, std::string{'x', byte}, std::string{'x', 'y', byte}}) {
      EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes) << value;
    }
  }
}

TEST(Base64Test, LongText) {
  const std::string bytes(1000000, '\xA5');
  EXPECT_TRUE(base64Decode(base64Encode(bytes)) == bytes);
}

}  // namespace
}  // namespace test
