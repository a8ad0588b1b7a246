// The wire format of protocol buffers: numbers and byte strings, each behind the number of its field.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace etcd {

class WireWriter {
public:
    // A number of 0 and an empty text are what a missing field means: they are left out.
    void number(unsigned field, std::uint64_t value);
    void bytes(unsigned field, std::string_view value);

    // These are written in any case: members of a choice, and messages that are empty.
    void chosen_number(unsigned field, std::uint64_t value);
    void chosen_bytes(unsigned field, std::string_view value);

    const std::string &text() const { return text_; }

private:
    void varint(std::uint64_t value);

    std::string text_;
};

// Reads what may be garbage: it stands within the text that it was given, and whatever does not end in it is a failure.
class WireReader {
public:
    struct Field {
        unsigned number = 0;
        std::uint64_t value = 0;  // of a number
        std::string_view bytes;   // of a byte string, a text or a message
    };

    explicit WireReader(std::string_view text) : left_(text) {}

    // The next field; false at the end, and from a failure on. A field of another shape than its reader expects has
    // the value 0 and no bytes.
    bool next(Field &field);
    bool failed() const { return failed_; }

private:
    bool varint(std::uint64_t &value);
    bool take(std::uint64_t size, std::string_view &bytes);
    bool fail()
    {
        failed_ = true;
        return false;
    }

    std::string_view left_;
    bool failed_ = false;
};

}  // namespace etcd
