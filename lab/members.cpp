#include "members.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>

#include "child_program.h"
#include "private_namespace.h"
#include "processes.h"
#include "text_file.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr int client_port = 2379;
constexpr int peer_port = 2380;
constexpr int first_address = 20;
constexpr std::chrono::seconds patience{20};
constexpr const char *member_variable = "KESTA_LAB_MEMBER";
constexpr const char *serving = "serving client traffic";  // what a member logs
constexpr const char *filling = "/kesta-lab-fill/";

std::string name_of(int number) { return "member" + std::to_string(number); }
std::string address_of(int number) { return "192.168.100." + std::to_string(first_address + number); }
std::string endpoint_of(int number) { return address_of(number) + ":" + std::to_string(client_port); }
std::string url_of(int number, int port) { return "http://" + address_of(number) + ":" + std::to_string(port); }

std::string read_from(const fs::path &path, std::size_t from)
{
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t size_of(const fs::path &path)
{
    std::error_code error;
    const auto size = fs::file_size(path, error);
    return error ? 0 : static_cast<std::size_t>(size);
}

int milliseconds_to(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

void Members::create(int count, std::uint64_t quota) const
{
    for (int number = 0; number < count; ++number) {
        fs::create_directories(folder(number));
        fs::permissions(folder(number), fs::perms::owner_all);
        write_file(folder(number) / "quota", std::to_string(quota) + "\n");
    }
}

int Members::count() const
{
    int number = 0;
    while (fs::exists(folder(number))) {
        ++number;
    }
    return number;
}

std::vector<Host> Members::hosts() const
{
    std::vector<Host> hosts;
    hosts.reserve(static_cast<std::size_t>(count()));
    for (int number = 0; number < count(); ++number) {
        hosts.push_back({name_of(number), address_of(number)});
    }
    return hosts;
}

std::string Members::settings() const
{
    if (count() == 0) {
        return "";
    }
    const std::string quota = read_from(folder(0) / "quota", 0);
    return "nv_endpoints = " + endpoints() + "\nsysback_limit_bytes = " + quota.substr(0, quota.find('\n'));
}

std::string Members::endpoints() const
{
    std::string all;
    for (int number = 0; number < count(); ++number) {
        all += (all.empty() ? "" : ",") + endpoint_of(number);
    }
    return all;
}

std::optional<int> Members::pid_of(int number) const
{
    const std::vector<int> found = processes_with({std::string(folder_variable) + "=" + lab_.string(),
                                                   std::string(member_variable) + "=" + std::to_string(number)});
    return found.empty() ? std::nullopt : std::optional(found.front());
}

void Members::start_process(int number) const
{
    std::string cluster;
    for (int each = 0; each < count(); ++each) {
        cluster += (cluster.empty() ? "" : ",") + name_of(each) + "=" + url_of(each, peer_port);
    }
    const fs::path own = folder(number);
    const std::string quota = read_from(own / "quota", 0);
    start_program({"etcd",
                   "--name",
                   name_of(number),
                   "--data-dir",
                   (own / "data").string(),
                   "--initial-cluster",
                   cluster,
                   "--listen-client-urls",
                   url_of(number, client_port),
                   "--advertise-client-urls",
                   url_of(number, client_port),
                   "--listen-peer-urls",
                   url_of(number, peer_port),
                   "--initial-advertise-peer-urls",
                   url_of(number, peer_port),
                   "--snapshot-count",
                   "1000",
                   "--auto-compaction-mode",
                   "revision",
                   "--auto-compaction-retention",
                   "1000",
                   "--quota-backend-bytes",
                   quota.substr(0, quota.find('\n')),
                   "--logger",
                   "zap"},
                  {{folder_variable, lab_.string()}, {member_variable, std::to_string(number)}}, own / "log",
                  [&] { hosts_.enter(name_of(number)); });
}

// Reads what the member adds to its log, as it comes.
bool Members::await_service(int number, std::size_t from) const
{
    const fs::path log = folder(number) / "log";
    const auto deadline = std::chrono::steady_clock::now() + patience;
    const int watch = inotify_init1(IN_CLOEXEC);
    if (watch < 0 || inotify_add_watch(watch, log.c_str(), IN_MODIFY) < 0) {
        const int error = errno;
        (void)close(watch);
        throw Error("can't watch " + log.string() + ": " + strerror(error));
    }
    bool serves = false;
    for (;;) {
        serves = read_from(log, from).find(serving) != std::string::npos;
        struct pollfd changed {
            watch, POLLIN, 0
        };
        const int left = milliseconds_to(deadline);
        if (serves || left == 0 || (poll(&changed, 1, left) < 0 && errno != EINTR)) {
            break;
        }
        char events[4096];
        if (changed.revents != 0) {
            (void)!read(watch, events, sizeof(events));
        }
    }
    (void)close(watch);
    return serves;
}

bool Members::start_all() const
{
    std::vector<std::pair<int, std::size_t>> started;
    for (int number = 0; number < count(); ++number) {
        const std::optional<int> pid = pid_of(number);
        if (pid) {
            (void)::kill(*pid, SIGCONT);
            continue;
        }
        started.emplace_back(number, size_of(folder(number) / "log"));
        start_process(number);
    }
    bool all_serve = true;
    for (const auto &[number, from] : started) {
        all_serve = await_service(number, from) && all_serve;
    }
    return all_serve;
}

bool Members::start(int number) const
{
    if (const std::optional<int> pid = pid_of(number)) {
        if (!is_stopped(*pid)) {
            throw Error("member " + std::to_string(number) + " runs already");
        }
        (void)::kill(*pid, SIGCONT);
        return true;
    }
    const std::size_t from = size_of(folder(number) / "log");
    start_process(number);
    return await_service(number, from);
}

void Members::kill(int number) const
{
    const std::optional<int> pid = pid_of(number);
    if (!pid) {
        throw Error("member " + std::to_string(number) + " does not run");
    }
    kill_processes({*pid});
}

void Members::stop(int number) const
{
    const std::optional<int> pid = pid_of(number);
    if (!pid) {
        throw Error("member " + std::to_string(number) + " does not run");
    }
    stop_process(*pid);
}

// etcdctl, for all members that can answer.
std::vector<std::string> Members::control(const std::vector<std::string> &words) const
{
    std::vector<std::string> command{"env",         "ETCDCTL_API=3",     "etcdctl",
                                     "--endpoints", endpoints(),         "--dial-timeout",
                                     "1s",          "--command-timeout", "20s"};
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

std::vector<MemberState> Members::states() const
{
    std::vector<MemberState> states;
    bool any_runs = false;
    for (int number = 0; number < count(); ++number) {
        const std::optional<int> pid = pid_of(number);
        states.push_back({number, pid, pid && is_stopped(*pid), false});
        any_runs = any_runs || (pid && !states.back().hangs);
    }
    if (!any_runs) {
        return states;
    }
    const fs::path answer = lab_ / "members" / "status";
    for (MemberState &state : states) {
        if (!state.pid || state.hangs) {
            continue;
        }
        in_own_process([&] {
            hosts_.enter(name_of(state.number));
            std::ofstream(answer) << output_of({"env", "ETCDCTL_API=3", "etcdctl", "--endpoints",
                                                endpoint_of(state.number), "--dial-timeout", "1s", "--command-timeout",
                                                "1s", "endpoint", "status"});
        });
        // address, id, version, size, leads, ...
        std::istringstream fields(read_file(answer));
        std::string field;
        for (int i = 0; i < 5; ++i) {
            std::getline(fields, field, ',');
        }
        state.leads = field == " true";
        std::error_code ignored;
        fs::remove(answer, ignored);
    }
    return states;
}

int Members::number_of(const std::string &name) const
{
    if (name == "leader") {
        for (const MemberState &state : states()) {
            if (state.leads) {
                return state.number;
            }
        }
        throw Error("no member leads: too few run");
    }
    const std::string digits = name.rfind("member", 0) == 0 ? name.substr(6) : name;
    if (digits.size() != 1 || digits[0] < '0' || digits[0] - '0' >= count()) {
        throw Error("there is no member " + name + ": name 0 to " + std::to_string(count() - 1) + ", or leader");
    }
    return digits[0] - '0';
}

void Members::fill() const
{
    in_own_process([&] {
        hosts_.enter("cnt0");
        constexpr std::size_t piece = 1 << 20;
        const fs::path value = lab_ / "members" / "fill";
        write_file(value, std::string(piece, 'x'));
        bool full = false;
        constexpr int most = 1 << 14;  // pieces; beyond the largest store that a member takes
        std::string line;
        for (const std::string &word : control({"put"})) {
            line += word + " ";
        }
        for (int i = 0; i < most && !full; ++i) {
            full = run_program({"sh", "-c", line + "\"$1\" < \"$2\" > /dev/null", "-", filling + std::to_string(i),
                                value.string()},
                               Shown::output) != 0;
        }
        std::error_code ignored;
        fs::remove(value, ignored);
        if (!full) {
            throw Error("the cluster's store takes more and more: make the lab with a smaller --quota");
        }
    });
}

void Members::make_room() const
{
    in_own_process([&] {
        hosts_.enter("cnt0");
        const auto must = [&](const std::vector<std::string> &words) {
            if (run_program(control(words), Shown::nothing) != 0) {
                throw Error("the cluster's store can't be emptied: " + words.front() + " failed");
            }
        };
        must({"del", "--prefix", filling});
        const std::string status = output_of(control({"get", filling, "-w", "fields"}));
        const std::string key = "\"Revision\" : ";
        const std::size_t at = status.find(key);
        if (at == std::string::npos) {
            throw Error("the cluster tells no revision");
        }
        must({"compact", std::to_string(std::stoll(status.substr(at + key.size())))});
        must({"defrag"});
        must({"alarm", "disarm"});
    });
}

}  // namespace lab
