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

}  // namespace engine
