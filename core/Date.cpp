#include "core/Date.h"

#include <ctime>

int GetCurrentDate(int& nYear, int& nMonth, int& nDay) {
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    nYear = tmNow.tm_year + 1900;
    nMonth = tmNow.tm_mon + 1;
    nDay = tmNow.tm_mday;
    return 0;
}
