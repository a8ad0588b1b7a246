// An appliance over the test platform in which anything may be damaged, and an operator who follows what verify says.
#pragma once

#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "json_value.h"

namespace test {

using engine::Json;

enum class Damage { none, flipped, cut, tail, absent, unreadable, older, newer };
inline constexpr std::array<const char *, 8> damage_names{"good",   "flipped",    "cut",   "with a tail",
                                                          "absent", "unreadable", "older", "newer"};

// In the order of engine::StoragePlace.
inline constexpr std::array<const char *, 4> place_names{"flash:backup", "flash:accept", "slot:kesta_backup0",
                                                         "slot:kesta_backup1"};

struct Ran {
    int exit = 0;
    Json json = {};
    std::string text = {};
};

class MendedAppliance {
public:
    // Version 9 saved and in force, version 3 accepted, everything in order. Recorded: the catalogue knows the bytes.
    explicit MendedAppliance(int controller = 0, bool recorded = true);
    ~MendedAppliance();

    void damage(std::size_t place, Damage how);
    void put(std::size_t place, const std::string &bytes);
    // Both names in NV memory, on the disk.
    void name_in_memory(const std::string &backup, const std::string &accept);
    void name_on_disk(const std::string &backup, const std::string &accept);
    void lock_elsewhere();

    static std::string archive(int version);
    std::string at(std::size_t place) const;

    // One command in this process.
    Ran run(std::vector<std::string> words) const;
    // The same, told to the log of changes.
    Ran run_and_tell(const std::vector<std::string> &words) const;
    Ran verify() const;

    // Every whole archive that is anywhere.
    std::set<std::string> whole_archives() const;

    // Runs what is advised, row by row, and says what went wrong: an archive was lost, a command was refused, no end was
    // found. Empty: it ended in agreement, or in rows that say what is left.
    std::string follow();
    // The same with verify --fix.
    std::string fix();
    bool agrees() const { return agrees_; }
    const std::string &steps() const { return steps_; }

private:
    std::string judge(const Ran &last, const std::set<std::string> &before, bool refused);

    int controller_;
    bool recorded_;
    bool locked_ = false;
    bool agrees_ = false;
    std::string steps_;
    std::set<std::string> unreadable_slots_;
};

}  // namespace test
