#include "base/datetime.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace Base {

const int MONTH_DAYS[13] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};

namespace {

const int k_day_seconds = 86400;

// Days before a month; a month outside 1..12 is clamped to the table so
// that an impossible date never reads past it.
int days_before_month(int month) {
    if (month < 1) return 0;
    if (month > 13) month = 13;
    return MONTH_DAYS[month - 1];
}

int year_days(int year) { return Date::is_leap(year) ? 366 : 365; }

void local_now(struct tm& out) {
    time_t now = ::time(nullptr);
    localtime_r(&now, &out);
}

}  // namespace

// ---- Date ----------------------------------------------------------------

Date::Date() { set_date(0); }

Date::Date(int value) { set_date(value); }

void Date::set_date(int value) {
    date = value;
    parse(value, year, month, day);
}

void Date::parse(int value, int& y, int& m, int& d) {
    y = value / 10000;
    m = value % 10000 / 100;
    d = value % 100;
}

bool Date::is_leap(int y) {
    if (y % 400 == 0) return true;
    return y % 4 == 0 && y % 100 != 0;
}

int Date::get_days(int y, int m) {
    static const int lengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (m < 1 || m > 12) return 0;
    if (m == 2 && is_leap(y)) return 29;
    return lengths[m - 1];
}

int Date::get_days(int value) {
    int y, m, d;
    parse(value, y, m, d);
    int days = 0;
    for (int i = 1980; i < y; ++i) days += year_days(i);
    days += days_before_month(m);
    if (m > 2 && is_leap(y)) days += 1;
    return days + d;
}

int Date::from_days(int days) {
    int y = 1980;
    while (days > year_days(y)) {
        days -= year_days(y);
        ++y;
    }
    int m = 1;
    while (m < 12 && days > get_days(y, m)) {
        days -= get_days(y, m);
        ++m;
    }
    return y * 10000 + m * 100 + days;
}

int Date::get_week() const {
    int week = (get_days(date) + 1) % 7;
    return week == 0 ? 7 : week;
}

void Date::get_now() {
    struct tm now;
    local_now(now);
    set_date((now.tm_year + 1900) * 10000 + (now.tm_mon + 1) * 100 + now.tm_mday);
}

Date Date::operator++(int) {
    Date before = *this;
    *this += 1;
    return before;
}

Date Date::operator--(int) {
    Date before = *this;
    *this -= 1;
    return before;
}

Date Date::operator+(int days) const { return Date(from_days(get_days(date) + days)); }

Date Date::operator-(int days) const { return Date(from_days(get_days(date) - days)); }

Date& Date::operator+=(int days) {
    set_date(from_days(get_days(date) + days));
    return *this;
}

Date& Date::operator-=(int days) {
    set_date(from_days(get_days(date) - days));
    return *this;
}

Date& Date::operator=(const Date& other) {
    set_date(other.date);
    return *this;
}

int Date::operator-(const Date& other) const { return get_days(date) - get_days(other.date); }

// ---- Time ----------------------------------------------------------------

Time::Time() { set_time(0); }

Time::Time(int value) { set_time(value); }

void Time::set_time(int value) {
    time = value;
    parse(value, hour, minute, second);
}

void Time::parse(int value, int& h, int& m, int& s) {
    h = value / 10000;
    m = value % 10000 / 100;
    s = value % 100;
}

int Time::to_seconds(int value) {
    int h, m, s;
    parse(value, h, m, s);
    return h * 3600 + m * 60 + s;
}

int Time::from_seconds(int seconds) {
    // Wraps any count into one day; for counts down to a day below zero this
    // is (seconds + 86400) % 86400, and it never overflows.
    int s = seconds % k_day_seconds;
    if (s < 0) s += k_day_seconds;
    return s / 3600 * 10000 + s % 3600 / 60 * 100 + s % 60;
}

void Time::get_now() {
    struct tm now;
    local_now(now);
    set_time(now.tm_hour * 10000 + now.tm_min * 100 + now.tm_sec);
}

int Time::to_string(char* dst, const char* format) const {
    return std::sprintf(dst, format, hour, minute, second);
}

namespace {

// Moves a time of day by a signed count of seconds, wrapping at midnight.
int shift_time(int time, long seconds) {
    long total = (Time::to_seconds(time) + seconds % k_day_seconds) % k_day_seconds;
    return Time::from_seconds(static_cast<int>(total));
}

}  // namespace

