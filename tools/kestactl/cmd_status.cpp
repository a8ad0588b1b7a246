// kestactl status: this controller, the names in force and the archives, at a glance.
#include <dlfcn.h>
#include <kesta/kesta.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>

#include "all_controllers.h"
#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "cause_words.h"
#include "checksum.h"
#include "command.h"
#include "leftovers.h"
#include "lock_state.h"
#include "names.h"
#include "overview.h"
#include "platform_notice.h"
#include "printable.h"
#include "render.h"
#include "unfinished_restore.h"

namespace kestactl {
namespace {

constexpr std::array<const char *, 3> boot_mode_names{"normal", "suspend", "initconf"};

struct ArchivePlace {
    const char *name;
    const char *path;
};
constexpr std::array<ArchivePlace, 5> local_places{{
    {"flash", flash_backup},
    {"flash", flash_accept},
    {"tmp cache", cache_backup},
    {"tmp cache", cache_check},
    {"merge cache", merge_backup},
}};

// What is known of one archive. A state other than "ok" says why the rest is missing.
struct ShownArchive {
    std::string place;
    std::string path;
    std::string state;
    std::uint64_t size = 0;
    std::string sha256;
};

void add_file_checksum(ShownArchive &archive)
{
    std::ifstream file(archive.path, std::ios::binary);
    Checksum checksum;
    std::vector<char> block(1 << 20);
    while (file.read(block.data(), static_cast<std::streamsize>(block.size())) || file.gcount() > 0) {
        checksum.add({block.data(), static_cast<std::size_t>(file.gcount())});
    }
    if (file.bad() || !file.eof()) {
        archive.state = "unreadable";
        return;
    }
    archive.sha256 = checksum.text();
}

ShownArchive look_at_file(const ArchivePlace &place, bool checksums)
{
    ShownArchive archive{place.name, place.path, "ok", 0, ""};
    struct stat status;
    if (stat(place.path, &status) != 0) {
        archive.state = errno == ENOENT ? "none" : strerror(errno);
        return archive;
    }
    archive.size = static_cast<std::uint64_t>(status.st_size);
    if (!S_ISREG(status.st_mode)) {
        archive.state = "unreadable";  // a FIFO, for one: nobody is waited for
    } else if (checksums) {
        add_file_checksum(archive);
    }
    return archive;
}

// The area tells a size only with the contents, so this reads the whole slot.
ShownArchive look_at_slot(const char *slot)
{
    const ArchiveEvidence evidence = evidence_of_slot(slot);
    const bool was_read = !evidence.sha256.empty();
    return {"system backup area", slot,
            was_read            ? "ok"
            : evidence.absent() ? "none"
                                : "unreadable",
            evidence.bytes, evidence.sha256};
}

Json number_or_null(int number) { return number >= 0 ? Json(number) : Json(nullptr); }

std::string or_unknown(const Json &value)
{
    if (value.is_null()) {
        return "unknown";
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// A question about the appliance that failed: its answer is missing, and the status is no pass.
class Answers {
public:
    template <typename Question>
    Json ask(Question question)
    {
        try {
            Json answer = question();
            failed_ = failed_ || answer.is_null();
            return answer;
        } catch (const Failure &) {
            failed_ = true;
            return nullptr;
        }
    }
    bool failed() const { return failed_; }

private:
    bool failed_ = false;
};

Json master()
{
    for (int i = 0; i < KESTA_CONTROLLERS; ++i) {
        const int result = kestal_master_cnt_check(i);
        if (result == 0) {
            return i;
        }
        if (result < 0) {
            return nullptr;
        }
    }
    return nullptr;
}

Json boot_mode()
{
    const int mode = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_BOOT_MODE);
    return mode >= 0 ? Json(boot_mode_names.at(static_cast<std::size_t>(mode))) : Json(nullptr);
}

Json inner_lock_holders()
{
    std::array<KESTA_INNERLOCK_BUF, KESTA_CONTROLLERS> slots{};
    const int result = kestal_lockcheck_innerlock(0, slots.data(), nullptr, nullptr);
    if (result != KESTA_OK && result != KESTA_ERR_INNERLOCK_LOCKED) {
        return nullptr;
    }
    Json holders = Json::array();
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].status != 0) {
            holders.push_back({{"controller", i}, {"token", slots[i].timeout}});
        }
    }
    return holders;
}

