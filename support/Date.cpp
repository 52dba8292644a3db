#include "support/Date.h"

std::tm LocalTime(std::time_t tTime) {
    std::tm tmLocal{};
    localtime_r(&tTime, &tmLocal);
    return tmLocal;
}

int GetCurrentDate(int& nYear, int& nMonth, int& nDay) {
    tzset();  // localtime_r alone keeps to the zone that it found at its first call
    const std::tm tmNow = LocalTime(std::time(nullptr));
    nYear = tmNow.tm_year + 1900;
    nMonth = tmNow.tm_mon + 1;
    nDay = tmNow.tm_mday;
    return 0;
}
