#pragma once
#include <string>

namespace ko {
namespace os {
/// The user's home directory: $HOME, else the password database's entry, else "/tmp".
std::string home();
}  // namespace os
}  // namespace ko
