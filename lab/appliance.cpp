#include "appliance.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lab_folder.h"
#include "private_namespace.h"
#include "processes.h"
#include "text_file.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char *lab_variable = "KESTA_LAB";

// A controller that reaches another one sees the lab here.
std::string lab_inside() { return std::string(platform_folder) + "/lab"; }

void set_host_name(const fs::path &controller)
{
    std::string name = read_file(controller / "etc/hostname");
    name = name.substr(0, name.find_first_of(" \t\n"));
    if (!name.empty() && sethostname(name.data(), name.size()) != 0) {
        throw Error(std::string("can't set the host name: ") + strerror(errno));
    }
}

void return_to_folder(const fs::path &folder)
{
    if (chdir(folder.c_str()) != 0 && chdir("/") != 0) {
        throw Error(std::string("can't change to /: ") + strerror(errno));
    }
}

}  // namespace

int controller_number(const std::string &name)
{
    const std::string digit = name.rfind("CNT", 0) == 0 ? name.substr(3) : name;
    if (digit.size() != 1 || digit[0] < '0' || digit[0] >= '0' + controllers) {
        throw Error("there is no controller " + name + ": name CNT0, CNT1, CNT2 or CNT3");
    }
    return digit[0] - '0';
}

Appliance::Appliance(const fs::path &folder)
    : folder_(fs::weakly_canonical(fs::absolute(folder))), hosts_(folder_), members_(folder_, hosts_)
{
    require_lab(folder_);
}

Appliance Appliance::create(const fs::path &folder, const fs::path &product, const std::string &platform,
                            const std::optional<Cluster> &cluster)
{
    if (fs::exists(folder) && !fs::is_empty(folder)) {
        throw Error(folder.string() + " is not empty: name a new folder");
    }
    if (fs::exists(folder) && !is_trusted(fs::canonical(folder))) {
        throw Error(folder.string() + " belongs to somebody else: name a new folder");
    }
    const NewLab made_of(folder, product, !platform.empty() ? platform : cluster ? cluster_platform : KESTA_PLATFORM);
    made_of.make_common();
    const Hosts hosts(fs::absolute(folder));
    const Members members(fs::absolute(folder), hosts);
    if (cluster) {
        members.create(cluster->members, cluster->quota);
    }
    for (int number = 0; number < controllers; ++number) {
        made_of.make_controller(number, members.settings());
    }
    set_marker(folder);  // last: an unfinished lab is none
    Appliance made(folder);
    if (cluster) {
        fs::create_directories(made.folder() / "hosts");
        made.power_on();
    }
    return made;
}

Appliance Appliance::find(const std::string &option)
{
    if (!option.empty()) {
        return Appliance(option);
    }
    if (const char *folder = getenv(lab_variable)) {
        return Appliance(folder);
    }
    for (fs::path folder = fs::current_path();; folder = folder.parent_path()) {
        if (has_marker(folder)) {
            return Appliance(folder);
        }
        if (folder == folder.parent_path()) {
            throw Error("which lab? Name it with --dir DIR or KESTA_LAB=DIR, or go into it");
        }
    }
}

fs::path Appliance::controller_folder(int number) const { return folder_ / ("cnt" + std::to_string(number)); }

