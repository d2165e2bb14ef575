#include "support/LogCapture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace test {
namespace {

/// "[source:12] message" as "source: message"; any other line as it is.
std::string withoutLineNumber(const std::string& line) {
  const std::size_t end = line.find("] ");
  const std::size_t colon = line.rfind(':', end);
  if (line.rfind('[', 0) != 0 || end == std::string::npos || colon == std::string::npos ||
      line.find_first_not_of("0123456789", colon + 1) != end) {
    return line;
  }
  return line.substr(1, colon - 1) + ": " + line.substr(end + 2);
}

}  // namespace

LogCapture::LogCapture(int level) {
  std::string pattern = (std::filesystem::temp_directory_path() / "sso-log-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a directory for the log");
  }
  directory = pattern;
  log_init((directory + "/log").c_str(), level, 0);
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    file = entry.path().string();
  }
}

LogCapture::~LogCapture() {
  log_init(nullptr, LOG_LEVEL_OFF, 0);
  log_close();
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

std::vector<std::string> LogCapture::lines() const {
  std::vector<std::string> found;
  std::ifstream log(file);
  std::string line;
  std::getline(log, line);  // LOG START
  while (std::getline(log, line)) {
    found.push_back(withoutLineNumber(line));
  }
  return found;
}

bool LogCapture::contains(const std::string& line) const {
  const std::vector<std::string> all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}

}  // namespace test
