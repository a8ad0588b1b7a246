#include "holder_note.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>

#include "kesta/paths.h"

namespace engine {
namespace {

std::string note_path() { return KESTA_MERGE_CACHE ".kestactl-holder"; }

// When a process began, in ticks since the boot: with its number it is told apart from all others. Empty where there
// is no such process, or it has ended and waits to be collected.
std::string began(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name_end = text.rfind(')');  // the name may hold blanks
    if (name_end == std::string::npos || name_end + 2 >= text.size() || text[name_end + 2] == 'Z') {
        return "";
    }
    std::size_t at = name_end + 2;
    constexpr int fields_between = 19;  // from the state, the third, to the time, the twenty-second
    for (int i = 0; i < fields_between && at != std::string::npos; ++i) {
        at = text.find(' ', at);
        at = at == std::string::npos ? at : at + 1;
    }
    return at == std::string::npos ? "" : text.substr(at, text.find(' ', at) - at);
}

}  // namespace

void note_holder(int controller, const char *identifier)
{
    const std::string text =
        std::to_string(controller) + " " + identifier + " " + std::to_string(getpid()) + " " + began(getpid()) + "\n";
    (void)unlink(note_path().c_str());  // a link is no place to write to
    const int fd = open(note_path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd >= 0) {
        (void)!write(fd, text.data(), text.size());  // cut short it matches no lock
        (void)close(fd);
    }
}

void forget_holder() { (void)unlink(note_path().c_str()); }

pid_t gone_holder(int controller, std::int64_t identifier)
{
    const int fd = open(note_path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        return 0;
    }
    std::array<char, 128> text{};
    const ssize_t length = read(fd, text.data(), text.size() - 1);
    (void)close(fd);
    int noted_controller = -1;
    long long noted_identifier = 0;
    int process = 0;
    std::array<char, 32> start{};
    if (length <= 0 ||
        sscanf(text.data(), "%d %lld %d %31s", &noted_controller, &noted_identifier, &process, start.data()) != 4 ||
        noted_controller != controller || noted_identifier != identifier || process <= 0) {
        return 0;
    }
    return began(process) == start.data() ? 0 : process;
}

}  // namespace engine
