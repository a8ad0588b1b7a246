#include "mended_appliance.h"

#include <kesta/kesta.h>
#include <string.h>
#include <time.h>

#include <filesystem>
#include <fstream>

#include "appliance_state.h"
#include "archive_evidence.h"
#include "archive_places.h"
#include "change_log.h"
#include "command_line.h"
#include "generation_folder.h"
#include "generations.h"
#include "kesta/paths.h"
#include "private_root.h"
#include "tar_samples.h"
#include "test_platform.h"

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr int saved = 9;
constexpr int accepted = 3;
constexpr int most_steps = 8;
constexpr std::size_t first_slot = 2;

std::string slot_of(std::size_t place) { return std::string(place_names[place]).substr(strlen("slot:")); }
const char *path_of(std::size_t place) { return place == 0 ? engine::flash_backup : engine::flash_accept; }
int version_of(std::size_t place) { return place == 0 || place == first_slot ? saved : accepted; }

void set_commands(int controller)
{
    std::map<std::string, CommandOutput> &commands = platform().commands;
    commands["/usr/sbin/cpinfo -i"] = {std::to_string(controller) + "\n"};
    commands["/usr/sbin/cpinfo -N"] = {"4\n"};
    commands["/usr/sbin/cpinfo -b"] = {"normal\n"};
    for (const char *silent :
         {"/usr/sbin/eeprom cp_wwn | cut -d '=' -f2", "/usr/sbin/eeprom cp_serial_number | cut -d '=' -f2",
          "/opt/kesta_sys/sbin/env_vpdctl -r 2> /dev/null"}) {
        commands[silent] = {};
    }
}

std::string name_field(const std::string &name)
{
    std::string field = name;
    field.resize(KESTA_AREA_NAME_SIZE, '\0');
    return field;
}

void set_number(int area, int controller, int version) { (void)kestal_set_version(area, controller, version); }

}  // namespace

MendedAppliance::MendedAppliance(int controller, bool recorded) : controller_(controller), recorded_(recorded)
{
    reset(controller);
    clear_appliance_folders();
    set_commands(controller);
    write_file("/etc/nodename", "");
    name_in_memory(KESTA_SLOT0, KESTA_SLOT1);
    name_on_disk(KESTA_SLOT0, KESTA_SLOT1);
    for (const char *empty :
         {"kesta_verid", "kesta_verback", "kesta_ver0", "kesta_ver1", "kesta_ver2", "kesta_ver3", "kesta_reboot"}) {
        platform().sysback[empty] = {std::string(4, '\0')};
    }
    for (const auto &[name, size] : {std::pair{"kesta_wwn", 16}, {"kesta_serialno", 16}, {"kesta_guid", 20}}) {
        platform().sysback[name] = {std::string(static_cast<std::size_t>(size), '\0')};
    }
    set_number(KESTA_VER_AREA_NUMBERING, controller, saved);
    set_number(KESTA_VER_AREA_BACKUP, controller, saved);
    set_number(KESTA_VER_AREA_ACCEPT, controller, accepted);
    set_number(KESTA_VER_AREA_CURRENT, controller, saved);
    (void)kestal_set_flash_version_file(saved, KESTA_FLASH_VERSION);
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        put(place, archive(version_of(place)));
    }
    for (const int version : {accepted - 1, accepted, accepted + 1, saved - 1, saved, saved + 1}) {
        if (recorded_) {
            write_file("/tmp/noted", archive(version));
            engine::note_saved("/tmp/noted", "app", version, {});
        }
    }
}

MendedAppliance::~MendedAppliance() { reset(); }

void MendedAppliance::put(std::size_t place, const std::string &bytes)
{
    if (place >= first_slot) {
        platform().sysback[slot_of(place)] = {bytes};
    } else {
        fs::remove_all(path_of(place));
        write_file(path_of(place), bytes);
    }
}

void MendedAppliance::damage(std::size_t place, Damage how)
{
    const std::string good = archive(version_of(place));
    switch (how) {
    case Damage::none:
        return;
    case Damage::flipped:
        return put(place, with_flipped_byte(good));
    case Damage::cut:
        return put(place, good.substr(0, good.size() - 40));
    case Damage::tail:
        return put(place, good + std::string(100, '\0'));
    case Damage::absent:
        if (place < first_slot) {
            fs::remove_all(path_of(place));
        } else {
            platform().sysback.erase(slot_of(place));
        }
        return;
    case Damage::older:
        return put(place, archive(version_of(place) - 1));
    case Damage::newer:
        return put(place, archive(version_of(place) + 1));
    case Damage::unreadable:
        break;
    }
    if (place < first_slot) {
        fs::remove_all(path_of(place));
        fs::create_directory(path_of(place));
        return;
    }
    unreadable_slots_.insert("sb_open " + slot_of(place) + " r");
    platform().before_call = [this](const std::string &call) {
        platform().kind_faults.erase("sb_open");
        if (unreadable_slots_.contains(call)) {
            platform().fail_kind("sb_open", 0, 1);
        }
    };
}

void MendedAppliance::name_in_memory(const std::string &backup, const std::string &accept)
{
    std::string backup_field = name_field(backup);
    std::string accept_field = name_field(accept);
    (void)kestal_non_volatile_rw_memory(KESTA_BLOCK_BACKUP_NAME, KESTA_BLOCK_WRITE, backup_field.data(),
                                        KESTA_AREA_NAME_SIZE);
    (void)kestal_non_volatile_rw_memory(KESTA_BLOCK_ACCEPT_NAME, KESTA_BLOCK_WRITE, accept_field.data(),
                                        KESTA_AREA_NAME_SIZE);
}

