// The trader's inbound dispatch, fed frames built as a front builds them:
// every packet reaches its callback with its record intact, query answers
// chain, the gates count, and hostile frames neither crash nor call back.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "tests/api/dispatch_helpers.h"
#include "tests/support/data_file.h"

using Api::TradeApi;
using Api::TradeApiProbe;
using test::Call;
using test::Frame;
using test::RecordingSpi;

namespace {

enum Kind { REPLY, QUERY, ERROR_RETURN, RETURN };

struct Row {
    unsigned int packet_id;
    Kind kind;
    unsigned short record_id;
    const Base::FieldDesc* desc;
    const char* callback;
};

// Read on first use: the catalogue fills before main, in another unit.
const std::vector<Row>& table() {
    static const std::vector<Row> all = [] {
        std::vector<Row> out;
        for (const auto& f : test_data::rows("api/data/dispatch.txt")) {
            const std::string kind = f[1];
            const auto id = static_cast<unsigned short>(test_data::number(f[2]));
            out.push_back({static_cast<unsigned int>(test_data::number(f[0])),
                           kind == "reply" ? REPLY : kind == "query" ? QUERY : kind == "return" ? RETURN : ERROR_RETURN,
                           id, get_qel_field_desc(id), f[3]});
        }
        return out;
    }();
    return all;
}

class Dispatch : public ::testing::Test {
protected:
    Dispatch() : api("./", nullptr) { api.RegisterSpi(&spi); }
    void allow(int trades, int queries) {
        TradeApiProbe::trade_flux(api).sent = trades;
        TradeApiProbe::query_flux(api).sent = queries;
    }
    unsigned int trade_answered() { return TradeApiProbe::trade_flux(api).answered.load(); }
    unsigned int query_answered() { return TradeApiProbe::query_flux(api).answered.load(); }
    // Feeds one frame of the given records; the callbacks it made.
    std::string feed(Frame&& frame, std::initializer_list<std::pair<const Base::FieldDesc*, const void*>> records) {
        spi.calls.clear();
        for (const auto& record : records) EXPECT_TRUE(frame.add(record.first, record.second));
        frame.feed(api);
        return said();
    }
    // Every call so far: name, +r for a record, +i<error> for an info, the
    // request id, L when last, @topic/sequence for brackets.
    std::string said() const {
        std::string out;
        for (const Call& c : spi.calls) {
            out += c.name + (c.has_record ? "+r" : "") + (c.has_info ? "+i" + std::to_string(c.error_id) : "") + " " +
                   std::to_string(c.request) + (c.last ? " L" : "");
            if (c.topic || c.sequence) out += " @" + std::to_string(c.topic) + "/" + std::to_string(c.sequence);
            out += "; ";
        }
        return out;
    }

    TradeApi api;
    RecordingSpi spi;
};

TEST_F(Dispatch, EveryPacketReachesItsCallbackWithItsRecordIntact) {
    const QelRspInfoField info = test::make_info(7, "seven");
    int seed = 0;
    ASSERT_EQ(table().size(), 50u);
    for (const Row& row : table()) {
        SCOPED_TRACE(row.callback);
        ASSERT_TRUE(row.desc != nullptr && row.desc->id == row.record_id);
        allow(100, 100);
        char record[4096];
        test::fill_record(row.desc, record, ++seed);
        Frame frame(row.packet_id, 4000 + seed, 'L');
        ASSERT_TRUE(row.kind == RETURN || frame.add(&QelRspInfoField::DESC, &info));
        spi.copy_size = row.desc->struct_size;
        const unsigned int trades = trade_answered(), queries = query_answered();
        const bool answers = row.kind == REPLY || row.kind == QUERY;
        EXPECT_EQ(feed(std::move(frame), {{row.desc, record}}),
                  std::string(row.callback) + "+r" + (row.kind != RETURN ? "+i7 " : " ") +
                      (answers ? std::to_string(4000 + seed) + " L; " : "0; "));
        ASSERT_EQ(spi.calls.size(), 1u);
        EXPECT_EQ(test::differing_members(row.desc, spi.calls[0].record, test::struct_form(row.desc, record)), "");
        EXPECT_EQ(std::make_pair(trade_answered() - trades, query_answered() - queries),
                  std::make_pair(row.kind == REPLY ? 1u : 0u, row.kind == QUERY ? 1u : 0u));
    }
}

TEST_F(Dispatch, TextsEndInAZeroWhateverTheWireSends) {
    const Base::FieldDesc* desc = &QelOrderField::DESC;  // every byte 'x' on the wire
    std::string stream(desc->stream_size, 'x');
    Frame frame(20482, 0, 'L', 2, 1);
    ASSERT_TRUE(frame.add_raw(desc->id, stream.data(), desc->stream_size));
    spi.copy_size = desc->struct_size;
    frame.feed(api);
    ASSERT_EQ(spi.calls.size(), 3u);
    const std::string& record = spi.calls[1].record;
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* m = desc->get_member_desc(i);
        EXPECT_TRUE(m->type != Base::DT_STRING || record[m->offset + m->total_size - 1] == 0) << m->name;
    }
}

