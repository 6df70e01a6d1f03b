// What a service loop shares with its serving threads, and how long it lives.
//
// A loop may end while threads of it still serve. Their slots and the set of watched connections live
// until the last of them has finished, and from the end of the loop on
//
//   - a connection is not watched any more: whoever finds it in the set takes it out and closes it, be it
//     the ending loop or the thread that has just put it there;
//   - a thread no longer counts in nThreads, which the next loop starts from 0.
//
// Whether a thread still counts is decided by one atomic step of each side on `counted_`: a leaving thread
// takes itself out of the number in it, the ending loop marks it as ended and learns how many are left. A
// thread that was first also leaves nThreads, and the loop waits for the few instructions that takes
// (`leaving_`); the others are taken out by the loop.
#ifndef RDX_SERVER_SERVICE_POOL_H
#define RDX_SERVER_SERVICE_POOL_H

#include "server/service.h"

namespace rdx {

class ServicePool;

// What a serving thread is started with.
struct ThreadStart {
    ServicePool* pool;
    ServiceCall* call;
    void* (*body)(ServiceCall*);
};

class ServicePool {
public:
    // A pool of free slots, or null when memory is short. Belongs to the loop until EndLoop.
    static ServicePool* Create(int slots);

    ServiceCall* Slots() { return slots_; }
    int Size() const { return size_; }
    fd_set& Watched() { return watched_; }

    // Runs `body` for a slot of the pool on a thread of its own; the result is ThreadCreate's.
    int StartThread(ServiceCall* slot, void* (*body)(ServiceCall*));

    // Whether a thread runs after this result of StartThread: also one that could not be detached does.
    static bool ThreadRuns(int started);

    // Puts a connection back into the watched set. False when the loop has ended: the caller closes it.
    bool Watch(int socket);

    // The loop's last step: serving threads no longer count, and what is watched moves to `watched`.
    void EndLoop(fd_set& watched);

    // Gives up the loop's hold on the pool; the last holder frees it.
    void Release();

    // The pool of the calling serving thread; null on every other thread.
    static ServicePool* OfThisThread();

    // Ends the calling serving thread, which is done with its slot.
    [[noreturn]] void EndThisThread(int status);

private:
    static void* RunThread(void* start);

    void LeaveLoop();

    // The counts are shared by the loop and its threads; shared.h has their accesses.
    fd_set watched_;
    ServiceCall* slots_;
    ThreadStart* starts_;
    int size_;
    int holders_; // the loop and each thread
    int counted_; // threads that count in nThreads, and kEnded
    int leaving_; // threads that are about to leave nThreads
};

} // namespace rdx

#endif
