/*
 * Threads and semaphores.
 *
 * Serving threads are detached POSIX threads that are counted while they run; the thread that called
 * InitThreadLib is the primary one. Semaphores are System V semaphores, one to a set, addressed by a
 * numeric key and shared by every process of the device.
 */
#ifndef RDX_COMMON_MT_H
#define RDX_COMMON_MT_H

#include "common/export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A thread: the low 32 bits of its POSIX handle. -1 (all bits set) means none; 0 never names a thread. */
typedef uint32_t ThreadID;

/* Key of the semaphore SEMA_CIPLIB, which another component of the device creates; it is only read here. */
enum { SEMA_CIPLIB = 12345679 };

/* Stack of a serving thread in bytes: the staged service keeps some 400 KB on it, and an argument packet
   of 65,536 bytes may nest a few thousand levels deep. Pages that are not touched cost nothing. */
enum { MT_STACK_SIZE = 4 * 1024 * 1024 };

/* Results of ThreadCreate. */
enum {
    THREAD_CREATED = 0,
    THREAD_NO_POLICY = -1,   /* the scheduling policy was refused */
    THREAD_NOT_STARTED = -2, /* no thread could be started */
    THREAD_NOT_DETACHED = -3 /* it runs and counts, but could not be detached */
};

/* Results of the semaphore functions. */
enum {
    SEMA_DONE = 0,
    SEMA_MISSING = -1, /* there is no such semaphore, or it could not be created */
    SEMA_FAILED = -2   /* the operation failed, or would wait */
};

/* Threads started by ThreadCreate and not ended by ThreadTerminate yet. */
extern RDX_API int nThreads;

/* The primary thread; -1 (all bits set) until InitThreadLib ran. */
extern RDX_API ThreadID mtPrimaryThread;

/*
 * Starts the thread library: nThreads becomes 0 and the calling thread the primary one. Writes a log line
 * and prints "\nmtPrimaryThread=%d" to standard output. Returns 0.
 */
RDX_API int InitThreadLib(void);

/*
 * Runs `pBody(pArgs)` on a new detached thread of MT_STACK_SIZE bytes of stack, in which the signals that
 * the server catches are blocked. `*pID` receives the thread; nThreads is raised before the thread can run.
 * Ends the process by assertion when an argument is null.
 * Returns THREAD_CREATED; THREAD_NO_POLICY or THREAD_NOT_STARTED with nothing changed; THREAD_NOT_DETACHED
 * when the thread runs and counts all the same, but `*pID` is not set.
 */
RDX_API int ThreadCreate(void* (*pBody)(void*), void* pArgs, ThreadID* pID);

/*
 * Ends the calling serving thread and takes it out of nThreads; does not return. The thread's result is a
 * pointer to an unsigned long, shared by all threads, that holds the low 16 bits of `ulExit`. Nothing on
 * the caller's stack is destroyed. Ends the process by assertion when nThreads is not above 0.
 */
RDX_API void ThreadTerminate(unsigned long ulExit);

/* The calling thread. */
RDX_API ThreadID CurrentThreadID(void);

/* The primary thread, mtPrimaryThread. */
RDX_API ThreadID PrimaryThreadID(void);

/* The number of serving threads, nThreads. */
RDX_API int NumOfThreads(void);

/*
 * Creates the semaphore `key` unless it exists (permissions 0666) and sets its value to 1.
 * Returns SEMA_DONE; SEMA_MISSING when it could neither be found nor created; SEMA_FAILED when its value
 * could not be set.
 */
RDX_API int SemaCreate(int key);

/*
 * Takes the semaphore: decrements it, waiting until it is above 0 unless `bNoWait` is not 0. A process that
 * dies holding it leaves it taken. Returns SEMA_DONE, SEMA_MISSING, or SEMA_FAILED, also when it would wait.
 */
RDX_API int SemaP(int key, int bNoWait);

/* Gives the semaphore back: increments it. Returns SEMA_DONE, SEMA_MISSING or SEMA_FAILED. */
RDX_API int SemaV(int key);

/* The semaphore's value, 0 or more; else SEMA_MISSING, or SEMA_FAILED when it could not be read. */
RDX_API int SemaGetValue(int key);

#ifdef __cplusplus
}
#endif

#endif
