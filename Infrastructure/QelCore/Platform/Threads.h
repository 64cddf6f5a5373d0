// Operating-system threads: start with a stack size, priorities, the forced end of a thread, and
// the check whether a thread has ended.
//
// Porting decisions taken here:
// - Threads are pthreads, kept joinable. "Closing the handle" of an ended thread joins it (the
//   thread is on its last instructions, so the join is short); a handle of a thread that still
//   runs is detached instead, and never blocks. A thread cannot join itself: a handle closed from
//   its own thread (the last owner let go of the Thread there) is kept and joined by the next
//   start of a thread, or at the latest when the library unloads, so that no thread is still on
//   its way out while the library's objects go.
// - A wanted stack size is honoured with a floor of 1 MiB (Linux commits the whole stack size
//   lazily, and the sanitizers and the C library need more than the 64 KiB of the defaults).
// - Priorities are per-thread nice values: idle 19, lowest 10, below normal 5, normal 0, above
//   normal -5, highest -10, time critical -20. A refused priority (raising it needs privilege) is
//   not an error: the thread runs on at the priority it had.
// - The forced end of a thread (TerminateThread) sends the thread a real-time signal
//   (SIGRTMIN + 5) whose handler ends the thread at once with the kernel's thread exit: no stack
//   unwinding, no thread-local destructors, no unlocking, as the original call does. The kernel
//   clears the thread's id word on exit, so the thread can still be joined. Code that is killed
//   while it holds a lock leaves the lock held: kill only tasks that hold none. The killed thread's
//   stack and thread block are never joined, freed or reused: the C library never cleaned up the
//   thread's state in them (its thread-specific data, among others), and a new thread that got
//   that memory would start with it. A kill costs the thread's stack in address space.
//   A thread that is ended while it sleeps in a wait of the library gives back its place among the
//   waiters on its way out (see Locks.h), so that the waits and destructors of those objects do
//   not count it; a kill that comes in the middle of that bookkeeping takes effect right after it.
// - Whether the operating system has ended a thread (GetExitCodeThread) is a non-blocking join
//   attempt (pthread_tryjoin_np); a thread found ended is joined by it.
// - The C library ends a thread in pthread_exit and on cancellation by unwinding its stack with an
//   exception that is not a C++ one; a catch-all that swallows it aborts the process. Catch-alls
//   on a thread's way let it through (RethrowIfThreadEnding).
// - Fork without exec: the library's child handler counts the fork generation, notes the thread
//   that forked (the only one that goes on), forgets the parent's threads (their handles name
//   threads of the parent: never joined, detached or signalled in the child), and then runs the
//   handlers that parts of the library registered with AtForkChild.
#pragma once

#include <cstdint>
#include <string>

namespace Qel::Core::Platform {

// An operating-system thread, as the library keeps it: 0 when there is none.
using ThreadHandle = std::uintptr_t;

using ThreadEntry = void (*)(void* argument);

// Starts a thread that calls entry(argument). False (and `handle` 0) when the system refuses.
bool StartThread(std::uint32_t stackSize, ThreadEntry entry, void* argument, ThreadHandle& handle);

// Gives the system's hold on an ended thread back (see above); the handle is 0 afterwards.
void CloseThread(ThreadHandle& handle, bool threadHasEnded);

// Joins the threads that closed their own handles: those that have ended, or with `wait`, all
// (each is on its last instructions).
void ReapThreads(bool wait);

// Marks the calling thread, started by StartThread, as on its way out: its work is done and
// others may already see that; the mark goes when the thread returns from its entry. Marking
// twice counts once.
void MarkThreadFinishing();
// Blocks until no thread is on its way out, for at most `milliseconds`; then joins the threads
// that closed their own handles. For the library's unload: no thread of its own is still running
// its last instructions while the library's objects go.
void FinishThreads(int milliseconds);

// Whether the thread is the calling one.
bool IsCallingThread(ThreadHandle handle);

// Sets the nice value of the thread with the kernel id for one of the priority steps -15
// (idle), -2, -1, 0, 1, 2, 15 (time critical). False when the system refused.
bool SetThreadPriorityStep(std::uint32_t threadId, int step);

// Ends the thread (kernel id `threadId`) at once and waits until it is gone (see above); the
// handle is 0 afterwards. False when the signal could not be sent.
bool KillThread(ThreadHandle& handle, std::uint32_t threadId);

// Whether the thread has ended (and then it is joined: the handle is 0 afterwards). A handle of
// 0 is no thread that could be found ended: false.
bool HasThreadEnded(ThreadHandle& handle);

// The text of the last system error of the calling thread.
std::string LastSystemErrorText();

// Call in a catch-all: rethrows the exception being handled if it is not a C++ exception, as the
// C library's unwinding of an ending thread (pthread_exit, cancellation) is; returns otherwise.
void RethrowIfThreadEnding();

// ---- fork ----

// Registers a function that runs in the child of a fork (without exec), on its one thread, before
// fork returns there, after the library's own bookkeeping. Functions run in the order of
// registration; at most 8 are kept.
void AtForkChild(void (*function)());

} // namespace Qel::Core::Platform
