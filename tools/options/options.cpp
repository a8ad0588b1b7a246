#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace options {
namespace {

constexpr const char *not_empty = "not empty";  // the name of what checks it

template <typename Value>
constexpr bool is_text = std::is_same_v<Value, std::string> || std::is_same_v<Value, std::optional<std::string>> ||
                         std::is_same_v<Value, std::vector<std::string>>;

CLI::Validator no_empty_text()
{
    const auto fault = [](const std::string &text) {
        return text.empty() ? std::string("an empty text is no value: leave the option out, or say what is meant") : "";
    };
    return CLI::Validator(fault, "", not_empty);
}

}  // namespace

Option Option::required() const { return Option(option_->required()); }

Option Option::in_range(int least, int most) const { return Option(option_->check(CLI::Range(least, most))); }

// The parser's own check, which would tell of a bound with 309 digits.
Option Option::not_negative() const
{
    const auto fault = [](const std::string &text) {
        if (CLI::NonNegativeNumber(text).empty()) {
            return std::string();
        }
        return "Value " + text + (CLI::Number(text).empty() ? " is below 0" : " is no number");
    };
    return Option(option_->check(CLI::Validator(fault, "NONNEGATIVE")));
}

Option Option::may_be_empty() const
{
    option_->get_validator(not_empty)->active(false);
    return *this;
}

Option Option::one_of(std::initializer_list<std::string> words) const
{
    return Option(option_->check(CLI::IsMember(std::vector<std::string>(words))));
}

Option Option::option_text(const std::string &text) const { return Option(option_->option_text(text)); }

Option Option::type_name(const std::string &name) const { return Option(option_->type_name(name)); }

Option Option::group(const std::string &title) const { return Option(option_->group(title)); }

Option Option::needs(const Option &other) const { return Option(option_->needs(other.option_)); }

Option Option::excludes(const Option &other) const { return Option(option_->excludes(other.option_)); }

std::string Option::name() const { return option_->get_name(); }

std::vector<std::string> Option::long_names() const
{
    std::vector<std::string> names;
    for (const std::string &name : option_->get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

std::string Option::option_text() const { return option_->get_option_text(); }

bool Option::is_positional() const { return option_->get_positional(); }

bool Option::takes_value() const { return option_->get_expected_max() > 0; }

Command Command::add_subcommand(const std::string &name, const std::string &description) const
{
    return Command(app_->add_subcommand(name, description));
}

void Command::require_subcommand() const { app_->require_subcommand(1); }

template <typename Value>
Option Command::add_option(const std::string &names, Value &value, const std::string &description) const
{
    CLI::Option *const option = app_->add_option(names, value, description);
    if (is_text<Value> && !option->get_positional()) {
        option->check(no_empty_text());
    }
    return Option(option);
}

template Option Command::add_option(const std::string &, std::string &, const std::string &) const;
template Option Command::add_option(const std::string &, int &, const std::string &) const;
template Option Command::add_option(const std::string &, std::uint64_t &, const std::string &) const;
template Option Command::add_option(const std::string &, std::optional<int> &, const std::string &) const;
template Option Command::add_option(const std::string &, std::optional<std::string> &, const std::string &) const;
template Option Command::add_option(const std::string &, std::optional<std::uint64_t> &, const std::string &) const;
template Option Command::add_option(const std::string &, std::vector<std::string> &, const std::string &) const;

Option Command::add_flag(const std::string &names, bool &value, const std::string &description) const
{
    return Option(app_->add_flag(names, value, description));
}

Option Command::add_number(const std::string &names, const std::function<void(int)> &take,
                           const std::map<std::string, int> &numbers, const std::string &description) const
{
    return Option(
        app_->add_option_function<int>(names, take, description)->transform(CLI::CheckedTransformer(numbers)));
}

Option Command::get_option(const std::string &name) const { return Option(app_->get_option(name)); }

void Command::callback(std::function<void()> action) const { app_->callback(std::move(action)); }

void Command::footer(const std::string &text) const { app_->footer(text); }

std::string Command::name() const { return app_->get_name(); }

std::vector<Command> Command::subcommands() const
{
    std::vector<Command> commands;
    for (CLI::App *command : app_->get_subcommands([](const CLI::App *) { return true; })) {
        commands.emplace_back(command);
    }
    return commands;
}

std::vector<Option> Command::options() const
{
    std::vector<Option> options;
    for (CLI::Option *option : app_->get_options()) {
        options.emplace_back(option);
    }
    return options;
}

std::optional<Option> Command::find_option(const std::string &name) const
{
    CLI::Option *const option = app_->get_option_no_throw(name);
    return option ? std::optional(Option(option)) : std::nullopt;
}

bool Command::was_given() const { return app_->parsed(); }

Program::Program(const std::string &description, const std::string &name, const std::string &version)
    : app_(std::make_unique<CLI::App>(description, name))
{
    app_->set_version_flag("--version", version);
}

Program::~Program() = default;

void Program::fallthrough() { app_->fallthrough(); }

std::optional<Ended> Program::parse(int argc, const char *const *argv)
{
    try {
        app_->parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        std::ostringstream text;
        const bool wrong = app_->exit(error, text, text) != 0;
        return Ended{wrong, text.str(), error.what()};
    }
    return std::nullopt;
}

void require(const std::string &what) { throw CLI::RequiredError(what); }

}  // namespace options