std::string describe_holders(const Json &holders)
{
    if (holders.is_null()) {
        return "unknown";
    }
    std::string text;
    for (const Json &holder : holders) {
        text += (text.empty() ? "" : ", ");
        text += "CNT" + holder["controller"].dump() + " (token " + holder["token"].dump() + ")";
    }
    return text.empty() ? "free" : "held by " + text;
}

// What this controller runs with, and what is saved.
Json versions(int own)
{
    const auto version = [own](int area) {
        const int number = kestal_read_version_nolock(area, std::max(own, 0), KESTA_VERSION_BY_MODE);
        if (number < 0) {
            throw Failure(Exit::platform, "version-failed", "A version can't be read.", "");
        }
        return number;
    };
    return {{"current", version(KESTA_VER_AREA_CURRENT)},
            {"backup", version(KESTA_VER_AREA_BACKUP)},
            {"accept", version(KESTA_VER_AREA_ACCEPT)}};
}

std::string describe_versions(const Json &versions)
{
    if (versions.is_null()) {
        return "unknown";
    }
    return "this controller " + versions["current"].dump() + ", backup " + versions["backup"].dump() + ", accepted " +
           versions["accept"].dump();
}

// What the platform has to say, where it has the call for it.
std::string platform_notice()
{
    std::array<char, 512> text{};
    void *found = dlsym(RTLD_DEFAULT, "kesta_platform_notice");
    decltype(&kesta_platform_notice) call = nullptr;
    memcpy(&call, &found, sizeof(call));
    return call && call(text.data(), text.size()) == 1 ? printable(text.data()) : "";
}

// A command that was cut short.
Json unfinished()
{
    const auto restore = unfinished_restore();
    return restore ? Json("a restore of " + restore->group + ": complete it with " + restore->command())
                   : Json("nothing");
}

std::string describe_leftovers(const Json &paths)
{
    if (paths.is_null()) {
        return "unknown";
    }
    return paths.empty() ? "none" : joined(paths.get<std::vector<std::string>>()) + ": see 'kestactl verify'";
}

Json command_locks()
{
    const LockState state = read_lock_state();
    Json locks = Json::array();
    for (const CommandLock &lock : state.held) {
        locks.push_back(to_json(lock, state.group));
    }
    return locks;
}

std::string describe_locks(const Json &locks)
{
    if (locks.is_null()) {
        return "unknown";
    }
    std::string text;
    for (const Json &lock : locks) {
        text += (text.empty() ? "CNT" : ", CNT") + lock["controller"].dump() + " (" + lock["type"].get<std::string>() +
                ", identifier " + lock["identifier"].get<std::string>() + ")";
    }
    return text.empty() ? "free" : "held by " + text + ": see 'kestactl lock check'";
}

void add_archive(Result &result, const ShownArchive &archive)
{
    char line[256];
    snprintf(line, sizeof(line), "  %-18s  %-38s  ", archive.place.c_str(), archive.path.c_str());
    result.text += line;
    result.text += archive.state == "ok" ? std::to_string(archive.size) + " bytes  " + archive.sha256.substr(0, 16)
                                         : archive.state;
    result.text += "\n";
    Json json{{"place", archive.place}, {"path", archive.path}, {"state", archive.state}};
    if (archive.state == "ok") {
        json["size"] = archive.size;
        json["sha256"] = archive.sha256.empty() ? Json(nullptr) : Json(archive.sha256);
    } else if (archive.state != "none") {
        result.exit = Exit::platform;  // no answer is no pass
    }
    result.json["archives"].push_back(json);
}

