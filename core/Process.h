// Starting worker threads and ending the process.
#pragma once

#include <pthread.h>

// Starts a joinable thread that runs pfnBody(pArg), named szName (at most 15 characters) in process
// listings. SIGTERM is blocked in it, so that the signal always finds main. Returns 0 or an error
// number of pthread_create.
[[nodiscard]] int StartThread(pthread_t& thread, const char* szName, void* (*pfnBody)(void*),
                              void* pArg);

// Asks the kernel for the shortest slices of processor time for this thread: it then has its turn
// soon when others run, and less at a time. nGiveWay: 0 to 19, added to its nice value. A kernel
// before 6.12 knows no slices; a thread with a real-time policy goes on as it was.
void TakeShortSlices(int nGiveWay = 0);

// Ends the process at once with nStatus. Progress lines are out first; static objects are left
// alone, because other threads may still use them.
[[noreturn]] void EndProcess(int nStatus);
