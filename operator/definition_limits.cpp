#include "definition_limits.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "beneath.h"
#include "failure.h"
#include "kesta/paths.h"

namespace engine {
namespace {

constexpr std::size_t most_bytes = 1UL << 20;
constexpr std::size_t most_bytes_of_a_tag = 16UL << 10;
constexpr std::size_t most_bytes_unread = 64UL << 10;  // of an encoding in which tags can't be told

[[noreturn]] void refuse_size(const std::string &path, const std::string &what, std::size_t limit)
{
    throw Failure(Exit::no, "bad-definition",
                  path + " has " + what + " of more than " + std::to_string(limit) + " bytes, and is not read.",
                  "A definition has at most 64 files with 8 links each. See what else is in it.");
}

std::string read_definition_text(const std::string &path)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    std::string text;
    ssize_t count = -1;
    if (file && fstat(file.get(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) {
            throw Failure(Exit::no, "no-file", path + " is no plain file.", "Name the file of a definition.");
        }
        text.resize(most_bytes + 1);
        std::size_t used = 0;
        while (used < text.size() && (count = read(file.get(), text.data() + used, text.size() - used)) > 0) {
            used += static_cast<std::size_t>(count);
        }
        text.resize(used);
    }
    if (count < 0) {
        const int error = errno;
        throw Failure(error == ENOENT ? Exit::no : Exit::platform, "no-file",
                      "There is no usable " + path + ": " + strerror(error) + ".",
                      "Name a file, or a group that has a define.xml below " KESTA_GROUP_DIRECTORY ".");
    }
    return text;
}

// Whether the characters of tags are bytes of their own: in UTF-8 and what extends ASCII, not in UTF-16 and the
// like.
bool shows_its_tags(std::string_view text)
{
    constexpr std::string_view mark = "\xef\xbb\xbf";
    if (text.substr(0, mark.size()) == mark) {
        text.remove_prefix(mark.size());
    }
    if (text.empty() || text.find('\0') != std::string_view::npos ||
        (text[0] != '<' && !std::isspace(static_cast<unsigned char>(text[0])))) {
        return false;
    }
    std::string head(text.substr(0, text.find('>')));
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::size_t encoding = head.find("encoding");
    return !head.starts_with("<?xml") || encoding == std::string::npos ||
           head.find("utf-8", encoding) != std::string::npos || head.find("iso-8859-", encoding) != std::string::npos ||
           head.find("us-ascii", encoding) != std::string::npos;
}

// Where a tag, a comment or a document type that begins here ends; the end of the text if it doesn't.
std::size_t end_of_markup(std::string_view text, std::size_t begin)
{
    const auto behind = [&](std::string_view end) {
        const std::size_t found = text.find(end, begin);
        return found == std::string_view::npos ? text.size() : found + end.size();
    };
    if (text.substr(begin, 4) == "<!--") {
        return behind("-->");
    }
    if (text.substr(begin, 9) == "<![CDATA[") {
        return behind("]]>");
    }
    const bool is_type = text.substr(begin, 9) == "<!DOCTYPE";
    char quote = '\0';
    int brackets = 0;
    for (std::size_t at = begin; at < text.size(); ++at) {
        const char c = text[at];
        if (quote != '\0') {
            quote = c == quote ? '\0' : quote;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (is_type && (c == '[' || c == ']')) {
            brackets += c == '[' ? 1 : -1;
        } else if (c == '>' && brackets <= 0) {
            return at + 1;
        }
    }
    return text.size();
}

void check_tags(const std::string &path, std::string_view text)
{
    std::size_t begin = 0;
    while ((begin = text.find('<', begin)) != std::string_view::npos) {
        const std::size_t end = end_of_markup(text, begin);
        const bool is_text = text.substr(begin, 4) == "<!--" || text.substr(begin, 9) == "<![CDATA[";
        if (!is_text && end - begin > most_bytes_of_a_tag) {
            refuse_size(path, "a tag", most_bytes_of_a_tag);
        }
        begin = end;
    }
}

}  // namespace

void require_moderate_definition(const std::string &path)
{
    const std::string text = read_definition_text(path);
    if (text.size() > most_bytes) {
        refuse_size(path, "a text", most_bytes);
    }
    if (shows_its_tags(text)) {
        check_tags(path, text);
    } else if (text.size() > most_bytes_unread) {
        refuse_size(path, "a text that is neither UTF-8 nor ISO 8859,", most_bytes_unread);
    }
}

}  // namespace engine
