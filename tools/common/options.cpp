// SPDX-License-Identifier: Apache-2.0
// options.cpp - the parser's calls, for each type of value that an option has.
#include "tools/common/options.h"

#include <cstdint>
#include <optional>

#include <CLI/CLI.hpp>

namespace olvex_tools {

namespace {

Option shown(CLI::Option* option, const std::string& type, const std::string& group) {
  return Option(option->type_name(type)->group(group));
}

}  // namespace

Option& Option::required() {
  option_->required();
  return *this;
}

Option& Option::shows_default() {
  option_->capture_default_str();
  return *this;
}

Option& Option::split_at(char separator) {
  option_->delimiter(separator)->allow_extra_args(false);
  return *this;
}

Option& Option::takes(int count) {
  option_->expected(count);
  return *this;
}

Option& Option::repeats() {
  option_->allow_extra_args(false);
  return *this;
}

template <typename Number>
Option& Option::range(Number least, Number most) {
  option_->check(CLI::Range(least, most));
  return *this;
}

Option& Option::one_of(const std::vector<std::string>& words) {
  option_->check(CLI::IsMember(words));
  return *this;
}

Option& Option::excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

bool Option::given() const {
  return option_->count() > 0;
}

std::string Option::name() const {
  return option_->get_name();
}

std::string Option::value() const {
  return option_->as<std::string>();
}

OptionTable::OptionTable(CLI::App* parent, const char* name, const char* description,
                         const char* manual, Command* chosen, const Command& work)
    : command_(parent->add_subcommand(name, description)) {
  command_->footer(manual);
  command_->callback([chosen, work] { *chosen = work; });
}

template <typename Value>
Option OptionTable::add(const std::string& name, const std::string& type, Value* value,
                        const std::string& help) {
  return shown(command_->add_option(name, *value, help), type, group_);
}

Option OptionTable::add(const std::string& name, const std::string& type, const std::string& help) {
  return shown(command_->add_option(name, help), type, group_);
}

template <>
Option OptionTable::flag(const std::string& name, bool* value, const std::string& help) {
  return Option(command_->add_flag(name, *value, help)->group(group_));
}

template <>
Option OptionTable::flag(const std::string& name, std::optional<bool>* value,
                         const std::string& help) {
  const auto set = [value](std::int64_t count) { *value = count > 0; };
  return Option(command_->add_flag_function(name, set, help)->group(group_));
}

template Option& Option::range(int, int);
template Option& Option::range(long, long);
template Option& Option::range(std::size_t, std::size_t);
template Option& Option::range(double, double);

#define OLVEX_ADD(type)                                                           \
  template Option OptionTable::add(const std::string&, const std::string&, type*, \
                                   const std::string&)
OLVEX_ADD(std::string);
OLVEX_ADD(int);
OLVEX_ADD(long);
OLVEX_ADD(std::size_t);
OLVEX_ADD(float);
OLVEX_ADD(double);
OLVEX_ADD(std::vector<std::string>);
OLVEX_ADD(std::vector<int>);
OLVEX_ADD(std::vector<long>);
OLVEX_ADD(std::optional<std::string>);
OLVEX_ADD(std::optional<int>);
OLVEX_ADD(std::optional<long>);
OLVEX_ADD(std::optional<float>);
#undef OLVEX_ADD

std::vector<GivenOption> OptionTable::given() const {
  std::vector<GivenOption> given;
  for (const CLI::Option* option : command_->get_options()) {
    if (option->count() == 0) {
      continue;
    }
    const bool is_flag = option->get_expected_max() == 0;
    given.push_back({option->get_positional() ? "" : option->get_name(),
                     is_flag ? std::vector<std::string>() : option->results()});
  }
  return given;
}

}  // namespace olvex_tools
