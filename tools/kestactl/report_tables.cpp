#include "report_tables.h"

#include "all_controllers.h"
#include "command.h"
#include "findings.h"
#include "printable.h"

namespace kestactl {
namespace {

std::string row(const std::string &name, const std::string &value)
{
    return "<tr><th scope=\"row\">" + escaped(name) + "</th><td>" + value + "</td></tr>\n";
}

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

}  // namespace

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

std::string section(const std::string &title, const std::string &body)
{
    return "<section><h2>" + escaped(title) + "</h2>\n" + body + "</section>\n";
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

std::string image_fields_table(const Json &image)
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

}  // namespace kestactl
