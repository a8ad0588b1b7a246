#include "generation_entry.h"

#include "json_value.h"

namespace engine {
namespace {

constexpr int entry_format = 1;

Json json_of(const GenerationChange &change)
{
    return {{"time", change.time}, {"controller", change.controller}, {"user", change.user},
            {"verb", change.verb}, {"comment", change.comment},       {"change", change.change}};
}

GenerationChange change_from(const Json &json)
{
    GenerationChange change;
    json.read("time", change.time);
    json.read("controller", change.controller);
    json.read("user", change.user);
    json.read("verb", change.verb);
    json.read("comment", change.comment);
    change.change = json.value("change", 0).get<std::uint64_t>();  // older ones have none
    return change;
}

std::string text_of(const Json &json) { return json.dump(2) + "\n"; }

SavedArchive saved_from(const Json &json)
{
    SavedArchive archive;
    json.read("sha256", archive.sha256);
    json.read("bytes", archive.bytes);
    json.read("version", archive.version);
    json.read("group", archive.group);
    archive.saved = change_from(json.at("saved"));
    return archive;
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
                    {"saved", generation.saved ? json_of(*generation.saved) : Json(nullptr)}});
}

std::optional<Generation> parse_entry(const std::string &text, const std::string &sha256)
{
    try {
        const Json json = Json::parse(text);
        Generation generation;
        json.read("sha256", generation.sha256);
        json.read("bytes", generation.bytes);
        json.read("order", generation.order);
        json.read("version", generation.version);
        json.read("version_recorded", generation.version_recorded);
        json.read("group", generation.group);
        json.read("places", generation.places);
        generation.kept = change_from(json.at("kept"));
        generation.number = json.value("number", generation.order).get<std::uint64_t>();  // older ones have none
        if (!json.at("saved").is_null()) {
            generation.saved = change_from(json.at("saved"));
        }
        const bool fits = json.at("format") == Json(entry_format) && generation.sha256 == sha256;
        return fits ? std::optional(generation) : std::nullopt;
    } catch (const JsonError &) {
        return std::nullopt;
    }
}

std::string saved_text(const std::vector<SavedArchive> &archives)
{
    Json json{{"format", entry_format}, {"archives", Json::array()}};
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
        const Json all = Json::parse(text);
        for (const Json &json : all.at("archives").elements()) {
            saved.archives.push_back(saved_from(json));
        }
    } catch (const JsonError &) {
        saved.whole = false;
    }
    return saved;
}

}  // namespace engine
