#include "support/TemporaryDirectory.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test {

TemporaryDirectory::TemporaryDirectory() {
  directory = (std::filesystem::temp_directory_path() / "sso-test-XXXXXX").string();
  if (mkdtemp(directory.data()) == nullptr) {
    throw std::runtime_error("cannot make a temporary directory");
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

std::string TemporaryDirectory::write(const std::string& name, const std::string& text) const {
  std::ofstream stream(file(name), std::ios::binary | std::ios::trunc);
  stream.exceptions(std::ios::failbit | std::ios::badbit);
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  return file(name);
}

std::string TemporaryDirectory::read(const std::string& name) const {
  std::ifstream stream(file(name), std::ios::binary);
  if (!stream) {
    throw std::runtime_error("no file " + file(name));
  }
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::vector<std::string> TemporaryDirectory::names() const {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    found.push_back(entry.path().filename().string());
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace test
