// nvdbconv's process exit codes, as its README's table lists them.
#pragma once

namespace nvdbconv {

enum ExitCode : int {
    kExitOk = 0,            // done, or nothing to do
    kExitFailed = 1,        // a call failed, or the library did not load
    kExitUsage = 2,         // the command line is wrong
    kExitRefused = 3,       // refused: the step would lose data (some with --force)
    kExitUsersRemained = 4, // Convert answered S_OK, but users kept their old data or moved with gaps
};

} // namespace nvdbconv
