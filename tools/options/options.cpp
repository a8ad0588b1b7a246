#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
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

Option Option::option_text(std::string_view text) const { return Option(option_->option_text(std::string(text))); }

Option Option::type_name(std::string_view name) const { return Option(option_->type_name(std::string(name))); }

Option Option::group(std::string_view title) const { return Option(option_->group(std::string(title))); }

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

Command Command::add_subcommand(std::string_view name, std::string_view description) const
{
    return Command(app_->add_subcommand(std::string(name), std::string(description)));
}

void Command::require_subcommand() const { app_->require_subcommand(1); }

template <typename Value>
Option Command::add_option(std::string_view names, Value &value, std::string_view description) const
{
    CLI::Option *const option = app_->add_option(std::string(names), value, std::string(description));
    if (is_text<Value> && !option->get_positional()) {
        option->check(no_empty_text());
    }
    return Option(option);
}

template Option Command::add_option(std::string_view, std::string &, std::string_view) const;
template Option Command::add_option(std::string_view, int &, std::string_view) const;
template Option Command::add_option(std::string_view, std::uint64_t &, std::string_view) const;
template Option Command::add_option(std::string_view, std::optional<int> &, std::string_view) const;
template Option Command::add_option(std::string_view, std::optional<std::string> &, std::string_view) const;
template Option Command::add_option(std::string_view, std::optional<std::uint64_t> &, std::string_view) const;
template Option Command::add_option(std::string_view, std::vector<std::string> &, std::string_view) const;

Option Command::add_flag(std::string_view names, bool &value, std::string_view description) const
{
    return Option(app_->add_flag(std::string(names), value, std::string(description)));
}

Option Command::add_number(std::string_view names, const std::function<void(int)> &take,
                           const std::map<std::string, int> &numbers, std::string_view description) const
{
    return Option(app_->add_option_function<int>(std::string(names), take, std::string(description))
                      ->transform(CLI::CheckedTransformer(numbers)));
}

Option Command::get_option(const std::string &name) const { return Option(app_->get_option(name)); }

void Command::callback(std::function<void()> action) const { app_->callback(std::move(action)); }

void Command::footer(std::string_view text) const { app_->footer(std::string(text)); }

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

void require(std::string_view what) { throw CLI::RequiredError(std::string(what)); }

}  // namespace options
