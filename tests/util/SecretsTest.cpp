#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <type_traits>

#include "util/Secrets.h"

namespace {

using velo::ssoService::growWiped;
using velo::ssoService::SecretText;
using velo::ssoService::wipe;

TEST(Secrets, WipeEmptiesTheText) {
  for (const std::size_t length :
       {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{16}, std::size_t{5000}}) {
    std::string text(length, 's');
    wipe(text);
    EXPECT_EQ(text, "") << length;
  }
}

TEST(Secrets, WipeOverwritesTheBytes) {
  std::string text(5000, 's');
  const char* bytes = text.data();
  wipe(text);
  ASSERT_EQ(text.data(), bytes) << "the memory was given away";
  EXPECT_TRUE(std::all_of(bytes, bytes + 5000, [](char byte) { return byte == '\0'; }));
}

/// The memory of an object that is made of a short text, which it keeps in itself, used and destroyed.
template <typename T>
class Grave {
 public:
  template <typename Use>
  Grave(const std::string& text, const Use& use) {
    T* object = new (memory) T(text);
    use(*object);
    object->~T();
  }

  bool holds(const std::string& sought) const {
    return std::search(memory, memory + sizeof memory, sought.begin(), sought.end()) != memory + sizeof memory;
  }

 private:
  alignas(T) char memory[sizeof(T)] = {};
};

TEST(Secrets, WipeOverwritesWhatALongerTextLeftBehind) {
  const auto shorten = [](std::string& text) { text.resize(2); };
  EXPECT_TRUE(Grave<std::string>("secret", shorten).holds("ret")) << "this way of looking sees nothing";
  EXPECT_FALSE(Grave<std::string>("secret", [&](std::string& text) {
                 shorten(text);
                 wipe(text);
               }).holds("ret"));
}

TEST(Secrets, GrowingMakesRoomAndWipesTheOldPlace) {
  const std::string text = "the beginning";
  EXPECT_TRUE(Grave<std::string>(text, [](std::string& growing) { growing.reserve(100); }).holds("nning"))
      << "this way of looking sees nothing";
  EXPECT_FALSE(Grave<std::string>(text, [&](std::string& growing) {
                 growWiped(growing, 100);
                 EXPECT_GE(growing.capacity(), 100U);
                 EXPECT_EQ(growing, text);
               }).holds("nning"));
}

TEST(Secrets, GrowingStepByStepDoublesAndNeverShrinks) {
  std::string text;
  growWiped(text, 1000);
  growWiped(text, 1001);
  EXPECT_GE(text.capacity(), 2000U);
  growWiped(text, 10);
  EXPECT_GE(text.capacity(), 2000U);
}

TEST(Secrets, SecretTextIsWipedWithItsScope) {
  const auto use = [](const auto& secret) { static_cast<void>(secret); };
  EXPECT_TRUE(Grave<std::string>("secret", use).holds("secret")) << "this way of looking sees nothing";
  EXPECT_FALSE(Grave<SecretText>("secret", use).holds("secret"));
  EXPECT_EQ(SecretText("secret").get(), "secret");
}

TEST(Secrets, SecretTextIsNotCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<SecretText>);
  EXPECT_FALSE(std::is_copy_assignable_v<SecretText>);
}

}  // namespace
