#pragma once

#include <cstddef>
#include <string>

#include "Input.h"

namespace fuzz {

// Stands in the place of sockets, by calls that the linker wraps: the other side of a connection is a script.

/// What the other side of a connection does.
struct ConnectionScript {
  bool hasSocket = true;                                 ///< without, socket fails
  bool connects = true;                                  ///< without, no connection comes about in time
  int connectError = 0;                                  ///< SO_ERROR
  std::string incoming;                                  ///< what it sends
  std::size_t piece = 16384;                             ///< how much of that comes, and goes, at once
  int readEnd = 0;                                       ///< what a read meets behind that: its end (0) or an errno
  std::size_t room = static_cast<std::size_t>(-1);       ///< how much it takes
  int sendEnd = 0;                                       ///< what a send meets then: 0 bytes taken, or an errno
  unsigned idleLooks = 0;                                ///< polls that end without a result before each that has one
  bool idleFails = false;                                ///< they fail with EINTR instead of running out of time
  std::size_t stopAfter = static_cast<std::size_t>(-1);  ///< a stop is requested once so many bytes were read
  bool goesOnAfterStop = false;                          ///< whether it still sends then
};

/// A script made from an input. Its incoming bytes are the caller's to add.
ConnectionScript takeConnection(Input& input);

/// What became of it.
struct ConnectionRecord {
  std::string outgoing;
  std::size_t read = 0;
  std::size_t largestRead = 0;  ///< the most bytes that one read asked for
  int port = -1;                ///< that was connected to
  bool isShutDown = false;
};

/// Sets the next connection up and gives a descriptor of it, which the caller closes.
int openConnection(const ConnectionScript& script);

/// Sets it up for a socket that is opened later.
void scriptConnection(const ConnectionScript& script);

const ConnectionRecord& connectionRecord();

/// Whether its descriptor has not been closed.
bool isConnectionOpen();

}  // namespace fuzz
