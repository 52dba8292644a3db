// The calendar as the service sees it: local time of the wall clock.
//
// Threads: LocalTime() any, GetCurrentDate() main only.
#pragma once

#include <ctime>

// tTime as local time, in the time zone of the latest GetCurrentDate().
std::tm LocalTime(std::time_t tTime);

// Fills in today's local date: year with four digits, month 1 to 12, day 1 to 31. Returns 0. Takes
// over a change of the machine's time zone.
int GetCurrentDate(int& nYear, int& nMonth, int& nDay);
