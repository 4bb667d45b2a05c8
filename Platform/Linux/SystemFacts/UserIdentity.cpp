#include "Platform/Linux/SystemFacts/UserIdentity.h"

#include <cerrno>
#include <vector>

namespace platform {
namespace {

// Independent of the locale, because the system allows only ASCII in login names.
char upperCase(char letter) {
  return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

std::string_view viewOf(const char* text) { return text ? std::string_view(text) : ""; }

}  // namespace

std::string fullNameOfGecos(std::string_view gecos, std::string_view loginName) {
  std::string capitalised(loginName);
  if (!capitalised.empty()) capitalised.front() = upperCase(capitalised.front());

  std::string name;
  for (const char character : gecos.substr(0, gecos.find(','))) {
    if (character == '&') {
      name += capitalised;
    } else {
      name += character;
    }
  }
  return name.empty() ? std::string(loginName) : name;
}

std::optional<UserIdentity> lookUpUser(UserId user, PasswordLookup lookup) {
  constexpr std::size_t kFirstSize = 1024;
  constexpr std::size_t kLargestSize = 1024 * 1024;
  std::vector<char> buffer(kFirstSize);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = lookup(user, &entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE && buffer.size() < kLargestSize) {
      buffer.resize(2 * buffer.size());
      continue;
    }
    if (error != 0 || !found || viewOf(entry.pw_name).empty()) return std::nullopt;
    return UserIdentity{std::string(viewOf(entry.pw_name)),
                        fullNameOfGecos(viewOf(entry.pw_gecos), viewOf(entry.pw_name))};
  }
}

}  // namespace platform
