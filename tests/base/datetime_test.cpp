#include "base/datetime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

using Base::Date;
using Base::DateTime;
using Base::Time;

namespace {

// The calendar as the C library sees it, as an oracle: YYYYMMDD of a UTC day.
int civil_date(time_t day_seconds) {
    struct tm t;
    gmtime_r(&day_seconds, &t);
    return (t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday;
}

}  // namespace

TEST(DateTest, DayNumbersFollowTheCalendarBothWays) {
    EXPECT_EQ(1, Date::get_days(19800101));
    EXPECT_EQ(28, Date::get_days(2100, 2));
    EXPECT_EQ(0, Date::get_days(2024, 13));  // no month 13 in the table
    EXPECT_EQ(2, Date(19800101).get_week());  // a Tuesday
    EXPECT_EQ(3, Date(20250101).get_week());  // a Wednesday
    EXPECT_EQ(7, Date(20250105).get_week());  // a Sunday
    // Walk every day from 1980 into 2101 against the C library's calendar:
    // catches a wrong leap rule, a month off by one or a year boundary slip.
    const time_t start = 315532800;  // 1980-01-01 00:00 UTC
    for (int n = 1; n <= 44200; ++n) {
        int expect = civil_date(start + static_cast<time_t>(n - 1) * 86400);
        ASSERT_EQ(expect, Date::from_days(n)) << "day " << n;
        ASSERT_EQ(n, Date::get_days(expect)) << expect;
    }
}

TEST(DateTest, ArithmeticKeepsFieldsConsistent) {
    Date d = Date(20240229) + 1;
    EXPECT_EQ(20240301, d.get_date());
    EXPECT_EQ(3, d.get_month());
    EXPECT_EQ(20231231, (Date(20240101) - 1).get_date());
    EXPECT_EQ(20250301, (Date(20250228) + 1).get_date());

    Date e(20241231);
    Date before = e++;
    EXPECT_EQ(20241231, before.get_date());
    EXPECT_EQ(20250101, e.get_date());
    EXPECT_EQ(2025, e.get_year());
    e--;
    EXPECT_EQ(20241231, e.get_date());
    e += 60;
    EXPECT_EQ(20250301, e.get_date());
    e -= 366;
    EXPECT_EQ(20240229, e.get_date());
    EXPECT_EQ(366, Date(20250301) - Date(20240229));
    EXPECT_EQ(-366, Date(20240229) - Date(20250301));
    EXPECT_TRUE(Date(20240229) + 366 == Date(20250301));

    // An impossible date is kept as it stands, and a month out of range does
    // not read outside the month table.
    Date bad(20250231);
    EXPECT_EQ(20250231, bad.get_date());
    EXPECT_EQ(31, bad.get_day());
    EXPECT_EQ(Date::get_days(20241231) + 365 + 1, Date::get_days(20251301));
    EXPECT_EQ(Date::get_days(20241231) + 1, Date::get_days(20250001));
}

TEST(TimeTest, SecondsWrapWithinTheDay) {
    EXPECT_EQ(235959, Time::from_seconds(-1));
    EXPECT_EQ(0, Time::from_seconds(0));
    EXPECT_EQ(0, Time::from_seconds(86400));
    EXPECT_EQ(235959, Time::from_seconds(-86401));
    EXPECT_EQ(123456, Time::from_seconds(Time::to_seconds(123456)));
    EXPECT_EQ(1, (Time(235959) + 2).get_time());
    EXPECT_EQ(235958, (Time(0) - 2).get_time());
    EXPECT_EQ(235959, (Time(0) + (-1)).get_time());

    Time t(93000);
    EXPECT_EQ(30, t.get_minute());
    Time before = t++;
    EXPECT_EQ(93000, before.get_time());
    EXPECT_EQ(93001, t.get_time());
    t -= 3601;
    EXPECT_EQ(83000, t.get_time());
    t += 86400 * 3 + 60;
    EXPECT_EQ(83100, t.get_time());
    t += 2147483647;  // a huge step wraps and does not overflow
    EXPECT_EQ(Time::from_seconds(static_cast<int>((Time::to_seconds(83100) + 2147483647L) % 86400)),
              t.get_time());
    EXPECT_EQ(-3600, Time(80000) - Time(90000));

    char text[32];
    EXPECT_EQ(8, Time(91505).to_string(text, "%02d:%02d:%02d"));
    EXPECT_STREQ("09:15:05", text);
}

TEST(DateTimeTest, ValueToSecondsMatchesTheCalendar) {
    EXPECT_EQ(0, DateTime::value_to_seconds(19700101, 0, 0));
    EXPECT_EQ(28800, DateTime::value_to_seconds(19700101, 0, 8));
    // The leap day of the year is counted from February 29 on, so that day
    // itself lands on March 1, and February 28 does not count it.
    EXPECT_EQ(DateTime::value_to_seconds(20240301, 0, 0),
              DateTime::value_to_seconds(20240229, 0, 0));
    EXPECT_EQ(2 * 86400, DateTime::value_to_seconds(20240229, 0, 0) -
                             DateTime::value_to_seconds(20240228, 0, 0));
    // Every first, 28th and 29th of a month, 1970 to 2400, against timegm:
    // covers the leap-day correction in January and February and the
    // century years 2100, 2200, 2300 and 2400. February 29 is one day ahead.
    for (int year = 1970; year <= 2400; ++year) {
        for (int month = 1; month <= 12; ++month) {
            for (int day : {1, 28, 29}) {
                if (day > Date::get_days(year, month)) continue;
                struct tm t;
                std::memset(&t, 0, sizeof t);
                t.tm_year = year - 1900;
                t.tm_mon = month - 1;
                t.tm_mday = day;
                t.tm_hour = 13;
                t.tm_min = 5;
                t.tm_sec = 9;
                long expect = static_cast<long>(timegm(&t));
                if (month == 2 && day == 29) expect += 86400;
                int date = year * 10000 + month * 100 + day;
                ASSERT_EQ(expect, DateTime::value_to_seconds(date, 130509, 0)) << date;
                ASSERT_EQ(expect - 3 * 3600, DateTime::value_to_seconds(date, 130509, -3));
            }
        }
    }
}

TEST(DateTimeTest, StringsAndLocalTime) {
    EXPECT_EQ(DateTime::value_to_seconds(20240229, 93005, 8),
              DateTime::string_to_seconds("20240229", "09:30:05", 8));
    // A short time text reads as zeros where it ends, never past it.
    EXPECT_EQ(DateTime::value_to_seconds(20240229, 90000, 0),
              DateTime::string_to_seconds("20240229", "09", 0));

    // Local conversions agree with each other and round-trip through the
    // local offset that the C library reports.
    long now = 0;
    int ms = -1;
    DateTime::get_now(now, ms);
    EXPECT_GE(ms, 0);
    EXPECT_LT(ms, 1000);
    int date = 0, time = 0;
    DateTime::seconds_to_value(now, date, time);
    char date_text[9], time_text[9];
    DateTime::seconds_to_string(now, date_text, time_text);
    char expect_date[16], expect_time[16];
    std::snprintf(expect_date, sizeof expect_date, "%08d", date);
    std::snprintf(expect_time, sizeof expect_time, "%02d:%02d:%02d", time / 10000,
                  time % 10000 / 100, time % 100);
    EXPECT_STREQ(expect_date, date_text);
    EXPECT_STREQ(expect_time, time_text);
    time_t t = static_cast<time_t>(now);
    struct tm local;
    localtime_r(&t, &local);
    EXPECT_EQ(now, DateTime::value_to_seconds(date, time, 0) - local.tm_gmtoff);

    Date today;
    today.get_now();
    EXPECT_GT(today.get_date(), 20200101);
    EXPECT_EQ(today.get_date(), Date::from_days(Date::get_days(today.get_date())));
}
