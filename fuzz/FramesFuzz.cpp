// The input is a script of the other side of a connection and a frame. Where the reading and the sending of frames end,
// and with what, is compared with what follows from the bytes that get through.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Input.h"
#include "LiteralFrame.h"
#include "Require.h"
#include "seams/ScriptedConnection.h"
#include "util/Descriptor.h"
#include "util/Frames.h"

namespace {

using fuzz::ConnectionScript;
using fuzz::Input;
using fuzz::LENGTH_BYTES;
using fuzz::require;
using fuzz::requireEqual;
using velo::ssoService::Deadline;
using velo::ssoService::Descriptor;
using velo::ssoService::FrameReader;
using velo::ssoService::MAX_FRAME_BYTES;
using velo::ssoService::Transfer;

constexpr std::size_t MOST_ASKED_BYTES = 65536;

enum class Time { UNLIMITED, ENOUGH, NONE };

Deadline deadlineFor(Time time) {
  using std::chrono::hours;
  const auto now = std::chrono::steady_clock::now();
  return time == Time::UNLIMITED ? std::nullopt : Deadline(now + (time == Time::ENOUGH ? hours(1) : hours(-1)));
}

/// How a transfer ends that needs more bytes than get through.
Transfer endingOf(int reason) {
  return reason == 0 ? Transfer::CLOSED : Transfer::FAILED;
}

/// A connection and how it is used.
struct Side {
  ConnectionScript script;
  FrameReader::Patience patience;
  Time time;
};

/// What the rules say about a read that needs so many bytes.
Transfer expectedRead(const Side& side, std::size_t needed) {
  const ConnectionScript& script = side.script;
  const bool heedsStop = side.patience == FrameReader::Patience::UNTIL_STOP;
  const bool stops = heedsStop && script.stopAfter <= script.incoming.size() && !script.goesOnAfterStop;
  const bool stopComesFirst = heedsStop && script.stopAfter == 0;
  if (side.time == Time::NONE && !stopComesFirst && needed > 0) {
    return Transfer::TIMED_OUT;
  }
  if (needed <= (stops ? script.stopAfter : script.incoming.size())) {
    return Transfer::COMPLETE;
  }
  return stops ? Transfer::FAILED : endingOf(script.readEnd);
}

/// A payload, larger than the input if that says so, behind its length or behind whatever it begins with.
std::string takeIncoming(Input& input) {
  const bool isRepeated = input.flag();
  const std::size_t repetitions = isRepeated ? input.number() % 2048 : 1;
  const bool isFramed = input.flag();
  const std::size_t missing = input.byte();
  const std::string pattern = input.rest();
  std::string payload;
  for (std::size_t i = 0; i < repetitions && payload.size() < MAX_FRAME_BYTES + MOST_ASKED_BYTES; ++i) {
    payload += pattern;
  }
  return isFramed ? fuzz::lengthPrefix(payload.size() + missing) + payload : payload;
}

Side takeSide(Input& input) {
  Side side;
  side.script = fuzz::takeConnection(input);
  side.script.connects = true;
  side.patience = input.flag() ? FrameReader::Patience::UNTIL_STOP : FrameReader::Patience::UNLIMITED;
  side.time = static_cast<Time>(input.below(3));
  if (side.patience == FrameReader::Patience::UNLIMITED) {
    side.script.stopAfter = ConnectionScript().stopAfter;
  }
  side.script.incoming = takeIncoming(input);
  return side;
}

void checkPayload(FrameReader& frame, const Side& side) {
  const std::string& incoming = side.script.incoming;
  const std::size_t length = fuzz::announcedLength(incoming);
  require(frame.length() == length, "the length is the announced one");
  const Transfer outcome = frame.readPayload();
  require(frame.received() <= length, "no more than the frame is kept");
  if (length > MAX_FRAME_BYTES) {
    require(outcome == Transfer::FAILED, "a frame that is too large fails");
    require(fuzz::connectionRecord().largestRead < 256, "nothing is read into memory for it");
    return;
  }
  require(outcome == expectedRead(side, LENGTH_BYTES + length), "a payload ends as its bytes get through");
  require(incoming.compare(LENGTH_BYTES, frame.received(), frame.text(), 0, frame.received()) == 0 ||
              frame.text().size() < frame.received(),
          "the payload's beginning is the one that was sent");
  if (outcome == Transfer::COMPLETE) {
    require(frame.received() == length, "a complete payload is as long as announced");
    requireEqual(frame.text(), incoming.substr(LENGTH_BYTES, length).c_str(), "the text is the payload up to a NUL");
  }
}

void checkReading(const Side& side) {
  const Descriptor connection(fuzz::openConnection(side.script));
  FrameReader frame(connection.get(), side.patience, deadlineFor(side.time));
  const Transfer outcome = frame.readLength();
  require(outcome == expectedRead(side, LENGTH_BYTES), "a length ends as its bytes get through");
  if (outcome == Transfer::COMPLETE) {
    checkPayload(frame, side);
  }
  require(fuzz::connectionRecord().largestRead <= MOST_ASKED_BYTES, "memory grows with what arrives");
}

void checkSending(Side side) {
  const std::string& text = side.script.incoming;
  const std::string frame = velo::ssoService::makeFrame(text);
  requireEqual(frame, fuzz::frameOf(text.c_str()), "a frame is length and text");
  if (side.script.sendEnd == EAGAIN && side.time == Time::ENOUGH) {
    side.script.sendEnd = EPIPE;  // there would be a wait for the hour to pass
  }
  const Descriptor connection(fuzz::openConnection(side.script));
  const Transfer outcome = velo::ssoService::sendAll(connection.get(), frame, deadlineFor(side.time));
  const std::size_t through = side.time == Time::NONE ? 0 : std::min(frame.size(), side.script.room);
  requireEqual(fuzz::connectionRecord().outgoing, frame.substr(0, through),
               "what gets through is the frame's beginning");
  if (side.time == Time::NONE) {
    require(outcome == Transfer::TIMED_OUT, "nothing is sent when the time is over");
  } else {
    require(outcome == (through == frame.size() ? Transfer::COMPLETE : endingOf(side.script.sendEnd)),
            "a frame is sent as its bytes get through");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const Side side = takeSide(input);
  checkReading(side);
  checkSending(side);
  return 0;
}
