#include "seams/MemoryFiles.h"

#include <utility>

#include "util/FileText.h"

namespace {

int writes = 0;

}  // namespace

namespace fuzz {

int takeFileWrites() {
  return std::exchange(writes, 0);
}

std::map<std::string, std::string>& memoryFiles() {
  static std::map<std::string, std::string> files;
  return files;
}

}  // namespace fuzz

namespace velo::ssoService {

bool readWholeFile(const std::string& path, std::string& text) {
  const auto file = fuzz::memoryFiles().find(path);
  text = file != fuzz::memoryFiles().end() ? file->second : "";
  return file != fuzz::memoryFiles().end();
}

void writeWholeFile(const std::string& path, const std::string& text) {
  fuzz::memoryFiles()[path] = text;
  ++writes;
}

}  // namespace velo::ssoService
