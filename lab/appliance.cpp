#include "appliance.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>

#include "child_program.h"
#include "private_namespace.h"
#include "processes.h"
#include "recipe.h"
#include "sbin_view.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char *marker_name = "lab.conf";
constexpr const char *marker_text = "kesta-lab 1\n";
constexpr const char *controller_variable = "KESTA_LAB_CONTROLLER";
constexpr const char *lab_variable = "KESTA_LAB";
constexpr const char *maintenance_user = "vndrmnt:x:901:901:maintenance:/:/bin/sh\n";
constexpr const char *maintenance_group = "vndrmnt:x:901:\n";

// What every controller has of its own, and where it sees it.
struct OwnFolder {
    const char *name;
    const char *target;
};
constexpr std::array<OwnFolder, 5> own_folders{{
    {"etc", "/etc"},
    {"opt", "/opt"},
    {"run", "/run"},
    {"boot", "/boot"},
    {"tmp", "/tmp"},
}};

// Folders that the library and its callers expect to find, and those that the lab shows a controller.
constexpr std::array<const char *, 10> product_folders{"etc/kesta_sys",
                                                       "etc/inet",
                                                       "opt/kesta_sys/bakup",
                                                       "opt/kesta_sys/sbin",
                                                       "tmp/kesta_sys/tmp",
                                                       "run/kesta_sys/tmp",
                                                       "opt/kesta_platform/shared",
                                                       "opt/kesta_platform/product",
                                                       "opt/kesta_platform/host-sbin",
                                                       "opt/kesta_platform/lab"};

// Secrets of the machine that no lab needs.
constexpr std::array<const char *, 7> secrets{"shadow",    "shadow-",     "gshadow", "gshadow-",
                                              "sudoers.d", "ssl/private", "ssh"};

constexpr std::array<const char *, 3> programs{"kestactl", "kesta-lab", "kesta-platform-check"};

void write_file(const fs::path &path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.flush();
    if (!file) {
        throw Error("can't write " + path.string());
    }
}

std::string read_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void append_to(const fs::path &path, const std::string &text)
{
    const std::string all = read_file(path) + text;
    std::error_code ignored;
    fs::remove(path, ignored);
    write_file(path, all);
}

fs::path own_program_folder()
{
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) {
        throw Error("can't read /proc/self/exe: " + error.message());
    }
    return self.parent_path();
}

// Programs lie in bin; installed, those that nobody calls by name lie elsewhere.
void copy_program(const fs::path &product, const std::string &program, const fs::path &to)
{
    for (const char *folder : {"bin", KESTA_INSTALL_PROGRAMDIR}) {
        if (fs::exists(product / folder / program)) {
            fs::copy_file(product / folder / program, to / program);
            return;
        }
    }
    throw Error("there is no " + (product / "bin" / program).string() +
                ": build the project, or name an installed tree with --product");
}

void copy_programs(const fs::path &product, const Recipe &recipe, const fs::path &to)
{
    fs::create_directories(to);
    for (const char *program : programs) {
        copy_program(product, program, to);
    }
    for (const std::string &program : recipe.sbin_programs) {
        copy_program(product, program, to);
    }
    for (const std::string &program : recipe.product_programs) {
        copy_program(product, program, to);
    }
}

// Libraries beside the programs, and over them those that the platform has in a folder of its own. None there: they are
// installed where every program finds them.
void copy_libraries(const fs::path &product, const std::string &platform, const fs::path &to)
{
    fs::create_directories(to);
    const auto copy_from = [&to](const fs::path &folder) {
        std::error_code error;
        for (const fs::directory_entry &entry : fs::directory_iterator(folder, error)) {
            const std::string name = entry.path().filename();
            if (name.find(".so") != std::string::npos && !fs::exists(fs::symlink_status(to / name))) {
                fs::copy(entry.path(), to / name, fs::copy_options::copy_symlinks);
            }
        }
    };
    for (const char *folder : {"lib", KESTA_INSTALL_LIBDIR}) {
        if (platform != KESTA_PLATFORM) {            // the chosen one lies beside the library
            copy_from(product / folder / platform);  // a build tree
            copy_from(product / folder / "kesta" / platform);
        }
    }
    for (const char *folder : {"lib", KESTA_INSTALL_LIBDIR}) {
        copy_from(product / folder);
    }
}

