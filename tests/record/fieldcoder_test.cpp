#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "record/fieldcoder.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"
#include "tests/support/data_file.h"

using Base::FieldCoder;
using Base::FieldDesc;
namespace B = Base;

namespace {

const long NULL_FIXED = 9223372036854775807L;

std::vector<unsigned char> be_double(double v) {
    unsigned long bits;
    memcpy(&bits, &v, 8);
    std::vector<unsigned char> out(8);
    for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    return out;
}

// Fills a record in internal form with values of every member's kind: texts
// short of their arrays, fixed-point values in range or null, other numbers random.
void fill_random(const FieldDesc* desc, unsigned char* record, std::mt19937_64& rng) {
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc* m = desc->get_member_desc(i);
        unsigned char* at = record + m->offset;
        unsigned long r = rng();
        if (m->type == B::DT_STRING) {
            int n = static_cast<int>(r % m->total_size);
            memset(at, 0, m->total_size);
            for (int k = 0; k < n; ++k) at[k] = static_cast<unsigned char>('A' + (rng() % 26));
        } else if (B::is_fixed_point(m->type)) {
            long v = r % 5 == 0 ? NULL_FIXED : static_cast<long>(r % 2000000001) - 1000000000;
            memcpy(at, &v, 8);
        } else if (m->type == B::DT_FLOAT64) {
            double v = r % 5 == 0 ? DBL_MAX : static_cast<double>(static_cast<long>(r % 100000) - 50000) / 64.0;
            memcpy(at, &v, 8);
        } else {
            memcpy(at, &r, m->total_size);
        }
    }
}

}  // namespace