void Appliance::enter(int number, const std::vector<std::string> &extra_binds) const
{
    const fs::path own = controller_folder(number);
    const fs::path here = fs::current_path();
    const bool inside = is_inside();
    if (hosts_.exist()) {
        if (inside) {
            require_route(getenv(controller_variable), host_of(number));
        }
        hosts_.enter(host_of(number));
    }
    enter_private_namespaces();
    set_host_name(own);

    // First what appears inside the controller's own folders, then those folders themselves.
    const fs::path platform = own / "opt/kesta_platform";
    bind_all({{folder_ / "shared", platform / "shared"},
              {folder_ / "product", platform / "product"},
              {folder_, platform / "lab"},
              {inside ? fs::path(platform_folder) / "host-sbin" : "/usr/sbin", platform / "host-sbin"}});
    if (!inside) {
        lay_over((folder_ / "bin").string(), "/usr/bin");
    }
    std::vector<Bind> binds{{folder_ / "sbin", "/usr/sbin"}};
    if (fs::exists(full_marker(number))) {
        cover_full_disk((own / "opt/kesta_sys").string());
    }
    for (const OwnFolder &folder : own_folders) {
        binds.push_back({own / folder.name, folder.target});
    }
    if (!fs::is_symlink("/var/run")) {
        binds.push_back({own / "run", "/var/run"});
    }
    for (const std::string &extra : extra_binds) {
        fs::create_directories(own / fs::path(extra).relative_path());
        binds.push_back({extra, extra});
    }
    bind_all(binds);
    if (!inside) {
        setenv(folder_variable, folder_.c_str(), 1);
    }
    setenv(lab_variable, lab_inside().c_str(), 1);
    setenv(controller_variable, ("CNT" + std::to_string(number)).c_str(), 1);
    setenv("PATH",
           (std::string(platform_folder) + "/product/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin")
               .c_str(),
           1);
    return_to_folder(here);
}

std::vector<int> Appliance::processes() const
{
    return processes_with({std::string(folder_variable) + "=" + folder_.string()});
}

std::string Appliance::host_of(int number) { return "cnt" + std::to_string(number); }

fs::path Appliance::full_marker(int number) const { return folder_ / (host_of(number) + ".full"); }

// The programs that reach another controller work below the network: a pulled cable stops them here.
void Appliance::require_route(const std::string &own, const std::string &other) const
{
    for (const std::string &host : {host_of(controller_number(own)), other}) {
        if (!hosts_.is_linked(host)) {
            throw Error(other + ": no route to host (the link of " + host + " is down)");
        }
    }
}

void Appliance::power_on() const
{
    if (!hosts_.exist()) {
        throw Error("this lab has no hosts of its own: make one with kesta-lab create --hosts");
    }
    if (!hosts_.keeper()) {
        std::vector<Host> all = members_.hosts();
        for (int number = 0; number < controllers; ++number) {
            all.push_back({host_of(number), address_of(number)});
        }
        hosts_.start(all);
        for (const Host &host : all) {
            if (!hosts_.is_linked(host.name)) {
                hosts_.set_link(host.name, false);  // it was pulled when the power went
            }
        }
    }
    if (!members_.start_all()) {
        throw Error("not all members serve yet: look at " + (folder_ / "members").string() + "/*/log");
    }
}

void Appliance::cut_power(const std::optional<int> &controller) const
{
    if (controller) {
        kill_processes(processes_with({std::string(folder_variable) + "=" + folder_.string(),
                                       std::string(controller_variable) + "=CNT" + std::to_string(*controller)}));
        return;
    }
    kill_processes(processes());
    if (const std::optional<int> keeper = hosts_.keeper()) {
        kill_processes({*keeper});
    }
}

void Appliance::swap_board(int number) const
{
    // What stands in the board's own memory goes with it; a new one comes without an identity.
    std::error_code error;
    fs::remove(controller_folder(number) / "opt/kesta_platform/vpd", error);
    if (error) {
        throw Error("can't remove the identity of the board: " + error.message());
    }
}

void Appliance::set_full(int number, bool full) const
{
    if (full) {
        write_file(full_marker(number), "");
    } else {
        fs::remove(full_marker(number));
    }
}

void Appliance::destroy() const
{
    for (const int pid : processes()) {
        end_process(pid);
    }
    if (const std::optional<int> keeper = hosts_.keeper()) {
        end_process(*keeper);
    }
    std::error_code error;
    fs::remove_all(folder_, error);
    if (error) {
        throw Error("can't remove " + folder_.string() + ": " + error.message());
    }
}

}  // namespace lab
