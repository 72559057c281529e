// The Oxa catalogue against its registry and packet table, its twins in the
// Qel catalogue, its dump, and its generated struct coders against the
// generic ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>
#include <unistd.h>

#include "record/fieldcatalog.h"
#include "record/fieldcoder.h"
#include "record/fielddesc.h"
#include "record/fieldswap.h"
#include "containers/map.h"
#include "record/gen/oxafield.h"
#include "record/gen/qelfield.h"
#include "tests/support/data_file.h"

using namespace Base;

namespace {

struct Registered {
    const char* name;
    int id;
    int size;
};

struct Packet {
    unsigned short id;
    const char* name;
};

std::vector<Registered> read_registry() {
    std::vector<Registered> out;
    for (const std::vector<const char*>& row : test_data::rows("record/data/oxa_registry.txt"))
        out.push_back({row[0], int(test_data::number(row[1])), int(test_data::number(row[2]))});
    return out;
}

std::vector<Packet> read_packets() {
    std::vector<Packet> out;
    for (const std::vector<const char*>& row : test_data::rows("record/data/oxa_packets.txt"))
        out.push_back({static_cast<unsigned short>(test_data::number(row[0])), row[1]});
    return out;
}

// The registry: every record in registration order with its id and size.
const std::vector<Registered>& REGISTRY = read_registry();

// Every packet in registration order.
const std::vector<Packet>& PACKETS = read_packets();

// Names behind the prefix that both families use for records that differ.
const char* const DIFFERING[] = {
    "OrderActionField", "OTCOrderField", "QuoteActionField", "ExecOrderActionField",
    "AbandonExecOrderActionField", "CreditLimitField", "RspClientField", "RspExchangeRateField",
    "ParticipantField", "DepthMarketDataField", "QuoteField", "TradeField",
    "OrderField", "LoopMeasureField", "NodeMeasureField", "InputQuoteDemandField",
    "QuoteDemandInfoField", "QuoteDemandNotifyField", "UserProductAuthenticInfoField", "InputOptionSelfCloseField",
    "OptionSelfCloseField", "OptionSelfCloseActionField", "UserSystemInfoField", "ProductAuthField",
    "QryCreditLimitField", "QryExchangeRateField", "QryOptionSelfCloseField",
};

const FieldCatalog OXA = {&g_all_oxa_name_map, &g_all_oxa_field_map, &g_all_oxa_packet_map,
                          &g_all_oxa_packet_name_map};

// The Qel records by name, from their static descriptions, whatever the Qel
// maps hold at the time.
std::map<std::string, const FieldDesc*> qel_by_name() {
    std::map<std::string, const FieldDesc*> all;
    for (const QelRecordCoder& coder : g_qel_record_coders) all[coder.desc->name] = coder.desc;
    return all;
}

bool differs(const char* base) {
    for (const char* d : DIFFERING)
        if (std::strcmp(d, base) == 0) return true;
    return false;
}

// Puts the static descriptions and the packet table back into the maps
// after a test loaded a dump into them.
void restore_catalogue() {
    OXA.name_map->clear();
    OXA.field_map->clear();
    OXA.packet_map->clear();
    OXA.packet_name_map->clear();
    for (const OxaRecordCoder& coder : g_oxa_record_coders) register_catalog_field(OXA, coder.desc);
    for (const Packet& p : PACKETS) register_catalog_packet(OXA, p.id, p.name);
}

std::string temp_dir() {
    char dir[] = "/tmp/oxacatXXXXXX";
    return mkdtemp(dir);
}

// A record image whose every byte is distinct-ish, with FIXEDPOINT members set
// to a value (internal form) or its double (struct form), including nulls.
std::vector<unsigned char> sample(const FieldDesc* desc, bool doubles, int seed) {
    std::vector<unsigned char> bytes(desc->struct_size);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(seed + i * 7);
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc* m = desc->get_member_desc(i);
        if (!is_fixed_point(m->type)) continue;
        long value = (i % 4 == 3) ? FIXED_POINT_NULL : (seed + i) * 100003L * (i % 2 ? -1 : 1);
        if (doubles) store_host<double>(&bytes[m->offset], fixed_to_double(value, m->type - DT_FIXEDPOINT0));
        else store_host<long>(&bytes[m->offset], value);
    }
    return bytes;
}

}  // namespace

