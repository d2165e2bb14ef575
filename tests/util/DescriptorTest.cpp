#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <type_traits>
#include <utility>

#include "support/ChildProcess.h"
#include "support/OpenDescriptors.h"
#include "util/Descriptor.h"

namespace {

using velo::ssoService::Descriptor;

int openNull() {
  return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool isOpen(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

TEST(Descriptor, IsNoneUntilGivenOne) {
  const Descriptor none;
  EXPECT_FALSE(none.isOpen());
  EXPECT_EQ(none.get(), -1);
}

TEST(Descriptor, ClosesWhatItOwns) {
  const test::OpenDescriptors before;
  int raw = Descriptor::NONE;
  {
    const Descriptor owner(openNull());
    raw = owner.get();
    EXPECT_TRUE(owner.isOpen());
    EXPECT_TRUE(isOpen(raw));
  }
  EXPECT_FALSE(isOpen(raw));
  EXPECT_TRUE(before.areAsBefore());
}

TEST(Descriptor, ZeroIsADescriptor) {
  EXPECT_EQ(test::runInChild([] {
              ::close(STDIN_FILENO);
              {
                const Descriptor owner(openNull());
                EXPECT_EQ(owner.get(), 0);
                EXPECT_TRUE(owner.isOpen());
              }
              EXPECT_FALSE(isOpen(0));
            }),
            0);
}

TEST(Descriptor, ReleaseGivesItUp) {
  int raw = Descriptor::NONE;
  {
    Descriptor owner(openNull());
    raw = owner.release();
    EXPECT_FALSE(owner.isOpen());
  }
  EXPECT_TRUE(isOpen(raw));
  ::close(raw);
}

TEST(Descriptor, ResetClosesTheOldOne) {
  Descriptor owner(openNull());
  const int first = owner.get();
  const int second = openNull();
  owner.reset(second);
  EXPECT_FALSE(isOpen(first));
  EXPECT_EQ(owner.get(), second);
  owner.reset();
  EXPECT_FALSE(isOpen(second));
  EXPECT_FALSE(owner.isOpen());
}

TEST(Descriptor, ResetToTheSameKeepsItOpen) {
  Descriptor owner(openNull());
  owner.reset(owner.get());
  EXPECT_TRUE(isOpen(owner.get()));
}

TEST(Descriptor, MovesLeaveNoneBehind) {
  EXPECT_FALSE(std::is_copy_constructible_v<Descriptor>);
  EXPECT_FALSE(std::is_copy_assignable_v<Descriptor>);
  Descriptor first(openNull());
  const int raw = first.get();
  Descriptor second(std::move(first));
  EXPECT_EQ(second.get(), raw);
  Descriptor third(openNull());
  const int replaced = third.get();
  third = std::move(second);
  EXPECT_EQ(third.get(), raw);
  EXPECT_FALSE(isOpen(replaced));
  EXPECT_TRUE(isOpen(raw));
}

TEST(StandardDescriptors, MissingOnesAreOccupied) {
  EXPECT_EQ(test::runInChild([] {
              for (const int missing : {STDIN_FILENO, STDERR_FILENO}) {
                ::close(missing);
              }
              velo::ssoService::occupyStandardDescriptors();
              EXPECT_TRUE(isOpen(STDIN_FILENO));
              EXPECT_TRUE(isOpen(STDERR_FILENO));
              EXPECT_GT(Descriptor(openNull()).get(), STDERR_FILENO);
            }),
            0);
}

TEST(StandardDescriptors, PresentOnesStayAndNoneIsLost) {
  const test::OpenDescriptors before;
  velo::ssoService::occupyStandardDescriptors();
  EXPECT_TRUE(before.areAsBefore());
}

}  // namespace
