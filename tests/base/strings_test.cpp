#include "base/file.h"
#include "base/measure.h"
#include "base/random.h"
#include "base/strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(Measure, ClockIsMonotonicAcrossThreadsAndTimeRoundTrips) {
    uint64_t before = Base::Measure::get_clock();
    uint64_t other = 0;
    std::thread reader([&] { other = Base::Measure::get_clock(); });
    reader.join();
    uint64_t after = Base::Measure::get_clock();
    EXPECT_LE(before, other);
    EXPECT_LE(other, after);
    // The zero point is the wall clock of the first reading.
    uint64_t wall = Base::Measure::get_local_clock();
    EXPECT_LT(wall > after ? wall - after : after - wall, 10000000ull * 60);

    Base::Measure::delay(0);
    Base::Measure::delay(~0ull);  // wraps: returns at once

    // Round trips through the decimal form at several points of 2000-2099.
    const uint64_t samples[] = {after, after + 1234567, 9466848000000000ull + 5, 40000000000000000ull + 9999999};
    for (uint64_t clock : samples)
        EXPECT_EQ(Base::Measure::to_clock(Base::Measure::get_time(clock)), clock);
}

TEST(Measure, DecimalTimeReadsAsDateAndTime) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 2026-11-14 23:33:51.5 UTC
    uint64_t clock = 1794699231ull * 10000000 + 5000000;
    EXPECT_EQ(Base::Measure::get_time(clock), 2611142333515000000ull);
    EXPECT_EQ(Base::Measure::to_clock(2611142333515000000ull), clock);
}

TEST(Random, LehmerSequenceAndSeedRules) {
    Base::Random generator(1);
    EXPECT_EQ(generator.next(), 16807u);
    EXPECT_EQ(generator.next(), 282475249u);
    Base::Random high(0x7FFFFFFFu), wrapped(0x80000000u);
    EXPECT_EQ(high.get_state(), 1u);
    EXPECT_EQ(wrapped.get_state(), 1u);
    // The 10000th value of the minimal standard from seed 1.
    Base::Random long_run(1);
    unsigned int value = 0;
    for (int i = 0; i < 10000; ++i) value = long_run.next();
    EXPECT_EQ(value, 1043618065u);
}

TEST(Random, ShuffleIsAReproduciblePermutation) {
    unsigned int three[3];
    Base::Random::shuffle(three, 3, 1);
    // i=2: 16807 % 3 = 1 -> swap 1,2 ; i=1: 282475249 % 2 = 1 -> no swap
    EXPECT_EQ(std::vector<unsigned int>(three, three + 3), (std::vector<unsigned int>{0, 2, 1}));

    for (unsigned int count : {2u, 5u, 64u, 256u}) {
        std::vector<unsigned int> a(count), b(count);
        Base::Random::shuffle(a.data(), count, 12345);
        Base::Random::shuffle(b.data(), count, 12345);
        EXPECT_EQ(a, b);
        std::sort(a.begin(), a.end());
        for (unsigned int i = 0; i < count; ++i) EXPECT_EQ(a[i], i);
    }
    unsigned int one = 99;
    Base::Random::shuffle(&one, 1, 7);
    EXPECT_EQ(one, 0u);
    unsigned int untouched = 99;
    Base::Random::shuffle(&untouched, 0, 7);
    EXPECT_EQ(untouched, 99u);
}

TEST(Strings, BoundedCopiesAlwaysTerminate) {
    char buffer[8];
    std::memset(buffer, 'x', sizeof(buffer));
    Base::str_ncpy(3, buffer, "abcdef");
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(buffer[4], 'x');  // writes exactly n + 1 bytes
    std::memset(buffer, 'x', sizeof(buffer));
    Base::str_ncpy(6, buffer, "ab");
    EXPECT_STREQ(buffer, "ab");
    for (int i = 2; i <= 6; ++i) EXPECT_EQ(buffer[i], '\0');
    EXPECT_EQ(buffer[7], 'x');

    char small[6];
    Base::str_print(sizeof(small), small, "%d-%s", 12345, "long");
    EXPECT_STREQ(small, "12345");
}

TEST(Strings, HexTextBothWays) {
    const char bytes[] = {char(0x00), char(0xAB), char(0x7F), char(0xFF)};
    char text[9] = {};
    Base::hex_from_bytes(text, bytes, 4, true);
    EXPECT_STREQ(text, "00AB7FFF");
    Base::hex_from_bytes(text, bytes, 4, false);
    EXPECT_STREQ(text, "00ab7fff");
    char back[4] = {};
    EXPECT_EQ(Base::hex_to_bytes("00Ab7fFF", back, 4), back);
    EXPECT_EQ(std::memcmp(back, bytes, 4), 0);
    char partial[3] = {'q', 'q', 'q'};
    EXPECT_EQ(Base::hex_to_bytes("12G4", partial, 2), nullptr);
    EXPECT_EQ(partial[0], 0x12);  // bytes before the bad digit stay
}

