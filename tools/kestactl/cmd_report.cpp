// kestactl report: verify, status, versions, history and the NV image on one page for a browser, and what the other
// controllers say.
#include <kesta/kesta.h>
#include <time.h>

#include <array>
#include <filesystem>
#include <functional>
#include <memory>

#include "all_controllers.h"
#include "command.h"
#include "findings.h"
#include "overview.h"
#include "printable.h"
#include "whole_file.h"

namespace kestactl {
namespace {

constexpr const char *style = R"(
:root{color-scheme:light dark;--line:#8886;--good:#2e7d32;--bad:#c62828;--soft:#8882}
body{font:16px/1.45 system-ui,sans-serif;margin:0 auto;padding:1rem;max-width:60rem;overflow-wrap:anywhere}
h1{font-size:1.4rem;margin:.2rem 0}h2{font-size:1.1rem;margin:1.6rem 0 .4rem}
table{border-collapse:collapse;width:100%;table-layout:fixed}td,th{text-align:left;vertical-align:top;padding:.3rem .5rem;border-bottom:1px solid var(--line)}
th{width:38%}code{font:.9em/1.4 ui-monospace,monospace}
.verdict{padding:.6rem .8rem;border-radius:.4rem;color:#fff}.good{background:var(--good)}.bad{background:var(--bad)}
.mend{border-left:.3rem solid var(--bad);padding:.2rem .7rem;margin:.6rem 0;background:var(--soft)}
.map{display:grid;grid-template-columns:repeat(32,1fr);gap:1px;max-width:40rem}
.map i{aspect-ratio:1;background:var(--soft)}.map .a{background:#1565c055}.map .b{background:#ef6c0055}
.map .a.set{background:#1565c0}.map .b.set{background:#ef6c00}
.key i{display:inline-block;width:.8em;height:.8em;margin-right:.3em}
.a.set.one{background:#1565c0}.b.set.one{background:#ef6c00}.none.one{background:var(--line)}
.time{list-style:none;margin:.4rem 0;padding:0 0 0 1rem;border-left:.2rem solid var(--line)}
.time li{position:relative;padding:.3rem 0}.time li:before{content:"";position:absolute;left:-1.45rem;top:.75em;width:.7rem;height:.7rem;border-radius:50%;background:#1565c0}
time{font:.9em/1.4 ui-monospace,monospace}
details{margin-top:.6rem}summary{cursor:pointer}
)";

std::string escaped(const std::string &text)
{
    std::string result;
    for (const char c : printable(text)) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

// A value as a reader wants it: texts bare, what is missing as a dash.
std::string cell(const Json &value)
{
    if (value.is_null()) {
        return "&ndash;";
    }
    return escaped(value.is_string() ? value.get<std::string>() : dumped(value));
}

std::string row(const std::string &name, const std::string &value)
{
    return "<tr><th scope=\"row\">" + escaped(name) + "</th><td>" + value + "</td></tr>\n";
}

std::string section(const std::string &title, const std::string &body)
{
    return "<section><h2>" + escaped(title) + "</h2>\n" + body + "</section>\n";
}

// What a part found; a part that could not be had says why, and the page is no pass.
class Part {
public:
    explicit Part(const std::function<Result()> &find)
    {
        try {
            result_ = find();
        } catch (const Failure &failure) {
            missing_ = failure.what();
            result_.exit = failure.exit();
        }
    }
    bool is_missing() const { return !missing_.empty(); }
    const Json &json() const { return result_.json; }
    Exit exit() const { return result_.exit; }
    std::string section_of(const std::string &title, const std::function<std::string(const Json &)> &body) const
    {
        return section(title, is_missing() ? "<p class=\"mend\">Not to be had: " + escaped(missing_) + "</p>\n"
                                           : body(json()));
    }

private:
    Result result_;
    std::string missing_;
};

std::string now()
{
    const time_t seconds = time(nullptr);
    struct tm parts {};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text.data();
}

// ---------------------------------------------------------------------------------------- the parts

bool is_in_order(const Json &subject) { return subject.at("state") == "agree" || subject.at("state") == "absent"; }

// As a shell takes it.
std::string commands(const Json &mend)
{
    std::string html;
    for (const Json &command : mend) {
        html += "<br>Mend it: <code>" + escaped(shell_text(command.get<MendCommand>())) + "</code>";
    }
    return html;
}

std::string disagreements(const Json &verified)
{
    std::string html;
    for (const Json &subject : verified.at("subjects")) {
        if (!is_in_order(subject)) {
            html += "<div class=\"mend\"><strong>" + cell(subject.at("subject")) +
                    "</strong>: " + cell(subject.at("state")) + ". " + cell(subject.at("text")) +
                    commands(subject.at("mend")) + "</div>\n";
        }
    }
    return html;
}

std::string places_of(const Json &subject)
{
    std::string html;
    for (const Json &place : subject.at("places")) {
        html += "<br>" + cell(place.at("place")) + ": " + cell(place.at("state"));
        if (place.contains("version")) {
            html += ", version " + cell(place.at("version"));
        }
        if (place.contains("reason")) {
            html += " (" + cell(place.at("reason")) + ")";
        }
    }
    return html;
}

std::string subjects_table(const Json &verified)
{
    std::string html = "<table>\n";
    for (const Json &subject : verified.at("subjects")) {
        html += row(subject.at("subject").get<std::string>(), (is_in_order(subject) ? "" : "&#9888; ") +
                                                                  cell(subject.at("state")) + ": " +
                                                                  cell(subject.at("text")) + places_of(subject));
    }
    return html + "</table>\n";
}

std::string controller_table(const Json &status)
{
    std::string html = "<table>\n";
    for (const char *name :
         {"controller", "controllers", "boot_mode", "master", "backup_slot", "accept_slot", "group", "unfinished"}) {
        html += row(name, cell(status.at(name)));
    }
    return html + "</table>\n";
}

std::string locks_table(const Json &status)
{
    std::string html = "<table>\n";
    const Json &locks = status.at("command_locks");
    for (const Json &lock : locks) {
        html += row("command lock, CNT" + lock.at("controller").dump(),
                    cell(lock.at("type")) + ", identifier " + cell(lock.at("identifier")));
    }
    const Json &holders = status.at("inner_lock");
    for (const Json &holder : holders) {
        html += row("inner lock, CNT" + holder.at("controller").dump(), "token " + cell(holder.at("token")));
    }
    if (locks.is_null() || holders.is_null()) {
        html += row("locks", "unknown");
    } else if (locks.empty() && holders.empty()) {
        html += row("locks", "all free");
    }
    return html + "</table>\n";
}

std::string archives_table(const Json &status)
{
    std::string html = "<table>\n";
    for (const Json &archive : status.at("archives")) {
        const std::string what = archive.at("state") == "ok" ? archive.at("size").dump() + " bytes<br><code>" +
                                                                   cell(archive.at("sha256")) + "</code>"
                                                             : cell(archive.at("state"));
        html += row(archive.at("place").get<std::string>() + ": " + archive.at("path").get<std::string>(), what);
    }
    return html + "</table>\n";
}

std::string versions_table(const Json &versions)
{
    std::string html = "<table>\n";
    for (const auto &[name, number] : versions.items()) {
        html += row(name, cell(number));
    }
    return html + "</table>\n";
}

// One square a byte, in the order of the image; neighbouring fields differ in colour.
std::string image_map(const Json &image)
{
    std::string html = "<div class=\"map\" role=\"img\" aria-label=\"The bytes of the NV image\">\n";
    bool other = false;
    for (const Json &field : image.at("fields")) {
        const std::string bytes = field.at("bytes").get<std::string>();
        other = !other;
        for (std::size_t i = 0; i < bytes.size() / 2; ++i) {
            const bool set = bytes.compare(2 * i, 2, "00") != 0;
            html += std::string("<i class=\"") + (other ? "a" : "b") + (set ? " set" : "") + "\" title=\"" +
                    std::to_string(field.at("offset").get<std::size_t>() + i) + " " + cell(field.at("name")) +
                    "\"></i>";
        }
        html += "\n";
    }
    return html +
           "</div>\n<p class=\"key\"><i class=\"none one\"></i>zero, <i class=\"a set one\"></i><i "
           "class=\"b set one\"></i>set; each field in one of the two colours</p>\n";
}

std::string image_fields(const Json &image)
{
    std::string set;
    std::string zero;
    for (const Json &field : image.at("fields")) {
        const bool is_set = field.at("bytes").get<std::string>().find_first_not_of('0') != std::string::npos;
        const std::string where = field.at("offset").dump() + " (" + field.at("size").dump() + ")";
        (is_set ? set : zero) += row(where + " " + field.at("name").get<std::string>(), cell(field.at("value")));
    }
    return "<table>\n" + set + "</table>\n<details><summary>Fields that are all zero</summary><table>\n" + zero +
           "</table></details>\n";
}

// What another machine told is text like any other: every cell is escaped.
std::string controllers_table(const Json &appliance)
{
    std::string html;
    for (const auto &[name, values] : appliance.at("differences").items()) {
        html += "<div class=\"mend\"><strong>" + escaped(name) + "</strong> differs:";
        for (const auto &[controller, value] : values.items()) {
            html += "<br>" + escaped(controller) + ": " + cell(value);
        }
        html += "</div>\n";
    }
    html += "<table>\n";
    for (const Json &answer : appliance.at("controllers")) {
        const std::string name = "CNT" + answer.at("controller").dump();
        const Json status = answer.at("result");
        const Json versions = member(status, "versions");
        html += row(name, answer.at("answered") == true
                              ? "runs version " + cell(member(versions, "current")) + ", backup " +
                                    cell(member(versions, "backup")) + " in " + cell(member(status, "backup_slot")) +
                                    ", accepted " + cell(member(versions, "accept")) + " in " +
                                    cell(member(status, "accept_slot")) +
                                    "; unfinished: " + cell(member(status, "unfinished"))
                              : "&#9888; no answer: " + cell(answer.at("why")));
    }
    return html + "</table>\n";
}

std::string drift_text(const Json &verified)
{
    const Json drift = member(verified, "drift");
    std::string html = "<p>" + cell(member(drift, "text")) + "</p>\n";
    for (const Json &path : member(drift, "paths")) {
        html += "<code>" + cell(path) + "</code><br>\n";
    }
    return html;
}

std::string board_table(const Json &board)
{
    std::string html = "<table>\n";
    const Json values = member(board, "values");
    for (const auto &[name, places] : values.items()) {
        std::string told;
        for (const auto &[place, value] : places.items()) {
            const bool is_empty = value.is_string() && value.get<std::string>().empty();
            told += (told.empty() ? "" : "<br>") + escaped(place) + ": " + (is_empty ? "&ndash;" : cell(value));
        }
        html += row(name, told);
    }
    return html + "</table>\n";
}

// Each item that differs, with both values.
std::string mirror_text(const Json &mirror)
{
    std::string html;
    for (const Json &item : mirror.at("items")) {
        if (item.at("differs") == true) {
            html += row("\u26a0 " + item.at("name").get<std::string>(),
                        "NV memory: " + cell(item.at("memory")) + "<br>system backup area: " + cell(item.at("disk")));
        }
    }
    return html.empty() ? "<p>The twelve items are the same in NV memory and in the system backup area.</p>\n"
                        : "<table>\n" + html + "</table>\n";
}

// Newest first, as a line of time.
std::string time_line(const Json &kept)
{
    std::string html = "<ol class=\"time\">\n";
    for (const Json &one : member(kept, "generations")) {
        html += "<li><time>" + cell(member(one, "date")) + "</time> " + cell(member(one, "group")) + ", version " +
                cell(member(one, "version")) + ": " + cell(member(one, "reason")) + " <small>by " +
                cell(member(one, "author")) + ", generation " + cell(member(one, "number")) + "</small></li>\n";
    }
    html += "</ol>\n";
    return member(kept, "generations").empty() ? "<p>Nothing was kept yet.</p>\n" : html;
}

// ----------------------------------------------------------------------------------------- the page

struct Parts {
    Part verified{[] {
        return verify_places();
    }};
    Part status{[] {
        return show_status(true);
    }};
    Part versions{show_versions};
    Part image{decode_image};
    Part appliance{[] {
        return status_of_all(false, [] { return show_status(false); });
    }};
    Part board{show_identity};
    Part mirror{show_mirror};
    Part kept{show_history};

    bool agree() const
    {
        return verified.exit() == Exit::done && status.exit() == Exit::done && !versions.is_missing() &&
               !image.is_missing();
    }
};

std::string page(const Parts &parts)
{
    const auto &[verified, status, versions, image, appliance, board, mirror, kept] = parts;
    const bool agree = parts.agree();
    const std::string name = status.is_missing() ? "" : "CNT" + cell(status.json().at("controller"));
    const std::string verdict = agree                           ? "All places agree."
                                : verified.is_missing()         ? "It can't be told whether the places agree."
                                : verified.exit() == Exit::done ? "The places agree, but some answers are missing."
                                                                : "Some places do not agree.";
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<title>" +
           name + ": saved environments</title>\n<style>" + style +
           "</style></head><body>\n"
           "<h1>Saved environments of " +
           name + "</h1><p>As of " + now() +
           ", kestactl " KESTA_VERSION
           "</p>\n"
           "<p class=\"verdict " +
           (agree ? "good" : "bad") + "\">" + verdict + "</p>\n" +
           (verified.is_missing() ? "" : disagreements(verified.json())) +
           appliance.section_of("All controllers", controllers_table) +
           verified.section_of("What was compared", subjects_table) + mirror.section_of("Mirrored items", mirror_text) +
           verified.section_of("Changed since the save", drift_text) +
           kept.section_of("What was there before", time_line) + board.section_of("The board's identity", board_table) +
           status.section_of("This controller", controller_table) + versions.section_of("Versions", versions_table) +
           status.section_of("Locks", locks_table) + status.section_of("Archives", archives_table) +
           image.section_of("Map of the NV image", image_map) +
           image.section_of("What the NV image holds", image_fields) + "</body></html>\n";
}

Result report(const std::string &file)
{
    ExportedFile written(file);  // first: a name that can't be written shows before the work
    const Parts parts;
    const std::string path = std::filesystem::absolute(file).string();
    written.write(page(parts));
    written.publish();
    Result result;
    result.text = "Written to " + path + ".\n";
    result.json = {{"file", path},
                   {"verify", parts.verified.json()},
                   {"status", parts.status.json()},
                   {"versions", parts.versions.json()},
                   {"image", parts.image.json()},
                   {"appliance", parts.appliance.json()},
                   {"identity", parts.board.json()},
                   {"mirror", parts.mirror.json()},
                   {"history", parts.kept.json()}};
    for (const Part *part : {&parts.verified, &parts.status, &parts.versions, &parts.image}) {
        result.exit = std::max(result.exit, part->exit());
    }
    return result;
}

}  // namespace

void add_report(const Command &app, Action &action)
{
    auto file = std::make_shared<std::string>();
    const Command command =
        app.add_subcommand("report",
                           "Write what verify, status, version show and nv dump find to one page for a browser");
    command.add_option("FILE", *file, "The page, e.g. report.html").required();
    command.callback([&action, file] {
        action = [file](const Globals &) {
            return report(*file);
        };
    });
    add_examples(command,
                 "  kestactl report /tmp/report.html\n"
                 "  kestactl --json report report.html");
}

}  // namespace kestactl