// Every record against the registry: id, name, size, order of registration,
// both lookups; twins carry their Qel record's members, the rest none.
TEST(OxaCatalogue, RecordsMatchTheRegistry) {
    const size_t count = REGISTRY.size();
    ASSERT_EQ(count, 232u);
    ASSERT_EQ(OXA_RECORD_COUNT, 232);
    ASSERT_EQ(sizeof(DIFFERING) / sizeof(DIFFERING[0]), 27u);
    std::map<std::string, const FieldDesc*> qel = qel_by_name();
    int twins = 0, common = 0, memberless = 0;
    for (size_t i = 0; i < count; ++i) {
        const Registered& r = REGISTRY[i];
        const FieldDesc* desc = g_oxa_record_coders[i].desc;
        ASSERT_STREQ(desc->name, r.name) << "registration order at " << i;
        EXPECT_EQ(desc->id, r.id) << r.name;
        EXPECT_EQ(desc->struct_size, r.size) << r.name;
        EXPECT_EQ(get_oxa_field_desc(r.name), desc) << r.name;
        EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(r.id)), desc) << r.name;

        const char* base = r.name + 3;
        auto twin = qel.find(std::string("Qel") + base);
        if (twin != qel.end()) ++common;
        if (twin != qel.end() && !differs(base)) {
            ++twins;
            EXPECT_TRUE(FieldDesc::is_same(desc, twin->second)) << r.name;
            EXPECT_EQ(desc->stream_size, twin->second->stream_size) << r.name;
        } else {
            ++memberless;
            EXPECT_EQ(desc->member_count, 0) << r.name;
        }
    }
    EXPECT_EQ(common, 99);
    EXPECT_EQ(twins, 72);
    EXPECT_EQ(memberless, 160);

    // The same name behind the prefix is not the same record; id 0 is a record of its own.
    EXPECT_EQ(QelOrderActionField::DESC.id, 18);
    EXPECT_STREQ(get_oxa_field_desc(static_cast<unsigned short>(18))->name, "OxaInputOrderActionField");
    EXPECT_EQ(sizeof(OxaOrderActionField), 176u);
    EXPECT_STREQ(get_oxa_field_desc(static_cast<unsigned short>(0))->name, "OxaDbOTCOrderField");

    EXPECT_EQ(get_oxa_field_desc("OxaNoSuchField"), nullptr);
    EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(0x7777)), nullptr);
    EXPECT_EQ(get_oxa_field_desc("QelInputOrderField"), nullptr);
    EXPECT_EQ(get_oxa_field_desc(static_cast<const char*>(nullptr)), nullptr);
}

TEST(OxaCatalogue, PacketsRoundTrip) {
    const size_t count = PACKETS.size();
    ASSERT_EQ(count, 292u);
    ASSERT_EQ(OXA_PACKET_COUNT, 292);
    EXPECT_EQ(g_all_oxa_packet_map.get_count(), 292u);
    for (const Packet& p : PACKETS) {
        EXPECT_STREQ(get_oxa_packet_name(p.id), p.name);
        EXPECT_EQ(get_oxa_packet_id(p.name), p.id) << p.name;
    }
    EXPECT_EQ(get_qel_packet_name(0x0009), nullptr);  // Nop is Oxa's alone
    EXPECT_EQ(get_oxa_packet_name(0x0000), nullptr);
    EXPECT_EQ(get_oxa_packet_id("NoSuchPacket"), 0);
    EXPECT_EQ(get_oxa_packet_id(nullptr), 0);
}

