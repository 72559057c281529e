#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <string>

#include "record/fielddesc.h"

using Base::FieldDesc;
namespace B = Base;

namespace {

// A run-time record with one member of each kind that the rules treat apart.
struct Sample {
    unsigned char u8;
    unsigned short u16;
    int i32;
    long fixed3;
    double f64;
    char c;
    char text[21];
    float f32;
};

void describe_sample(FieldDesc& d) {
    d.setup_member(B::DT_UINT8, 1, 1, 1, offsetof(Sample, u8), "U8Type", "u8", false);
    d.setup_member(B::DT_UINT16, 2, 2, 1, offsetof(Sample, u16), "U16Type", "u16", false);
    d.setup_member(B::DT_INT32, 4, 4, 1, offsetof(Sample, i32), "I32Type", "i32", true);
    d.setup_member(B::DT_FIXEDPOINT3, 8, 8, 1, offsetof(Sample, fixed3), "MoneyType", "fixed3", false);
    d.setup_member(B::DT_FLOAT64, 8, 8, 1, offsetof(Sample, f64), "PriceType", "f64", true);
    d.setup_member(B::DT_CHAR, 1, 1, 1, offsetof(Sample, c), "CharType", "c", false);
    d.setup_member(B::DT_STRING, 21, 21, 1, offsetof(Sample, text), "TextType", "text", true);
    d.setup_member(B::DT_FLOAT32, 4, 4, 1, offsetof(Sample, f32), "SingleType", "f32", false);
}

FieldDesc* g_sample;
void describe_static_sample() { describe_sample(*g_sample); }

}  // namespace

TEST(FieldDesc, BuildingAndLookup) {
    FieldDesc d(42, "SampleField");
    describe_sample(d);
    EXPECT_EQ(d.stream_size, 1 + 2 + 4 + 8 + 8 + 1 + 21 + 4);
    EXPECT_EQ(d.get_member_desc(3)->stream_offset, 7);
    EXPECT_EQ(d.get_member_index("nothing"), -1);

    // Names are cut at their field's capacity, silently.
    FieldDesc r(1, std::string(100, 'R').c_str());
    EXPECT_EQ(strlen(r.name), 63u);
    std::string long_name(200, 'm');
    int at = r.add_member(B::DT_INT32, 4, std::string(90, 't').c_str(), long_name.c_str(), false);
    EXPECT_EQ(at, 0);
    EXPECT_EQ(r.add_member(B::DT_CHAR, 1, "CharType", "flag", false), 4);
    EXPECT_EQ(r.add_member(r.get_member_desc(0)), 5);  // a copy under the same cut name
    EXPECT_EQ(r.struct_size, 9);
    EXPECT_EQ(r.stream_size, 9);
    EXPECT_EQ(strlen(r.get_member_desc(0)->name), 127u);
    EXPECT_EQ(strlen(r.get_member_desc(0)->type_name), 63u);
    EXPECT_EQ(r.get_member_index(long_name.c_str()), -1);
    // A name described twice points at its later member.
    EXPECT_EQ(r.get_member_index(long_name.substr(0, 127).c_str()), 2);

    // copy and is_same; is_same ignores id and name.
    FieldDesc c(7, "Other");
    c.copy(&d);
    c.id = 9;
    strcpy(c.name, "Renamed");
    EXPECT_TRUE(FieldDesc::is_same(&c, &d));
    c.members[2].key = false;
    EXPECT_FALSE(FieldDesc::is_same(&c, &d));
    c.clear();
    EXPECT_EQ(c.get_member_index("f64"), -1);

    // The registering constructor keeps the stated struct size.
    g_sample = static_cast<FieldDesc*>(operator new(sizeof(FieldDesc)));
    memset(static_cast<void*>(g_sample), 0, sizeof(FieldDesc));
    new (g_sample) FieldDesc(99, sizeof(Sample), "SampleField", describe_static_sample);
    EXPECT_EQ(g_sample->struct_size, sizeof(Sample));
    EXPECT_TRUE(FieldDesc::is_same(g_sample, &d));
    g_sample->~FieldDesc();
    operator delete(g_sample);
}

TEST(FieldDesc, KeysEqualityAndHash) {
    FieldDesc d(42, "SampleField");
    describe_sample(d);
    Sample a{}, b{};
    a.i32 = b.i32 = 5;
    strcpy(a.text, "IF2401");
    strcpy(b.text, "IF2401");
    a.f64 = 1.0;
    b.f64 = 1.0 + 5e-10;
    EXPECT_TRUE(d.equal_key(&a, &b));
    EXPECT_EQ(d.compare_key(&a, &b, true), 0);
    b.f64 = 1.0 + 2e-9;
    EXPECT_FALSE(d.equal_key(&a, &b));
    EXPECT_EQ(d.compare_key(&a, &b, true), -1);
    EXPECT_EQ(d.compare_key(&a, &b, false), 1);
    EXPECT_EQ(FieldDesc::compare_key(&d, &b, &a), 1);
    b.f64 = 1.0;
    b.i32 = -5;  // signed order on the first key
    EXPECT_EQ(d.compare_key(&a, &b, true), 1);
    b.i32 = 5;
    strcpy(b.text, "IF2402");
    EXPECT_EQ(d.compare_key(&a, &b, true), -1);
    EXPECT_FALSE(FieldDesc::equal_key(&d, &a, &b));
    EXPECT_NE(d.hash_key(&a), d.hash_key(&b));
    // Non-key members don't matter to the key, but to equal_field.
    strcpy(b.text, "IF2401");
    b.u16 = 3;
    EXPECT_TRUE(d.equal_key(&a, &b));
    EXPECT_EQ(FieldDesc::hash_key(&d, &a), d.hash_key(&b));
    EXPECT_FALSE(d.equal_field(&a, &b));
    EXPECT_TRUE(d.equal_field(&a, &b, 2, 7));
    EXPECT_TRUE(d.equal_field(&a, &b, 5, 4));
    // Strings compare to the terminator only; a float within 1e-6 is equal.
    memset(b.text + 7, 'x', 10);
    b.u16 = a.u16;
    b.f32 = a.f32 + 5e-7f;
    EXPECT_TRUE(d.equal_field(&a, &b));
    EXPECT_EQ(d.hash_key(&a), d.hash_key(&b));  // bytes behind the terminator don't count
}

