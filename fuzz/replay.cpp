// Runs a fuzz target over files, and over all files in folders, given as arguments. Its last lines are those of a TAP
// test report, each file being a test. A file that makes the target fail ends the process; its name is the last one
// printed.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& path) {
  if (!fs::is_directory(path)) {
    return {path};
  }
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

void run(const fs::path& file) {
  std::fprintf(stderr, "%s\n", file.c_str());
  const auto size = static_cast<std::size_t>(fs::file_size(file));
  // Exactly as large as the input, so that the address sanitizer sees a read behind its end.
  const std::unique_ptr<char[]> input(new char[size]);
  if (!std::ifstream(file, std::ios::binary).read(input.get(), static_cast<std::streamsize>(size))) {
    throw std::runtime_error("cannot be read");
  }
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.get()), size);
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  try {
    for (int i = 1; i < argc; ++i) {
      for (const fs::path& file : filesIn(argv[i])) {
        run(file);
        ++count;
      }
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
  std::printf("1..%d\n# pass %d\n# fail 0\n", count, count);
  return count > 0 ? 0 : 1;
}