TEST_F(Dispatch, AQueryAnswerOfManyPacketsCallsBackOncePerRecord) {
    allow(0, 1);
    const Base::FieldDesc* desc = &QelOrderField::DESC;
    spi.copy_size = desc->struct_size;
    std::vector<std::string> sent;
    for (int p = 0; p < 3; ++p) {
        Frame frame(16388, 77, p == 2 ? 'L' : 'C', 1);
        const QelRspInfoField info = test::make_info(p, "part");
        ASSERT_TRUE(frame.add(&QelRspInfoField::DESC, &info));
        for (int r = 0; r < 10; ++r) {
            QelOrderField order;
            test::fill_record(desc, &order, p * 10 + r);
            ASSERT_TRUE(frame.add(desc, &order));
            sent.push_back(test::struct_form(desc, &order));
        }
        frame.feed(api);
        EXPECT_EQ(query_answered(), p == 2 ? 1u : 0u);
    }
    std::string expected;
    for (int i = 0; i < 30; ++i)
        expected += std::string("OnRspQryOrder+r") + (i % 10 ? "" : "+i" + std::to_string(i / 10)) + " 77" +
                    (i == 29 ? " L; " : "; ");
    EXPECT_EQ(said(), expected);
    for (int i = 0; i < 30 && i < static_cast<int>(spi.calls.size()); ++i)
        EXPECT_EQ(test::differing_members(desc, spi.calls[i].record, sent[i]), "") << i;
}

TEST_F(Dispatch, AQueryAnswerWithoutRecordsCallsBackOnceWithNone) {
    allow(0, 2);
    const QelRspInfoField info = test::make_info(4, "none");
    EXPECT_EQ(feed(Frame(16392, 5, 'C'), {{&QelRspInfoField::DESC, &info}}), "OnRspQryTrade+i4 5; ");
    EXPECT_EQ(feed(Frame(16392, 5, 'L'), {{&QelRspInfoField::DESC, &info}}), "OnRspQryTrade+i4 5 L; ");
    EXPECT_EQ(feed(Frame(16392, 6, 'L'), {}), "OnRspQryTrade 6 L; ");
    EXPECT_EQ(query_answered(), 2u);
}

TEST_F(Dispatch, TopicPacketsAreBracketedEvenWhenTheirIdIsUnknown) {
    EXPECT_EQ(feed(Frame(0x7777, 0, 'L', 2, 41), {}), "OnPackageStart 0 @2/41; OnPackageEnd 0 @2/41; ");
    EXPECT_EQ(feed(Frame(0x7777, 0, 'L', 1, 42), {}), "");  // dialogue
    EXPECT_EQ(feed(Frame(0x7777, 0, 'L', 4, 43), {}), "");  // query
    QelTradeField trade;
    test::fill_record(&QelTradeField::DESC, &trade, 1);
    // The sequence is cut to its low 32 bits.
    EXPECT_EQ(feed(Frame(20481, 0, 'L', 3, 0x1234567890ul), {{&QelTradeField::DESC, &trade}}),
              "OnPackageStart 0 @3/878082192; OnRtnTrade+r 0; OnPackageEnd 0 @3/878082192; ");
}

