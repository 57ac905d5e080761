// Exceptions that can still be thrown when memory is gone.
//
// The library reports running out of memory as E_OUTOFMEMORY by throwing and catching
// std::bad_alloc. With this tool chain a throw needs the run-time to allocate in two
// places, and each fails badly when memory is exhausted for good:
//   - the exception object: malloc, and when that fails the run-time's emergency pool,
//     whose lock is a thread-library mutex set up (allocated) on its first use. When that
//     set-up fails the run-time throws about it, which needs an exception object again:
//     the process recurses until its stack overflows;
//   - the thread's exception bookkeeping, kept in emulated thread-local storage that is
//     allocated on the thread's first throw; when that fails the process aborts.
// So the DLL links with its exception-object allocation wrapped (see the linker options of
// the DLL target): an object malloc cannot give comes from a small lock-free reserve
// (com/exceptionreserve.h), and the emergency pool is never reached. And every entry
// point sets up the calling thread's bookkeeping before it does any work, while memory
// is still there.
#pragma once

namespace nvframe {

// Sets up the calling thread's exception bookkeeping. Cheap after the first call on a
// thread; never throws.
void PrepareThreadForFailures() noexcept;

} // namespace nvframe
