#include "json_value.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace engine {

using Text = nlohmann::ordered_json;

// To and from the library that reads and writes JSON.
struct JsonText {
    static Text of(const Json &json)
    {
        return std::visit([](const auto &value) { return of(value); }, json.value_);
    }

    static Text of(const Json::Array &array)
    {
        Text text = Text::array();
        for (const Json &element : array) {
            text.push_back(of(element));
        }
        return text;
    }

    static Text of(const Json::Object &object)
    {
        Text text = Text::object();
        for (const auto &[key, member] : object) {
            text[key] = of(member);
        }
        return text;
    }

    template <typename Value>
    static Text of(const Value &value)
    {
        return value;
    }

    static Json read(const Text &text)
    {
        Json json;
        if (text.is_object()) {
            json = Json::object();
            for (const auto &member : text.items()) {
                json[member.key()] = read(member.value());
            }
        } else if (text.is_array()) {
            json = Json::array();
            for (const Text &element : text) {
                json.push_back(read(element));
            }
        } else if (text.is_string()) {
            json = text.get_ref<const std::string &>();
        } else if (text.is_boolean()) {
            json = text.get<bool>();
        } else if (text.is_number_unsigned()) {
            json = text.get<Json::Unsigned>();
        } else if (text.is_number_integer()) {
            json = text.get<Json::Signed>();
        } else if (text.is_number()) {
            json = text.get<double>();
        }
        return json;
    }
};

namespace {

constexpr int deepest = 12;  // no command prints a text that is nested half as deep

bool is_member(const Json &pair) { return pair.is_array() && pair.size() == 2 && pair.front().is_string(); }

}  // namespace

Json::Json() = default;
Json::Json(const Json &other) = default;
Json::Json(Json &&other) noexcept = default;
Json &Json::operator=(const Json &other) = default;
Json &Json::operator=(Json &&other) noexcept = default;
Json::~Json() = default;

Json::Json(double value) : value_(value) {}
Json::Json(std::string value) : value_(std::move(value)) {}
Json::Json(std::string_view value) : value_(std::string(value)) {}
Json::Json(const char *value) : value_(std::string(value)) {}
Json::Json(Array values) : value_(std::move(values)) {}

void Json::set(bool value) { value_ = value; }
void Json::set(Signed value) { value_ = value; }
void Json::set(Unsigned value) { value_ = value; }

Json::Json(std::initializer_list<Json> values)
{
    if (!std::all_of(values.begin(), values.end(), is_member)) {
        value_ = Array(values);
        return;
    }
    Object object;
    object.reserve(values.size());
    for (const Json &pair : values) {
        object.emplace_back(pair.front().string(), pair.back());
    }
    value_ = std::move(object);
}

Json Json::object()
{
    Json json;
    json.value_ = Object();
    return json;
}

std::optional<Json> Json::parsed(std::string_view text, std::size_t longest_string)
{
    bool too_deep = false;
    const auto keep = [&](int depth, Text::parse_event_t, Text &value) {
        too_deep = too_deep || depth > deepest;
        if (value.is_string() && value.get_ref<const std::string &>().size() > longest_string) {
            value = value.get_ref<const std::string &>().substr(0, longest_string);
        }
        return !too_deep;
    };
    constexpr bool throws = false;
    const Text read = Text::parse(text, keep, throws);
    if (too_deep || read.is_discarded()) {
        return std::nullopt;
    }
    return JsonText::read(read);
}

Json Json::parse(std::string_view text)
{
    auto json = parsed(text);
    if (!json) {
        refuse("a text in JSON");
    }
    return std::move(*json);
}

bool Json::is_null() const { return std::holds_alternative<std::nullptr_t>(value_); }
bool Json::is_boolean() const { return std::holds_alternative<bool>(value_); }
bool Json::is_string() const { return std::holds_alternative<std::string>(value_); }
bool Json::is_array() const { return std::holds_alternative<Array>(value_); }
bool Json::is_object() const { return std::holds_alternative<Object>(value_); }

bool Json::is_number_integer() const
{
    return std::holds_alternative<Signed>(value_) || std::holds_alternative<Unsigned>(value_);
}

bool Json::is_number() const { return is_number_integer() || std::holds_alternative<double>(value_); }

std::size_t Json::size() const
{
    if (const auto *array = std::get_if<Array>(&value_)) {
        return array->size();
    }
    if (const auto *object = std::get_if<Object>(&value_)) {
        return object->size();
    }
    return is_null() ? 0 : 1;
}

