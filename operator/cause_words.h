// Why the library's last call failed, in an operator's words.
#pragma once

#include <string>

namespace engine {

// What the calling thread's last cause adds to a refusal. Both are empty where it adds nothing.
struct CauseWords {
    std::string why;   // a sentence: "The system backup area is full (No space left on device)."
    std::string hint;  // what to do about it, instead of what the caller would say
};
CauseWords cause_in_words();

// What the calling thread's last cause is; it was cleared before the call that is asked about.
bool slot_file_is_absent();     // the system backup area has no such file
bool area_failed();             // the system backup area failed, and not because it has no such file
bool failed_but_for_absence();  // anything failed, but for an absent file of the system backup area

// Whether the last failure was that the inner lock stayed held until all attempts were used up.
bool inner_lock_was_held();

}  // namespace engine
