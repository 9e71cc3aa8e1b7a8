#pragma once
// The text of the error a call raises, for tests that compare it whole.

#include <exception>
#include <string>

namespace krtest {

/// what() of the E that `call` throws; empty when it returns normally. Exceptions of other
/// types pass through, failing the test.
template <class E = std::exception, class F>
std::string errorOf(F&& call) {
  try {
    call();
  } catch (const E& e) {
    return e.what();
  }
  return "";
}

}  // namespace krtest
