#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "support/ChildProcess.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "util/FileText.h"

namespace {

using velo::ssoService::readWholeFile;
using velo::ssoService::writeWholeFile;

class FileText : public testing::Test {
 protected:
  const test::OpenDescriptors descriptors;
  test::TemporaryDirectory directory;
  const std::string path = directory.file("file");
  std::string text = "old text";
};

TEST_F(FileText, IsReadByteForByte) {
  for (const std::string& written :
       {std::string(), std::string("a"), std::string("\0\n\r\xff\x80 \0", 8), std::string(4095, 'x'),
        std::string(4096, 'x'), std::string(4097, 'x'), std::string(1000000, 'y') + "end"}) {
    directory.write("file", written);
    EXPECT_TRUE(readWholeFile(path, text));
    EXPECT_TRUE(text == written) << written.size();
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

TEST_F(FileText, OfAMissingFileIsFalseAndEmpty) {
  EXPECT_FALSE(readWholeFile(directory.file("missing"), text));
  EXPECT_EQ(text, "");
  text = "old text";
  EXPECT_FALSE(readWholeFile("", text));
  EXPECT_EQ(text, "");
}

TEST_F(FileText, OfADirectoryIsEmpty) {
  EXPECT_TRUE(readWholeFile(directory.path(), text));
  EXPECT_EQ(text, "");
  EXPECT_TRUE(descriptors.areAsBefore());
}

TEST_F(FileText, OfAFileWithoutASizeIsReadWhole) {
  EXPECT_TRUE(readWholeFile("/proc/self/stat", text));
  EXPECT_FALSE(text.empty());
  EXPECT_TRUE(readWholeFile("/dev/null", text));
  EXPECT_EQ(text, "");
}

TEST_F(FileText, OfADeviceWithoutAnEndIsCutAtTheLimit) {
  EXPECT_TRUE(readWholeFile("/dev/zero", text));
  EXPECT_EQ(text.size(), velo::ssoService::MAX_FILE_BYTES);
}

TEST_F(FileText, OfAPipeIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_TRUE(readWholeFile(path, text));
  EXPECT_EQ(text, "");
  writeWholeFile(path, "nobody reads this");
  EXPECT_TRUE(descriptors.areAsBefore());
}

TEST_F(FileText, IsWrittenByteForByteAndReplaced) {
  for (const std::string& written : {std::string(3000000, 'x'), std::string("\0\xff\n", 3), std::string()}) {
    writeWholeFile(path, written);
    EXPECT_TRUE(directory.read("file") == written) << written.size();
  }
  EXPECT_TRUE(descriptors.areAsBefore());
}

TEST_F(FileText, IsCreatedForItsOwnerAlone) {
  const mode_t before = ::umask(0);
  writeWholeFile(path, "text");
  ::umask(before);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(FileText, ThatCannotBeWrittenIsNoError) {
  EXPECT_NO_THROW(writeWholeFile(directory.file("missing/file"), "text"));
  EXPECT_NO_THROW(writeWholeFile(directory.path(), "text"));
  EXPECT_NO_THROW(writeWholeFile("/dev/full", "text"));
  EXPECT_TRUE(directory.names().empty());
  EXPECT_TRUE(descriptors.areAsBefore());
}

TEST_F(FileText, IsLeftAsFarAsItGot) {
  EXPECT_EQ(test::runInChild([this] {
              std::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{100, 100};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
              writeWholeFile(path, std::string(1000, 'x'));
            }),
            0);
  EXPECT_EQ(directory.read("file"), std::string(100, 'x'));
}

}  // namespace
