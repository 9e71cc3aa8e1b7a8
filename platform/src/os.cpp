#include <ko/os.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace ko {
namespace os {

std::string home() {
  if (const char* h = std::getenv("HOME"); h != nullptr && *h != '\0')
    return h;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd pw{};
  passwd* result = nullptr;
  if (getpwuid_r(getuid(), &pw, buffer.data(), buffer.size(), &result) == 0 && result != nullptr &&
      result->pw_dir != nullptr) {
    return result->pw_dir;
  }
  return "/tmp";
}

}  // namespace os
}  // namespace ko
