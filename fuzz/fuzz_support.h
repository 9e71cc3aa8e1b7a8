#pragma once
// Shared by the fuzz targets: a failed property aborts with its text (libFuzzer then keeps the
// input), logs go nowhere, and a module that answers every method from a script.

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/broker/broker.h>

#define FUZZ_CHECK(cond, text)                                                           \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      std::fprintf(stderr, "%s:%d: check failed: %s\n  %s\n", __FILE__, __LINE__, #cond, \
                   std::string(text).c_str());                                           \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)

namespace krfuzz {

/// Swallows log records; their texts are still built, so the logging paths are exercised.
class NullSink : public ko::log::Sink {
 public:
  void write(const ko::log::Record&) override {}
};

/// A stream buffer that drops everything (for std::cerr, which some paths write to on purpose).
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

/// Installs the null sink and silences std::cerr; sanitizer reports still reach file 2.
inline void quietLogs() {
  static NullBuffer buffer;
  ko::log::setSink(std::make_shared<NullSink>());
  std::cerr.rdbuf(&buffer);
}

/// Answers every method through one function; unknown methods answer an invalid value.
class ScriptedModule : public KR::KRModule {
 public:
  using Script = std::function<KR::KRValue(const std::string&, const std::vector<KR::KRValue>&)>;
  ScriptedModule(const std::string& name, Script script)
      : KR::KRModule(name), fScript(std::move(script)) {}
  KR::KRValue invoke(const std::string& method, const std::vector<KR::KRValue>& args) override {
    return fScript(method, args);
  }

 private:
  Script fScript;
};

}  // namespace krfuzz