TEST_F(Dispatch, RecordsOutOfPlaceOrCutShortAreHandledAsTheirFormSays) {
    allow(10, 10);
    const QelRspInfoField info = test::make_info(0, "");
    QelInputOrderField order;
    test::fill_record(&QelInputOrderField::DESC, &order, 3);

    // A reply whose second record is foreign, or whose info trails: no callback, not answered.
    EXPECT_EQ(feed(Frame(4102, 1, 'L'), {{&QelRspInfoField::DESC, &info}, {&QelOrderActionField::DESC, &order}}), "");
    EXPECT_EQ(feed(Frame(4102, 2, 'L'), {{&QelInputOrderField::DESC, &order}, {&QelRspInfoField::DESC, &info}}), "");
    EXPECT_EQ(trade_answered(), 0u);

    // A record shorter than its description: members it doesn't wholly cover come out zero.
    const Base::FieldDesc* desc = &QelInputOrderField::DESC;
    std::string stream(desc->stream_size, '\0');
    Network::XmpPacket::to_stream(desc, &order, &stream[0], desc->struct_size);
    const Base::FieldDesc::MemberDesc* second = desc->get_member_desc(1);
    Frame shortened(4102, 3, 'L');
    ASSERT_TRUE(shortened.add(&QelRspInfoField::DESC, &info));
    ASSERT_TRUE(shortened.add_raw(desc->id, stream.data(), static_cast<unsigned short>(second->stream_offset + 1)));
    spi.copy_size = desc->struct_size;
    shortened.feed(api);
    ASSERT_EQ(spi.calls.size(), 1u);
    // Expected: the first member as sent, all others zero.
    std::string expected(desc->struct_size, '\0');
    const Base::FieldDesc::MemberDesc* first = desc->get_member_desc(0);
    expected.replace(first->offset, first->total_size - 1, test::struct_form(desc, &order), first->offset,
                     first->total_size - 1);
    EXPECT_EQ(test::differing_members(desc, spi.calls[0].record, expected), "");
    EXPECT_EQ(trade_answered(), 1u);

    // In a query a foreign record ahead of the first record is passed over.
    QelTradeField trade;
    test::fill_record(&QelTradeField::DESC, &trade, 9);
    QelOrderField foreign_order;
    test::fill_record(&QelOrderField::DESC, &foreign_order, 8);
    spi.copy_size = QelTradeField::DESC.struct_size;
    EXPECT_EQ(feed(Frame(16392, 4, 'L'), {{&QelOrderField::DESC, &foreign_order}, {&QelTradeField::DESC, &trade}}),
              "OnRspQryTrade+r 4 L; ");
    ASSERT_EQ(spi.calls.size(), 1u);
    EXPECT_EQ(test::differing_members(&QelTradeField::DESC, spi.calls[0].record, test::struct_form(&QelTradeField::DESC, &trade)), "");
}

TEST_F(Dispatch, RspErrorCountsOnTheGateOfItsSubjectAndNeverPastSent) {
    allow(1, 1);
    const QelRspInfoField info = test::make_info(-3, "refused");
    // One sent on each gate: the errors beyond it count nothing.
    for (unsigned short subject : {1, 1, 4, 4, 0})
        EXPECT_EQ(feed(Frame(1, 12, 'L', subject), {{&QelRspInfoField::DESC, &info}}), "OnRspError+i-3 12 L; ");
    EXPECT_EQ(std::make_pair(trade_answered(), query_answered()), std::make_pair(1u, 1u));

    // Nor do replies beyond what was sent.
    allow(2, 1);
    QelInputOrderField order;
    test::fill_record(&QelInputOrderField::DESC, &order, 1);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(feed(Frame(4102, i, 'L'), {{&QelRspInfoField::DESC, &info}, {&QelInputOrderField::DESC, &order}}),
                  "OnRspOrderInsert+r+i-3 " + std::to_string(i) + " L; ");
    EXPECT_EQ(trade_answered(), 2u);
}

TEST_F(Dispatch, PasswordsAreGoneOnceTheCallbackReturns) {
    allow(1, 0);
    QelUserPasswordUpdateField update = {};
    std::snprintf(update.UserID, sizeof(update.UserID), "u1");
    std::snprintf(update.OldPassword, sizeof(update.OldPassword), "old-secret");
    std::snprintf(update.NewPassword, sizeof(update.NewPassword), "new-secret");
    const QelRspInfoField info = test::make_info(0, "");
    spi.copy_size = sizeof(CTulmQelcUserPasswordUpdateField);
    EXPECT_EQ(feed(Frame(4112, 9, 'L'),
                   {{&QelRspInfoField::DESC, &info}, {&QelUserPasswordUpdateField::DESC, &update}}),
              "OnRspUserPasswordUpdate+r+i0 9 L; ");
    ASSERT_EQ(spi.calls.size(), 1u);
    const auto* seen = reinterpret_cast<const CTulmQelcUserPasswordUpdateField*>(spi.calls[0].record.data());
    const auto* left = reinterpret_cast<const CTulmQelcUserPasswordUpdateField*>(TradeApiProbe::reply_buffer(api, 1));
    EXPECT_EQ(std::string(seen->OldPassword) + "/" + seen->NewPassword, "old-secret/new-secret");
    EXPECT_EQ(std::string(left->UserID) + "/" + left->OldPassword + "/" + left->NewPassword, "u1//");
    EXPECT_EQ(trade_answered(), 1u);
}

