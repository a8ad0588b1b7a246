// The options of the programs. This is all of the option parser that they see: its headers take longer to compile than
// the largest command, and are included once.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace options {

// An option or an argument of a command; each call adds to what is known of it.
class Option {
public:
    explicit Option(CLI::Option *option) : option_(option) {}

    Option required() const;
    Option in_range(int least, int most) const;
    Option not_negative() const;
    Option may_be_empty() const;  // of a text: see Command::add_option
    Option one_of(std::initializer_list<std::string> words) const;
    Option option_text(std::string_view text) const;  // what help shows in the place of its value
    Option type_name(std::string_view name) const;
    Option group(std::string_view title) const;  // the title in help
    Option needs(const Option &other) const;
    Option excludes(const Option &other) const;

    // The name that it goes by, and all that begin with "--", with these.
    std::string name() const;
    std::vector<std::string> long_names() const;
    std::string option_text() const;
    bool is_positional() const;
    bool takes_value() const;

private:
    CLI::Option *option_;
};

// A command, or a group of commands; it belongs to the command line.
class Command {
public:
    explicit Command(CLI::App *app) : app_(app) {}

    Command add_subcommand(std::string_view name, std::string_view description) const;
    void require_subcommand() const;

    // Where its value goes; for the types of options.cpp. It is kept for as long as the command line is. An empty text is
    // refused as the value of an option: it comes from a script's variable that was never set, and would pass for an
    // option that was not given, and so for all files, for another slot, or for no checksum at all.
    template <typename Value>
    Option add_option(std::string_view names, Value &value, std::string_view description) const;
    Option add_flag(std::string_view names, bool &value, std::string_view description) const;

    // One of several words.
    template <typename Value, typename Choice>
    Option add_choice(std::string_view names, Value &value, const std::map<std::string, Choice> &choices,
                      std::string_view description) const
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
    void footer(std::string_view text) const;

    std::string name() const;
    std::vector<Command> subcommands() const;
    std::vector<Option> options() const;
    // The option or flag of this name, if it has one.
    std::optional<Option> find_option(const std::string &name) const;
    // Whether the arguments have chosen it.
    bool was_given() const;

private:
    Option add_number(std::string_view names, const std::function<void(int)> &take,
                      const std::map<std::string, int> &numbers, std::string_view description) const;

    CLI::App *app_;
};

// Why parsing ended before anything was chosen.
struct Ended {
    bool wrong;           // usage; else help or the version was asked for
    std::string text;     // the answer, or what is wrong and where to look, as a terminal is told
    std::string problem;  // what is wrong, as a sentence
};

// Tells a terminal: help and the version on stdout, what is wrong on stderr. Returns the exit code: 0, 2 for wrong usage,
// or 1 where the answer can't be written.
int tell(const Ended &ended);

// All that may be given to a program.
class Program {
public:
    Program(const std::string &description, const std::string &name, const std::string &version);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    Command command() const { return Command(app_.get()); }
    // Options of the program may stand behind its commands.
    void fallthrough();

    // Calls the callbacks of what is chosen. Throws what they throw.
    std::optional<Ended> parse(int argc, const char *const *argv);

private:
    std::unique_ptr<CLI::App> app_;
};

// For a command's callback: what is missing although no single option is required. Ends the parsing.
[[noreturn]] void require(std::string_view what);

}  // namespace options
