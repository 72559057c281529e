#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "text/csv.h"
#include "record/fielddesc.h"
#include "text/json.h"
#include "text/textformat.h"

using Base::Csv;
using Base::FieldDesc;
using Base::Json;

namespace {

// A record described at run time: members packed in the order added.
class Record {
public:
    Record() : desc(7, "TestRecord") {
        desc.add_member(Base::DT_STRING, 13, "NameType", "Name", true);
        desc.add_member(Base::DT_INT32, 4, "IntType", "Other", false);
        desc.add_member(Base::DT_FIXEDPOINT3, 8, "PriceType", "Price", false);
        desc.add_member(Base::DT_CHAR, 1, "FlagType", "Flag", false);
        desc.add_member(Base::DT_FLOAT64, 8, "RatioType", "Ratio", false);
        desc.add_member(Base::DT_INT32, 4, "IntType", "NullInt", false);
        desc.add_member(Base::DT_UINT8, 1, "SmallType", "Small", false);
        data.assign(desc.struct_size, 0);
        set_int(5, INT_MAX);
    }
    void* record() { return data.data(); }
    char* name() { return static_cast<char*>(desc.get_member(record(), 0)); }
    void set_name(const char* text) { FieldDesc::set_member(Base::DT_STRING, name(), text, 13); }
    template <typename T>
    T get(int index) {
        T value;
        std::memcpy(&value, desc.get_member(record(), index), sizeof value);
        return value;
    }
    template <typename T>
    void set(int index, T value) {
        std::memcpy(desc.get_member(record(), index), &value, sizeof value);
    }
    void set_int(int index, int value) { set<int>(index, value); }

    FieldDesc desc;
    std::vector<char> data;
};

std::string print(const FieldDesc& desc, const void* record, bool quote, bool pad, bool names, char* hex) {
    int length = desc.print_field(nullptr, record, quote, pad, names, hex);
    std::vector<char> buffer(length + 1, '#');
    EXPECT_EQ(length, desc.print_field(buffer.data(), record, quote, pad, names, hex));
    EXPECT_EQ(0, buffer[length]);
    return std::string(buffer.data(), length);
}

// What was written to a temporary file, which is then closed.
std::string drain(FILE* file) {
    long length = ftell(file);
    rewind(file);
    std::string text(length, 0);
    EXPECT_EQ(static_cast<size_t>(length), fread(&text[0], 1, length, file));
    fclose(file);
    return text;
}

std::string written(const FieldDesc& desc, const void* record, bool quote, bool pad, bool names, char* hex) {
    FILE* file = tmpfile();
    desc.write_field(record, quote, file, pad, names, hex);
    return drain(file);
}

}  // namespace

TEST(FieldTextTest, LogLinesAndRows) {
    Record r;
    r.set<long>(2, 1500);
    r.set<double>(4, 0.1);
    r.set<unsigned char>(6, 255);  // null
    const std::string line = "Name=\"\" Other=\"0\" Price=\"1.500\" Flag=\"\" Ratio=\"0.100000000000000\" "
                             "NullInt=\"\" Small=\"\"";
    EXPECT_EQ(line, print(r.desc, r.record(), true, false, true, nullptr));
    EXPECT_EQ(line, written(r.desc, r.record(), true, false, true, nullptr));
    EXPECT_EQ(",0,1.500,,0.100000000000000,,", print(r.desc, r.record(), false, false, false, nullptr));
    EXPECT_EQ(",0,1.500,,0.100000000000000,,", written(r.desc, r.record(), false, false, false, nullptr));

    // A quote in a string is doubled only in quoted form; padding lines up a
    // plain string to its width but never a doubled one.
    r.set_name("a\"b");
    r.set<char>(3, 'Y');
    r.set<long>(2, -1);
    EXPECT_EQ("Name=\"a\"\"b\" Other=\"0\" Price=\"-0.001\" Flag=\"Y\"",
              print(r.desc, r.record(), true, true, true, nullptr).substr(0, 45));
    EXPECT_EQ("a\"b,0,-0.001,Y", print(r.desc, r.record(), false, false, false, nullptr).substr(0, 14));
    r.set_name("ab");
    EXPECT_EQ("Name=\"ab          \" Other", print(r.desc, r.record(), true, true, true, nullptr).substr(0, 25));
    EXPECT_EQ("Name=\"ab          \" Other", written(r.desc, r.record(), true, true, true, nullptr).substr(0, 25));
    r.set_name("a\"b");
    EXPECT_EQ("Name=\"a\"\"b\" Other", written(r.desc, r.record(), true, true, true, nullptr).substr(0, 17));

    FILE* file = tmpfile();
    r.desc.write_head(true, file);
    r.desc.write_head(false, file);
    EXPECT_EQ("\"Name\",\"Other\",\"Price\",\"Flag\",\"Ratio\",\"NullInt\",\"Small\""
              "Name,Other,Price,Flag,Ratio,NullInt,Small",
              drain(file));

    // A member of a type outside the value codes prints nothing but keeps
    // its separators and quotes.
    FieldDesc odd(8, "Odd");
    odd.add_member(Base::DT_POINTER, 8, "P", "Pointer", false);
    odd.add_member(Base::DT_INT16, 2, "S", "Short", false);
    std::vector<char> odd_record(odd.struct_size, 0);
    EXPECT_EQ("Pointer=\"\" Short=\"0\"", print(odd, odd_record.data(), true, false, true, nullptr));
}

