// What the commands say of their options. This is all of the option parser that they see: its headers take longer to
// compile than all commands together, and are included where the options are kept (options.cpp), parsed
// (command_line.cpp) and listed (cmd_completion.cpp).
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <type_traits>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kestactl {

// An option or an argument of a command; each call adds to what is known of it.
class Option {
public:
    explicit Option(CLI::Option *option) : option_(option) {}

    Option required() const;
    Option in_range(int least, int most) const;
    Option not_negative() const;
    Option one_of(std::initializer_list<std::string> words) const;
    Option option_text(const std::string &text) const;  // what help shows in the place of its value
    Option group(const std::string &title) const;       // the title in help
    Option needs(const Option &other) const;
    Option excludes(const Option &other) const;

private:
    CLI::Option *option_;
};

// A command, or a group of commands; it belongs to the command line.
class Command {
public:
    explicit Command(CLI::App *app) : app_(app) {}

    Command add_subcommand(const std::string &name, const std::string &description) const;
    void require_subcommand() const;

    // Where its value goes; for the types of options.cpp. It is kept for as long as the command line is.
    template <typename Value>
    Option add_option(const std::string &names, Value &value, const std::string &description) const;
    Option add_flag(const std::string &names, bool &value, const std::string &description) const;

    // One of several words.
    template <typename Value, typename Choice>
    Option add_choice(const std::string &names, Value &value, const std::map<std::string, Choice> &choices,
                      const std::string &description) const
    {
        static_assert(std::is_enum_v<Choice>);
        std::map<std::string, int> numbers;
        for (const auto &[word, choice] : choices) {
            numbers[word] = static_cast<int>(choice);
        }
        return add_number(
            names, [&value](int number) { value = static_cast<Choice>(number); }, numbers, description);
    }

    Option get_option(const std::string &name) const;
    // Called when the command is chosen.
    void callback(std::function<void()> action) const;
    void footer(const std::string &text) const;

    CLI::App &app() const { return *app_; }

private:
    Option add_number(const std::string &names, const std::function<void(int)> &take,
                      const std::map<std::string, int> &numbers, const std::string &description) const;

    CLI::App *app_;
};

// For a command's callback: what is missing although no single option is required. Ends the parsing.
[[noreturn]] void require(const std::string &what);

}  // namespace kestactl
