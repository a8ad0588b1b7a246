#include "generation_entry.h"

#include <nlohmann/json.hpp>

namespace engine {
namespace {

using EntryJson = nlohmann::ordered_json;

constexpr int entry_format = 1;

EntryJson json_of(const GenerationChange &change)
{
    return {{"time", change.time}, {"controller", change.controller}, {"user", change.user},
            {"verb", change.verb}, {"comment", change.comment},       {"change", change.change}};
}

GenerationChange change_from(const EntryJson &json)
{
    return {json.at("time"), json.at("controller"), json.at("user"),
            json.at("verb"), json.at("comment"),    json.value("change", std::uint64_t{0})};  // older ones have none
}

std::string text_of(const EntryJson &json)
{
    return json.dump(2, ' ', false, EntryJson::error_handler_t::replace) + "\n";
}

SavedArchive saved_from(const EntryJson &json)
{
    return {json.at("sha256"), json.at("bytes"), json.at("version"), json.at("group"), change_from(json.at("saved"))};
}

}  // namespace

std::string entry_text(const Generation &generation)
{
    return text_of({{"format", entry_format},
                    {"sha256", generation.sha256},
                    {"bytes", generation.bytes},
                    {"order", generation.order},
                    {"number", generation.number},
                    {"version", generation.version},
                    {"version_recorded", generation.version_recorded},
                    {"group", generation.group},
                    {"places", generation.places},
                    {"kept", json_of(generation.kept)},
                    {"saved", generation.saved ? json_of(*generation.saved) : EntryJson(nullptr)}});
}

std::optional<Generation> parse_entry(const std::string &text, const std::string &sha256)
{
    try {
        const EntryJson json = EntryJson::parse(text);
        Generation generation{json.at("sha256"),
                              json.at("bytes"),
                              json.at("order"),
                              json.at("version"),
                              json.at("version_recorded"),
                              json.at("group"),
                              json.at("places").get<std::vector<std::string>>(),
                              change_from(json.at("kept")),
                              std::nullopt,
                              json.value("number", std::uint64_t{json.at("order")})};  // older ones have none
        if (!json.at("saved").is_null()) {
            generation.saved = change_from(json.at("saved"));
        }
        const bool fits = json.at("format") == entry_format && generation.sha256 == sha256;
        return fits ? std::optional(generation) : std::nullopt;
    } catch (const nlohmann::json::exception &) {
        return std::nullopt;
    }
}

std::string saved_text(const std::vector<SavedArchive> &archives)
{
    EntryJson json{{"format", entry_format}, {"archives", EntryJson::array()}};
    for (const SavedArchive &archive : archives) {
        json["archives"].push_back({{"sha256", archive.sha256},
                                    {"bytes", archive.bytes},
                                    {"version", archive.version},
                                    {"group", archive.group},
                                    {"saved", json_of(archive.saved)}});
    }
    return text_of(json);
}

SavedArchives parse_saved(const std::string &text)
{
    SavedArchives saved;
    try {
        const EntryJson all = EntryJson::parse(text);
        for (const EntryJson &json : all.at("archives")) {
            saved.archives.push_back(saved_from(json));
        }
    } catch (const nlohmann::json::exception &) {
        saved.whole = false;
    }
    return saved;
}

}  // namespace engine
