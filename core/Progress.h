// Progress lines on standard output. They carry no protocol meaning; in the foreground each line is
// out when it is printed, detached they cost nothing.
//
// Threads: Progress() from any; the other operations from main, before the first worker starts.
#pragma once

// Makes standard output line-buffered, whatever it is connected to. Call before the first line.
void InitProgress();

// From here on progress lines are dropped: standard output is the null device.
void SilenceProgress();

// printf to standard output.
void Progress(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));

// Writes out what Progress() holds back until a line end comes.
void FlushProgress();
