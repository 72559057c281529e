#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <unistd.h>

#include "record/fielddesc.h"
#include "containers/map.h"
#include "record/gen/qelfield.h"
#include "tests/support/data_file.h"

using Base::FieldDesc;

namespace {

struct Registered {
    unsigned short id;
    const char* name;
    int struct_size;
    int stream_size;
    int members;
};

struct Placed {
    const char* name;
    std::vector<int> places;
};

std::vector<Registered> read_registry() {
    std::vector<Registered> out;
    for (const std::vector<const char*>& row : test_data::rows("record/data/qel_registry.txt"))
        out.push_back({static_cast<unsigned short>(test_data::number(row[0])), row[1],
                       int(test_data::number(row[2])), int(test_data::number(row[3])),
                       int(test_data::number(row[4]))});
    return out;
}

std::vector<Placed> read_places() {
    std::vector<Placed> out;
    for (const std::vector<const char*>& row : test_data::rows("record/data/qel_places.txt")) {
        Placed placed{row[0], {}};
        for (size_t i = 1; i < row.size(); i++) placed.places.push_back(int(test_data::number(row[i])));
        out.push_back(placed);
    }
    return out;
}

// The registered records: id, name, struct_size, stream_size, member count.
const std::vector<Registered>& REGISTRY = read_registry();

// Member places of the records that the trader exchanges: offset and stream
// offset of each member in order.
const std::vector<Placed>& PLACES = read_places();

std::string temp_path(const char* leaf) {
    char dir[] = "/tmp/qelcatXXXXXX";
    std::string made = mkdtemp(dir);
    return made + "/" + leaf;
}

}  // namespace

// Every record as compiled against the registry: id, name, sizes, member
// count, registration order, the layout rule and the key-free stream packing.
TEST(QelCatalogue, LayoutsMatchTheRegistry) {
    ASSERT_EQ(REGISTRY.size(), static_cast<size_t>(QEL_RECORD_COUNT));
    for (int i = 0; i < QEL_RECORD_COUNT; ++i) {
        const Registered& r = REGISTRY[i];
        const FieldDesc* desc = g_qel_record_coders[i].desc;
        SCOPED_TRACE(r.name);
        EXPECT_STREQ(desc->name, r.name);
        EXPECT_EQ(desc->id, r.id);
        EXPECT_EQ(desc->struct_size, r.struct_size);
        EXPECT_EQ(desc->stream_size, r.stream_size);
        EXPECT_EQ(desc->member_count, r.members);
        EXPECT_EQ(get_qel_field_desc(r.id), desc);
        EXPECT_EQ(get_qel_field_desc(r.name), desc);
        int end = 0, stream = 0, widest = 1;
        for (int k = 0; k < desc->member_count; ++k) {
            const FieldDesc::MemberDesc* m = desc->get_member_desc(k);
            int align = m->type == Base::DT_STRING || m->type == Base::DT_CHAR ? 1 : m->total_size;
            widest = align > widest ? align : widest;
            end = (end + align - 1) / align * align;
            EXPECT_EQ(m->offset, end) << m->name;
            EXPECT_EQ(m->stream_offset, stream) << m->name;
            EXPECT_EQ(m->element_size, m->total_size);
            EXPECT_EQ(m->count, 1);
            EXPECT_EQ(desc->get_member_index(m->name), k);
            end += m->total_size;
            stream += m->total_size;
        }
        EXPECT_EQ(stream, desc->stream_size);
        EXPECT_EQ((end + widest - 1) / widest * widest, desc->struct_size);
    }
    for (const Placed& p : PLACES) {
        const FieldDesc* desc = get_qel_field_desc(p.name);
        ASSERT_NE(desc, nullptr) << p.name;
        ASSERT_EQ(p.places.size(), size_t(2 * desc->member_count)) << p.name;
        for (int k = 0; k < desc->member_count; ++k) {
            EXPECT_EQ(desc->get_member_desc(k)->offset, p.places[2 * k]) << p.name << " " << k;
            EXPECT_EQ(desc->get_member_desc(k)->stream_offset, p.places[2 * k + 1]) << p.name << " " << k;
        }
    }
    const FieldDesc* order = &QelInputOrderField::DESC;
    EXPECT_EQ(order->get_member_desc(order->get_member_index("LimitPrice"))->type, Base::DT_FLOAT64);
    EXPECT_TRUE(order->get_member_desc(0)->key);
    EXPECT_FALSE(order->get_member_desc(1)->key);
    EXPECT_STREQ(order->get_member_desc(0)->type_name, "OxaOrderSysIDType");
    EXPECT_EQ(QelRspPartAccountField::DESC.get_member_desc(3)->type, Base::DT_FIXEDPOINT3);
}

