// A program's own result, written where scripts/wine-run asks for it (the file
// NV_TEST_EXIT_FILE names). The host's loader can fail as wine64 ends, after the
// program has returned: status 127 in place of the program's, and the program's own
// result is then still known from the file.
//
//   int main(int argc, char** argv) { return nvtest::MainWithExitFile(Run, argc, argv); }
//
// The file is written as late as the program's own code runs: by the destructor of
// the object constructed first, so after every other static destructor and exit
// handler. If any of them crashes, or the program ends without returning from main
// (exit, a crash), no file is written and the host's status stands. (The DLLs'
// detach runs later still, in the system's exit.)
#pragma once

namespace nvtest {

// Takes the file's name out of the environment, so that no program this one starts
// writes to it. Call it first in main.
void TakeExitFile();

// Keeps main's result for the file, and gives it back.
int ExitWith(int result);

// Writes the file now, for a program that ends itself without returning from main
// (TerminateProcess): the result it ends with.
void WriteExitFileNow(int result);

// The whole main of such a program: the name taken first, then run's result kept.
template <class Char>
int MainWithExitFile(int (*run)(int, Char**), int argc, Char** argv)
{
    TakeExitFile();
    return ExitWith(run(argc, argv));
}

} // namespace nvtest
