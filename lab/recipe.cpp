#include "recipe.h"

#include <errno.h>
#include <string.h>

#include <fstream>

#include "private_namespace.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char *line_mark = "| ";

[[noreturn]] void refuse(const fs::path &file, int number, const std::string &why)
{
    throw Error(file.string() + ":" + std::to_string(number) + ": " + why);
}

// Below the folder that it is meant for, whatever the recipe says.
bool stays_below(const fs::path &path)
{
    for (const fs::path &part : path) {
        if (part == "..") {
            return false;
        }
    }
    return !path.empty() && path.is_relative();
}

std::vector<std::string> *names_of(Recipe &recipe, const std::string &word)
{
    const std::map<std::string, std::vector<std::string> *> lists{{"sbin", &recipe.sbin_programs},
                                                                  {"product", &recipe.product_programs},
                                                                  {"shared-folder", &recipe.shared_folders},
                                                                  {"own-folder", &recipe.own_folders}};
    const auto found = lists.find(word);
    return found == lists.end() ? nullptr : found->second;
}

std::vector<RecipeFile> *files_of(Recipe &recipe, const std::string &word)
{
    if (word == "shared-file") {
        return &recipe.shared_files;
    }
    return word == "own-file" ? &recipe.own_files : nullptr;
}

}  // namespace

Recipe read_recipe(const fs::path &file)
{
    std::ifstream stream(file);
    if (!stream) {
        throw Error("can't read " + file.string() + ": " + strerror(errno));
    }
    Recipe recipe;
    RecipeFile *filled = nullptr;  // the lines that follow go there
    int number = 0;
    for (std::string line; std::getline(stream, line);) {
        ++number;
        if (line.rfind(line_mark, 0) == 0 || line == "|") {
            if (!filled) {
                refuse(file, number, "a line of no file");
            }
            filled->text += line.substr(std::min(line.size(), strlen(line_mark))) + "\n";
            continue;
        }
        filled = nullptr;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t blank = line.find(' ');
        const std::string word = line.substr(0, blank);
        const std::string path = blank == line.npos ? "" : line.substr(blank + 1);
        if (!stays_below(path)) {
            refuse(file, number, "'" + path + "' is no path below a folder");
        }
        if (std::vector<std::string> *names = names_of(recipe, word)) {
            names->push_back(path);
        } else if (std::vector<RecipeFile> *files = files_of(recipe, word)) {
            filled = &files->emplace_back(RecipeFile{path, ""});
        } else {
            refuse(file, number, "'" + word + "' is nothing that a recipe says");
        }
    }
    return recipe;
}

std::string filled_in(const std::string &text, const Variables &variables)
{
    std::string result;
    std::size_t at = 0;
    for (std::size_t mark; (mark = text.find('@', at)) != text.npos;) {
        const std::size_t end = text.find('@', mark + 1);
        const std::string name = end == text.npos ? "" : text.substr(mark + 1, end - mark - 1);
        const auto found = variables.find(name);
        if (found == variables.end()) {
            throw Error("a recipe has no variable @" + name + "@");
        }
        result += text.substr(at, mark - at) + found->second;
        at = end + 1;
    }
    return result + text.substr(at);
}

}  // namespace lab
