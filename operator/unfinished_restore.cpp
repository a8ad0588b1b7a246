#include "unfinished_restore.h"

#include <errno.h>
#include <unistd.h>

#include <filesystem>

#include "archive_places.h"
#include "failure.h"
#include "json_value.h"
#include "whole_file.h"

namespace engine {

std::string UnfinishedRestore::command() const
{
    std::string text;
    for (const std::string &word : words()) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

std::vector<std::string> UnfinishedRestore::words() const
{
    if (from == from_undo) {
        return {"kestactl", "undo", "--yes"};
    }
    constexpr std::string_view generation = "generation:";
    std::vector<std::string> all{"kestactl", "restore", group, "--from", from};
    if (from.starts_with(generation)) {
        all = {"kestactl", "restore", group, "--generation", from.substr(generation.size())};
    }
    if (!only.empty()) {
        all.insert(all.end(), {"--only", only});
    }
    if (on_reboot) {
        all.emplace_back("--on-reboot");
    }
    return all;
}

std::optional<UnfinishedRestore> unfinished_restore()
{
    if (is_absent(unfinished_restore_note)) {
        return std::nullopt;
    }
    try {
        const Json json = Json::parse(read_whole_file(unfinished_restore_note));
        UnfinishedRestore restore;
        json.read("group", restore.group);
        json.read("from", restore.from);
        json.read("only", restore.only);
        json.read("on_reboot", restore.on_reboot);
        json.read("replaced", restore.replaced);
        return restore;
    } catch (const JsonError &) {
        throw Failure(Exit::platform, "bad-note", std::string(unfinished_restore_note) + " can't be understood.",
                      "A restore was not completed. Remove the file, and restore the group again.");
    }
}

void note_unfinished(const UnfinishedRestore &restore)
{
    const Json json{{"group", restore.group},
                    {"from", restore.from},
                    {"only", restore.only},
                    {"on_reboot", restore.on_reboot},
                    {"replaced", restore.replaced}};
    write_file_whole(unfinished_restore_note, json.dump(2));
}

void note_finished()
{
    if (unlink(unfinished_restore_note) != 0 && errno != ENOENT) {
        fail_file(unfinished_restore_note, "removed");
    }
    flush_folder(std::filesystem::path(unfinished_restore_note).parent_path().string());
}

void require_no_unfinished_restore()
{
    if (const auto unfinished = unfinished_restore()) {
        throw Failure(Exit::no, "restore-unfinished",
                      "A restore of " + unfinished->group +
                          " is unfinished: its files may be partly new, "
                          "partly old.",
                      "Complete it first: " + unfinished->command());
    }
}

}  // namespace engine
