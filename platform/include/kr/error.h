#pragma once
// KRError: the platform's error, raised with the module, method and message that produced it.

#include <stdexcept>
#include <string>

namespace KR {

/// Derives from std::runtime_error, so code that catches standard exceptions catches it too.
/// what() is "<module>::<method>: <message>".
class KRError : public std::runtime_error {
 public:
  KRError(const std::string& module, const std::string& method, const std::string& message)
      : std::runtime_error(module + "::" + method + ": " + message),
        fModule(module),
        fMethod(method),
        fMessage(message) {}

  const std::string& module() const noexcept { return fModule; }
  const std::string& method() const noexcept { return fMethod; }
  const std::string& message() const noexcept { return fMessage; }

 private:
  std::string fModule;
  std::string fMethod;
  std::string fMessage;
};

}  // namespace KR
