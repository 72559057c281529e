// Calendar values as traders read them in records: a date is the integer
// YYYYMMDD, a time the integer HHMMSS. Date keeps its year, month and day
// derived from the integer; Time likewise its hour, minute and second.
//
// Day numbers count from 19800101 (day 1); dates before 1980 are outside the
// day arithmetic. Week days run from 1 (Monday) to 7 (Sunday). Time
// arithmetic wraps within one day. Nothing checks that a date is possible:
// 20250231 stays as it is. DateTime converts between the decimal values and
// seconds since 1970 with the caller's hour offset as the only correction.
#pragma once

namespace Base {

// Days before each month in a common year; the 13th entry is the whole year.
extern const int MONTH_DAYS[13];

class Date {
public:
    Date();
    explicit Date(int date);
    Date(const Date& other) = default;

    void set_date(int date);
    int get_date() const { return date; }
    int get_year() const { return year; }
    int get_month() const { return month; }
    int get_day() const { return day; }
    int get_week() const;          // 1 Monday .. 7 Sunday
    void get_now();                // today's local date

    Date operator++(int);          // one day on; gives the date before
    Date operator--(int);          // one day back; gives the date before
    Date operator+(int days) const;
    Date operator-(int days) const;
    Date& operator+=(int days);
    Date& operator-=(int days);
    Date& operator=(const Date& other);
    int operator-(const Date& other) const;  // days between
    bool operator==(const Date& other) const { return date == other.date; }

    static int get_days(int date);             // day number, 19800101 is 1
    static int from_days(int days);            // YYYYMMDD of a day number
    static bool is_leap(int year);
    static int get_days(int year, int month);  // length of a month, 0 if none
    static void parse(int date, int& year, int& month, int& day);

private:
    int date;
    int year;
    int month;
    int day;
};

class Time {
public:
    Time();
    explicit Time(int time);
    Time(const Time& other) = default;

    void set_time(int time);
    int get_time() const { return time; }
    int get_hour() const { return hour; }
    int get_minute() const { return minute; }
    int get_second() const { return second; }
    void get_now();                // the local time of day
    // sprintf of hour, minute and second with the caller's format.
    int to_string(char* dst, const char* format) const;

    Time operator++(int);          // one second on, wrapping at midnight
    Time operator--(int);
    Time operator+(int seconds) const;
    Time operator-(int seconds) const;
    Time& operator+=(int seconds);
    Time& operator-=(int seconds);
    Time& operator=(const Time& other);
    int operator-(const Time& other) const;  // seconds between, may be negative
    bool operator==(const Time& other) const { return time == other.time; }

    static int to_seconds(int time);
    // HHMMSS of a count of seconds, wrapped into one day (so -1 is 235959).
    static int from_seconds(int seconds);
    static void parse(int time, int& hour, int& minute, int& second);

private:
    int time;
    int hour;
    int minute;
    int second;
};

class DateTime {
public:
    // Seconds since 19700101 000000 of a date and a time, plus hour_offset
    // hours. No timezone is consulted.
    static long value_to_seconds(int date, int time, int hour_offset);
    // The same with the date as digits and the time as "HH:MM:SS".
    static long string_to_seconds(const char* date, const char* time, int hour_offset);
    // Local date "YYYYMMDD" and time "HH:MM:SS" (9 bytes each); either may be null.
    static void seconds_to_string(long seconds, char* date, char* time);
    static void seconds_to_value(long seconds, int& date, int& time);
    static void get_now(long& seconds, int& milliseconds);
};

}  // namespace Base
