// trade.con and the topic positions: reading every kind of file a crash or
// a person can leave, writing it so that a crash at any instant leaves a
// file that reads back, the front's positions, and the disconnection codes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "base/measure.h"
#include "tests/api/dispatch_helpers.h"

using Api::TradeApi;
using Api::TradeApiProbe;
using test::Frame;
using test::RecordingSpi;

namespace {

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/qel_resume_XXXXXX";
        path = mkdtemp(pattern);
    }
    ~TempDir() {
        std::remove(file().c_str());
        rmdir(path.c_str());
    }
    std::string file() const { return path + "/trade.con"; }
    void write(const std::string& text) const {
        std::ofstream out(file(), std::ios::binary | std::ios::trunc);
        out << text;
    }
    std::string read() const {
        std::ifstream in(file(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string path;
};

// A trader that has read the directory's trade.con, with the three topics
// resumed from the saved positions.
struct Reader {
    explicit Reader(const TempDir& dir, TE_RESUME_TYPE type = TE_RESUME_FROM_SAVED) : api(dir.path.c_str(), nullptr) {
        for (int topic : {2, 3, 5}) TradeApiProbe::resume(api, topic) = type;
        TradeApiProbe::read_resume(api);
    }
    ~Reader() { TradeApiProbe::delete_topic_flows(api); }
    unsigned long start(int topic) { return TradeApiProbe::start_id(api, topic); }
    std::string day() { return TradeApiProbe::trading_day(api); }
    TradeApi api;
};

std::string full_file(int day, int center, unsigned int p2, unsigned int p3, unsigned int p5) {
    char text[256];
    std::snprintf(text, sizeof(text), "%8d,%3d\n%5hu,%10u\n%5hu,%10u\n%5hu,%10u\n", day, center, (unsigned short)2, p2,
                  (unsigned short)3, p3, (unsigned short)5, p5);
    return text;
}

TEST(TradeCon, AMissingFileIsCreatedEmptyAndEveryFlowStartsAtZero) {
    TempDir dir;
    {
        Reader reader(dir);
        EXPECT_NE(TradeApiProbe::resume_file(reader.api), nullptr);
        EXPECT_EQ(reader.start(2), 0u);
        EXPECT_EQ(reader.day(), "");
    }
    EXPECT_EQ(dir.read(), "");
    // An empty file reads the same.
    Reader again(dir);
    EXPECT_EQ(again.start(2), 0u);
    EXPECT_EQ(again.day(), "");
    EXPECT_EQ(TradeApiProbe::data_center_id(again.api), 0);
}

TEST(TradeCon, WhatIsSavedIsWhatTheNextStartResumesFrom) {
    TempDir dir;
    {
        Reader writer(dir);
        std::snprintf(TradeApiProbe::resume_day(writer.api), 9, "20261123");
        TradeApiProbe::data_center_id(writer.api) = 7;
        TradeApiProbe::make_topic_flow(writer.api, 2, 4000000000u);
        TradeApiProbe::make_topic_flow(writer.api, 5, 12);
        TradeApiProbe::save_resume(writer.api);
        EXPECT_EQ(dir.read(), "20261123,  7\n    2,4000000000\n    5,        12\n");
        // A shorter text later cuts the file.
        TradeApiProbe::delete_topic_flows(writer.api);
        TradeApiProbe::make_topic_flow(writer.api, 3, 99);
        TradeApiProbe::save_resume(writer.api);
        EXPECT_EQ(dir.read(), "20261123,  7\n    3,        99\n");
        TradeApiProbe::make_topic_flow(writer.api, 2, 4000000000u);
        TradeApiProbe::make_topic_flow(writer.api, 5, 12);
        TradeApiProbe::save_resume(writer.api);
    }
    Reader reader(dir);
    EXPECT_EQ(reader.day(), "20261123");
    EXPECT_STREQ(TradeApiProbe::resume_day(reader.api), "20261123");
    EXPECT_EQ(TradeApiProbe::data_center_id(reader.api), 7);
    EXPECT_EQ(reader.start(2), 4000000000u);
    EXPECT_EQ(reader.start(3), 99u);
    EXPECT_EQ(reader.start(5), 12u);
    // Only resume type 1 takes the saved position.
    for (TE_RESUME_TYPE type : {TE_RESUME_FROM_START, TE_RESUME_FROM_NOW, TE_RESUME_NONE}) {
        Reader other(dir, type);
        EXPECT_EQ(other.start(2), 0u);
        EXPECT_EQ(other.day(), "20261123");
    }
}

TEST(TradeCon, BadFilesReadAsMuchAsMatchesAndNeverCrash) {
    TempDir dir;
    struct Case {
        const char* text;
        const char* day;
        int center;
        unsigned long p2, p3, p5;
    } cases[] = {
        {"garbage\n    2,        17\n", "", 0, 17, 0, 0},           // line 1 bad, the rest still read
        {"       0,  3\n    3,         5\n", "", 3, 0, 5, 0},        // day 0 leaves the day empty
        {"20250101,  1\nxx\n    5,         8\n\n    2,         9\n    3,1\n    2,77\n", "20250101", 1, 9, 1, 8},
        {"20250101,  1\n    2,         9\n    2,         4\n", "20250101", 1, 9, 0, 0},  // first match wins
        {"20250101,  1\n    9,         9\n", "20250101", 1, 0, 0, 0},  // unknown topic: kept, never used
        {"\n\n\n", "", 0, 0, 0, 0},
        {"20250101", "", 0, 0, 0, 0},
        {"\x01\xff\x00\x7f,,,\n\x00\x00", "", 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        dir.write(c.text);
        Reader reader(dir);
        EXPECT_EQ(reader.day(), c.day);
        EXPECT_EQ(TradeApiProbe::data_center_id(reader.api), c.center);
        EXPECT_EQ(reader.start(2), c.p2);
        EXPECT_EQ(reader.start(3), c.p3);
        EXPECT_EQ(reader.start(5), c.p5);
    }
    // A line far longer than the read buffer.
    dir.write("20250101,  1\n" + std::string(5000, '7') + "\n    2,         3\n");
    Reader longer(dir);
    EXPECT_EQ(longer.start(2), 3u);

    // Every prefix of a good file: a whole line reads back, a cut one may not.
    const std::string good = full_file(20261123, 2, 11, 22, 33);
    for (size_t cut = 0; cut <= good.size(); ++cut) {
        dir.write(good.substr(0, cut));
        Reader reader(dir);
        const size_t line_end[] = {13, 30, 47, 64};
        if (cut >= line_end[0]) {
            EXPECT_EQ(reader.day(), "20261123") << cut;
        }
        if (cut >= line_end[1]) {
            EXPECT_EQ(reader.start(2), 11u) << cut;
        }
        if (cut >= line_end[2]) {
            EXPECT_EQ(reader.start(3), 22u) << cut;
        }
        if (cut >= line_end[3]) {
            EXPECT_EQ(reader.start(5), 33u) << cut;
        }
    }
}

TEST(TradeCon, AnUnwritableDirectorySwitchesSavingOff) {
    Api::TradeApi api("/nonexistent/dir/for/trade", nullptr);
    TradeApiProbe::resume(api, 2) = TE_RESUME_FROM_SAVED;
    TradeApiProbe::read_resume(api);
    EXPECT_EQ(TradeApiProbe::resume_file(api), nullptr);
    EXPECT_EQ(TradeApiProbe::start_id(api, 2), 0u);
    TradeApiProbe::make_topic_flow(api, 2, 5);
    TradeApiProbe::save_resume(api);  // nothing to write to, and no crash
    TradeApiProbe::delete_topic_flows(api);
}

// A child process saves trade.con as fast as it can, all three positions
// equal to a counter and the number of topic lines changing between one and
// three, and is killed at a random instant. Whatever instant that was, the
// file must read back as one of the states the child saved whole.
TEST(TradeCon, AProcessKilledWhileSavingLeavesAFileThatReadsBack) {
    TempDir dir;
    std::mt19937 random(7);
    const int rounds = 60;
    unsigned long last = 0;
    for (int round = 0; round < rounds; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            TradeApi* api = new TradeApi(dir.path.c_str(), nullptr);
            TradeApiProbe::read_resume(*api);
            std::snprintf(TradeApiProbe::resume_day(*api), 9, "20261123");
            TradeApiProbe::data_center_id(*api) = 4;
            const int topics[] = {2, 3, 5};
            Network::QelcFlow* flows[3];
            for (int i = 0; i < 3; ++i) flows[i] = TradeApiProbe::make_topic_flow(*api, topics[i], 0);
            for (unsigned long k = last + 1;; ++k) {
                for (int i = 0; i < 3; ++i) {
                    const bool wanted = i == 0 || (k % 3) >= static_cast<unsigned long>(i);
                    TradeApiProbe::topic_flow(*api, topics[i]) = wanted ? flows[i] : nullptr;
                    flows[i]->clear(k);
                }
                TradeApiProbe::save_resume(*api);
            }
        }
        usleep(500 + random() % 5000);
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);

        // Each line is a whole line of one save, or blank.
        const std::string text = dir.read();
        if (text.empty() && last == 0) continue;  // killed before its first save
        std::istringstream lines(text);
        std::string line;
        ASSERT_TRUE(std::getline(lines, line)) << "round " << round << ": [" << text << "]";
        EXPECT_EQ(line, "20261123,  4") << round;
        unsigned long value = 0;
        int topic_lines = 0;
        while (std::getline(lines, line)) {
            if (line.find_first_not_of(' ') == std::string::npos) continue;
            unsigned short topic = 0;
            unsigned int position = 0;
            ASSERT_EQ(std::sscanf(line.c_str(), "%5hu,%10u", &topic, &position), 2) << "[" << text << "]";
            ASSERT_EQ(line.size(), 16u) << "[" << text << "]";
            if (topic_lines++ == 0) value = position;
            EXPECT_EQ(position, value) << "[" << text << "]";
        }
        ASSERT_GE(topic_lines, 1) << "[" << text << "]";
        EXPECT_GE(value, last);
        Reader reader(dir);
        EXPECT_EQ(reader.start(2), value);
        last = value;
    }
}

// IntlRtnDissemination: the front's positions overrule the client's, and a
// topic named there that has no flow gets one whose packets then reach the
// spi; positions then come from the flows, and trade.con gains the line.
TEST(TradeCon, TheFrontsPositionsMoveTheFlowsAndCreateMissingOnes) {
    TempDir dir;
    RecordingSpi spi;
    TradeApi api(dir.path.c_str(), nullptr);
    api.RegisterSpi(&spi);
    TradeApiProbe::resume(api, 2) = TE_RESUME_FROM_NOW;
    TradeApiProbe::read_resume(api);
    TradeApiProbe::make_topic_flow(api, 2, 0);
    std::snprintf(TradeApiProbe::trading_day(api), 9, "20261124");

    Frame frame(22785, 0, 'L', 1);
    const QelDisseminationField topics[] = {{2, 500}, {5, 70}, {9, 1}, {3, 4}};
    for (const QelDisseminationField& topic : topics) ASSERT_TRUE(frame.add(&QelDisseminationField::DESC, &topic));
    frame.feed(api);

    EXPECT_TRUE(spi.calls.empty());
    ASSERT_NE(TradeApiProbe::topic_flow(api, 2), nullptr);
    EXPECT_EQ(TradeApiProbe::topic_flow(api, 2)->get_count(), 500u);
    EXPECT_EQ(TradeApiProbe::resume(api, 2), TE_RESUME_FROM_SAVED);  // from now became from saved
    EXPECT_TRUE(TradeApiProbe::pending(api, 2));                       // it existed: untouched
    ASSERT_NE(TradeApiProbe::topic_flow(api, 5), nullptr);
    EXPECT_EQ(TradeApiProbe::topic_flow(api, 5)->get_count(), 70u);
    EXPECT_FALSE(TradeApiProbe::pending(api, 5));
    EXPECT_EQ(TradeApiProbe::topic_flow(api, 3)->get_count(), 4u);
    EXPECT_STREQ(TradeApiProbe::resume_day(api), "20261124");

    // A frame stored in the new flow reaches the spi through on_write.
    QelOrderField order;
    test::fill_record(&QelOrderField::DESC, &order, 1);
    Frame rtn(20482, 0, 'L', 5, 71);
    ASSERT_TRUE(rtn.add(&QelOrderField::DESC, &order));
    rtn.finish();
    Network::QelcFlow::Writer writer(TradeApiProbe::topic_flow(api, 5), false);
    writer.add_packet(reinterpret_cast<const Network::XmpPacket::Header*>(rtn.bytes), false, false);
    ASSERT_EQ(spi.calls.size(), 3u);
    EXPECT_EQ(spi.calls[1].name, "OnRtnOrder");
    EXPECT_EQ(spi.calls[0].topic, 5);
    EXPECT_EQ(spi.calls[0].sequence, 71);
    EXPECT_EQ(TradeApiProbe::topic_flow(api, 5)->get_count(), 71u);

    TradeApiProbe::save_resume(api);
    EXPECT_EQ(dir.read(), "20261124,  0\n    2,       500\n    3,         4\n    5,        71\n");
    TradeApiProbe::delete_topic_flows(api);
}

TEST(TradeCon, DisconnectionCodesAreMappedAndThePositionsSaved) {
    TempDir dir;
    RecordingSpi spi;
    TradeApi api(dir.path.c_str(), nullptr);
    api.RegisterSpi(&spi);
    TradeApiProbe::read_resume(api);
    TradeApiProbe::make_topic_flow(api, 3, 0);
    const int table[][2] = {{-11, 0x1001}, {-12, 0x1001}, {-13, 0x1002}, {-14, 0x2001}, {-23, 0x2002},
                            {-24, 0x2003}, {-16, 0x2004}, {-17, 0x2005}, {-19, 0x2006}, {-22, 0x2007},
                            {-25, 0x2008}, {-15, -15},    {-18, -18},    {-20, -20},    {-21, -21},
                            {0, 0},        {7, 7}};
    unsigned long position = 0;
    for (const auto& row : table) {
        spi.calls.clear();
        TradeApiProbe::pending(api, 3) = false;
        TradeApiProbe::topic_flow(api, 3)->clear(++position);
        TradeApiProbe::disconnect(api, row[0]);
        ASSERT_EQ(spi.calls.size(), 1u);
        EXPECT_EQ(spi.calls[0].name, "OnFrontDisconnected");
        EXPECT_EQ(spi.calls[0].topic, row[1]) << row[0];
        EXPECT_TRUE(TradeApiProbe::pending(api, 3));
        EXPECT_FALSE(TradeApiProbe::pending(api, 2) && TradeApiProbe::topic_flow(api, 2));
        EXPECT_FALSE(TradeApiProbe::logged_in(api));
        char expected[64];
        std::snprintf(expected, sizeof(expected), "       0,  0\n    3,%10lu\n", position);
        EXPECT_EQ(dir.read(), expected);
    }
    TradeApiProbe::delete_topic_flows(api);
}

}  // namespace
