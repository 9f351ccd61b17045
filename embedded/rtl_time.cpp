// Times are 100-nanosecond intervals since 1 January 1601, in the proleptic Gregorian calendar, without time zone.

#include "embedded/rtl.h"

#include <chrono>

namespace {

using namespace std::chrono;

using Interval = duration<LONGLONG, std::ratio<1, 10'000'000>>;

constexpr sys_days Epoch = sys_days(year(1601) / January / 1);

} // namespace

VOID NTAPI RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields) noexcept {
    Interval SinceEpoch(Time->QuadPart);
    days WholeDays = floor<days>(SinceEpoch);
    sys_days Day = Epoch + WholeDays;
    year_month_day Date(Day);
    hh_mm_ss Clock(floor<milliseconds>(SinceEpoch - WholeDays));
    TimeFields->Year = static_cast<CSHORT>(static_cast<int>(Date.year()));
    TimeFields->Month = static_cast<CSHORT>(static_cast<unsigned>(Date.month()));
    TimeFields->Day = static_cast<CSHORT>(static_cast<unsigned>(Date.day()));
    TimeFields->Hour = static_cast<CSHORT>(Clock.hours().count());
    TimeFields->Minute = static_cast<CSHORT>(Clock.minutes().count());
    TimeFields->Second = static_cast<CSHORT>(Clock.seconds().count());
    TimeFields->Milliseconds = static_cast<CSHORT>(Clock.subseconds().count());
    TimeFields->Weekday = static_cast<CSHORT>(weekday(Day).c_encoding());
}

BOOLEAN NTAPI RtlTimeFieldsToTime(PTIME_FIELDS TimeFields, PLARGE_INTEGER Time) noexcept {
    auto Within = [](CSHORT Value, CSHORT Lowest, CSHORT Highest) { return Value >= Lowest && Value <= Highest; };
    // 30827 is the last year that a 64-bit count of intervals holds whole.
    if (!Within(TimeFields->Year, 1601, 30827) || !Within(TimeFields->Month, 1, 12) ||
        !Within(TimeFields->Day, 1, 31) || !Within(TimeFields->Hour, 0, 23) || !Within(TimeFields->Minute, 0, 59) ||
        !Within(TimeFields->Second, 0, 59) || !Within(TimeFields->Milliseconds, 0, 999)) {
        return FALSE;
    }
    year_month_day Date(year(TimeFields->Year), month(static_cast<unsigned>(TimeFields->Month)),
                        day(static_cast<unsigned>(TimeFields->Day)));
    if (!Date.ok()) {
        return FALSE;
    }
    Interval SinceEpoch = sys_days(Date) - Epoch + hours(TimeFields->Hour) + minutes(TimeFields->Minute) +
                          seconds(TimeFields->Second) + milliseconds(TimeFields->Milliseconds);
    Time->QuadPart = SinceEpoch.count();
    return TRUE;
}