TEST(QelCatalogue, PacketsAndLookups) {
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(17)), get_qel_field_desc("QelInputOrderField"));
    EXPECT_EQ(get_qel_field_desc("QelNoSuchField"), nullptr);
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(0x7777)), nullptr);
    EXPECT_STREQ(get_qel_packet_name(0x1005), "ReqOrderInsert");
    EXPECT_EQ(get_qel_packet_id("ReqOrderInsert"), 0x1005);
    EXPECT_EQ(get_qel_packet_id("NoSuchPacket"), 0);
    EXPECT_EQ(get_qel_packet_name(0x0009), nullptr);
    EXPECT_EQ(get_qel_packet_id("ReqAuthenticate"), 0x60AA);
    EXPECT_EQ(get_qel_packet_id("RspQryUserReport"), 0xF002);
    EXPECT_EQ(QEL_PACKET_COUNT, 142);
    EXPECT_EQ(g_all_qel_packet_name_map.get_count(), 142u);
    EXPECT_EQ(g_all_qel_name_map.get_count(), 113u);
    // Every packet id maps to a name that maps back to it.
    for (Base::Map::Iterator it(&g_all_qel_packet_map, nullptr, true); !it.is_end();) {
        const Base::Map::Node* node = static_cast<const Base::Map::Node*>(it.next());
        unsigned short id;
        memcpy(&id, node->key, 2);
        EXPECT_EQ(get_qel_packet_id(static_cast<const char*>(node->value)), id);
    }
}

// Descriptions and maps are read-only after start: threads share them freely.
TEST(QelCatalogue, ConcurrentReaders) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            unsigned char record[1024], wire[1024], back[1024];
            for (int round = 0; round < 200; ++round) {
                const QelRecordCoder& coder = g_qel_record_coders[(round * 7 + t) % QEL_RECORD_COUNT];
                const FieldDesc* desc = coder.desc;
                if (get_qel_field_desc(desc->id) != desc || get_qel_field_desc(desc->name) != desc) ++failures[t];
                if (get_qel_packet_id(get_qel_packet_name(0x1005)) != 0x1005) ++failures[t];
                memset(record, round & 0x3F, desc->struct_size);
                coder.to_stream(record, wire, desc->struct_size);
                coder.from_stream(back, wire, desc->stream_size, true);
                if (desc->hash_key(record) != desc->hash_key(record)) ++failures[t];
                if (desc->get_member_index(desc->get_member_desc(0)->name) != 0) ++failures[t];
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (int f : failures) EXPECT_EQ(f, 0);
}

// Runs last in this suite: a load replaces the process-wide maps, so the test
// saves them, loads them back and checks that the lookups are as before.
TEST(QelCatalogue, DumpSavedAndLoaded) {
    std::string path = temp_path("qel.dump");
    ASSERT_EQ(save_qel_field(path.c_str()), 1);
    ASSERT_EQ(load_qel_field(path.c_str()), 1);
    std::set<const FieldDesc*> loaded;
    for (const QelRecordCoder& coder : g_qel_record_coders) {
        const FieldDesc* statik = coder.desc;
        const FieldDesc* by_id = get_qel_field_desc(statik->id);
        ASSERT_NE(by_id, nullptr) << statik->name;
        EXPECT_NE(by_id, statik);  // a fresh description from the file
        EXPECT_EQ(get_qel_field_desc(statik->name), by_id);
        EXPECT_TRUE(FieldDesc::is_same(by_id, statik)) << statik->name;
        EXPECT_EQ(by_id->struct_size, statik->struct_size);
        loaded.insert(by_id);
    }
    EXPECT_EQ(loaded.size(), 113u);
    EXPECT_EQ(get_qel_packet_id("RspQryExchangeRate"), 0x608A);

    // A second save of the loaded catalogue is as long.
    std::string again = path + ".2";
    ASSERT_EQ(save_qel_field(again.c_str()), 1);
    auto read = [](const std::string& p) {
        std::string data;
        FILE* f = fopen(p.c_str(), "rb");
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0) data.append(buf, n);
        fclose(f);
        return data;
    };
    std::string first = read(path), second = read(again);
    EXPECT_EQ(first.size(), second.size());  // the same records, in the maps' order

    // A truncated file fails, and a missing file fails with every lookup empty.
    std::string cut = path + ".cut";
    FILE* f = fopen(cut.c_str(), "wb");
    fwrite(first.data(), 1, first.size() / 2, f);
    fclose(f);
    EXPECT_EQ(load_qel_field(cut.c_str()), 0);
    EXPECT_EQ(load_qel_field((path + ".missing").c_str()), 0);
    EXPECT_EQ(get_qel_field_desc("QelInputOrderField"), nullptr);
    EXPECT_EQ(get_qel_packet_id("ReqOrderInsert"), 0);

    // Restore the catalogue for whatever runs after.
    ASSERT_EQ(load_qel_field(path.c_str()), 1);
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(17))->struct_size, 224);
    for (const char* p : {path.c_str(), again.c_str(), cut.c_str()}) unlink(p);
    rmdir(path.substr(0, path.rfind('/')).c_str());
}
