#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

namespace test {

/// Makes texts to try a reader on: JSON documents, documents with errors in them, and noise. The same seed gives the
/// same texts. The seed is taken from the environment variable SSO_TEST_SEED, or else drawn, and printed.
class RandomJson {
 public:
  RandomJson();

  /// How many texts to try: SSO_TEST_ROUNDS, or else this number.
  static std::size_t rounds(std::size_t usual);

  /// The next text, never with a NUL in it: one document in four is right, two have errors, one is noise.
  std::string text();

  std::string document(unsigned depth);

  /// A text with some characters replaced, doubled, inserted, removed or cut off.
  std::string damaged(std::string text);

  std::string noise();

  std::uint64_t seed() const { return usedSeed; }
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(engine() % limit); }

 private:
  char character();
  std::string space();
  std::string stringLiteral();
  std::string number();
  std::string digits();
  std::string container(bool array, unsigned depth);

  std::uint64_t usedSeed;
  std::mt19937_64 engine;
};

}  // namespace test
