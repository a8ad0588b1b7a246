#include "faults.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "opened_file.h"
#include "scoped.h"
#include "settings.h"

namespace platform {
namespace {

constexpr int max_rules = 32;

// One line of the fault file: KIND N once|on ACTION [VALUE]
struct Rule {
    char kind[32];
    unsigned long nth;
    bool from_then_on;
    char action[16];
    char value[path_size];
};

struct Counter {
    char kind[32];
    unsigned long calls;
};

Rule rules[max_rules];
int rule_count;
Counter counters[max_rules];
int counter_count;
struct timespec read_at;
ino_t read_inode;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
bool held_by_other_thread;

// A call meets its fault with other mutexes held: a fork must not wait for this one. If another
// thread has it, the child reads the rules anew.
void try_for_fork() { held_by_other_thread = pthread_mutex_trylock(&mutex) != 0; }
void unlock_in_parent()
{
    if (!held_by_other_thread) {
        pthread_mutex_unlock(&mutex);
    }
}
void unlock_in_child()
{
    if (held_by_other_thread) {
        mutex = PTHREAD_MUTEX_INITIALIZER;
        rule_count = 0;
        read_inode = 0;
    } else {
        pthread_mutex_unlock(&mutex);
    }
}
// When the library is loaded: a fork that has begun by the first use would not know of it.
__attribute__((constructor)) void handle_fork() { pthread_atfork(try_for_fork, unlock_in_parent, unlock_in_child); }

bool parse_rule(const char *line, Rule &rule)
{
    char when[8] = "";
    rule.value[0] = '\0';
    const int fields = sscanf(line, "%31s %lu %7s %15s %255s", rule.kind, &rule.nth, when, rule.action, rule.value);
    rule.from_then_on = strcmp(when, "on") == 0;
    return fields >= 4 && rule.kind[0] != '#';
}

// Reads the file again when it has changed; the counts of calls begin anew then.
void refresh(const char *path)
{
    struct stat status;
    if (stat(path, &status) != 0) {
        rule_count = 0;
        read_inode = 0;
        return;
    }
    if (status.st_ino == read_inode && status.st_mtim.tv_sec == read_at.tv_sec &&
        status.st_mtim.tv_nsec == read_at.tv_nsec) {
        return;
    }
    read_inode = status.st_ino;
    read_at = status.st_mtim;
    rule_count = 0;
    counter_count = 0;
    FILE *file = kesta::above_standard(kesta::open_stream(path));
    if (!file) {
        return;
    }
    char line[512];
    while (rule_count < max_rules && fgets(line, sizeof(line), file)) {
        if (parse_rule(line, rules[rule_count])) {
            ++rule_count;
        }
    }
    (void)fclose(file);  // read only
}

unsigned long count_call(const char *kind)
{
    for (int i = 0; i < counter_count; ++i) {
        if (strcmp(counters[i].kind, kind) == 0) {
            return ++counters[i].calls;
        }
    }
    if (counter_count == max_rules) {
        return 0;
    }
    Counter &counter = counters[counter_count++];
    snprintf(counter.kind, sizeof(counter.kind), "%s", kind);
    counter.calls = 1;
    return 1;
}

bool find_rule(const char *path, const char *kind, Rule &found)
{
    const kesta::CancelOff off;
    const kesta::Locked locked(mutex);
    refresh(path);
    if (rule_count == 0) {
        return false;
    }
    const unsigned long call = count_call(kind);
    for (int i = 0; i < rule_count; ++i) {
        const Rule &rule = rules[i];
        if (strcmp(rule.kind, kind) == 0 && (call == rule.nth || (rule.from_then_on && call > rule.nth))) {
            found = rule;
            return true;
        }
    }
    return false;
}

// Waits at a named pipe: opening it for writing tells the tester that the call is here, and closing
// it lets the call go on. A thread that waits here can be cancelled.
void block_at(const char *fifo)
{
    const kesta::UniqueFd fd(open(fifo, O_RDONLY | O_CLOEXEC));
    char byte;
    while (fd && read(fd.get(), &byte, 1) > 0) {
    }
}

Fault obey(const Rule &rule)
{
    const int value = atoi(rule.value);
    if (strcmp(rule.action, "fail") == 0) {
        return {FaultAction::fail, value > 0 ? value : EIO};
    }
    if (strcmp(rule.action, "short") == 0) {
        return {FaultAction::short_count, value};
    }
    if (strcmp(rule.action, "closeflag") == 0) {
        return {FaultAction::close_flag, 0};
    }
    if (strcmp(rule.action, "delay") == 0) {
        usleep(static_cast<useconds_t>(value) * 1000);
    } else if (strcmp(rule.action, "block") == 0) {
        block_at(rule.value);
    } else if (strcmp(rule.action, "kill") == 0) {
        (void)raise(SIGKILL);  // does not return
    }
    return {};
}

}  // namespace

Fault meet_fault(const char *kind)
{
    const char *path = settings().fault_file;
    Rule rule;
    if (path[0] == '\0' || !find_rule(path, kind, rule)) {
        return {};
    }
    return obey(rule);
}

int failure_of(const char *kind)
{
    const Fault fault = meet_fault(kind);
    return fault.action == FaultAction::fail ? -fault.value : 0;
}

}  // namespace platform