fs::path recipe_file(const fs::path &product, const std::string &platform)
{
    fs::path file = product / KESTA_INSTALL_RECIPEDIR / (platform + ".recipe");
    if (platform.find('/') != platform.npos || !fs::exists(file)) {
        throw Error("there is no platform " + platform + " with a recipe for the lab, " + file.string() +
                    ": build or install it, or name another one with --platform");
    }
    return file;
}

std::string address_of(int number) { return "192.168.100." + std::to_string(10 + number); }

Variables variables_of(int number, const std::string &cluster)
{
    const int other = number % 2 == 0 ? number + 1 : number - 1;
    return {{"NUMBER", std::to_string(number)},
            {"COUNT", std::to_string(controllers)},
            {"OTHER", std::to_string(other)},
            {"ADDRESS", address_of(number)},
            {"OTHER_ADDRESS", address_of(other)},
            {"CLUSTER", cluster.empty() ? "# nv_endpoints = ADDRESS:PORT,..." : cluster},
            {"PLATFORM", platform_folder},
            {"SHARED", std::string(platform_folder) + "/shared"}};
}

void write_recipe_file(const fs::path &below, const RecipeFile &file, const Variables &variables)
{
    fs::create_directories((below / file.path).parent_path());
    write_file(below / file.path, filled_in(file.text, variables));
}

void make_controller(const fs::path &folder, int number, const Recipe &recipe, const std::string &cluster)
{
    for (const OwnFolder &own : own_folders) {
        fs::create_directories(folder / own.name);
    }
    // As an ordinary user it leaves out what that user can't read, and complains.
    if (run_program({"cp", "-a", "/etc/.", (folder / "etc").string()}, Shown::output) == program_is_missing) {
        throw Error("there is no cp");
    }
    for (const char *secret : secrets) {
        std::error_code ignored;
        fs::remove_all(folder / "etc" / secret, ignored);
    }
    for (const char *name : product_folders) {
        fs::create_directories(folder / name);
    }
    for (const std::string &name : recipe.own_folders) {
        fs::create_directories(folder / name);
    }
    for (const std::string &program : recipe.product_programs) {
        fs::create_symlink(fs::path(platform_folder) / "product/bin" / program,
                           folder / "opt/kesta_sys/sbin" / program);
    }
    fs::permissions(folder / "tmp", fs::perms::all | fs::perms::sticky_bit);
    for (const RecipeFile &file : recipe.own_files) {
        write_recipe_file(folder, file, variables_of(number, cluster));
    }
    append_to(folder / "etc/passwd", maintenance_user);
    append_to(folder / "etc/group", maintenance_group);
    std::error_code ignored;
    fs::remove(folder / "etc/hostname", ignored);
    write_file(folder / "etc/hostname", "cnt" + std::to_string(number) + "\n");
}

void make_shared(const fs::path &shared, const Recipe &recipe)
{
    fs::create_directories(shared);
    for (const std::string &name : recipe.shared_folders) {
        fs::create_directories(shared / name);
    }
    for (const RecipeFile &file : recipe.shared_files) {
        write_recipe_file(shared, file, {});
    }
}

// A controller that reaches another one sees the lab here.
std::string lab_inside() { return std::string(platform_folder) + "/lab"; }

bool is_inside() { return getenv(controller_variable) != nullptr; }

// Programs that remote scripts call, between controllers of the lab.
void make_remote_programs(const fs::path &folder)
{
    const auto program = [](const fs::path &path, const char *text) {
        fs::create_directories(path.parent_path());
        write_file(path, text);
        fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
    };
    // They stay while their command runs: a script waits for them by name.
    program(folder / "bin/rsh",
            "#!/bin/sh\n"
            "# rsh -l USER CNTn COMMAND: runs it on another controller.\n"
            "[ \"$1\" != -l ] || shift 2\n"
            "controller=$1\nshift\n"
            "kesta-lab exec \"$controller\" -- /bin/sh -c \"$*\"\n"
            "exit $?\n");
    program(folder / "bin/rcp",
            "#!/bin/sh\n"
            "# rcp -p FILE USER@CNTn:FILE: to another controller, with mode and time.\n"
            "[ \"$1\" != -p ] || shift\n"
            "controller=${2%%:*}\n"
            "kesta-lab exec \"${controller#*@}\" -- /bin/sh -c \\\n"
            "    'cat > \"$1\" && chmod \"$2\" \"$1\" && touch -d \"$3\" \"$1\"' - \\\n"
            "    \"${2#*:}\" \"$(stat -c %a \"$1\")\" \"$(stat -c %y \"$1\")\" < \"$1\"\n"
            "exit $?\n");
    program(folder / "product/bin/pfexec",
            "#!/bin/sh\n"
            "# pfexec COMMAND: a lab has one user.\n"
            "exec \"$@\"\n");
    program(folder / "product/bin/su",
            "#!/bin/sh\n"
            "# su USER -c COMMAND: a lab has one user.\n"
            "[ \"$2\" = -c ] || exec /usr/bin/su \"$@\"\n"
            "/bin/sh -c \"$3\"\n"
            "exit $?\n");
}

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

