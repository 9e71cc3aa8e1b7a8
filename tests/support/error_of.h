#pragma once
// The error a call raises, for tests that compare its text or its parts.

#include <exception>
#include <string>

#include <gtest/gtest.h>

#include <kr/error.h>

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

/// The KRError that `call` throws; when it returns normally the test fails and the error is
/// empty. Exceptions of other types pass through, failing the test.
template <class F>
KR::KRError krErrorOf(F&& call) {
  try {
    call();
  } catch (const KR::KRError& e) {
    return e;
  }
  ADD_FAILURE() << "no KRError thrown";
  return KR::KRError("", "", "");
}

}  // namespace krtest