TEST(FieldTextTest, BitImageRestoresEveryBit) {
    char hex[32];
    char text[Base::VALUE_TEXT_SIZE];
    double tenth = 0.1;
    EXPECT_EQ(34, FieldDesc::print_member(text, Base::DT_FLOAT64, &tenth, false, 0, false, hex));
    EXPECT_STREQ("0.100000000000000@9A9999999999B93F", text);
    EXPECT_EQ(34, FieldDesc::print_member(nullptr, Base::DT_FLOAT64, &tenth, false, 0, false, hex));
    double back = 0;
    FieldDesc::fill_member(Base::DT_FLOAT64, &back, text, 8);
    EXPECT_EQ(0, std::memcmp(&tenth, &back, 8));

    // 0.1 + 0.2 has more bits than fifteen decimals carry: only the image
    // brings them back.
    double sum = 0.1 + 0.2;
    FieldDesc::print_member(text, Base::DT_FLOAT64, &sum, false, 0, false, nullptr);
    FieldDesc::fill_member(Base::DT_FLOAT64, &back, text, 8);
    EXPECT_NE(0, std::memcmp(&sum, &back, 8));
    FieldDesc::print_member(text, Base::DT_FLOAT64, &sum, false, 0, false, hex);
    FieldDesc::fill_member(Base::DT_FLOAT64, &back, text, 8);
    EXPECT_EQ(0, std::memcmp(&sum, &back, 8));

    float third = 1.0f / 3.0f;
    FieldDesc::print_member(text, Base::DT_FLOAT32, &third, false, 0, false, hex);
    EXPECT_STREQ("0.33333334@ABAAAA3E", text);
    float third_back = 0;
    FieldDesc::fill_member(Base::DT_FLOAT32, &third_back, text, 4);
    EXPECT_EQ(0, std::memcmp(&third, &third_back, 4));

    // Through a CSV row and through a JSON object, with images on.
    Record r;
    r.set<double>(4, sum);
    Csv csv(false, 256);
    for (int i = 0; i < r.desc.member_count; ++i) csv.add_head(r.desc.get_member_desc(i)->name);
    r.desc.to_csv(&csv, r.record(), true);
    Record from_row;
    char buffer[256];
    r.desc.from_csv(&csv, from_row.record(), buffer);
    EXPECT_EQ(0, std::memcmp(r.data.data(), from_row.data.data(), r.data.size()));

    Json::Object object;
    r.desc.to_json(&object, r.record(), hex);
    Record from_object;
    r.desc.from_json(&object, from_object.record());
    EXPECT_EQ(0, std::memcmp(r.data.data(), from_object.data.data(), r.data.size()));
}