TEST(FieldCoder, FixedPointOnTheWire) {
    QelAccountDepositField deposit{};
    strcpy(deposit.SettlementGroupID, "SG01");
    strcpy(deposit.Account, "A1");
    deposit.Deposit = 12345;
    unsigned char wire[30], generic[30];
    QelAccountDepositField::to_stream(&deposit, wire, sizeof(deposit));
    FieldCoder::to_stream(&QelAccountDepositField::DESC, &deposit, generic, sizeof(deposit));
    EXPECT_EQ(std::vector<unsigned char>(wire + 22, wire + 30), be_double(12.345));
    EXPECT_EQ(0, memcmp(wire, generic, sizeof(wire)));
    EXPECT_EQ(0, memcmp(wire, "SG01\0\0\0\0\0A1\0", 12));

    deposit.Deposit = NULL_FIXED;
    QelAccountDepositField::to_stream(&deposit, wire, sizeof(deposit));
    const unsigned char null_double[8] = {0x7F, 0xEF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(0, memcmp(wire + 22, null_double, 8));

    // Back from the wire: scaled with the nudge, or left a double with raw.
    QelAccountDepositField back;
    for (auto& row : test_data::rows("record/data/money.txt")) {
        double value = std::strtod(row[0], nullptr);
        long expected = std::strcmp(row[1], "null") ? std::strtol(row[1], nullptr, 10) : NULL_FIXED;
        std::vector<unsigned char> d = be_double(value);
        memcpy(wire + 22, d.data(), 8);
        EXPECT_EQ(QelAccountDepositField::from_stream(&back, wire, 30, false), 3);
        EXPECT_EQ(back.Deposit, expected) << row[0];
        EXPECT_EQ(FieldCoder::from_stream(&QelAccountDepositField::DESC, &back, wire, 30, false), 3);
        EXPECT_EQ(back.Deposit, expected) << row[0];
        EXPECT_EQ(QelAccountDepositField::from_stream(&back, wire, 30, true), 3);
        double raw;
        memcpy(&raw, &back.Deposit, 8);
        if (!std::isnan(value)) {
            EXPECT_EQ(raw, value);
        }
    }

    // Eight decimals: 0.29 becomes 29000000, not 28999999.
    FieldDesc rate(1, "RateField");
    rate.add_member(B::DT_FIXEDPOINT8, 8, "RatioType", "Rate", false);
    std::vector<unsigned char> d = be_double(0.29);
    long scaled = 0;
    EXPECT_EQ(FieldCoder::from_stream(&rate, &scaled, d.data(), 8, false), 1);
    EXPECT_EQ(scaled, 29000000);
    double as_double = 0.29;
    EXPECT_EQ(FieldCoder::from_struct(&rate, &scaled, &as_double, 8), 1);
    EXPECT_EQ(scaled, 29000000);
    FieldCoder::to_struct(&rate, &scaled);  // in place
    memcpy(&as_double, &scaled, 8);
    EXPECT_EQ(as_double, 29000000 * 1e-08);
}

TEST(FieldCoder, ShortRecordLadder) {
    const FieldDesc* desc = &QelInputOrderField::DESC;
    QelInputOrderField order;
    std::mt19937_64 rng(3);
    fill_random(desc, reinterpret_cast<unsigned char*>(&order), rng);
    std::vector<unsigned char> wire(desc->stream_size + 16, 0xEE);

    // Under 13 bytes of structure even the first member is missing: all zero.
    QelInputOrderField::to_stream(&order, wire.data(), 12);
    for (int i = 0; i < desc->stream_size; ++i) ASSERT_EQ(wire[i], 0) << i;
    EXPECT_EQ(wire[desc->stream_size], 0xEE);  // nothing behind the stream form

    // LimitPrice (offset 96, stream offset 94) goes out from len 104 on.
    std::fill(wire.begin(), wire.end(), 0xEE);
    QelInputOrderField::to_stream(&order, wire.data(), 103);
    for (int i = 94; i < desc->stream_size; ++i) ASSERT_EQ(wire[i], 0) << i;
    QelInputOrderField::to_stream(&order, wire.data(), 104);
    double limit;
    memcpy(&limit, &order.LimitPrice, 8);
    EXPECT_EQ(std::vector<unsigned char>(wire.begin() + 94, wire.begin() + 102), be_double(limit));
    for (int i = 102; i < desc->stream_size; ++i) ASSERT_EQ(wire[i], 0) << i;

    // The full record: padding never reaches the stream, and a longer stream reads whole.
    QelInputOrderField::to_stream(&order, wire.data(), sizeof(order));
    QelInputOrderField back;
    memset(&back, 0x77, sizeof(back));
    EXPECT_EQ(QelInputOrderField::from_stream(&back, wire.data(), static_cast<int>(wire.size()), false), 24);
    EXPECT_TRUE(desc->equal_field(&order, &back));

    // A stream of 102 bytes gives OrderSysID through LimitPrice and zeroes from offset 104.
    memset(&back, 0x77, sizeof(back));
    EXPECT_EQ(QelInputOrderField::from_stream(&back, wire.data(), 102, false), 10);
    EXPECT_TRUE(desc->equal_field(&order, &back, 0, 9));
    const unsigned char* tail = reinterpret_cast<const unsigned char*>(&back);
    for (size_t i = 104; i < sizeof(back); ++i) ASSERT_EQ(tail[i], 0) << i;

    // A trailing string cut 8 bytes in is dropped whole, not cut.
    memset(&back, 0x77, sizeof(back));
    EXPECT_EQ(QelInputOrderField::from_stream(&back, wire.data(), 189 + 8, false), 23);
    for (int i = 0; i < 21; ++i) ASSERT_EQ(back.MacAddress[i], 0);
    EXPECT_STREQ(back.IPAddress, order.IPAddress);

    // len 0 zeroes the whole structure; a negative len does the same.
    for (int len : {0, -5}) {
        memset(&back, 0x77, sizeof(back));
        EXPECT_EQ(QelInputOrderField::from_stream(&back, wire.data(), len, false), 0);
        for (size_t i = 0; i < sizeof(back); ++i) ASSERT_EQ(tail[i], 0) << i;
    }
}

// The generated coders must match the description-driven ones byte for byte,
// for every record and every length, in both directions and both modes.
TEST(FieldCoder, GeneratedMatchesGenericForAllRecords) {
    std::mt19937_64 rng(11);
    int fixed_point_records = 0;
    for (const QelRecordCoder& coder : g_qel_record_coders) {
        const FieldDesc* desc = coder.desc;
        const int ss = desc->struct_size, ws = desc->stream_size;
        std::vector<unsigned char> record(ss), a(ws + 8), b(ws + 8), x(ss), y(ss);
        bool has_fixed = false;
        for (int i = 0; i < desc->member_count; ++i) has_fixed |= B::is_fixed_point(desc->get_member_desc(i)->type);
        fixed_point_records += has_fixed;
        fill_random(desc, record.data(), rng);
        for (int len = -1; len <= ss + 2; ++len) {
            std::fill(a.begin(), a.end(), 0xAB);
            std::fill(b.begin(), b.end(), 0xAB);
            coder.to_stream(record.data(), a.data(), len);
            FieldCoder::to_stream(desc, record.data(), b.data(), len);
            ASSERT_EQ(a, b) << desc->name << " to_stream len " << len;
        }
        coder.to_stream(record.data(), a.data(), ss);
        for (int len = -1; len <= ws + 2; ++len) {
            for (bool raw : {false, true}) {
                std::fill(x.begin(), x.end(), 0xCD);
                std::fill(y.begin(), y.end(), 0xCD);
                int n1 = coder.from_stream(x.data(), a.data(), len, raw);
                int n2 = FieldCoder::from_stream(desc, y.data(), a.data(), len, raw);
                ASSERT_EQ(n1, n2) << desc->name << " from_stream len " << len;
                ASSERT_EQ(x, y) << desc->name << " from_stream len " << len << " raw " << raw;
            }
        }
        // Round trips: internal -> stream -> internal, and -> struct by both roads.
        std::fill(x.begin(), x.end(), 0);
        EXPECT_EQ(coder.from_stream(x.data(), a.data(), ws, false), desc->member_count);
        EXPECT_TRUE(desc->equal_field(record.data(), x.data())) << desc->name;
        std::fill(x.begin(), x.end(), 0);
        std::fill(y.begin(), y.end(), 0);
        coder.from_stream(x.data(), a.data(), ws, true);
        EXPECT_EQ(FieldCoder::to_struct(desc, record.data(), y.data(), ss), desc->member_count);
        for (int i = 0; i < desc->member_count; ++i) {
            const FieldDesc::MemberDesc* m = desc->get_member_desc(i);
            ASSERT_EQ(0, memcmp(x.data() + m->offset, y.data() + m->offset, m->total_size)) << desc->name << "." << m->name;
        }
        std::vector<unsigned char> internal(ss, 0);
        EXPECT_EQ(FieldCoder::from_struct(desc, internal.data(), y.data(), ss), desc->member_count);
        EXPECT_TRUE(desc->equal_field(record.data(), internal.data())) << desc->name;
        FieldCoder::from_struct(desc, y.data());  // in place, the same result
        EXPECT_TRUE(desc->equal_field(record.data(), y.data())) << desc->name;
        // The var form keeps every member.
        std::vector<unsigned char> var(ss * 2 + 64);
        int n = desc->to_var_stream(record.data(), var.data(), static_cast<int>(var.size()));
        std::fill(x.begin(), x.end(), 0x55);
        EXPECT_EQ(desc->from_var_stream(x.data(), var.data(), n), n);
        EXPECT_TRUE(desc->equal_field(record.data(), x.data())) << desc->name;
        // The plain swap keeps scaled integers as they are.
        std::fill(b.begin(), b.end(), 0);
        desc->to_stream(record.data(), b.data(), ss);
        std::fill(x.begin(), x.end(), 0x55);
        EXPECT_EQ(desc->from_stream(x.data(), b.data(), ws), desc->member_count);
        EXPECT_TRUE(desc->equal_field(record.data(), x.data())) << desc->name;
    }
    EXPECT_EQ(fixed_point_records, 25);
}

TEST(FieldCoder, PlainSwapIsBigEndian) {
    QelDisseminationField d{};
    d.SequenceSeries = 0x0102;
    d.SequenceNo = 0x03040506;
    unsigned char wire[6];
    QelDisseminationField::DESC.to_stream(&d, wire, sizeof(d));
    const unsigned char expected[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(0, memcmp(wire, expected, 6));
    unsigned char generated[6];
    QelDisseminationField::to_stream(&d, generated, sizeof(d));
    EXPECT_EQ(0, memcmp(generated, expected, 6));
    QelAccountDepositField deposit{};
    deposit.Deposit = 0x1122334455667788L;
    unsigned char swapped[30];
    QelAccountDepositField::DESC.to_stream(&deposit, swapped, sizeof(deposit));
    EXPECT_EQ(swapped[22], 0x11);
    EXPECT_EQ(swapped[29], 0x88);
}

// Every member type through the generic coders, on a description built at run time.
TEST(FieldCoder, AllTypesThroughEveryForm) {
    FieldDesc d(500, "AllTypesField");
    const B::DataType types[] = {B::DT_UINT8,  B::DT_UINT16,  B::DT_UINT32,      B::DT_UINT64,      B::DT_INT8,
                                 B::DT_INT16,  B::DT_INT32,   B::DT_INT64,       B::DT_FLOAT32,     B::DT_FLOAT64,
                                 B::DT_CHAR,   B::DT_STRING,  B::DT_VINT32,      B::DT_VINT64,      B::DT_FIXEDPOINT0,
                                 B::DT_FIXEDPOINT4, B::DT_FIXEDPOINT8};
    for (B::DataType t : types)
        d.add_member(t, t == B::DT_STRING ? 7 : B::DATA_TYPE_SIZES[t], "SomeType", B::DATA_TYPE_NAMES[t], false);
    const int n = d.member_count;
    std::vector<unsigned char> record(d.struct_size), wire(d.stream_size), back(d.struct_size), as_struct(d.struct_size);
    for (int i = 0; i < d.struct_size; ++i) record[i] = static_cast<unsigned char>(i * 37 + 1);
    auto at = [&](const char* name) { return record.data() + d.get_member_desc(d.get_member_index(name))->offset; };
    memcpy(at("STRING"), "abc\0\0\0", 7);
    const long fixed[] = {-123456789, -123456785, -123456781};
    memcpy(at("FIXEDPOINT0"), &fixed[0], 8);
    memcpy(at("FIXEDPOINT4"), &fixed[1], 8);
    memcpy(at("FIXEDPOINT8"), &fixed[2], 8);
    const float f = 1.25f;
    const double g = -2.5;
    memcpy(at("FLOAT32"), &f, 4);
    memcpy(at("FLOAT64"), &g, 8);

    // UINT16 is the second member at stream offset 1, most significant byte first.
    FieldCoder::to_stream(&d, record.data(), wire.data(), d.struct_size);
    EXPECT_EQ(wire[1] << 8 | wire[2], at("UINT16")[0] | at("UINT16")[1] << 8);
    EXPECT_EQ(FieldCoder::from_stream(&d, back.data(), wire.data(), d.stream_size, false), n);
    EXPECT_TRUE(d.equal_field(record.data(), back.data()));
    EXPECT_EQ(FieldCoder::from_stream(&d, as_struct.data(), wire.data(), d.stream_size, true), n);
    std::vector<unsigned char> internal(d.struct_size);
    EXPECT_EQ(FieldCoder::from_struct(&d, internal.data(), as_struct.data(), d.struct_size), n);
    EXPECT_TRUE(d.equal_field(record.data(), internal.data()));
    double fixed8;
    memcpy(&fixed8, as_struct.data() + (at("FIXEDPOINT8") - record.data()), 8);
    EXPECT_EQ(fixed8, -123456781 * 1e-08);

    // The var form keeps a string to its terminator.
    std::vector<unsigned char> var(d.struct_size * 2);
    int used = d.to_var_stream(record.data(), var.data(), static_cast<int>(var.size()));
    EXPECT_EQ(used, d.struct_size - 7 + 1 + 3);
    std::fill(back.begin(), back.end(), 0xEE);
    EXPECT_EQ(d.from_var_stream(back.data(), var.data(), used), used);
    EXPECT_TRUE(d.equal_field(record.data(), back.data()));
}
