// The three forms of a log line. Each line is one print to `outlog` and a flush, and begins with a line
// feed, so that it ends where the next begins. `label` is the caller's name followed by "()".
#ifndef RDX_COMMON_LOG_LINES_H
#define RDX_COMMON_LOG_LINES_H

namespace rdx {

// "\n[time],label: message (number)"
void LogPlain(const char* label, const char* message, int number);

// "\n[time],label: message (number) [tid=thread]"
void LogThread(const char* label, const char* message, int number);

// "\n[time],label: message <value>"
void LogString(const char* label, const char* message, const char* value);

// True when lines of this level's detail are wanted: `ucVerbosity` is above `level`.
bool VerbosityAbove(int level);

// The low 32 bits of the calling thread's handle: the number that a log line and a `ThreadID` carry.
unsigned int ThreadNumber();

} // namespace rdx

#endif