TEST(FieldTextTest, CsvRowsMapByColumnName) {
    Record r;
    r.set_name("say \"x\"");
    r.set_int(1, -42);
    r.set<long>(2, 1500);
    r.set<char>(3, 'B');
    r.set<double>(4, 2.5);
    r.set<unsigned char>(6, 7);
    Csv csv(true, 256);
    for (int i = 0; i < r.desc.member_count; ++i) csv.add_head(r.desc.get_member_desc(i)->name);
    r.desc.to_csv(&csv, r.record(), false);
    EXPECT_STREQ("say \"x\"", csv.get_data(0));
    EXPECT_STREQ("-42", csv.get_data(1));
    EXPECT_STREQ("1.500", csv.get_data(2));
    EXPECT_STREQ("B", csv.get_data(3));
    EXPECT_STREQ("2.500000000000000", csv.get_data(4));
    EXPECT_STREQ("2147483647", csv.get_data(5));  // INT32 writes its null as a number by default
    EXPECT_STREQ("7", csv.get_data(6));

    Record back;
    char buffer[256];
    r.desc.from_csv(&csv, back.record(), buffer);
    EXPECT_EQ(0, std::memcmp(r.data.data(), back.data.data(), r.data.size()));

    // A table with only some of the columns, in another order, and one
    // cell that doesn't read: the other members stay as they were.
    Csv partial(false, 64);
    ASSERT_TRUE(partial.read_head("Flag,Price,Other,Unknown"));
    ASSERT_TRUE(partial.read_data("Z,0.3,junk,1"));
    Record kept;
    kept.set_name("keep");
    kept.set_int(1, 99);
    kept.set<double>(4, 9.75);
    r.desc.from_csv(&partial, kept.record(), buffer);
    EXPECT_STREQ("keep", kept.name());
    EXPECT_EQ(99, kept.get<int>(1));
    EXPECT_EQ(300, kept.get<long>(2));
    EXPECT_EQ('Z', kept.get<char>(3));
    EXPECT_EQ(9.75, kept.get<double>(4));
    ASSERT_TRUE(partial.read_data(",,,"));
    r.desc.from_csv(&partial, kept.record(), buffer);
    EXPECT_EQ(0, kept.get<int>(1));  // an empty INT32 reads as 0 by default
    EXPECT_EQ(9223372036854775807L, kept.get<long>(2));
    EXPECT_EQ(0, kept.get<char>(3));

    // A long cell is cut to the string member's size.
    ASSERT_TRUE(partial.read_head("Name"));
    ASSERT_TRUE(partial.read_data("abcdefghijklmnopqrstuvwxyz"));
    r.desc.from_csv(&partial, kept.record(), buffer);
    EXPECT_STREQ("abcdefghijkl", kept.name());
}

TEST(FieldTextTest, JsonForms) {
    Record r;
    r.set_name("a\"b/c");
    r.set_int(1, 0);
    r.set<long>(2, 1500);
    r.set<double>(4, 0.1);
    FILE* file = tmpfile();
    char buffer[512];
    char escaped[1024];
    r.desc.to_json(file, r.record(), buffer, escaped, false);
    std::string text = drain(file);
    EXPECT_EQ("{\"Name\":\"a\\\"b\\/c\",\"Other\":\"0\",\"Price\":\"1.500\",\"Flag\":\"\","
              "\"Ratio\":\"0.100000000000000\",\"NullInt\":\"\",\"Small\":\"0\"}",
              text);

    // The text parses as JSON, and from_json restores the record.
    Json json;
    ASSERT_TRUE(json.parse(text.c_str(), static_cast<int>(text.size())));
    Record back;
    back.set<long>(2, 7);
    r.desc.from_json(json.get_root(), back.record());
    EXPECT_STREQ("a\"b/c", back.name());
    EXPECT_EQ(1500, back.get<long>(2));
    EXPECT_EQ(0.1, back.get<double>(4));
    EXPECT_EQ(INT_MAX, back.get<int>(5));  // an empty text is null
    EXPECT_EQ(0, std::memcmp(r.data.data(), back.data.data(), r.data.size()));

    // Non-string properties and unknown names are passed over; members
    // without a property stay as they were.
    const char* partial = "{\"Other\":5,\"Price\":\"-2.5\",\"Bogus\":\"1\",\"Flag\":null}";
    ASSERT_TRUE(json.parse(partial, static_cast<int>(std::strlen(partial))));
    r.desc.from_json(json.get_root(), back.record());
    EXPECT_EQ(0, back.get<int>(1));
    EXPECT_EQ(-2500, back.get<long>(2));
    EXPECT_STREQ("a\"b/c", back.name());

    // The object form holds every member as a string property.
    Json::Object object;
    r.desc.to_json(&object, r.record(), nullptr);
    EXPECT_STREQ("a\"b/c", object.get_property("Name")->get_value()->string);
    EXPECT_STREQ("1.500", object.get_property("Price")->get_value()->string);
    EXPECT_STREQ("", object.get_property("NullInt")->get_value()->string);

    // A description without members gives the bare braces.
    FieldDesc empty(9, "Empty");
    file = tmpfile();
    empty.to_json(file, r.record(), buffer, escaped, true);
    EXPECT_EQ(2, ftell(file));
    fclose(file);
}
