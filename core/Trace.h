// The trace file: the one place where the service says what went wrong. It holds the latest record
// only (docs/operations.md, "The trace file").
//
// Threads: any; records of threads that fail at once never mix.
#pragma once

#include "support/ThreadSafety.h"

// Replaces the content of the trace file by one record: a line with the local time, the caller's
// source file, line and function, then szText as it stands (texts bring their own line end).
// szFunction is given where a function was split off the one that the record has to name.
// A trace file that cannot be opened is no failure. errno is left as it was.
void Trace(const char* szText, const char* szFunction = __builtin_FUNCTION(),
           const char* szFile = __builtin_FILE(), int nLine = __builtin_LINE());

// Waits for a trace that another thread is writing; no thread gets to write one from then on. For
// the end of the process.
void EndTraces() NO_THREAD_SAFETY_ANALYSIS;
