// kestactl report: verify, status, versions, history and the NV image on one page for a browser, and what the other
// controllers say.
#include <kesta/kesta.h>
#include <time.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "all_controllers.h"
#include "command.h"
#include "overview.h"
#include "report_tables.h"
#include "utc.h"
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
           name + "</h1><p>As of " + utc(time(nullptr)) +
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
           image.section_of("What the NV image holds", image_fields_table) + "</body></html>\n";
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
