#include "text/csv.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cfloat>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

using Base::Csv;
using Base::FixedPoint;

namespace {

std::string temp_path(const char* name) {
    char pattern[] = "/tmp/csv_test_XXXXXX";
    std::string dir = mkdtemp(pattern);
    return dir + "/" + name;
}

void remove_file(const std::string& path) {
    std::remove(path.c_str());
    std::string dir = path.substr(0, path.rfind('/'));
    rmdir(dir.c_str());
}

std::string read_all(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "rb");
    std::string text;
    char buffer[256];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
    std::fclose(file);
    return text;
}

// A cell read as T; the read must succeed.
template <class T>
T cell(Csv& csv, unsigned int index) {
    T value{};
    EXPECT_EQ(1, csv.get_data(index, value)) << index;
    return value;
}

}  // namespace

TEST(CsvTest, TypedCellsAndNulls) {
    Csv csv(false, 256);
    for (const char* name : {"c", "i8", "u8", "i16", "u16", "i32", "u32", "i64", "u64", "f", "d", "fp3", "s"})
        csv.add_head(name);
    EXPECT_EQ(13u, csv.get_head_size());
    EXPECT_EQ(11, csv.get_head_index("fp3"));
    EXPECT_EQ(-1, csv.get_head_index("nope"));
    EXPECT_STREQ("u8", csv.get_head(2));
    EXPECT_EQ(nullptr, csv.get_head(13));

    EXPECT_EQ(1, csv.set_data(0, 'x'));
    EXPECT_EQ(1, csv.set_data(1, static_cast<signed char>(-5)));
    EXPECT_EQ(1, csv.set_data(2, static_cast<unsigned char>(200)));
    EXPECT_EQ(1, csv.set_data(3, static_cast<short>(-300)));
    EXPECT_EQ(1, csv.set_data(4, static_cast<unsigned short>(65535)));  // null flag off: a number
    EXPECT_EQ(1, csv.set_data(5, INT_MAX));                             // likewise
    EXPECT_EQ(1, csv.set_data(6, 7u));
    EXPECT_EQ(1, csv.set_data(7, LONG_MAX));                            // null: empty
    EXPECT_EQ(1, csv.set_data(8, 18446744073709551614UL));
    EXPECT_EQ(1, csv.set_data(9, 1.5f));
    EXPECT_EQ(1, csv.set_data(10, 0.1, true));
    EXPECT_EQ(1, csv.set_data(11, FixedPoint<3>{1500}));
    EXPECT_EQ(1, csv.set_data(12, "text"));
    EXPECT_EQ(0, csv.set_data(13, 1));

    EXPECT_STREQ("x", csv.get_data(0));
    EXPECT_STREQ("-5", csv.get_data(1));
    EXPECT_STREQ("65535", csv.get_data(4));
    EXPECT_STREQ("2147483647", csv.get_data(5));
    EXPECT_STREQ("", csv.get_data(7));
    EXPECT_STREQ("18446744073709551614", csv.get_data(8));
    EXPECT_STREQ("1.50000000", csv.get_data(9));
    EXPECT_STREQ("0.100000000000000@9A9999999999B93F", csv.get_data(10));
    EXPECT_STREQ("1.500", csv.get_data(11));

    EXPECT_EQ('x', cell<char>(csv, 0));
    EXPECT_EQ(-5, cell<signed char>(csv, 1));
    EXPECT_EQ(200, cell<unsigned char>(csv, 2));
    EXPECT_EQ(-300, cell<short>(csv, 3));
    EXPECT_EQ(65535, cell<unsigned short>(csv, 4));
    EXPECT_EQ(LONG_MAX, cell<long>(csv, 7));
    EXPECT_EQ(18446744073709551614UL, cell<unsigned long>(csv, 8));
    EXPECT_EQ(1.5f, cell<float>(csv, 9));
    double d = cell<double>(csv, 10);
    EXPECT_EQ(0, std::memcmp(&d, "\x9A\x99\x99\x99\x99\x99\xB9\x3F", 8));
    EXPECT_EQ(1500, cell<FixedPoint<3>>(csv, 11).value);
    int i32 = 0;
    EXPECT_EQ(0, csv.get_data(13, i32));

    // Empty cells: 0 for the four types with the flag off, the null value
    // for the others, until the flag changes.
    for (unsigned int i = 0; i < 12; ++i) csv.set_data(i, "");
    EXPECT_EQ(0, cell<int>(csv, 5));
    csv.enable_null(Base::DT_INT32, true);
    EXPECT_EQ(2147483647, cell<int>(csv, 5));
    csv.set_data(5, INT_MAX);
    EXPECT_STREQ("", csv.get_data(5));
    EXPECT_EQ(127, cell<signed char>(csv, 1));
    EXPECT_EQ(FLT_MAX, cell<float>(csv, 9));
    EXPECT_EQ(9223372036854775807L, cell<FixedPoint<3>>(csv, 11).value);
    csv.enable_null(Base::DT_FIXEDPOINT3, false);
    EXPECT_EQ(0, cell<FixedPoint<3>>(csv, 11).value);
    EXPECT_EQ(0, cell<char>(csv, 0));

    // Rounding of fixed point text, and cells that don't read.
    for (const char* text : {"0.3", "-1.5", "1e300"}) {  // beyond 64 bits: null, never an undefined cast
        csv.set_data(11, text);
        EXPECT_EQ(text[0] == '0' ? 300 : text[0] == '-' ? -1500 : 9223372036854775807L,
                  cell<FixedPoint<3>>(csv, 11).value) << text;
    }
    csv.set_data(5, "abc");
    i32 = 42;
    EXPECT_EQ(0, csv.get_data(5, i32));
    EXPECT_EQ(42, i32);
    csv.set_data(10, "1.0@12");  // a cut image
    d = 2.0;
    EXPECT_EQ(0, csv.get_data(10, d));
    EXPECT_EQ(2.0, d);
}