void MendedAppliance::name_on_disk(const std::string &backup, const std::string &accept)
{
    platform().sysback["kesta_sysback"] = {name_field(backup)};
    platform().sysback["kesta_sysacpt"] = {name_field(accept)};
}

void MendedAppliance::lock_elsewhere()
{
    locked_ = true;
    std::array<KESTA_COMMAND_LOCKINFO, KESTA_CONTROLLERS> slots{};
    KESTA_COMMAND_LOCKINFO &slot = slots[static_cast<std::size_t>((controller_ + 1) % KESTA_CONTROLLERS)];
    slot.status = KESTA_LOCK_STATUS_TYPE1;
    slot.sign = time(nullptr);
    slot.timeout = slot.sign + 600;
    (void)kestal_non_volatile_rw_memory(KESTA_BLOCK_LOCK_CNT0, KESTA_BLOCK_WRITE, slots.data(), sizeof(slots));
}

std::string MendedAppliance::archive(int version) { return whole_archive("version " + std::to_string(version)); }

std::string MendedAppliance::at(std::size_t place) const
{
    if (place < first_slot) {
        return fs::is_regular_file(path_of(place)) ? read_file(path_of(place)) : "";
    }
    const auto found = platform().sysback.find(slot_of(place));
    return found == platform().sysback.end() ? "" : found->second.bytes;
}

namespace {

using Act = kestactl::Result (*)(const kestactl::Action &action, const kestactl::Globals &globals);

Ran run_words(const std::vector<std::string> &words, Act act)
{
    engine::use_both_places();  // a process of its own begins so
    kestactl::CommandLine line;
    std::vector<const char *> arguments;
    for (const std::string &word : words) {
        arguments.push_back(word.c_str());
    }
    arguments.push_back(nullptr);
    try {
        if (line.parse(static_cast<int>(words.size()), arguments.data())) {
            return {2, {}, "no command"};
        }
        const kestactl::Result result = act(line.action(), line.globals());
        return {static_cast<int>(result.exit), result.json, result.text};
    } catch (const engine::Failure &failure) {
        return {static_cast<int>(failure.exit()), {}, failure.what() + (" " + failure.hint())};
    }
}

}  // namespace

Ran MendedAppliance::run(std::vector<std::string> words) const
{
    return run_words(words,
                     [](const kestactl::Action &action, const kestactl::Globals &globals) { return action(globals); });
}

Ran MendedAppliance::run_and_tell(const std::vector<std::string> &words) const
{
    return run_words(words, kestactl::act_and_tell);
}

Ran MendedAppliance::verify() const { return run({"kestactl", "verify"}); }

std::set<std::string> MendedAppliance::whole_archives() const
{
    std::set<std::string> found;
    const auto add = [&found](const std::string &bytes) {
        if (engine::evidence_of_bytes(bytes).good()) {
            found.insert(bytes);
        }
    };
    for (std::size_t place = 0; place < place_names.size(); ++place) {
        add(at(place));
    }
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(KESTA_FLASH_DIRECTORY)) {
        // The files of the last change, and of no other: it is replaced by its nature.
        if (entry.is_regular_file() && entry.path().filename() != engine::undo_archive_name) {
            add(read_file(entry.path()));
        }
    }
    return found;
}

std::string MendedAppliance::judge(const Ran &last, const std::set<std::string> &before, bool refused)
{
    const std::set<std::string> after = whole_archives();
    for (const std::string &bytes : before) {
        if (!after.contains(bytes)) {
            return "a whole archive was lost";
        }
    }
    agrees_ = last.exit == 0;
    if (last.json.is_null() || last.json.at("subjects").size() != 9) {
        return "no answer: " + last.text;
    }
    bool told = false;
    for (const Json &row : last.json.at("subjects")) {
        told = told || (row.at("mend").is_null() && !row.at("text").get<std::string>().empty());
    }
    return agrees_ || told || (refused && locked_) ? "" : "neither agreement nor a word of what is left: " + last.text;
}

std::string MendedAppliance::follow()
{
    const std::set<std::string> before = whole_archives();
    bool refused = false;
    for (int step = 0;; ++step) {
        const Ran verified = verify();
        if (verified.json.is_null()) {
            return "no answer: " + verified.text;
        }
        Json mend;
        for (const Json &row : verified.json.at("subjects")) {
            if (mend.empty() && !row.at("mend").is_null() && !row.at("mend").empty()) {
                mend = row.at("mend");
            }
        }
        if (mend.empty() || refused) {
            return judge(verified, before, refused);
        }
        if (step == most_steps) {
            return "it goes on for ever: " + verified.text;
        }
        for (const Json &command : mend) {
            const Ran ran = run(command.get<std::vector<std::string>>());
            steps_ += "    " + command.dump() + " -> " + std::to_string(ran.exit) + " " + ran.text + "\n";
            refused = refused || ran.exit == 3;
            if (ran.exit != 0 && ran.exit != 3) {
                return "what was advised is refused: " + ran.text;
            }
        }
    }
}

std::string MendedAppliance::fix()
{
    const std::set<std::string> before = whole_archives();
    const Ran fixed = run({"kestactl", "verify", "--fix", "--yes"});
    steps_ += fixed.text;
    if (fixed.exit == 3 && locked_) {
        return judge(verify(), before, true);
    }
    if (fixed.json.is_null()) {
        return "no answer: " + fixed.text;
    }
    for (const Json &one : fixed.json.at("mended")) {
        if (one.at("exit") != 0) {
            return "what was advised is refused: " + one.dump();
        }
    }
    const Ran after = verify();
    return after.exit != fixed.exit ? "it says otherwise than verify behind it" : judge(fixed, before, false);
}

}  // namespace test
