// The reserve behind com/oomreserve.h: fixed slots from which an exception object
// that malloc cannot give is taken, without a lock and without allocating.
#pragma once
#include <cstddef>

namespace nvframe {

// Room for an object the library throws (std::bad_alloc, the COM error carrier)
// with the run-time's header in front of it. A thread holds at most a few at once
// (one in flight, one being handled); 32 cover many threads.
constexpr std::size_t kReservedExceptionBytes = 512;
constexpr unsigned kReservedExceptionSlots = 32;

// A zeroed slot for an object of size bytes; null when the object does not fit a
// slot or every slot is taken.
void* TakeReservedExceptionSlot(std::size_t size) noexcept;

// Puts a slot back. False, and nothing done, for memory that is not in the reserve.
bool GiveBackReservedExceptionSlot(void* p) noexcept;

} // namespace nvframe