void Json::refuse(const char *wanted) { throw JsonError(std::string("JSON: expected ") + wanted); }

const std::string &Json::string() const
{
    const auto *value = std::get_if<std::string>(&value_);
    if (value == nullptr) {
        refuse("a string");
    }
    return *value;
}

bool Json::boolean() const
{
    const auto *value = std::get_if<bool>(&value_);
    if (value == nullptr) {
        refuse("true or false");
    }
    return *value;
}

double Json::real() const
{
    const auto *value = std::get_if<double>(&value_);
    return value != nullptr ? *value : static_cast<double>(integer());
}

Json::Signed Json::integer() const
{
    if (const auto *value = std::get_if<Signed>(&value_)) {
        return *value;
    }
    const auto *value = std::get_if<Unsigned>(&value_);
    if (value == nullptr || !std::in_range<Signed>(*value)) {
        refuse("an integer");
    }
    return static_cast<Signed>(*value);
}

Json::Unsigned Json::natural() const
{
    if (const auto *value = std::get_if<Unsigned>(&value_)) {
        return *value;
    }
    const auto *value = std::get_if<Signed>(&value_);
    if (value == nullptr || !std::in_range<Unsigned>(*value)) {
        refuse("an integer that is not negative");
    }
    return static_cast<Unsigned>(*value);
}

const Json::Array &Json::elements() const
{
    const auto *array = std::get_if<Array>(&value_);
    if (array == nullptr) {
        refuse("an array");
    }
    return *array;
}

const Json *Json::find(std::string_view key) const
{
    const Object &members = items();
    const auto found =
        std::find_if(members.begin(), members.end(), [key](const auto &member) { return member.first == key; });
    return found == members.end() ? nullptr : &found->second;
}

Json &Json::operator[](std::string_view key)
{
    if (is_null()) {
        value_ = Object();
    }
    auto *object = std::get_if<Object>(&value_);
    if (object == nullptr) {
        refuse("an object");
    }
    const auto found =
        std::find_if(object->begin(), object->end(), [key](const auto &member) { return member.first == key; });
    return found != object->end() ? found->second : object->emplace_back(std::string(key), Json()).second;
}

const Json &Json::at(std::string_view key) const
{
    const Json *const member = find(key);
    if (member == nullptr) {
        throw JsonError("JSON: there is no " + std::string(key));
    }
    return *member;
}

const Json &Json::element(std::size_t index) const
{
    if (const auto *array = std::get_if<Array>(&value_); array != nullptr && index < array->size()) {
        return (*array)[index];
    }
    if (const Object &members = items(); index < members.size()) {
        return members[index].second;
    }
    refuse("an array or an object with more elements");
}

Json Json::value(std::string_view key, Json otherwise) const
{
    if (const Json *const member = find(key)) {
        return *member;
    }
    return otherwise;
}

void Json::push_back(Json element)
{
    if (is_null()) {
        value_ = Array();
    }
    auto *array = std::get_if<Array>(&value_);
    if (array == nullptr) {
        refuse("an array");
    }
    array->push_back(std::move(element));
}

Json &Json::back() { return const_cast<Json &>(std::as_const(*this).back()); }

const Json *Json::begin() const
{
    const auto *array = std::get_if<Array>(&value_);
    return array == nullptr ? nullptr : array->data();
}

const Json::Object &Json::items() const
{
    static const Object none;
    const auto *object = std::get_if<Object>(&value_);
    return object == nullptr ? none : *object;
}

std::string Json::dump(int indent) const
{
    constexpr bool ascii_only = false;
    return JsonText::of(*this).dump(indent, ' ', ascii_only, Text::error_handler_t::replace);
}

std::string Json::dump_ascii(int indent) const
{
    constexpr bool ascii_only = true;
    return JsonText::of(*this).dump(indent, ' ', ascii_only, Text::error_handler_t::replace);
}

bool operator==(const Json &a, const Json &b)
{
    if (a.is_number_integer() && b.is_number_integer()) {
        return std::visit(
            [&b](const auto &left) {
                using Left = std::decay_t<decltype(left)>;
                if constexpr (std::same_as<Left, Json::Signed> || std::same_as<Left, Json::Unsigned>) {
                    const auto *right = std::get_if<Json::Signed>(&b.value_);
                    return right != nullptr ? std::cmp_equal(left, *right)
                                            : std::cmp_equal(left, std::get<Json::Unsigned>(b.value_));
                } else {
                    return false;
                }
            },
            a.value_);
    }
    return a.value_ == b.value_;
}

}  // namespace engine
