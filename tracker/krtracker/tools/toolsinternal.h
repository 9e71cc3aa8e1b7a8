#pragma once
// Helpers shared by the angle functions, which run in the sub-modules' control loops.

#include <cstdint>
#include <cstring>
#include <string>

namespace KR {
namespace Tracker {
namespace tools {

namespace detail {
template <typename Word>
bool sameWords(const char* a, const char* b, std::size_t n) {
  Word a0, a1, b0, b1;
  std::memcpy(&a0, a, sizeof(Word));
  std::memcpy(&b0, b, sizeof(Word));
  std::memcpy(&a1, a + n - sizeof(Word), sizeof(Word));
  std::memcpy(&b1, b + n - sizeof(Word), sizeof(Word));
  return ((a0 ^ b0) | (a1 ^ b1)) == 0;
}
}  // namespace detail

/// Equal texts. Joint and chain names are short: from 4 to 16 characters the text is compared
/// as two overlapping words, which keeps std::string's library call off the loop's path.
inline bool sameText(const std::string& a, const std::string& b) {
  const std::size_t n = a.size();
  if (n != b.size()) {
    return false;
  }
  if (n >= 8 && n <= 16) {
    return detail::sameWords<std::uint64_t>(a.data(), b.data(), n);
  }
  if (n >= 4 && n < 8) {
    return detail::sameWords<std::uint32_t>(a.data(), b.data(), n);
  }
  return a.compare(b) == 0;
}

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
