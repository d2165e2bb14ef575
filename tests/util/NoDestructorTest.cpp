#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "util/NoDestructor.h"

namespace {

using velo::ssoService::NoDestructor;

struct Counted {
  Counted(int& destructions, std::unique_ptr<int> argument, std::string given)
      : destroyed(destructions), number(std::move(argument)), text(std::move(given)) {}
  ~Counted() { ++destroyed; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

  int& destroyed;
  std::unique_ptr<int> number;
  std::string text;
};

TEST(NoDestructor, GivesItsArgumentsOnAndNeverDestroys) {
  int destroyed = 0;
  {
    NoDestructor<Counted> kept(destroyed, std::make_unique<int>(7), "text");
    EXPECT_EQ(*kept->number, 7);
    EXPECT_EQ((*kept).text, "text");
    EXPECT_EQ(kept.get(), &*kept);
    kept->~Counted();  // by hand, so that nothing leaks from the test
    EXPECT_EQ(destroyed, 1);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(NoDestructor, AlignsItsObject) {
  struct alignas(64) Aligned {
    char byte = 'x';
  };
  NoDestructor<Aligned> kept;
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(kept.get()) % 64, 0U);
  EXPECT_EQ(kept->byte, 'x');
}

}  // namespace
