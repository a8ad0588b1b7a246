#include "change_log.h"

#include <kesta/kesta.h>
#include <string.h>

#include <algorithm>

#include "appliance_state.h"
#include "generation_folder.h"
#include "json_value.h"
#include "kesta/paths.h"

namespace engine {
namespace {

constexpr const char *log_name = "changes.json";
constexpr std::size_t most_changes = 200;
constexpr int log_format = 1;

Json json_of(const NamesInForce &names)
{
    return {{"backup", names.backup},
            {"accept", names.accept},
            {"backup_version", names.backup_version},
            {"accept_version", names.accept_version},
            {"current_version", names.current_version},
            {"flash_version", names.flash_version}};
}

NamesInForce names_from(const Json &json)
{
    NamesInForce names;
    json.read("backup", names.backup);
    json.read("accept", names.accept);
    json.read("backup_version", names.backup_version);
    json.read("accept_version", names.accept_version);
    json.read("current_version", names.current_version);
    json.read("flash_version", names.flash_version);
    return names;
}

Json undo_json(const Change &change)
{
    Json json{{"before", json_of(change.before)}, {"after", json_of(change.after)}, {"archives", Json::array()}};
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

ReplacedArchive archive_from(const Json &json)
{
    ReplacedArchive archive;
    json.read("place", archive.place);
    json.read("before", archive.before);
    json.read("after", archive.after);
    json.read("was_kept", archive.was_kept);
    return archive;
}

ReplacedFiles files_from(const Json &json)
{
    ReplacedFiles files;
    json.read("group", files.group);
    json.read("sha256", files.sha256);
    json.read("replaced", files.replaced);
    json.read("made", files.made);
    return files;
}

void read_undo(const Json &json, Change &change)
{
    change.before = names_from(json.at("before"));
    change.after = names_from(json.at("after"));
    for (const Json &one : json.at("archives").elements()) {
        change.archives.push_back(archive_from(one));
    }
    if (json.contains("files")) {
        change.files = files_from(json.at("files"));
    }
    change.can_be_undone = true;
}

Json json_of(const Change &change)
{
    Json json{{"id", change.id},         {"time", change.time},     {"controller", change.controller},
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

Change change_from(const Json &json)
{
    Change change;
    json.read("id", change.id);
    json.read("time", change.time);
    json.read("controller", change.controller);
    json.read("user", change.user);
    json.read("verb", change.verb);
    json.read("group", change.group);
    json.read("reason", change.reason);
    json.read("result", change.result);
    json.read("cause", change.cause);
    if (json.contains("version")) {
        change.version = json.at("version").get<int>();
    }
    change.changed_nothing = json.value("changed_nothing", false).get<bool>();
    if (json.contains("undo")) {
        read_undo(json.at("undo"), change);
    }
    return change;
}

// A list that is damaged is left as it is, and not added to: what can still be read of it is the operator's.
std::vector<Change> read_log(const GenerationFolder &folder)
{
    const auto text = folder.read(log_name);
    if (!text) {
        return {};
    }
    try {
        std::vector<Change> all;
        const Json json = Json::parse(*text);
        for (const Json &one : json.at("changes").elements()) {
            all.push_back(change_from(one));
        }
        if (json.at("format") == Json(log_format)) {
            return all;
        }
    } catch (const JsonError &) {
        // It is told below, as one of another format is.
    }
    throw Failure(
        Exit::platform, "bad-changes",
        "The list of changes is damaged: " + folder.path_of(log_name) + " can't be understood.",
        "Move it away, and the next change begins a new list. All that was kept is still in 'kestactl history'.");
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
    Json json{{"format", log_format}, {"changes", Json::array()}};
    const std::size_t first = all.size() > most_changes ? all.size() - most_changes : 0;
    for (std::size_t i = first; i < all.size(); ++i) {
        const auto behind = all.begin() + static_cast<std::ptrdiff_t>(i) + 1;
        all[i].can_be_undone = all[i].can_be_undone && std::all_of(behind, all.end(), [](const Change &later) {
                                   return later.changed_nothing;
                               });
        json["changes"].push_back(json_of(all[i]));
    }
    folder.write(log_name, json.dump(1) + "\n");
}

std::optional<Failure> fault_of_changes()
{
    try {
        (void)changes();
    } catch (const Failure &failure) {
        return failure;
    }
    return std::nullopt;
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
