// The shortest way from one text to the other, by the greedy algorithm of E. Myers: for 0, 1, 2... changes the farthest
// line that each diagonal reaches. Each round is remembered, so that the way can be walked back; so the number of changes
// is limited, and with it the memory.
#include "text_difference.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace engine {
namespace {

using Lines = std::vector<std::string_view>;

constexpr int most_changes = 1000;
constexpr std::size_t around = 3;

Lines lines_of(std::string_view text)
{
    Lines lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    return lines;
}

// ' ' stays, '-' goes, '+' comes.
struct Edit {
    char what;
    std::string_view line;
};

void add_edits(std::vector<Edit> &edits, char what, const Lines &lines, std::size_t from, std::size_t to)
{
    for (std::size_t i = from; i < to; ++i) {
        edits.push_back({what, lines[i]});
    }
}

class Way {
public:
    Way(const Lines &from, const Lines &to) : from_(from), to_(to) {}

    // False: it takes more changes than are tried.
    bool find()
    {
        const int most = std::min<int>(most_changes, size(from_) + size(to_));
        std::vector<int> reached(static_cast<std::size_t>(2 * most + 3), 0);
        for (int changes = 0; changes <= most; ++changes) {
            rounds_.push_back(reached);
            for (int diagonal = -changes; diagonal <= changes; diagonal += 2) {
                const auto at = [&](int k) -> int & {
                    return reached[static_cast<std::size_t>(std::ptrdiff_t{k} + most + 1)];
                };
                const bool comes = diagonal == -changes || (diagonal != changes && at(diagonal - 1) < at(diagonal + 1));
                int x = comes ? at(diagonal + 1) : at(diagonal - 1) + 1;
                while (x < size(from_) && x - diagonal < size(to_) && line(from_, x) == line(to_, x - diagonal)) {
                    ++x;
                }
                at(diagonal) = x;
                if (x >= size(from_) && x - diagonal >= size(to_)) {
                    middle_ = most + 1;
                    return true;
                }
            }
        }
        return false;
    }

    std::vector<Edit> edits() const
    {
        std::vector<Edit> back;
        int x = size(from_);
        int y = size(to_);
        for (int changes = static_cast<int>(rounds_.size()) - 1; changes >= 0; --changes) {
            const std::vector<int> &before = rounds_[static_cast<std::size_t>(changes)];
            const auto at = [&](int k) {
                return before[static_cast<std::size_t>(std::ptrdiff_t{k} + middle_)];
            };
            const int diagonal = x - y;
            const bool comes = diagonal == -changes || (diagonal != changes && at(diagonal - 1) < at(diagonal + 1));
            const int old_x = changes == 0 ? 0 : comes ? at(diagonal + 1) : at(diagonal - 1);
            const int old_y = changes == 0 ? 0 : old_x - (comes ? diagonal + 1 : diagonal - 1);
            const int start_x = changes == 0 ? 0 : comes ? old_x : old_x + 1;
            for (; x > start_x && y > 0; --x, --y) {
                back.push_back({' ', line(from_, x - 1)});
            }
            if (changes > 0) {
                back.push_back(comes ? Edit{'+', line(to_, y - 1)} : Edit{'-', line(from_, x - 1)});
            }
            x = old_x;
            y = old_y;
        }
        std::reverse(back.begin(), back.end());
        return back;
    }

private:
    static int size(const Lines &lines) { return static_cast<int>(lines.size()); }
    static std::string_view line(const Lines &lines, int at) { return lines[static_cast<std::size_t>(at)]; }

    const Lines &from_;
    const Lines &to_;
    std::vector<std::vector<int>> rounds_;
    int middle_ = 0;
};

std::vector<Edit> edits_between(const Lines &from, const Lines &to)
{
    std::size_t same = 0;
    while (same < std::min(from.size(), to.size()) && from[same] == to[same]) {
        ++same;
    }
    std::size_t tail = 0;
    while (tail < std::min(from.size(), to.size()) - same && from[from.size() - 1 - tail] == to[to.size() - 1 - tail]) {
        ++tail;
    }
    const auto part = [&](const Lines &lines) {
        return Lines(lines.begin() + static_cast<std::ptrdiff_t>(same),
                     lines.end() - static_cast<std::ptrdiff_t>(tail));
    };
    const Lines old_part = part(from);
    const Lines new_part = part(to);
    std::vector<Edit> edits;
    add_edits(edits, ' ', from, 0, same);
    Way way(old_part, new_part);
    if (way.find()) {
        const std::vector<Edit> found = way.edits();
        edits.insert(edits.end(), found.begin(), found.end());
    } else {
        add_edits(edits, '-', old_part, 0, old_part.size());
        add_edits(edits, '+', new_part, 0, new_part.size());
    }
    add_edits(edits, ' ', from, from.size() - tail, from.size());
    return edits;
}

std::string range(std::size_t before, std::size_t count)
{
    return std::to_string(count == 0 ? before : before + 1) + (count == 1 ? "" : "," + std::to_string(count));
}

// The edits from..to with what stands before them in both texts.
std::string hunk(const std::vector<Edit> &edits, std::size_t from, std::size_t to, std::size_t old_line,
                 std::size_t new_line)
{
    std::string body;
    std::size_t old_count = 0;
    std::size_t new_count = 0;
    for (std::size_t i = from; i < to; ++i) {
        old_count += edits[i].what != '+';
        new_count += edits[i].what != '-';
        body += edits[i].what + std::string(edits[i].line);
        body += edits[i].line.ends_with('\n') ? "" : "\n\\ No newline at end of file\n";
    }
    return "@@ -" + range(old_line, old_count) + " +" + range(new_line, new_count) + " @@\n" + body;
}

}  // namespace

bool is_compared_text(std::string_view bytes)
{
    const auto is_odd = [](unsigned char c) {
        return c < ' ' && c != '\t' && c != '\n' && c != '\r';
    };
    return bytes.size() <= longest_compared_text && std::none_of(bytes.begin(), bytes.end(), is_odd);
}

std::string unified_difference(std::string_view from, std::string_view to)
{
    const std::vector<Edit> edits = edits_between(lines_of(from), lines_of(to));
    std::string text;
    std::size_t old_line = 0;
    std::size_t new_line = 0;
    std::size_t counted = 0;
    const auto count_to = [&](std::size_t end) {
        for (; counted < end; ++counted) {
            old_line += edits[counted].what != '+';
            new_line += edits[counted].what != '-';
        }
    };
    for (std::size_t i = 0; i < edits.size();) {
        if (edits[i].what == ' ') {
            ++i;
            continue;
        }
        const std::size_t begin = std::max(i - std::min(i, around), counted);
        std::size_t end = i;
        for (std::size_t k = i; k < edits.size() && k <= end + 2 * around; ++k) {
            end = edits[k].what == ' ' ? end : k;
        }
        end = std::min(end + 1 + around, edits.size());
        count_to(begin);
        text += hunk(edits, begin, end, old_line, new_line);
        count_to(end);
        i = end;
    }
    return text;
}

}  // namespace engine