Time Time::operator++(int) {
    Time before = *this;
    *this += 1;
    return before;
}

Time Time::operator--(int) {
    Time before = *this;
    *this -= 1;
    return before;
}

Time Time::operator+(int seconds) const { return Time(shift_time(time, seconds)); }

Time Time::operator-(int seconds) const { return Time(shift_time(time, -static_cast<long>(seconds))); }

Time& Time::operator+=(int seconds) {
    set_time(shift_time(time, seconds));
    return *this;
}

Time& Time::operator-=(int seconds) {
    set_time(shift_time(time, -static_cast<long>(seconds)));
    return *this;
}

Time& Time::operator=(const Time& other) {
    set_time(other.time);
    return *this;
}

int Time::operator-(const Time& other) const { return to_seconds(time) - to_seconds(other.time); }

// ---- DateTime ------------------------------------------------------------

namespace {

long compose_seconds(int year, int month, int day, int hour, int minute, int second,
                     int hour_offset) {
    long days = static_cast<long>(year - 1970) * 365 + days_before_month(month) + day - 1;
    // Leap days since 1970: every fourth year, less the centuries that are
    // not divisible by 400, less this year's own leap day when the date lies
    // before February 29. February 29 itself thus counts its own leap day and
    // gives the same seconds as March 1; this is the established result.
    long c = year - 2000;
    long leap = (year - 1968) / 4 - (c / 400 * 3 + c / 100 % 4);
    if (Date::is_leap(year) && (month == 1 || (month == 2 && day < 29))) leap -= 1;
    days += leap;
    return days * 86400 + static_cast<long>(hour + hour_offset) * 3600 + minute * 60L + second;
}

// The digit at index i of text, or 0 when the text ends before it.
int digit_at(const char* text, int i) {
    for (int k = 0; k <= i; ++k) {
        if (text[k] == 0) return 0;
    }
    return text[i] - '0';
}

void split_local(long seconds, struct tm& out) {
    time_t t = static_cast<time_t>(seconds);
    localtime_r(&t, &out);
}

}  // namespace

long DateTime::value_to_seconds(int date, int time, int hour_offset) {
    int year, month, day, hour, minute, second;
    Date::parse(date, year, month, day);
    Time::parse(time, hour, minute, second);
    return compose_seconds(year, month, day, hour, minute, second, hour_offset);
}

long DateTime::string_to_seconds(const char* date, const char* time, int hour_offset) {
    int value = date ? static_cast<int>(std::strtol(date, nullptr, 10)) : 0;
    int year, month, day;
    Date::parse(value, year, month, day);
    int hour = 0, minute = 0, second = 0;
    if (time) {
        hour = digit_at(time, 0) * 10 + digit_at(time, 1);
        minute = digit_at(time, 3) * 10 + digit_at(time, 4);
        second = digit_at(time, 6) * 10 + digit_at(time, 7);
    }
    return compose_seconds(year, month, day, hour, minute, second, hour_offset);
}

void DateTime::seconds_to_string(long seconds, char* date, char* time) {
    struct tm t;
    split_local(seconds, t);
    // The callers' buffers hold 9 bytes: years are four digits here.
    unsigned year = static_cast<unsigned>(t.tm_year + 1900) % 10000;
    unsigned month = static_cast<unsigned>(t.tm_mon + 1) % 100;
    unsigned day = static_cast<unsigned>(t.tm_mday) % 100;
    if (date) std::snprintf(date, 9, "%04u%02u%02u", year, month, day);
    unsigned hour = static_cast<unsigned>(t.tm_hour) % 100;
    unsigned minute = static_cast<unsigned>(t.tm_min) % 100;
    unsigned second = static_cast<unsigned>(t.tm_sec) % 100;
    if (time) std::snprintf(time, 9, "%02u:%02u:%02u", hour, minute, second);
}

void DateTime::seconds_to_value(long seconds, int& date, int& time) {
    struct tm t;
    split_local(seconds, t);
    date = (t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday;
    time = t.tm_hour * 10000 + t.tm_min * 100 + t.tm_sec;
}

void DateTime::get_now(long& seconds, int& milliseconds) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    seconds = tv.tv_sec;
    milliseconds = static_cast<int>(tv.tv_usec / 1000);
}

}  // namespace Base
