// The two halves of ThreadTerminate, for the service loop: a thread that outlives its loop no longer
// counts, and one that counts has to do something between leaving the count and ending.
#ifndef RDX_COMMON_MT_INTERNAL_H
#define RDX_COMMON_MT_INTERNAL_H

namespace rdx {

// Takes one thread out of nThreads, which is above 0, and logs how many remain.
void UncountThread();

// Ends the calling thread with a pointer to the low 16 bits of `exitValue` as its result.
[[noreturn]] void EndThread(unsigned long exitValue);

} // namespace rdx

#endif
