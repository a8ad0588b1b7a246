#include "new_lab.h"

#include <utility>
#include <vector>

#include "child_program.h"
#include "private_namespace.h"
#include "sbin_view.h"
#include "text_file.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char *maintenance_user = "vndrmnt:x:901:901:maintenance:/:/bin/sh\n";
constexpr const char *maintenance_group = "vndrmnt:x:901:\n";

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

}  // namespace

std::string address_of(int number) { return "192.168.100." + std::to_string(10 + number); }

NewLab::NewLab(const fs::path &folder, const fs::path &product, const std::string &platform)
    : folder_(folder),
      product_(product.empty() ? own_program_folder().parent_path() : product),
      platform_(platform),
      recipe_file_(recipe_file(product_, platform)),
      recipe_(read_recipe(recipe_file_))
{
}

void NewLab::make_common() const
{
    fs::create_directories(folder_);
    fs::permissions(folder_, fs::perms::owner_all);
    copy_programs(product_, recipe_, folder_ / "product/bin");
    copy_libraries(product_, platform_, folder_ / "product/lib");
    fs::create_directories(folder_ / "product" / KESTA_INSTALL_RECIPEDIR);  // for a lab made within this one
    fs::copy_file(recipe_file_, folder_ / "product" / KESTA_INSTALL_RECIPEDIR / recipe_file_.filename());
    const fs::path seen_programs = fs::path(platform_folder) / "product/bin";
    std::vector<std::pair<std::string, fs::path>> provided;
    for (const std::string &program : recipe_.sbin_programs) {
        provided.emplace_back(program, seen_programs / program);
    }
    make_sbin(folder_ / "sbin", fs::path(platform_folder) / "host-sbin", provided);
    make_remote_programs(folder_);
    make_shared(folder_ / "shared", recipe_);
}

void NewLab::make_controller(int number, const std::string &cluster) const
{
    const fs::path folder = folder_ / ("cnt" + std::to_string(number));
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
    for (const std::string &name : recipe_.own_folders) {
        fs::create_directories(folder / name);
    }
    for (const std::string &program : recipe_.product_programs) {
        fs::create_symlink(fs::path(platform_folder) / "product/bin" / program,
                           folder / "opt/kesta_sys/sbin" / program);
    }
    fs::permissions(folder / "tmp", fs::perms::all | fs::perms::sticky_bit);
    for (const RecipeFile &file : recipe_.own_files) {
        write_recipe_file(folder, file, variables_of(number, cluster));
    }
    append_to(folder / "etc/passwd", maintenance_user);
    append_to(folder / "etc/group", maintenance_group);
    std::error_code ignored;
    fs::remove(folder / "etc/hostname", ignored);
    write_file(folder / "etc/hostname", "cnt" + std::to_string(number) + "\n");
}

}  // namespace lab