// The generated struct coders of every record do byte for byte what the
// generic coders do, for every source length; records without members leave
// the destination alone.
TEST(OxaCatalogue, StructCodersMatchTheGenericOnes) {
    int converted = 0;
    for (const OxaRecordCoder& coder : g_oxa_record_coders) {
        const FieldDesc* desc = coder.desc;
        const int size = desc->struct_size;
        const std::vector<unsigned char> internal = sample(desc, false, 11), doubles = sample(desc, true, 11);
        for (int len = -1; len <= size + 1; ++len) {
            std::vector<unsigned char> made(size, 0xAB), want(size, 0xAB);
            EXPECT_EQ(coder.to_struct(internal.data(), made.data(), len),
                      FieldCoder::to_struct(desc, internal.data(), want.data(), len));
            ASSERT_EQ(made, want) << desc->name << " to_struct len " << len;
            std::fill(made.begin(), made.end(), 0xCD);
            std::fill(want.begin(), want.end(), 0xCD);
            EXPECT_EQ(coder.from_struct(made.data(), doubles.data(), len),
                      FieldCoder::from_struct(desc, want.data(), doubles.data(), len));
            ASSERT_EQ(made, want) << desc->name << " from_struct len " << len;
        }
        if (desc->member_count == 0) {
            std::vector<unsigned char> dst(size, 0xEE);
            EXPECT_EQ(coder.to_struct(internal.data(), dst.data(), size), 0);
            EXPECT_EQ(coder.from_struct(dst.data(), doubles.data(), size), 0);
            EXPECT_EQ(dst, std::vector<unsigned char>(size, 0xEE)) << desc->name;
            continue;
        }
        // A full round trip gives every member back, nulls included (padding
        // isn't a member and isn't copied).
        std::vector<unsigned char> there(size), back(size);
        EXPECT_EQ(coder.to_struct(internal.data(), there.data(), size), desc->member_count);
        EXPECT_EQ(coder.from_struct(back.data(), there.data(), size), desc->member_count);
        for (int i = 0; i < desc->member_count; ++i) {
            const FieldDesc::MemberDesc* m = desc->get_member_desc(i);
            EXPECT_EQ(std::memcmp(&back[m->offset], &internal[m->offset], m->total_size), 0)
                << desc->name << "." << m->name;
        }
        ++converted;
    }
    EXPECT_EQ(converted, 72);

    // A twin with money members, checked by value.
    OxaRspPartAccountField account;
    std::memset(&account, 0, sizeof(account));
    std::strcpy(account.AccountID, "A01");
    account.Deposit = 12345;
    account.Withdraw = FIXED_POINT_NULL;
    unsigned char out[sizeof(account)];
    ASSERT_EQ(OxaRspPartAccountField::to_struct(&account, out, sizeof(account)),
              OxaRspPartAccountField::DESC.member_count);
    EXPECT_EQ(load_host<double>(out + offsetof(OxaRspPartAccountField, Deposit)), 12.345);
    EXPECT_EQ(load_host<double>(out + offsetof(OxaRspPartAccountField, Withdraw)), DBL_MAX);
    EXPECT_STREQ(reinterpret_cast<const char*>(out + offsetof(OxaRspPartAccountField, AccountID)), "A01");
}

// A double of a struct form comes in as fieldcoder_test checks it on the wire.
TEST(OxaCatalogue, OutOfRangeDoublesBecomeNull) {
    OxaRspPartAccountField record;
    unsigned char src[sizeof(record)] = {};
    for (auto& row : test_data::rows("record/data/money.txt")) {
        store_host<double>(src + offsetof(OxaRspPartAccountField, Deposit), std::strtod(row[0], nullptr));
        ASSERT_EQ(OxaRspPartAccountField::from_struct(&record, src, sizeof(src)),
                  OxaRspPartAccountField::DESC.member_count);
        EXPECT_EQ(record.Deposit, std::strcmp(row[1], "null") ? std::strtol(row[1], nullptr, 10) : FIXED_POINT_NULL)
            << row[0];
    }
}

// Saved and loaded, the catalogue gives the same descriptions, those
// without members included, and the same packets.
TEST(OxaCatalogue, DumpSavedAndLoaded) {
    const std::string dir = temp_dir();
    const std::string path = dir + "/oxa.dump";
    ASSERT_EQ(save_oxa_field(path.c_str()), 1);
    ASSERT_EQ(load_oxa_field(path.c_str()), 1);
    std::set<const FieldDesc*> loaded;
    for (const OxaRecordCoder& coder : g_oxa_record_coders) {
        const FieldDesc* statik = coder.desc;
        const FieldDesc* desc = get_oxa_field_desc(statik->name);
        ASSERT_NE(desc, nullptr) << statik->name;
        EXPECT_NE(desc, statik);
        EXPECT_EQ(get_oxa_field_desc(statik->id), desc) << statik->name;
        EXPECT_TRUE(FieldDesc::is_same(desc, statik)) << statik->name;
        EXPECT_EQ(desc->struct_size, statik->struct_size);
        loaded.insert(desc);
    }
    EXPECT_EQ(loaded.size(), 232u);
    for (const Packet& p : PACKETS) {
        EXPECT_STREQ(get_oxa_packet_name(p.id), p.name);
        EXPECT_EQ(get_oxa_packet_id(p.name), p.id);
    }
    // A loaded member-less description serves the generic coders as a no-op.
    const FieldDesc* action = get_oxa_field_desc("OxaOrderActionField");
    std::vector<unsigned char> src(action->struct_size, 1), dst(action->struct_size, 2);
    EXPECT_EQ(FieldCoder::from_struct(action, dst.data(), src.data(), action->struct_size), 0);
    EXPECT_EQ(dst, std::vector<unsigned char>(action->struct_size, 2));

    // A missing file fails and leaves every lookup empty.
    EXPECT_EQ(load_oxa_field((dir + "/missing").c_str()), 0);
    EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(17)), nullptr);
    EXPECT_EQ(get_oxa_packet_name(0x0009), nullptr);

    restore_catalogue();
    EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(17)), &OxaInputOrderField::DESC);
    EXPECT_EQ(g_all_oxa_packet_map.get_count(), 292u);
    unlink(path.c_str());
    rmdir(dir.c_str());
}