void add_archives(Result &result, bool checksums)
{
    result.json["archives"] = Json::array();
    result.text += "archives:\n";
    for (const ArchivePlace &place : local_places) {
        add_archive(result, look_at_file(place, checksums));
    }
    if (checksums) {
        add_archive(result, look_at_slot(KESTA_SLOT0));
        add_archive(result, look_at_slot(KESTA_SLOT1));
    } else {
        result.text += "  system backup area  (--archives reads the slots and adds checksums)\n";
    }
}

}  // namespace

Result show_status(bool checksums)
{
    Answers answers;
    const int own = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER_NO_FILE);
    Result result;
    Json &json = result.json;
    json["controller"] = answers.ask([&] { return number_or_null(own); });
    json["controllers"] =
        answers.ask([] { return number_or_null(kestal_execute_command_by_popen(KESTA_CPINFO_CONTROLLER_COUNT)); });
    json["boot_mode"] = answers.ask(boot_mode);
    json["master"] = answers.ask(master);
    json["backup_slot"] = answers.ask([] { return Json(backup_slot()); });
    json["accept_slot"] = answers.ask([] { return Json(accept_slot()); });
    json["group"] =
        answers.ask([] { return Json(plain_text(field_text(read_block(find_block("group"), From::memory).bytes))); });
    json["versions"] = answers.ask([own] { return versions(own); });
    json["unfinished"] = answers.ask(unfinished);
    json["leftovers"] = answers.ask([] { return Json(leftover_paths()); });
    json["command_locks"] = answers.ask(command_locks);
    json["inner_lock"] = answers.ask(inner_lock_holders);
    result.text = "controller   CNT" + or_unknown(json["controller"]) + " of " + or_unknown(json["controllers"]) +
                  "\nboot mode    " + or_unknown(json["boot_mode"]) + "\nmaster       CNT" +
                  or_unknown(json["master"]) + "\nbackup slot  " + or_unknown(json["backup_slot"]) + "\naccept slot  " +
                  or_unknown(json["accept_slot"]) + "\ngroup        " + or_unknown(json["group"]) + "\nversions     " +
                  describe_versions(json["versions"]) + "\nunfinished   " + or_unknown(json["unfinished"]) +
                  "\nleftovers    " + describe_leftovers(json["leftovers"]) + "\ncommand lock " +
                  describe_locks(json["command_locks"]) + "\ninner lock   " + describe_holders(json["inner_lock"]) +
                  "\n";
    if (const std::string notice = platform_notice(); !notice.empty()) {
        json["platform_notice"] = notice;
        result.text += "platform     " + notice + "\n";
    }
    add_archives(result, checksums);
    if (answers.failed()) {
        const CauseWords cause = cause_in_words();
        result.text += "Some answers are missing: the platform did not give them (--trace 1).\n";
        if (!cause.why.empty()) {
            result.text += cause.why + (cause.hint.empty() ? "" : " " + cause.hint) + "\n";
        }
        result.exit = Exit::platform;
    }
    return result;
}

void add_status(const Command &app, Globals &globals, Action &action)
{
    auto archives = std::make_shared<bool>(false);
    auto all = std::make_shared<bool>(false);
    const Command command = app.add_subcommand("status", "Show this controller at a glance");
    add_examples(command,
                 "  kestactl status\n"
                 "  kestactl status --all\n"
                 "  kestactl status --archives --json");
    command.add_flag("--archives", *archives, "Read every archive and show its checksum");
    command.add_flag("--all", *all, "Ask all controllers, and tell what differs between them");
    add_watch(command, globals);
    command.callback([&action, archives, all] {
        action = [archives, all](const Globals &) {
            return *all ? status_of_all(*archives, [&] { return show_status(*archives); }) : show_status(*archives);
        };
    });
}

}  // namespace kestactl
