#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace kestactl {

Option Option::required() const { return Option(option_->required()); }

Option Option::in_range(int least, int most) const { return Option(option_->check(CLI::Range(least, most))); }

Option Option::not_negative() const { return Option(option_->check(CLI::NonNegativeNumber)); }

Option Option::one_of(std::initializer_list<std::string> words) const
{
    return Option(option_->check(CLI::IsMember(std::vector<std::string>(words))));
}

Option Option::option_text(const std::string &text) const { return Option(option_->option_text(text)); }

Option Option::group(const std::string &title) const { return Option(option_->group(title)); }

Option Option::needs(const Option &other) const { return Option(option_->needs(other.option_)); }

Option Option::excludes(const Option &other) const { return Option(option_->excludes(other.option_)); }

Command Command::add_subcommand(const std::string &name, const std::string &description) const
{
    return Command(app_->add_subcommand(name, description));
}

void Command::require_subcommand() const { app_->require_subcommand(1); }

template <typename Value>
Option Command::add_option(const std::string &names, Value &value, const std::string &description) const
{
    return Option(app_->add_option(names, value, description));
}

template Option Command::add_option(const std::string &, std::string &, const std::string &) const;
template Option Command::add_option(const std::string &, int &, const std::string &) const;
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

void require(const std::string &what) { throw CLI::RequiredError(what); }

}  // namespace kestactl
