// Counts what chosen threads allocate with new.
#pragma once

// From here on the allocations of the calling thread count.
void CountAllocationsOfThisThread();

// Allocations that counted so far, in the whole process.
int CountedAllocations();
