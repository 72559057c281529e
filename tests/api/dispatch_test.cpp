// The trader's inbound dispatch, fed with frames built as a front builds
// them: every packet of the table reaches its callback with its record
// intact, query answers chain, the gates count, and hostile frames neither
// crash nor call back.
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

// Every packet that ends in an application callback of its own.
std::vector<Row> rows() {
    std::vector<Row> out;
    for (const auto& f : test_data::rows("api/data/dispatch.txt")) {
        const std::string kind = f[1];
        const auto id = static_cast<unsigned short>(test_data::number(f[2]));
        out.push_back({static_cast<unsigned int>(test_data::number(f[0])),
                       kind == "reply" ? REPLY : kind == "query" ? QUERY : kind == "return" ? RETURN : ERROR_RETURN,
                       id, get_qel_field_desc(id), f[3]});
    }
    return out;
}
// Read on first use: the catalogue fills before main, in another unit.
const std::vector<Row>& table() {
    static const std::vector<Row> all = rows();
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
        if (row.kind != RETURN) {
            ASSERT_TRUE(frame.add(&QelRspInfoField::DESC, &info));
        }
        ASSERT_TRUE(frame.add(row.desc, record));
        spi.calls.clear();
        spi.copy_size = row.desc->struct_size;
        const unsigned int trades = trade_answered();
        const unsigned int queries = query_answered();
        frame.feed(api);

        ASSERT_EQ(spi.calls.size(), 1u);
        const Call& call = spi.calls[0];
        EXPECT_EQ(call.name, row.callback);
        ASSERT_TRUE(call.has_record);
        EXPECT_EQ(test::differing_members(row.desc, call.record, test::struct_form(row.desc, record)), "");
        EXPECT_EQ(call.has_info, row.kind != RETURN);
        if (row.kind != RETURN) {
            EXPECT_EQ(call.error_id, 7);
        }
        if (row.kind == REPLY || row.kind == QUERY) {
            EXPECT_EQ(call.request, 4000 + seed);
            EXPECT_TRUE(call.last);
        }
        EXPECT_EQ(trade_answered() - trades, row.kind == REPLY ? 1u : 0u);
        EXPECT_EQ(query_answered() - queries, row.kind == QUERY ? 1u : 0u);
    }
}

TEST_F(Dispatch, TextsEndInAZeroWhateverTheWireSends) {
    // An order return whose every byte is 'x' on the wire.
    const Base::FieldDesc* desc = &QelOrderField::DESC;
    std::string stream(desc->stream_size, 'x');
    Frame frame(20482, 0, 'L', 2, 1);
    ASSERT_TRUE(frame.add_raw(desc->id, stream.data(), desc->stream_size));
    spi.copy_size = desc->struct_size;
    frame.feed(api);
    ASSERT_EQ(spi.calls.size(), 3u);
    const std::string& record = spi.calls[1].record;
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* member = desc->get_member_desc(i);
        if (member->type == Base::DT_STRING) {
            EXPECT_EQ(record[member->offset + member->total_size - 1], 0) << member->name;
        }
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
    ASSERT_EQ(spi.calls.size(), 30u);
    for (int i = 0; i < 30; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(spi.calls[i].name, "OnRspQryOrder");
        EXPECT_EQ(spi.calls[i].request, 77);
        EXPECT_EQ(spi.calls[i].last, i == 29);
        EXPECT_EQ(spi.calls[i].has_info, i % 10 == 0);
        if (i % 10 == 0) {
            EXPECT_EQ(spi.calls[i].error_id, i / 10);
        }
        EXPECT_EQ(test::differing_members(desc, spi.calls[i].record, sent[i]), "");
    }
}

TEST_F(Dispatch, AQueryAnswerWithoutRecordsCallsBackOnceWithNone) {
    allow(0, 2);
    const QelRspInfoField info = test::make_info(0, "none");
    for (unsigned char chain : {'C', 'L'}) {
        Frame frame(16392, 5, chain);
        ASSERT_TRUE(frame.add(&QelRspInfoField::DESC, &info));
        frame.feed(api);
    }
    Frame empty(16392, 6, 'L');
    empty.feed(api);
    ASSERT_EQ(spi.calls.size(), 3u);
    EXPECT_FALSE(spi.calls[0].has_record);
    EXPECT_TRUE(spi.calls[0].has_info);
    EXPECT_FALSE(spi.calls[0].last);
    EXPECT_FALSE(spi.calls[1].has_record);
    EXPECT_TRUE(spi.calls[1].last);
    EXPECT_FALSE(spi.calls[2].has_info);
    EXPECT_EQ(query_answered(), 2u);
}

