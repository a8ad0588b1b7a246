#include "remote_controllers.h"

#include <errno.h>
#include <fcntl.h>
#include <kesta/kesta.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>

#include "appliance_state.h"
#include "beneath.h"
#include "failure.h"
#include "findings.h"
#include "names.h"
#include "printable.h"
#include "whole_file.h"

namespace engine {
namespace {

constexpr std::size_t longest_complaint = 4096;
constexpr int longest_timeout = 3600;
constexpr int between_looks = 200;  // milliseconds: a signal is met that late at most

[[noreturn]] void refuse_line(int number, const std::string &line)
{
    throw Failure(
        Exit::platform, "bad-setting",
        std::string(remote_settings_file) + ":" + std::to_string(number) + ": '" + line +
            "' is no setting of the way to other controllers.",
        "Lines are 'command = WORDS' with %h for the controller's name among them, and 'timeout = SECONDS', 1 "
        "to 3600.");
}

bool set_transport(RemoteTransport &transport, const std::string &name, const std::string &value)
{
    if (name == "timeout") {
        const char *const end = value.data() + value.size();
        const auto read = std::from_chars(value.data(), end, transport.timeout);
        return read.ec == std::errc() && read.ptr == end && transport.timeout > 0 &&
               transport.timeout <= longest_timeout;
    }
    std::istringstream words(value);
    transport.words.clear();
    for (std::string word; words >> word;) {
        transport.words.push_back(word);
    }
    return name == "command" && value.find("%h") != std::string::npos;
}

std::string trimmed(const std::string &text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::int64_t milliseconds_now()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

struct Pipe {
    Descriptor read;
    Descriptor write;

    Pipe()
    {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw Failure(Exit::platform, "no-pipe", std::string("No pipe can be made: ") + strerror(errno) + ".",
                          "End other programs, and run the command again.");
        }
        read = Descriptor(ends[0]);
        write = Descriptor(ends[1]);
        (void)fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
};

// One program that asks, in a process group of its own, so that all that it starts ends with it.
class Asked {
public:
    Asked(int controller, std::vector<std::string> words)
    {
        answer_.controller = controller;
        Pipe out;
        Pipe complaint;
        start(words, out, complaint);
        out_ = std::move(out.read);
        complaint_ = std::move(complaint.read);
    }
    ~Asked() { end(); }
    Asked(Asked &&other) noexcept
        : answer_(std::move(other.answer_)),
          complained_(std::move(other.complained_)),
          pid_(std::exchange(other.pid_, -1)),
          process_(std::move(other.process_)),
          out_(std::move(other.out_)),
          complaint_(std::move(other.complaint_))
    {
    }
    Asked(const Asked &) = delete;
    Asked &operator=(const Asked &) = delete;
    Asked &operator=(Asked &&) = delete;

    bool is_done() const { return pid_ < 0; }
    std::array<pollfd, 3> awaited() const
    {
        return {pollfd{out_.get(), POLLIN, 0}, pollfd{complaint_.get(), POLLIN, 0}, pollfd{process_.get(), POLLIN, 0}};
    }

    void take(const pollfd *met)
    {
        read(out_, answer_.text, longest_remote_answer + 1);
        read(complaint_, complained_, longest_complaint);
        if (answer_.text.size() > longest_remote_answer) {
            give_up("its answer is longer than " + std::to_string(longest_remote_answer) + " bytes");
        } else if (met[2].revents != 0 || !process_) {
            finish();
        }
    }

    void give_up(const std::string &why)
    {
        answer_.why = why;
        answer_.text.clear();
        end();
    }

    RemoteAnswer result() && { return std::move(answer_); }

private:
    void start(std::vector<std::string> &words, const Pipe &out, const Pipe &complaint)
    {
        std::vector<char *> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string &word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawnattr_t attributes;
        (void)posix_spawn_file_actions_init(&actions);
        (void)posix_spawnattr_init(&attributes);
        (void)posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        (void)posix_spawn_file_actions_adddup2(&actions, out.write.get(), STDOUT_FILENO);
        (void)posix_spawn_file_actions_adddup2(&actions, complaint.write.get(), STDERR_FILENO);
        sigset_t none;
        sigset_t all;
        (void)sigemptyset(&none);
        (void)sigfillset(&all);
        (void)posix_spawnattr_setsigmask(&attributes, &none);
        (void)posix_spawnattr_setsigdefault(&attributes, &all);
        (void)posix_spawnattr_setpgroup(&attributes, 0);
        (void)posix_spawnattr_setflags(&attributes,
                                       POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        const int error = posix_spawnp(&pid_, arguments[0], &actions, &attributes, arguments.data(), environ);
        (void)posix_spawn_file_actions_destroy(&actions);
        (void)posix_spawnattr_destroy(&attributes);
        if (error != 0) {
            pid_ = -1;
            answer_.why = words[0] + " can't be run: " + strerror(error);
            return;
        }
        process_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    }

    // What is there now. A pipe at its end is closed: it would be ready for ever.
    static void read(Descriptor &from, std::string &text, std::size_t most)
    {
        constexpr int most_pieces = 256;
        std::array<char, 1 << 12> piece{};
        for (int i = 0; i < most_pieces && from; ++i) {
            const ssize_t got = ::read(from.get(), piece.data(), piece.size());
            if (got == 0) {
                from = Descriptor();
            }
            if (got <= 0) {
                return;
            }
            text.append(piece.data(), std::min(static_cast<std::size_t>(got), most - std::min(most, text.size())));
        }
    }

    void finish()
    {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) != pid_) {
            return;
        }
        (void)kill(-pid_, SIGKILL);  // what it left behind
        pid_ = -1;
        read(out_, answer_.text, longest_remote_answer + 1);
        answer_.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        answer_.has_ended = WIFEXITED(status) && !answer_.text.empty();
        if (!answer_.has_ended) {
            const std::string said = plain_text(complained_.substr(0, complained_.find('\n')));
            answer_.why = (WIFEXITED(status) ? "it ended with exit code " + std::to_string(WEXITSTATUS(status))
                                             : std::string("it was ended by a signal")) +
                          (said.empty() ? "" : ": " + said);
        }
    }

    void end()
    {
        if (pid_ > 0) {
            (void)kill(-pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    RemoteAnswer answer_;
    std::string complained_;
    pid_t pid_ = -1;
    Descriptor process_;
    Descriptor out_;
    Descriptor complaint_;
};

std::vector<std::string> words_for(int controller, const std::vector<std::string> &command,
                                   const RemoteTransport &transport)
{
    std::vector<std::string> words = transport.words;
    for (std::string &word : words) {
        if (const std::size_t at = word.find("%h"); at != std::string::npos) {
            word.replace(at, 2, controller_name(controller));
        }
    }
    words.push_back(shell_text(command));
    return words;
}

// One round: waits for whatever comes first, and lets each take what is there.
void look(std::vector<Asked> &all, std::int64_t deadline)
{
    std::vector<pollfd> awaited;
    for (const Asked &one : all) {
        for (pollfd part : one.awaited()) {
            part.fd = one.is_done() ? -1 : part.fd;
            awaited.push_back(part);
        }
    }
    const std::int64_t left = std::max<std::int64_t>(deadline - milliseconds_now(), 0);
    (void)poll(awaited.data(), awaited.size(), static_cast<int>(std::min<std::int64_t>(left, between_looks)));
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (!all[i].is_done()) {
            all[i].take(&awaited[3 * i]);
        }
    }
}

}  // namespace

RemoteTransport remote_transport()
{
    RemoteTransport transport;
    std::istringstream file(read_settings(remote_settings_file));
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string text = trimmed(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos ||
            !set_transport(transport, trimmed(text.substr(0, equals)), trimmed(text.substr(equals + 1)))) {
            refuse_line(number, line);
        }
    }
    return transport;
}

std::vector<RemoteAnswer> ask_controllers(const std::vector<int> &controllers, const std::vector<std::string> &command,
                                          const RemoteTransport &transport, const HeldSignals &signals)
{
    const std::int64_t deadline = milliseconds_now() + std::int64_t{transport.timeout} * 1000;
    std::vector<Asked> all;
    all.reserve(controllers.size());
    for (const int controller : controllers) {
        all.emplace_back(controller, words_for(controller, command, transport));
    }
    const auto is_waiting = [&all] {
        return std::any_of(all.begin(), all.end(), [](const Asked &one) { return !one.is_done(); });
    };
    while (is_waiting() && milliseconds_now() < deadline) {
        look(all, deadline);
        if (const int signal = signals.pending(); signal != 0) {
            throw Failure(static_cast<Exit>(ended_by_signal + signal), "interrupted", "Interrupted.", "");
        }
    }
    std::vector<RemoteAnswer> answers;
    for (Asked &one : all) {
        if (!one.is_done()) {
            one.give_up("it did not answer within " + std::to_string(transport.timeout) + " seconds");
        }
        answers.push_back(std::move(one).result());
    }
    return answers;
}

std::vector<int> other_controllers()
{
    const int own = learn_own_number();
    const int count = kestal_execute_command_by_popen(KESTA_CPINFO_CONTROLLER_COUNT);
    if (count < 0) {
        fail_call("no-count", "How many controllers there are can't be told.", "Look at --trace 1.");
    }
    std::vector<int> others;
    for (int i = 0; i < std::min(count, KESTA_CONTROLLERS); ++i) {
        if (i != own) {
            others.push_back(i);
        }
    }
    return others;
}

}  // namespace engine
