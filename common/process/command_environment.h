// The environment of the commands that the library starts.
//
// They are started with the environment of the process, and scripts of a group are promised that. In a program that
// runs with other rights than its caller's (set-user-ID and the like) the environment is the caller's, who must not
// choose by it which programs run, or what they do.
#pragma once

namespace kesta {

// Before a command is started: in such a program PATH becomes the system's own, and variables by which a shell, tar
// or bzip2 is made to run something else go, once and for the whole process. In any other program nothing changes.
void settle_command_environment();

}  // namespace kesta
