// A JSON value, as commands build and show it, and as records are kept. Only json_value.cpp sees the library that reads
// and writes JSON: its header takes longer to compile than most commands.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <ranges>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace engine {

// A text that is no JSON, or a value that is not what was asked for.
class JsonError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Json {
public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string, Json>>;  // members keep the order in which they were added

    // All that knows what a value is made of stands in json_value.cpp: commands have dozens of values each, and would
    // compile that for every one.
    Json();
    Json(const Json &other);
    Json(Json &&other) noexcept;
    Json &operator=(const Json &other);
    Json &operator=(Json &&other) noexcept;
    ~Json();

    Json(std::nullptr_t) : Json() {}
    template <std::same_as<bool> Bool>
    Json(Bool value) : Json()
    {
        set(value);
    }
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) Json(Number value) : Json()
    {
        set(static_cast<std::conditional_t<std::is_signed_v<Number>, Signed, Unsigned>>(value));
    }
    Json(double value);
    Json(std::string value);
    Json(std::string_view value);
    Json(const char *value);
    template <std::ranges::input_range Values>
    requires(!std::convertible_to<Values, std::string_view> && !std::same_as<Values, Json>) Json(const Values &values)
        : Json(Array(std::begin(values), std::end(values)))
    {
    }
    Json(Array values);
    // An object where every element is a pair that begins with a string; else an array.
    Json(std::initializer_list<Json> values);

    static Json array() { return Array(); }
    static Json object();
    // Nothing: the text is no JSON, or is nested beyond what any command prints. Longer strings are cut.
    static std::optional<Json> parsed(std::string_view text, std::size_t longest_string = std::string::npos);

    // Throws JsonError where that is so.
    static Json parse(std::string_view text);

    bool is_null() const;
    bool is_boolean() const;
    bool is_string() const;
    bool is_array() const;
    bool is_object() const;
    bool is_number() const;
    bool is_number_integer() const;

    // Of an array or an object; null has no element.
    std::size_t size() const;
    bool empty() const { return size() == 0; }

    // The value as a string, a bool, a number that it fits into, or a vector or a set of these. Throws JsonError where it is none.
    template <typename Value>
    Value get() const
    {
        if constexpr (std::same_as<Value, std::string>) {
            return string();
        } else if constexpr (std::same_as<Value, bool>) {
            return boolean();
        } else if constexpr (std::same_as<Value, double>) {
            return real();
        } else if constexpr (std::ranges::range<Value>) {
            Value values;
            for (const Json &element : elements()) {
                values.insert(values.end(), element.get<typename Value::value_type>());
            }
            return values;
        } else if constexpr (std::unsigned_integral<Value>) {
            const Unsigned number = natural();
            if (!std::in_range<Value>(number)) {
                refuse("a smaller number");
            }
            return static_cast<Value>(number);
        } else {
            const Signed number = integer();
            if (!std::in_range<Value>(number)) {
                refuse("a smaller number");
            }
            return static_cast<Value>(number);
        }
    }

    // A member's value into what is given. Throws JsonError: there is none, or it doesn't fit.
    template <typename Value>
    void read(std::string_view key, Value &value) const
    {
        value = at(key).get<Value>();
    }

    // A member of an object, which null becomes: added as null where there is none.
    Json &operator[](std::string_view key);
    // A member that is there, or the element of an array or an object at a place. Throws JsonError.
    const Json &operator[](std::string_view key) const { return at(key); }
    const Json &operator[](const char *key) const { return at(key); }
    Json &operator[](const char *key) { return (*this)[std::string_view(key)]; }
    const Json &at(std::string_view key) const;
    const Json &at(const char *key) const { return at(std::string_view(key)); }
    template <std::integral Index>
    const Json &at(Index index) const
    {
        return element(static_cast<std::size_t>(index));
    }
    template <std::integral Index>
    const Json &operator[](Index index) const
    {
        return at(index);
    }
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    // The member, or what is given where there is none.
    Json value(std::string_view key, Json otherwise) const;

    // Of an array, which null becomes.
    void push_back(Json element);
    const Json &front() const { return at(0); }
    const Json &back() const { return at(size() - 1); }
    Json &back();

    // Throws JsonError: it is no array.
    const Array &elements() const;
    // The elements of an array; nothing else has any.
    const Json *begin() const;
    const Json *end() const { return begin() + (is_array() ? size() : 0); }
    // The members of an object; nothing else has any.
    const Object &items() const;

    // In one line, or indented. What is no UTF-8 is replaced.
    std::string dump(int indent = -1) const;
    // The same for any terminal and any reader: beyond ASCII as \u escapes.
    std::string dump_ascii(int indent = -1) const;

    friend bool operator==(const Json &a, const Json &b);

private:
    using Signed = std::int64_t;
    using Unsigned = std::uint64_t;

    void set(bool value);
    void set(Signed value);
    void set(Unsigned value);
    const Json *find(std::string_view key) const;
    const Json &element(std::size_t index) const;
    const std::string &string() const;
    bool boolean() const;
    double real() const;
    Signed integer() const;
    Unsigned natural() const;
    [[noreturn]] static void refuse(const char *wanted);

    std::variant<std::nullptr_t, bool, Signed, Unsigned, double, std::string, Array, Object> value_ = nullptr;

    friend struct JsonText;
};

}  // namespace engine