TEST(CsvTest, SplitQuotedAndPlain) {
    Csv csv(true, 64);
    ASSERT_TRUE(csv.read_head("\"a\" , \"b\",\"c\""));
    EXPECT_TRUE(csv.get_quote());
    EXPECT_EQ(3u, csv.get_head_size());
    EXPECT_EQ(1, csv.get_head_index("b"));
    ASSERT_TRUE(csv.read_data("\"x\"\"y\",\"\",  \"a,b\"  "));
    EXPECT_STREQ("x\"y", csv.get_data(0));
    EXPECT_STREQ("", csv.get_data(1));
    EXPECT_STREQ("a,b", csv.get_data(2));
    EXPECT_FALSE(csv.read_data("\"1\",\"2\",\"3\",\"4\""));  // one cell too many
    EXPECT_FALSE(csv.read_data("\"1\",2,\"3\""));            // a cell without quotes
    EXPECT_FALSE(csv.read_data("\"1\",\"2\",\"3"));          // ends within a cell
    EXPECT_FALSE(csv.read_data("\"1\",\"2\" x,\"3\""));      // junk behind a cell
    EXPECT_FALSE(csv.read_data("\"1\",\"2\","));             // a comma and nothing
    EXPECT_EQ(-1, csv.add_head("d"));                        // the row doesn't match
    ASSERT_TRUE(csv.read_data("\"1\",\"2\",\"3\""));
    EXPECT_EQ(3, csv.add_head("d"));

    ASSERT_TRUE(csv.read_head("a,b,,d"));
    EXPECT_FALSE(csv.get_quote());
    EXPECT_EQ(4u, csv.get_head_size());
    ASSERT_TRUE(csv.read_data("1,\"q\",,4"));
    EXPECT_STREQ("\"q\"", csv.get_data(1));
    EXPECT_STREQ("", csv.get_data(2));
    EXPECT_FALSE(csv.read_data("1,2,3"));
    EXPECT_FALSE(csv.read_head(""));
    EXPECT_EQ(0u, csv.get_head_size());

    // A line longer than the table's size is cut, not overrun.
    std::string long_line = "\"" + std::string(500, 'z') + "\"";
    EXPECT_FALSE(csv.read_head(long_line.c_str()));
    std::string long_name(100, 'n');
    Csv plain(false, 256);
    EXPECT_TRUE(plain.read_head(long_name.c_str()));
    EXPECT_EQ(63u, std::strlen(plain.get_head(0)));
}

TEST(CsvTest, FileWrittenAndReadBack) {
    std::string path = temp_path("table.csv");
    {
        Csv csv(true, 128);
        csv.add_head("Name");
        csv.add_head("Price");
        csv.add_head("Volume");
        FILE* file = std::fopen(path.c_str(), "wb");
        csv.write_head(file);
        const char* names[] = {"plain", "say \"hi\"", "a,b"};
        for (int row = 0; row < 3; ++row) {
            csv.set_data(0, names[row]);
            csv.set_data(1, FixedPoint<2>{12345 + row});
            csv.set_data(2, row * 10);
            csv.write_data(file);
        }
        std::fputs("\n\"broken\n\"x\",\"1\"\n", file);  // an empty, a bad and a short line
        csv.set_data(0, "last");
        csv.write_data(file);
        std::fclose(file);
    }
    EXPECT_EQ("\"Name\",\"Price\",\"Volume\"\n"
              "\"plain\",\"123.45\",\"0\"\n"
              "\"say \"\"hi\"\"\",\"123.46\",\"10\"\n"
              "\"a,b\",\"123.47\",\"20\"\n"
              "\n\"broken\n\"x\",\"1\"\n"
              "\"last\",\"123.47\",\"20\"\n",
              read_all(path));

    Csv csv(false, 128);
    FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_TRUE(csv.read_head(file));
    EXPECT_TRUE(csv.get_quote());
    int price = csv.get_head_index("Price");
    ASSERT_EQ(1, price);
    FixedPoint<2> value{0};
    ASSERT_EQ(1, csv.read_data(file, nullptr, nullptr));
    EXPECT_STREQ("plain", csv.get_data(0));
    ASSERT_EQ(1, csv.read_data(file, nullptr, nullptr));
    EXPECT_STREQ("say \"hi\"", csv.get_data(0));
    csv.get_data(price, value);
    EXPECT_EQ(12346, value.value);
    ASSERT_EQ(1, csv.read_data(file, nullptr, nullptr));
    EXPECT_STREQ("a,b", csv.get_data(0));
    unsigned long failed = 0;
    char* bad = nullptr;
    EXPECT_EQ(0, csv.read_data(file, &failed, &bad));
    EXPECT_STREQ("\"broken", bad);
    EXPECT_EQ(1u, failed);
    ASSERT_EQ(1, csv.read_data(file, &failed, nullptr));  // skips the short line
    EXPECT_EQ(2u, failed);
    EXPECT_STREQ("last", csv.get_data(0));
    EXPECT_EQ(0, csv.read_data(file, &failed, nullptr));
    std::fclose(file);

    // An empty file has no header.
    file = std::fopen(path.c_str(), "wb");
    std::fclose(file);
    file = std::fopen(path.c_str(), "rb");
    EXPECT_FALSE(csv.read_head(file));
    std::fclose(file);

    // An empty table writes a bare line end.
    Csv empty(false, 16);
    file = std::fopen(path.c_str(), "wb");
    empty.write_head(file);
    empty.write_data(file);
    std::fclose(file);
    EXPECT_EQ("\n\n", read_all(path));
    remove_file(path);
}
