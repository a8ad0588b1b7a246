// Any arguments of kestactl, each ended by a NUL: they choose an action, which is not performed, or
// are answered, or refused.
#include <string>
#include <vector>

#include "command_line.h"
#include "contract.h"
#include "shown_result.h"

using fuzz::require;

namespace {

std::vector<std::string> split(const uint8_t *data, size_t size)
{
    std::vector<std::string> words{"kestactl"};
    std::string word;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] != '\0') {
            word += static_cast<char>(data[i]);
        } else {
            words.push_back(word);
            word.clear();
        }
    }
    if (!word.empty()) {
        words.push_back(word);
    }
    return words;
}

void require_shown(const kestactl::Result &answer)
{
    require(answer.exit == engine::Exit::done, "an answer that is no success");
    fuzz::require_printable(shown_result(answer, kestactl::Form::text));
    fuzz::require_json(shown_result(answer, kestactl::Form::json));
}

void require_shown(const engine::Failure &failure)
{
    require(failure.exit() == engine::Exit::usage, "refused otherwise than as wrong usage");
    fuzz::require_printable(shown_failure(failure, kestactl::Form::text));
    fuzz::require_json(shown_failure(failure, kestactl::Form::json));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static kestactl::CommandLine line;  // each parse begins anew
    const std::vector<std::string> words = split(data, size);
    std::vector<const char *> argv;
    for (const std::string &word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    try {
        if (const auto answer = line.parse(static_cast<int>(words.size()), argv.data())) {
            require_shown(*answer);
        } else {
            require(static_cast<bool>(line.action()), "neither an answer nor an action");
        }
    } catch (const engine::Failure &failure) {
        require_shown(failure);
    }
    return 0;
}
