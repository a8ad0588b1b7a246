#include "user_name.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <charconv>
#include <fstream>

namespace engine {
namespace {

// A name that somebody on this system has.
bool is_known_user(const char *name) { return name && *name != '\0' && getpwnam(name); }

}  // namespace

std::string user_name()
{
    uid_t uid = getuid();
    bool logged_in = false;
    std::ifstream file("/proc/self/loginuid");
    std::string text;
    if (std::getline(file, text)) {
        uid_t login = 0;
        const auto read = std::from_chars(text.data(), text.data() + text.size(), login);
        if (read.ec == std::errc() && login != static_cast<uid_t>(-1)) {
            uid = login;
            logged_in = true;
        }
    }
    const char *const sudo_user = getenv("SUDO_USER");
    if (!logged_in && uid == 0 && is_known_user(sudo_user)) {
        return sudo_user;
    }
    const passwd *const entry = getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

}  // namespace engine