TEST(FieldDesc, NullRulesAndSetMember) {
    FieldDesc d(42, "SampleField");
    describe_sample(d);
    Sample s{};
    EXPECT_FALSE(d.is_null(&s));  // a zero number is a value
    d.set_null(&s);
    EXPECT_TRUE(d.is_null(&s));
    EXPECT_EQ(s.u8, 255);
    EXPECT_EQ(s.u16, 65535);
    EXPECT_EQ(s.i32, 2147483647);
    EXPECT_EQ(s.fixed3, 9223372036854775807L);
    EXPECT_EQ(s.f64, DBL_MAX);
    EXPECT_EQ(s.f32, FLT_MAX);
    EXPECT_EQ(s.c, 0);
    EXPECT_EQ(s.text[0], 0);
    s.c = 'A';
    EXPECT_FALSE(d.is_null(&s));
    FieldDesc empty(0, "");
    EXPECT_TRUE(empty.is_null(&s));

    // set_member on a string copies at most size - 1 and zero-fills the tail.
    char text[8];
    memset(text, 'z', sizeof(text));
    FieldDesc::set_member(B::DT_STRING, text, "abcdefghij", 8);
    EXPECT_STREQ(text, "abcdefg");
    FieldDesc::set_member(B::DT_STRING, text, "ab", 8);
    EXPECT_EQ(0, memcmp(text, "ab\0\0\0\0\0\0", 8));
    int v = 3, w = 0;
    FieldDesc::set_member(B::DT_INT32, &w, &v, 4);
    EXPECT_EQ(w, 3);
    FieldDesc::set_member(B::DT_INT32, &w, nullptr, 4);
    EXPECT_EQ(w, 2147483647);
    d.set_field(6, &s, "field");
    EXPECT_STREQ(s.text, "field");
}

TEST(FieldDesc, FillMember) {
    // Money: scaled with the nudge, null when empty or beyond 64 bits.
    auto fixed = [](B::DataType type, const char* text) {
        long v = 0;
        FieldDesc::fill_member(type, &v, text, 8);
        return v;
    };
    EXPECT_EQ(fixed(B::DT_FIXEDPOINT3, ""), 9223372036854775807L);
    EXPECT_EQ(fixed(B::DT_FIXEDPOINT3, "-1.5"), -1500);
    EXPECT_EQ(fixed(B::DT_FIXEDPOINT8, "0.29"), 29000000);
    EXPECT_EQ(fixed(B::DT_FIXEDPOINT3, "0.3"), 300);
    EXPECT_EQ(fixed(B::DT_FIXEDPOINT3, "1.7976931348623157e308"), 9223372036854775807L);

    // The bit image wins over the decimal text: 3FB999999999999A is 0.1.
    double f = 0;
    FieldDesc::fill_member(B::DT_FLOAT64, &f, "7.0@9A9999999999B93F", 8);
    EXPECT_EQ(f, 0.1);
    float g = 0;
    FieldDesc::fill_member(B::DT_FLOAT32, &g, "1@0000C03F", 4);
    EXPECT_EQ(g, 1.5f);

    // Unreadable text leaves an integer as it was; empty text is null.
    int i = 17;
    FieldDesc::fill_member(B::DT_INT32, &i, "junk", 4);
    EXPECT_EQ(i, 17);
    FieldDesc::fill_member(B::DT_INT32, &i, "", 4);
    EXPECT_EQ(i, 2147483647);
    unsigned long u = 0;
    FieldDesc::fill_member(B::DT_UINT64, &u, "18446744073709551614", 8);
    EXPECT_EQ(u, 18446744073709551614ul);
    short h = 0;
    FieldDesc::fill_member(B::DT_INT16, &h, "-300", 2);
    EXPECT_EQ(h, -300);
    char c = 'x';
    FieldDesc::fill_member(B::DT_CHAR, &c, "B2", 1);
    EXPECT_EQ(c, 'B');
    FieldDesc::fill_member(B::DT_CHAR, &c, "", 1);
    EXPECT_EQ(c, 0);
    char s[5];
    FieldDesc::fill_member(B::DT_STRING, s, "abcdef", 5);
    EXPECT_STREQ(s, "abcd");
    FieldDesc::fill_member(B::DT_STRING, s, nullptr, 5);
    EXPECT_EQ(s[0], 0);
}

// The description's own var form, the blob of a catalogue dump, comes back
// the same; a blob cut short is refused, never read past.
TEST(FieldDesc, VarFormRoundTrip) {
    FieldDesc d(42, "SampleField");
    describe_sample(d);
    unsigned char blob[4096];
    int m = d.to_var_stream(blob, sizeof(blob));
    ASSERT_GT(m, 0);
    FieldDesc e(0, "");
    EXPECT_EQ(e.from_var_stream(blob, m), m);
    EXPECT_TRUE(FieldDesc::is_same(&d, &e));
    EXPECT_EQ(e.id, 42);
    EXPECT_STREQ(e.name, "SampleField");
    for (int cut = 0; cut < m; cut += 7) EXPECT_EQ(e.from_var_stream(blob, cut), -1) << cut;
}