TEST_F(Dispatch, TopicPacketsAreBracketedEvenWhenTheirIdIsUnknown) {
    Frame unknown(0x7777, 0, 'L', 2, 41);
    unknown.feed(api);
    Frame dialogue(0x7777, 0, 'L', 1, 42);
    dialogue.feed(api);
    Frame query_subject(0x7777, 0, 'L', 4, 43);
    query_subject.feed(api);
    QelTradeField trade;
    test::fill_record(&QelTradeField::DESC, &trade, 1);
    Frame public_trade(20481, 0, 'L', 3, 0x1234567890ul);
    ASSERT_TRUE(public_trade.add(&QelTradeField::DESC, &trade));
    public_trade.feed(api);

    ASSERT_EQ(spi.calls.size(), 5u);
    EXPECT_EQ(spi.calls[0].name, "OnPackageStart");
    EXPECT_EQ(spi.calls[0].topic, 2);
    EXPECT_EQ(spi.calls[0].sequence, 41);
    EXPECT_EQ(spi.calls[1].name, "OnPackageEnd");
    EXPECT_EQ(spi.calls[2].name, "OnPackageStart");
    EXPECT_EQ(spi.calls[2].sequence, 0x34567890);  // the low 32 bits
    EXPECT_EQ(spi.calls[3].name, "OnRtnTrade");
    EXPECT_EQ(spi.calls[4].name, "OnPackageEnd");
    EXPECT_EQ(spi.calls[4].topic, 3);
}

TEST_F(Dispatch, RecordsOutOfPlaceOrCutShortAreHandledAsTheirFormSays) {
    allow(10, 10);
    const QelRspInfoField info = test::make_info(0, "");
    QelInputOrderField order;
    test::fill_record(&QelInputOrderField::DESC, &order, 3);

    // A reply whose second record is foreign: no callback, not answered.
    Frame foreign(4102, 1, 'L');
    ASSERT_TRUE(foreign.add(&QelRspInfoField::DESC, &info));
    ASSERT_TRUE(foreign.add(&QelOrderActionField::DESC, &order));
    foreign.feed(api);
    // The record first and the info behind it: nothing either.
    Frame swapped(4102, 2, 'L');
    ASSERT_TRUE(swapped.add(&QelInputOrderField::DESC, &order));
    ASSERT_TRUE(swapped.add(&QelRspInfoField::DESC, &info));
    swapped.feed(api);
    EXPECT_TRUE(spi.calls.empty());
    EXPECT_EQ(trade_answered(), 0u);

    // A record shorter than its description: the members it doesn't cover
    // wholly come out zero.
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
    const std::string expected = test::struct_form(desc, &order);
    const std::string& got = spi.calls[0].record;
    const Base::FieldDesc::MemberDesc* first = desc->get_member_desc(0);
    EXPECT_EQ(got.substr(first->offset, first->total_size - 1), expected.substr(first->offset, first->total_size - 1));
    for (int i = 1; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* member = desc->get_member_desc(i);
        EXPECT_EQ(got.substr(member->offset, member->total_size), std::string(member->total_size, '\0'))
            << member->name;
    }
    EXPECT_EQ(trade_answered(), 1u);

    // In a query a foreign record ahead of the first record is passed over.
    Frame query(16392, 4, 'L');
    QelTradeField trade;
    test::fill_record(&QelTradeField::DESC, &trade, 9);
    QelOrderField foreign_order;
    test::fill_record(&QelOrderField::DESC, &foreign_order, 8);
    ASSERT_TRUE(query.add(&QelOrderField::DESC, &foreign_order));
    ASSERT_TRUE(query.add(&QelTradeField::DESC, &trade));
    spi.calls.clear();
    spi.copy_size = QelTradeField::DESC.struct_size;
    query.feed(api);
    ASSERT_EQ(spi.calls.size(), 1u);
    EXPECT_EQ(test::differing_members(&QelTradeField::DESC, spi.calls[0].record, test::struct_form(&QelTradeField::DESC, &trade)), "");
    EXPECT_TRUE(spi.calls[0].last);
}

