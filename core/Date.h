// The calendar as the service sees it: local time of the wall clock.
//
// Threads: any.
#pragma once

#include <ctime>

// tTime as local time. A change of the machine's time zone holds from the next call on.
std::tm LocalTime(std::time_t tTime);

// Fills in today's local date: year with four digits, month 1 to 12, day 1 to 31. Returns 0.
int GetCurrentDate(int& nYear, int& nMonth, int& nDay);
