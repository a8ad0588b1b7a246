#include "change_log.h"

#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "appliance_state.h"
#include "generation_folder.h"
#include "kesta/paths.h"

namespace engine {
namespace {

using LogJson = nlohmann::ordered_json;

constexpr const char *log_name = "changes.json";
constexpr std::size_t most_changes = 200;
constexpr int log_format = 1;

LogJson json_of(const NamesInForce &names)
{
    return {{"backup", names.backup},
            {"accept", names.accept},
            {"backup_version", names.backup_version},
            {"accept_version", names.accept_version},
            {"current_version", names.current_version},
            {"flash_version", names.flash_version}};
}

NamesInForce names_from(const LogJson &json)
{
    return {json.at("backup"),         json.at("accept"),          json.at("backup_version"),
            json.at("accept_version"), json.at("current_version"), json.at("flash_version")};
}

LogJson undo_json(const Change &change)
{
    LogJson json{{"before", json_of(change.before)}, {"after", json_of(change.after)}, {"archives", LogJson::array()}};
    for (const ReplacedArchive &one : change.archives) {
        json["archives"].push_back(
            {{"place", one.place}, {"before", one.before}, {"after", one.after}, {"was_kept", one.was_kept}});
    }
    if (change.files) {
        json["files"] = {{"group", change.files->group},
                         {"sha256", change.files->sha256},
                         {"replaced", change.files->replaced},
                         {"made", change.files->made}};
    }
    return json;
}

void read_undo(const LogJson &json, Change &change)
{
    change.before = names_from(json.at("before"));
    change.after = names_from(json.at("after"));
    for (const LogJson &one : json.at("archives")) {
        change.archives.push_back({one.at("place"), one.at("before"), one.at("after"), one.at("was_kept")});
    }
    if (json.contains("files")) {
        const LogJson &files = json.at("files");
        change.files = {files.at("group"), files.at("sha256"), files.at("replaced").get<std::vector<std::string>>(),
                        files.at("made").get<std::vector<std::string>>()};
    }
    change.can_be_undone = true;
}

LogJson json_of(const Change &change)
{
    LogJson json{{"id", change.id},         {"time", change.time},     {"controller", change.controller},
                 {"user", change.user},     {"verb", change.verb},     {"group", change.group},
                 {"reason", change.reason}, {"result", change.result}, {"cause", change.cause}};
    if (change.version) {
        json["version"] = *change.version;
    }
    if (change.changed_nothing) {
        json["changed_nothing"] = true;
    }
    if (change.can_be_undone) {
        json["undo"] = undo_json(change);
    }
    return json;
}

Change change_from(const LogJson &json)
{
    Change change;
    change.id = json.at("id");
    change.time = json.at("time");
    change.controller = json.at("controller");
    change.user = json.at("user");
    change.verb = json.at("verb");
    change.group = json.at("group");
    change.reason = json.at("reason");
    change.result = json.at("result");
    change.cause = json.at("cause");
    if (json.contains("version")) {
        change.version = json.at("version").get<int>();
    }
    change.changed_nothing = json.value("changed_nothing", false);
    if (json.contains("undo")) {
        read_undo(json.at("undo"), change);
    }
    return change;
}

std::vector<Change> read_log(const GenerationFolder &folder)
{
    std::vector<Change> all;
    try {
        const auto text = folder.read(log_name);
        const LogJson json = text ? LogJson::parse(*text) : LogJson::object();
        for (const LogJson &one : json.value("changes", LogJson::array())) {
            all.push_back(change_from(one));
        }
    } catch (const nlohmann::json::exception &) {
        return all;  // what stood before the damage counts
    }
    return all;
}

std::string name_at(const std::vector<char> &image, std::size_t offset, std::size_t size)
{
    return {image.data() + offset, strnlen(image.data() + offset, size)};
}

int number_at(const std::vector<char> &image, std::size_t offset)
{
    std::int32_t number = 0;
    memcpy(&number, image.data() + offset, sizeof(number));
    return number;
}

}  // namespace

NamesInForce names_in_force()
{
    std::vector<char> image(sizeof(KESTA_VOLATILE));
    if (kestal_non_volatile_r_memory(KESTA_NV_IMAGE_REGION, image.data(), 0, static_cast<int>(image.size())) !=
        KESTA_OK) {
        fail_call("read-failed", "NV memory could not be read.", "Look at --trace 1.");
    }
    const int own = learn_own_number();
    NamesInForce names;
    for (const Block &block : blocks()) {
        const auto offset = static_cast<std::size_t>(block.in_memory ? block.offset : 0);
        switch (block.id) {
        case KESTA_BLOCK_BACKUP_NAME:
            names.backup = name_at(image, offset, block.size);
            break;
        case KESTA_BLOCK_ACCEPT_NAME:
            names.accept = name_at(image, offset, block.size);
            break;
        case KESTA_BLOCK_BACKUP_VERSION:
            names.backup_version = number_at(image, offset);
            break;
        case KESTA_BLOCK_ACCEPT_VERSION:
            names.accept_version = number_at(image, offset);
            break;
        default:
            names.current_version =
                block.id == KESTA_BLOCK_VERSION_CNT0 + own ? number_at(image, offset) : names.current_version;
        }
    }
    int flash = 0;
    names.flash_version =
        kestal_read_flash_version_file(&flash, KESTA_FLASH_VERSION) == KESTA_OK && flash > 0 ? flash : 0;
    return names;
}

std::vector<Change> changes()
{
    const GenerationFolder folder(KESTA_FLASH_DIRECTORY, GenerationFolder::Purpose::reading);
    return folder.is_there() ? read_log(folder) : std::vector<Change>();
}

void add_change(const Change &change)
{
    const GenerationFolder folder(KESTA_FLASH_DIRECTORY, GenerationFolder::Purpose::changing);
    std::vector<Change> all = read_log(folder);
    all.push_back(change);
    LogJson json{{"format", log_format}, {"changes", LogJson::array()}};
    const std::size_t first = all.size() > most_changes ? all.size() - most_changes : 0;
    for (std::size_t i = first; i < all.size(); ++i) {
        const auto behind = all.begin() + static_cast<std::ptrdiff_t>(i) + 1;
        all[i].can_be_undone = all[i].can_be_undone && std::all_of(behind, all.end(), [](const Change &later) {
                                   return later.changed_nothing;
                               });
        json["changes"].push_back(json_of(all[i]));
    }
    folder.write(log_name, json.dump(1, ' ', false, LogJson::error_handler_t::replace) + "\n");
}

std::string result_of_change(std::uint64_t id)
{
    static const std::vector<Change> known = [] {
        try {
            return changes();
        } catch (const Failure &) {
            return std::vector<Change>();
        }
    }();
    const auto found = std::find_if(known.begin(), known.end(), [id](const Change &one) { return one.id == id; });
    return id == 0 || found == known.end() ? "" : found->result;
}

}  // namespace engine
