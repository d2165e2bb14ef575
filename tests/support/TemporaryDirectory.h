#pragma once

#include <string>
#include <vector>

namespace test {

/// A directory of its own that is removed, with all that is in it, when its scope ends.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// Without a slash at its end.
  const std::string& path() const { return directory; }

  /// The full name of a file in it, which need not exist.
  std::string file(const std::string& name) const { return directory + "/" + name; }

  /// Writes a file, replacing what is there, and returns its full name.
  std::string write(const std::string& name, const std::string& text) const;

  /// A file's contents. Throws when there is no such file.
  std::string read(const std::string& name) const;

  /// The names of what is in it, sorted.
  std::vector<std::string> names() const;

 private:
  std::string directory;
};

}  // namespace test
