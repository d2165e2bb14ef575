#pragma once

#include <string>

/// Where lines go while this lives: the log at level info with the time of day, as the service has it, and a descriptor
/// for the same kind of file.
class Destination {
 public:
  virtual ~Destination() = default;
  Destination(const Destination&) = delete;
  Destination& operator=(const Destination&) = delete;

  int descriptor() const { return rival; }

 protected:
  Destination() = default;

  int rival = -1;
};

/// Files in a folder of their own below the system's folder for temporary files, removed at the end.
class FileDestination : public Destination {
 public:
  FileDestination();
  ~FileDestination() override;

 private:
  std::string folder;
};

/// The log goes to standard output, and that to /dev/null.
class NullDestination : public Destination {
 public:
  NullDestination();
  ~NullDestination() override;

 private:
  int standardOutput;
};