bool is_of_ours(const struct stat &status)
{
    // In a namespace of a user without rights the machine's root is nobody there, and the root folder's owner.
    struct stat root;
    return status.st_uid == geteuid() || status.st_uid == 0 || (stat("/", &root) == 0 && status.st_uid == root.st_uid);
}

// Whether nobody but this user and root can have put the thing there.
bool is_trusted(const fs::path &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && !S_ISLNK(status.st_mode) && is_of_ours(status);
}

// Nobody else writes in a lab, and not everybody can put another folder in its place. In a folder where everybody writes,
// as /tmp, only the owner of a name can change it. Who has a folder of somebody else's for a lab trusts him with it.
void require_own(const fs::path &lab)
{
    struct stat status;
    const auto require = [](const fs::path &path, bool good, const char *what) {
        if (!good) {
            throw Error(path.string() + what + ": programs of that lab would run as you");
        }
    };
    constexpr const char *others = " belongs to somebody else";
    constexpr const char *writable = " can be written to by others";
    require(lab, lstat(lab.c_str(), &status) == 0 && is_of_ours(status), others);
    require(lab, (status.st_mode & (S_IWGRP | S_IWOTH)) == 0, writable);
    const fs::path marker = lab / marker_name;
    require(marker, lstat(marker.c_str(), &status) == 0 && S_ISREG(status.st_mode) && is_of_ours(status), others);
    require(marker, status.st_nlink == 1, " is a second name of a file");  // of ours, and given by anybody
    // A controller sees the lab in folders of its own, which nobody outside reaches.
    for (fs::path above = lab; above.has_relative_path() && !is_inside();) {
        above = above.parent_path();
        require(above,
                stat(above.c_str(), &status) == 0 &&
                    ((status.st_mode & S_IWOTH) == 0 || (status.st_mode & S_ISVTX) != 0),
                writable);
    }
}

// Whether it may be a lab: its marker is read only when that is known for our own. A FIFO would be waited for.
bool has_marker(const fs::path &folder)
{
    struct stat status;
    return lstat((folder / marker_name).c_str(), &status) == 0 && S_ISREG(status.st_mode);
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
    if (has_marker(folder_)) {
        require_own(folder_);
    }
    if (!has_marker(folder_) || read_file(folder_ / marker_name) != marker_text) {
        throw Error(folder_.string() + " is no lab: make one with kesta-lab create DIR");
    }
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
    const fs::path from = product.empty() ? own_program_folder().parent_path() : product;
    const std::string chosen = !platform.empty() ? platform : cluster ? cluster_platform : KESTA_PLATFORM;
    const fs::path written = recipe_file(from, chosen);
    const Recipe recipe = read_recipe(written);
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::owner_all);
    copy_programs(from, recipe, folder / "product/bin");
    copy_libraries(from, chosen, folder / "product/lib");
    fs::create_directories(folder / "product" / KESTA_INSTALL_RECIPEDIR);  // for a lab made within this one
    fs::copy_file(written, folder / "product" / KESTA_INSTALL_RECIPEDIR / written.filename());
    const fs::path seen_programs = fs::path(platform_folder) / "product/bin";
    std::vector<std::pair<std::string, fs::path>> provided;
    for (const std::string &program : recipe.sbin_programs) {
        provided.emplace_back(program, seen_programs / program);
    }
    make_sbin(folder / "sbin", fs::path(platform_folder) / "host-sbin", provided);
    make_remote_programs(folder);
    make_shared(folder / "shared", recipe);
    const Hosts hosts(fs::absolute(folder));
    const Members members(fs::absolute(folder), hosts);
    if (cluster) {
        members.create(cluster->members, cluster->quota);
    }
    for (int number = 0; number < controllers; ++number) {
        make_controller(folder / ("cnt" + std::to_string(number)), number, recipe, members.settings());
    }
    write_file(folder / marker_name, marker_text);  // last: an unfinished lab is none
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
