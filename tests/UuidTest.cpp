#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Uuid.h"
#include "support/UuidForm.h"

namespace test {
namespace {

using velo::ssoService::generateRandomUuid;
using velo::ssoService::Uuid;
using velo::ssoService::uuidToString;

TEST(UuidTest, TextHasTheHighHalfFirst) {
  const struct {
    Uuid uuid;
    const char* text;
  } rows[] = {
      {{0, 0}, "00000000-0000-0000-0000-000000000000"},
      {{0x0123456789ABCDEF, 0xFEDCBA9876543210}, "01234567-89ab-cdef-fedc-ba9876543210"},
      {{0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF}, "ffffffff-ffff-ffff-ffff-ffffffffffff"},
      {{1, 0}, "00000000-0000-0001-0000-000000000000"},
      {{0, 1}, "00000000-0000-0000-0000-000000000001"},
      {{0x8000000000000000, 0x8000000000000000}, "80000000-0000-0000-8000-000000000000"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(uuidToString(row.uuid), row.text);
  }
}

TEST(UuidTest, RandomOnesAreOfVersion4AndTheRfc4122Variant) {
  for (int count = 0; count < 1000; ++count) {
    const Uuid uuid = generateRandomUuid();
    EXPECT_EQ((uuid.high >> 12U) & 0xFU, 4U) << uuidToString(uuid);
    EXPECT_EQ(uuid.low >> 62U, 2U) << uuidToString(uuid);
  }
}

TEST(UuidTest, TextsOfRandomOnesHaveTheForm) {
  for (int count = 0; count < 1000; ++count) {
    EXPECT_THAT(uuidToString(generateRandomUuid()),
                testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  }
}

TEST(UuidTest, AllOtherBitsOfRandomOnesVary) {
  Uuid everSet;
  Uuid everClear;
  for (int count = 0; count < 200; ++count) {
    const Uuid uuid = generateRandomUuid();
    everSet = {everSet.high | uuid.high, everSet.low | uuid.low};
    everClear = {everClear.high | ~uuid.high, everClear.low | ~uuid.low};
  }
  EXPECT_EQ(everSet.high & everClear.high, 0xFFFFFFFFFFFF0FFFU);
  EXPECT_EQ(everSet.low & everClear.low, 0x3FFFFFFFFFFFFFFFU);
}

TEST(UuidTest, RandomOnesDiffer) {
  std::set<std::string> texts;
  for (int count = 0; count < 1000; ++count) {
    texts.insert(uuidToString(generateRandomUuid()));
  }
  EXPECT_EQ(texts.size(), 1000U);
}

}  // namespace
}  // namespace test