TEST(Strings, TokensCutInPlace) {
    char text[] = "a,,bc,";
    int position = 0;
    std::vector<std::string> pieces;
    while (char* piece = Base::str_token(text, ",", position)) pieces.push_back(piece);
    EXPECT_EQ(pieces, (std::vector<std::string>{"a", "", "bc", ""}));
    EXPECT_EQ(position, -1);
    char empty[] = "";
    position = 0;
    EXPECT_EQ(Base::str_token(empty, ",", position), nullptr);
    EXPECT_EQ(Base::str_token(nullptr, ",", position), nullptr);
    char multi[] = "x::y";
    position = 0;
    EXPECT_STREQ(Base::str_token(multi, "::", position), "x");
    EXPECT_STREQ(Base::str_token(multi, "::", position), "y");
}

TEST(Strings, SmallHelpers) {
    EXPECT_EQ(Base::find_split("a/b/c", '/', false), 1);
    EXPECT_EQ(Base::find_split("a/b/c", '/', true), 3);
    EXPECT_EQ(Base::find_split("abc", '/', true), -1);
    EXPECT_TRUE(Base::str_head("trade.con", "trade"));
    EXPECT_TRUE(Base::str_tail("trade.con", ".con"));
    EXPECT_FALSE(Base::str_tail("trade.con", "trade"));
    char replaced[32];
    EXPECT_EQ(Base::replace_str("a-b-c", nullptr, "-", "--"), 7);
    EXPECT_EQ(Base::replace_str("a-b-c", replaced, "-", "--"), 7);
    EXPECT_STREQ(replaced, "a--b--c");
    char text[] = "  x  ";
    Base::trim_left(text, ' ');
    Base::trim_right(text, ' ');
    EXPECT_STREQ(text, "x");
    EXPECT_FALSE(Base::is_digit(""));
    EXPECT_FALSE(Base::is_digit(nullptr));
    EXPECT_TRUE(Base::is_digit("0123"));
    EXPECT_TRUE(Base::is_upper("ABC"));
    bool exact = false;
    EXPECT_EQ(Base::ceil_log(1024, 2, &exact), 10u);
    EXPECT_TRUE(exact);
    EXPECT_EQ(Base::ceil_log(1025, 2, &exact), 11u);
    EXPECT_FALSE(exact);
    EXPECT_EQ(Base::align_addition(13, 3), 3);
    EXPECT_EQ(Base::align_addition(16, 3), 0);
}

TEST(Strings, CommandLineArguments) {
    const char* words[] = {"prog", "-f", "tcp://h:1", "first", "--verbose", "second", "-d"};
    char** argv = const_cast<char**>(words);
    EXPECT_EQ(Base::get_arg_count(7, argv), 2);
    EXPECT_STREQ(Base::get_arg_value(7, argv, "-f"), "tcp://h:1");
    EXPECT_STREQ(Base::get_arg_value(7, argv, "-d"), "");
    EXPECT_STREQ(Base::get_arg_value(7, argv, "--verbose"), "--verbose");
    EXPECT_EQ(Base::get_arg_value(7, argv, "-x"), nullptr);
    EXPECT_STREQ(Base::get_arg_value(7, argv, 0), "prog");
    EXPECT_STREQ(Base::get_arg_value(7, argv, 2), "second");
    EXPECT_EQ(Base::get_arg_value(7, argv, 3), nullptr);
}

TEST(File, PathsAndLines) {
    char out[256];
    EXPECT_STREQ(Base::File::get_parent_path(out, "trade.con"), ".");
    EXPECT_STREQ(Base::File::get_parent_path(out, "a\\b\\trade.con"), "a/b");
    EXPECT_STREQ(Base::File::get_child_path(out, "dir", "trade.con"), "dir/trade.con");
    char dir[64], name[64], ext[64];
    Base::File::get_name(dir, name, ext, "a/b/file.flow", '.');
    EXPECT_STREQ(dir, "a/b");
    EXPECT_STREQ(name, "file");
    EXPECT_STREQ(ext, ".flow");
    Base::File::get_name(nullptr, name, nullptr, "plain", '.');
    EXPECT_STREQ(name, "plain");

    std::string path = ::testing::TempDir() + "qel_file_test.txt";
    FILE* file = std::fopen(path.c_str(), "w+b");
    ASSERT_NE(file, nullptr);
    std::fputs("first\r\n\nthird line\n", file);
    long length = 0;
    ASSERT_TRUE(Base::File::get_length(file, length));
    EXPECT_EQ(length, 19);
    std::rewind(file);
    char line[64];
    ASSERT_TRUE(Base::File::read_line(file, line, sizeof(line)));
    EXPECT_STREQ(line, "first");
    long position = 0;
    ASSERT_TRUE(Base::File::get_pos(file, position));
    EXPECT_EQ(position, 7);
    ASSERT_TRUE(Base::File::read_line(file, line, sizeof(line)));
    EXPECT_STREQ(line, "");
    ASSERT_TRUE(Base::File::truncate(file));
    ASSERT_TRUE(Base::File::get_length(file, length));
    EXPECT_EQ(length, 8);
    EXPECT_FALSE(Base::File::read_line(file, line, sizeof(line)));
    ASSERT_TRUE(Base::File::set_length(file, 3));
    ASSERT_TRUE(Base::File::get_length(file, length));
    EXPECT_EQ(length, 3);
    std::fclose(file);
    EXPECT_TRUE(Base::File::is_exist(path.c_str()));
    EXPECT_TRUE(Base::File::remove(path.c_str()));
    EXPECT_FALSE(Base::File::is_exist(path.c_str()));
}

}  // namespace