TEST_F(Dispatch, RspErrorCountsOnTheGateOfItsSubjectAndNeverPastSent) {
    allow(1, 1);
    const QelRspInfoField info = test::make_info(-3, "refused");
    for (unsigned short subject : {1, 1, 4, 4, 0}) {
        Frame frame(1, 12, 'L', subject);
        ASSERT_TRUE(frame.add(&QelRspInfoField::DESC, &info));
        frame.feed(api);
    }
    ASSERT_EQ(spi.calls.size(), 5u);
    EXPECT_EQ(spi.calls[0].name, "OnRspError");
    EXPECT_EQ(spi.calls[0].error_id, -3);
    EXPECT_EQ(spi.calls[0].request, 12);
    EXPECT_TRUE(spi.calls[0].last);
    // One sent on each gate: the unrequested errors count nothing.
    EXPECT_EQ(trade_answered(), 1u);
    EXPECT_EQ(query_answered(), 1u);

    // Nor do replies beyond what was sent.
    allow(2, 1);
    QelInputOrderField order;
    test::fill_record(&QelInputOrderField::DESC, &order, 1);
    for (int i = 0; i < 3; ++i) {
        Frame frame(4102, i, 'L');
        ASSERT_TRUE(frame.add(&QelRspInfoField::DESC, &info));
        ASSERT_TRUE(frame.add(&QelInputOrderField::DESC, &order));
        frame.feed(api);
    }
    EXPECT_EQ(trade_answered(), 2u);
    EXPECT_EQ(spi.calls.size(), 8u);
}

TEST_F(Dispatch, PasswordsAreGoneOnceTheCallbackReturns) {
    allow(1, 0);
    QelUserPasswordUpdateField update = {};
    std::snprintf(update.UserID, sizeof(update.UserID), "u1");
    std::snprintf(update.OldPassword, sizeof(update.OldPassword), "old-secret");
    std::snprintf(update.NewPassword, sizeof(update.NewPassword), "new-secret");
    const QelRspInfoField info = test::make_info(0, "");
    Frame frame(4112, 9, 'L');
    ASSERT_TRUE(frame.add(&QelRspInfoField::DESC, &info));
    ASSERT_TRUE(frame.add(&QelUserPasswordUpdateField::DESC, &update));
    spi.copy_size = sizeof(CTulmQelcUserPasswordUpdateField);
    frame.feed(api);
    ASSERT_EQ(spi.calls.size(), 1u);
    const CTulmQelcUserPasswordUpdateField* seen =
        reinterpret_cast<const CTulmQelcUserPasswordUpdateField*>(spi.calls[0].record.data());
    EXPECT_STREQ(seen->OldPassword, "old-secret");
    EXPECT_STREQ(seen->NewPassword, "new-secret");
    const CTulmQelcUserPasswordUpdateField* left =
        reinterpret_cast<const CTulmQelcUserPasswordUpdateField*>(TradeApiProbe::reply_buffer(api, 1));
    EXPECT_STREQ(left->UserID, "u1");
    EXPECT_EQ(left->OldPassword[0], 0);
    EXPECT_EQ(left->NewPassword[0], 0);
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
    ASSERT_EQ(spi.calls.size(), 12u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(spi.calls[i + 1].name, "OnRtnFlowMessageCancel");
        EXPECT_EQ(test::differing_members(desc, spi.calls[i + 1].record, sent[i]), "") << i;
    }
    EXPECT_EQ(spi.calls[11].name, "OnPackageEnd");
}

TEST_F(Dispatch, NoSpiStillCounts) {
    api.RegisterSpi(nullptr);
    allow(1, 1);
    const QelRspInfoField info = test::make_info(1, "x");
    Frame error(1, 1, 'L', 4);
    ASSERT_TRUE(error.add(&QelRspInfoField::DESC, &info));
    error.feed(api);
    Frame query(16392, 1, 'L', 2);
    query.feed(api);
    EXPECT_EQ(query_answered(), 1u);
    EXPECT_EQ(trade_answered(), 0u);
    EXPECT_TRUE(spi.calls.empty());
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
        for (const Call& call : spi.calls)
            if (call.name == "OnRspQryOrder" && call.has_record) ++records;
        if (cut < size) {
            EXPECT_LT(records, 2) << cut;
        }
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
