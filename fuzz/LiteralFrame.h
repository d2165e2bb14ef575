#pragma once

#include <cstddef>
#include <string>

namespace fuzz {

/// The bytes of a frame before its payload.
constexpr std::size_t LENGTH_BYTES = 4;

std::string lengthPrefix(std::size_t length);

/// The length that a frame of at least so many bytes announces.
std::size_t announcedLength(const std::string& frame);

/// A payload behind its length.
std::string frameOf(const std::string& payload);

}  // namespace fuzz
