// The page of kestactl report, of any state: its tags are the page's own and close each other, what
// comes from the state stands between them as text, and a terminal may show all of it.
#include <array>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "command_line.h"
#include "contract.h"
#include "fuzzed_appliance.h"
#include "scratch_root.h"
#include "shown_result.h"
#include "trace_capture.h"

using fuzz::require;

namespace {

constexpr const char *page_file = "/tmp/report.html";

constexpr std::array<std::string_view, 22> own_tags{"html", "head",    "meta",    "title", "style",   "body",
                                                    "h1",   "h2",      "p",       "div",   "section", "br",
                                                    "code", "table",   "tr",      "th",    "td",      "i",
                                                    "span", "details", "summary", "strong"};
constexpr std::array<std::string_view, 9> own_attributes{"lang",  "charset", "name",       "content", "scope",
                                                         "class", "role",    "aria-label", "title"};
constexpr std::array<std::string_view, 6> own_entities{"&amp;", "&lt;", "&gt;", "&quot;", "&ndash;", "&#9888;"};

template <typename Words>
bool is_one_of(const Words &words, std::string_view word)
{
    for (const std::string_view known : words) {
        if (known == word) {
            return true;
        }
    }
    return false;
}

void require_entities(std::string_view text)
{
    for (std::size_t at = text.find('&'); at != std::string_view::npos; at = text.find('&', at + 1)) {
        const std::string_view entity = text.substr(at, text.find(';', at) - at + 1);
        require(is_one_of(own_entities, entity), "an ampersand of the data");
    }
}

// ` class="good" title="..."`
void require_attributes(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t equals = text.find('=');
        require(text[0] == ' ' && equals != std::string_view::npos && text.substr(equals, 2) == "=\"" &&
                    is_one_of(own_attributes, text.substr(1, equals - 1)),
                "an attribute of the data");
        const std::size_t end = text.find('"', equals + 2);
        require(end != std::string_view::npos, "an attribute without its end");
        require_entities(text.substr(equals + 2, end - equals - 2));
        text.remove_prefix(end + 1);
    }
}

void take_tag(std::string_view tag, std::vector<std::string_view> &open)
{
    if (tag.starts_with('/')) {
        require(!open.empty() && open.back() == tag.substr(1), "a tag that closes nothing");
        open.pop_back();
        return;
    }
    const std::size_t blank = std::min(tag.find(' '), tag.size());
    const std::string_view name = tag.substr(0, blank);
    require(is_one_of(own_tags, name), "a tag of the data");
    require_attributes(tag.substr(blank));
    if (name != "meta" && name != "br") {
        open.push_back(name);
    }
}

void require_own_markup(std::string_view page)
{
    constexpr std::string_view start = "<!DOCTYPE html>\n";
    require(page.starts_with(start), "no page");
    page.remove_prefix(start.size());
    std::vector<std::string_view> open;
    while (!page.empty()) {
        const std::size_t tag = page.find('<');
        const std::string_view text = page.substr(0, tag);
        const bool is_style = !open.empty() && open.back() == "style";
        require(is_style || text.find('>') == std::string_view::npos, "an angle of the data");
        require_entities(text);
        if (tag == std::string_view::npos) {
            break;
        }
        const std::size_t end = page.find('>', tag);
        require(end != std::string_view::npos, "a tag without its end");
        take_tag(page.substr(tag + 1, end - tag - 1), open);
        page.remove_prefix(end + 1);
    }
    require(open.empty(), "a tag that is not closed");
}

std::string contents()
{
    std::ifstream file(page_file);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    engine::withhold_traces();
    fuzz::prepare_appliance();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static kestactl::CommandLine line;
    constexpr std::array words{"kestactl", "report", page_file};
    const fuzz::Visit visit;
    fuzz::fill_appliance(data, size);
    require(!line.parse(words.size(), words.data()), "no verb");
    const kestactl::Result result = line.action()(line.globals());
    fuzz::require_printable(shown_result(result, kestactl::Form::text));
    fuzz::require_json(shown_result(result, kestactl::Form::json));
    const std::string page = contents();
    fuzz::require_printable(page);
    require_own_markup(page);
    fuzz::require_closed();
    return 0;
}