TEST_F(Dispatch, FlowMessageCancelDeliversEveryRecordWhateverTheirNumber) {
    const Base::FieldDesc* desc = &QelFlowMessageCancelField::DESC;
    Frame frame(20993, 0, 'L', 2, 5);
    std::vector<std::string> sent;
    for (int i = 0; i < 10; ++i) {
        char record[512];
        test::fill_record(desc, record, i);
        ASSERT_TRUE(frame.add(desc, record));
        sent.push_back(test::struct_form(desc, record));
    }
    // A foreign record ends the run.
    QelTradeField trade;
    test::fill_record(&QelTradeField::DESC, &trade, 1);
    ASSERT_TRUE(frame.add(&QelTradeField::DESC, &trade));
    char tail[512];
    test::fill_record(desc, tail, 99);
    ASSERT_TRUE(frame.add(desc, tail));
    spi.copy_size = desc->struct_size;
    frame.feed(api);
    std::string expected = "OnPackageStart 0 @2/5; ";
    for (int i = 0; i < 10; ++i) expected += "OnRtnFlowMessageCancel+r 0; ";
    EXPECT_EQ(said(), expected + "OnPackageEnd 0 @2/5; ");
    for (int i = 0; i < 10 && i + 1 < static_cast<int>(spi.calls.size()); ++i)
        EXPECT_EQ(test::differing_members(desc, spi.calls[i + 1].record, sent[i]), "") << i;
}

TEST_F(Dispatch, NoSpiStillCounts) {
    api.RegisterSpi(nullptr);
    allow(1, 1);
    const QelRspInfoField info = test::make_info(1, "x");
    EXPECT_EQ(feed(Frame(1, 1, 'L', 4), {{&QelRspInfoField::DESC, &info}}), "");
    EXPECT_EQ(feed(Frame(16392, 1, 'L', 2), {}), "");
    EXPECT_EQ(std::make_pair(trade_answered(), query_answered()), std::make_pair(0u, 1u));
}

// Frames no front would send: cut at every length, lengths that lie, random
// bytes. Nothing may be read outside the stored frame (ASan watches) and no
// record may reach a callback that the frame doesn't hold whole.
TEST_F(Dispatch, HostileFramesNeitherCrashNorCallBack) {
    allow(1000000, 1000000);
    QelOrderField order;
    test::fill_record(&QelOrderField::DESC, &order, 5);
    const QelRspInfoField info = test::make_info(0, "");
    Frame whole(16388, 1, 'L', 2, 9);
    ASSERT_TRUE(whole.add(&QelRspInfoField::DESC, &info));
    ASSERT_TRUE(whole.add(&QelOrderField::DESC, &order));
    ASSERT_TRUE(whole.add(&QelOrderField::DESC, &order));
    const int size = whole.finish();

    // Each cut copy lives in a buffer of exactly its size.
    for (int cut = 0; cut <= size; ++cut) {
        std::vector<char> copy(whole.bytes, whole.bytes + cut);
        spi.calls.clear();
        api.on_write(0, copy.empty() ? nullptr : copy.data(), static_cast<unsigned short>(cut));
        int records = 0;
        for (const Call& call : spi.calls) records += call.name == "OnRspQryOrder" && call.has_record;
        EXPECT_TRUE(cut == size || records < 2) << cut;
    }

    // The headers claim more than the frame holds.
    {
        std::vector<char> copy(whole.bytes, whole.bytes + size);
        copy[6 + 14] = static_cast<char>(0xFF);  // BodyLength
        copy[6 + 15] = static_cast<char>(0xFF);
        api.on_write(0, copy.data(), static_cast<unsigned short>(copy.size()));
        copy[1] = static_cast<char>(0xF0);  // an extension longer than the frame
        api.on_write(0, copy.data(), static_cast<unsigned short>(copy.size()));
    }

    // Random bodies behind valid headers, for each row of the table.
    std::mt19937 random(20261123);
    for (const Row& row : table()) {
        for (int round = 0; round < 40; ++round) {
            Frame frame(row.packet_id, 1, (round & 1) ? 'L' : 'C', static_cast<unsigned short>(round % 6));
            const int fields = static_cast<int>(random() % 6);
            for (int f = 0; f < fields; ++f) {
                char bytes[600];
                for (char& b : bytes) b = static_cast<char>(random());
                const unsigned short id = (random() % 3 == 0) ? 3 : (random() % 2 ? row.record_id : random() & 0xFFFF);
                frame.add_raw(id, bytes, static_cast<unsigned short>(random() % sizeof(bytes)));
            }
            const int length = frame.finish();
            std::vector<char> copy(frame.bytes, frame.bytes + length);
            if (round % 5 == 0) copy[6 + 13] = static_cast<char>(random());  // FieldCount lies
            api.on_write(0, copy.data(), static_cast<unsigned short>(copy.size()));
        }
    }
    // Internal packets too: the dissemination makes topic flows of its own.
    for (int round = 0; round < 200; ++round) {
        Frame frame(22785, 0, 'L', 1);
        for (int f = 0; f < 5; ++f) {
            QelDisseminationField topic = {static_cast<short>(random() % 8), static_cast<int>(random())};
            frame.add(&QelDisseminationField::DESC, &topic);
        }
        frame.feed(api);
    }
    TradeApiProbe::delete_topic_flows(api);
}

}  // namespace
