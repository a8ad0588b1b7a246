// A small file of lines NAME=VALUE, as the identity of a controller is kept in: the boot environment that
// eeprom edits, and the memory of the VPD tool.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace platform {

class NameFile {
public:
    explicit NameFile(std::string path) : path_(std::move(path)) {}

    // Reads the file; one that is missing is empty. Returns 0 or a negative errno.
    int read();

    const std::vector<std::pair<std::string, std::string>> &all() const { return values_; }
    std::optional<std::string> value(const std::string &name) const;

    // Sets values and writes the file whole: others see it before or after, and writers wait for each
    // other. Returns 0 or a negative errno.
    int update(const std::vector<std::pair<std::string, std::string>> &changes);

private:
    int write() const;

    std::string path_;
    std::vector<std::pair<std::string, std::string>> values_;
};

// Whether a text can be a name, or a value: one line, nothing that can't be printed.
bool is_name(const std::string &text);
bool is_value(const std::string &text);

}  // namespace platform
