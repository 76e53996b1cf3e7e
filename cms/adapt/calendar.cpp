// Calendar date-time to seconds since the epoch.
#include <stdint.h>

#include "cms/adapt/adapt.h"

// Days from civil date: March-based months make the leap day the year's last,
// so the month term (367 * m) / 12 needs no leap correction.
extern "C" int64_t DorvexMktime(const DorvexDatetime *time) {
    if (time == nullptr) {
        return 0;
    }
    // Every year is taken as written: a date of 1850 is 1850, not 3750.
    int64_t year = time->year;
    int64_t month = static_cast<int64_t>(time->month) - 2;
    if (month <= 0) {
        month += 12;
        year -= 1;
    }
    int64_t days =
        year / 4 - year / 100 + year / 400 + (367 * month) / 12 + time->day + 365 * year - 719499;
    return ((days * 24 + time->hour) * 60 + time->minute) * 60 + time->second;
}
