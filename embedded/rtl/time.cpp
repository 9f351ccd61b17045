// Times are 100-nanosecond intervals since 1 January 1601, in the proleptic Gregorian calendar, without time zone.

#include "embedded/rtl/rtl.h"

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
