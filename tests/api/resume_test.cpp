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
#include <string>

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "base/measure.h"
#include "network/qelcsession.h"
#include "tests/api/dispatch_helpers.h"
#include "tests/api/test_front.h"
#include "tests/parallel/reactor_helpers.h"

using Api::TradeApi;
using Api::TradeApiProbe;
using test::Frame;
using test::RecordingSpi;

namespace {

// A fresh directory and its trade.con.
struct TempDir {
    std::string file() const { return path + "trade.con"; }
    void write(const std::string& text) const { std::ofstream(file(), std::ios::binary) << text; }
    std::string read() const { return test_front::read_file(file()); }
    std::string path = test_front::temp_dir("resume_");
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

// ---- through the wire -------------------------------------------------------

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int RETURNS = 2000;
#else
const int RETURNS = 10000;
#endif

using test_reactor::wait_until;

const unsigned int SUBSCRIBE_REQUEST = 7937;
const unsigned int SUBSCRIBE_REPLY = 7938;
const unsigned int DISSEMINATION = 22785;
const unsigned int RTN_ORDER = 20482;

// A front that keeps numbered order returns on each topic, as an exchange
// does: a login or a subscription names a position (or -1, from now) and
// the front answers with the position it takes, then replays from there. A
// login that names another day than the front's starts every topic at 0.
class TopicFront : public test_front::Front {
public:
    ~TopicFront() { stop(); }

    // Adds count returns to a topic; a connection that has the topic open
    // gets them at once.
    void publish(int topic, int count) {
        run([&] {
            for (int i = 0; i < count; ++i) {
                const unsigned int number = ++published[topic];
                if (opened[topic] && opened[topic] == links.back().get()) append(topic, number);
            }
        });
    }
    // The positions that each login asked for, in order.
    std::vector<std::map<int, int>> asked() {
        std::lock_guard<std::mutex> lock(asked_mutex);
        return logins;
    }
    std::vector<std::string> login_days() {
        std::lock_guard<std::mutex> lock(asked_mutex);
        return days;
    }
    std::string day = "20260105";  // as the login reply says

protected:
    void on_frame(Link* link, const char* data, unsigned short size) override {
        Front::on_frame(link, data, size);
        if (link != links.back().get()) return;
        Network::QelcPacket::Header header;
        Network::QelcPacket::from_stream(&header, data + 6);
        Network::QelcPacket::Iterator records(&header, data + 26);
        if (header.PacketId == test_front::LOGIN_REQUEST && answer_login.load()) {
            std::map<int, int> positions;
            std::string login_day;
            for (unsigned short id; (id = records.next()) != Network::QelcPacket::END;) {
                if (id == QelReqUserLoginField::DESC.id) {
                    QelReqUserLoginField login;
                    records.get_field(&login, &QelReqUserLoginField::DESC, false);
                    login_day = login.TradingDay;
                } else if (id == QelDisseminationField::DESC.id) {
                    QelDisseminationField topic;
                    records.get_field(&topic, &QelDisseminationField::DESC, false);
                    positions[topic.SequenceSeries] = topic.SequenceNo;
                }
            }
            {
                std::lock_guard<std::mutex> lock(asked_mutex);
                logins.push_back(positions);
                days.push_back(login_day);
            }
            if (!login_day.empty() && login_day != day)
                for (auto& topic : positions) topic.second = 0;
            open_topics(link, positions);
        } else if (header.PacketId == SUBSCRIBE_REQUEST) {
            QelDisseminationField topic = {};
            if (records.next() == QelDisseminationField::DESC.id)
                records.get_field(&topic, &QelDisseminationField::DESC, false);
            QelRspInfoField info = {};
            write_packet(1, SUBSCRIBE_REPLY, header.RequestId,
                         {{&QelRspInfoField::DESC, &info, nullptr}, {&QelDisseminationField::DESC, &topic, nullptr}},
                         'L');
            open_topics(link, {{topic.SequenceSeries, topic.SequenceNo}});
        }
    }

    // The dissemination goes out on the reply flow, which the channel sends
    // ahead of the topic flows, so the client has the flows open before the
    // first replayed return reaches them.
    void open_topics(Link* link, const std::map<int, int>& positions) {
        std::vector<QelDisseminationField> answer;
        for (const auto& asked_topic : positions) {
            const int topic = asked_topic.first;
            if (down_index(static_cast<unsigned short>(topic)) < 0) continue;
            unsigned int position = asked_topic.second < 0 ? published[topic] : static_cast<unsigned int>(asked_topic.second);
            if (position > published[topic]) position = published[topic];
            answer.push_back({static_cast<short>(topic), static_cast<int>(position)});
        }
        std::vector<test_front::Record> records;
        for (const QelDisseminationField& topic : answer) records.push_back({&QelDisseminationField::DESC, &topic, nullptr});
        write_packet(1, DISSEMINATION, 0, records, 'L');
        for (const QelDisseminationField& topic : answer) {
            const int index = down_index(static_cast<unsigned short>(topic.SequenceSeries));
            Network::QelcFlow* flow = new Network::QelcFlow(static_cast<unsigned short>(topic.SequenceSeries), 0x100000,
                                                            0x100000, nullptr, nullptr, topic.SequenceNo, nullptr,
                                                            false, false);
            link->client->publish(flow, topic.SequenceNo, nullptr, nullptr, nullptr);
            link->down[index].reset(flow);
            opened[topic.SequenceSeries] = link;
            for (unsigned int n = topic.SequenceNo + 1; n <= published[topic.SequenceSeries]; ++n)
                append(topic.SequenceSeries, n);
        }
    }

    void append(int topic, unsigned int number) {
        QelOrderField order = {};
        std::snprintf(order.OrderSysID, sizeof(order.OrderSysID), "%u", number);
        order.VolumeTotalOriginal = static_cast<int>(number);
        write_packet(static_cast<unsigned short>(topic), RTN_ORDER, 0, {{&QelOrderField::DESC, &order, nullptr}}, 'L');
    }

    unsigned int published[6] = {};  // reactor thread
    Link* opened[6] = {};             // the connection each topic was opened on
    std::mutex asked_mutex;
    std::vector<std::map<int, int>> logins;
    std::vector<std::string> days;
};

// Counts the connection events and keeps the number of every order return
// of each topic, with the topic its package bracket named.
class WireSpi : public CTulmQelcTraderSpi {
public:
    std::atomic<int> connects{0};
    std::atomic<int> logins{0};
    std::atomic<int> disconnects{0};

    void OnFrontConnected() override { connects.fetch_add(1); }
    void OnFrontDisconnected(int reason) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            reasons.push_back(reason);
        }
        disconnects.fetch_add(1);
    }
    void OnHeartBeatWarning(int seconds) override {
        std::lock_guard<std::mutex> lock(mutex);
        warnings.push_back(seconds);
        warned_before_disconnect.push_back(disconnects.load());
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info == nullptr || info->ErrorID == 0) logins.fetch_add(1);
    }
    void OnPackageStart(int topic, int) override { current_topic = topic; }
    void OnRtnOrder(CTulmQelcOrderField* order) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            received[current_topic].push_back(static_cast<unsigned int>(std::strtoul(order->OrderSysID, nullptr, 10)));
        }
        if (query_on_order.load()) {
            // A request from inside a callback, on the reactor thread.
            CTulmQelcQryOrderField query = {};
            std::strcpy(query.OrderSysID, order->OrderSysID);
            const int result = api->ReqQryOrder(&query, order->VolumeTotalOriginal);
            std::lock_guard<std::mutex> lock(mutex);
            query_results.push_back(result);
        }
    }
    std::vector<int> get(std::vector<int>& list) {
        std::lock_guard<std::mutex> lock(mutex);
        return list;
    }
    TradeApi* api = nullptr;  // set before Init
    std::atomic<bool> query_on_order{false};
    std::vector<int> reasons;
    std::vector<int> warnings;
    std::vector<int> warned_before_disconnect;  // disconnections seen at each warning
    std::vector<int> query_results;
    std::vector<unsigned int> numbers(int topic) {
        std::lock_guard<std::mutex> lock(mutex);
        return received[topic];
    }
    size_t count(int topic) { return numbers(topic).size(); }

private:
    int current_topic = 0;  // reactor thread
    std::mutex mutex;
    std::map<int, std::vector<unsigned int>> received;
};

// A trader on the front, with short reconnection periods.
class Client {
public:
    Client(const TempDir& dir, TopicFront& front, TE_RESUME_TYPE private_type, TE_RESUME_TYPE public_type = TE_RESUME_NONE,
           unsigned int heartbeat = 10)
        : api(static_cast<TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(dir.path.c_str()))) {
        spi.api = api;
        api->RegisterSpi(&spi);
        api->SetHeartbeatTimeout(heartbeat);
        api->SubscribePrivateTopic(private_type);
        api->SubscribePublicTopic(public_type);
        api->RegisterFront(front.address().c_str());
        api->Init();
        test_reactor::run_on(*TradeApiProbe::reactor(*api), [&] {
            Network::QelcBondClientSession* session = TradeApiProbe::session(*api);
            for (int i = 0; i < Network::QelcBondClientSession::MAX_FRONTS && session->get_child(i); ++i)
                session->get_child(i)->set_periods(Network::QelcClientSession::HEARTBEAT_PERIOD, 50000,
                                                   Network::QelcClientSession::BUFFER_PERIOD);
        });
    }
    ~Client() {
        api->Release();
        api->Join();
    }
    // Waits for a connection that has not been logged in on yet and logs
    // in on it; false when none came.
    bool login() {
        for (int attempt = 0; attempt < 50; ++attempt) {
            if (!wait_until([&] { return spi.connects.load() > used && spi.connects.load() > spi.disconnects.load(); }))
                return false;
            const int connection = spi.connects.load();
            const int done = spi.logins.load();
            CTulmQelcReqUserLoginField field = {};
            std::strcpy(field.UserID, "U1");
            std::strcpy(field.ParticipantID, "P1");
            std::strcpy(field.Password, "secret");
            std::strcpy(field.UserProductInfo, "resume test");
            TradeApiProbe::forget_last_login(*api);
            if (api->ReqUserLogin(&field, 1) != 0) {
                usleep(10000);
                continue;
            }
            wait_until([&] { return spi.logins.load() > done || spi.disconnects.load() >= connection; });
            if (spi.logins.load() > done) {
                used = connection;
                return true;
            }
        }
        return false;
    }
    int used = 0;  // the connections logged in on so far
    WireSpi spi;
    TradeApi* api;
};

std::vector<unsigned int> range(unsigned int first, unsigned int last) {
    std::vector<unsigned int> out;
    for (unsigned int n = first; n <= last; ++n) out.push_back(n);
    return out;
}

// Publishes `total` returns in random chunks, dropping the connection at
// random points and logging in again each time.
void publish_with_drops(TopicFront& front, Client& client, int total, int drops, std::mt19937& random) {
    int done = 0;
    int dropped = 0;
    while (done < total) {
        const int chunk = std::min(total - done, static_cast<int>(1 + random() % (total / 4)));
        front.publish(2, chunk);
        done += chunk;
        if (dropped < drops && random() % 2 == 0) {
            ++dropped;
            front.drop();
            ASSERT_TRUE(client.login());
        }
    }
}

// For each resume type: numbered returns across dropped connections, then
// across a destroyed and recreated trader that keeps trade.con.
void run_resume_type(TE_RESUME_TYPE type) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("type " + std::to_string(type) + " seed " + std::to_string(seed));
    std::mt19937 random(seed);
    TempDir dir;
    TopicFront front;
    ASSERT_TRUE(front.is_open());
    const unsigned int before = 100;  // published before the first login
    front.publish(2, before);
    const unsigned int first = type == TE_RESUME_FROM_NOW ? before + 1 : 1;
    {
        Client client(dir, front, type);
        ASSERT_TRUE(client.login());
        publish_with_drops(front, client, RETURNS, 3, random);
        const unsigned int last = before + RETURNS;
        ASSERT_TRUE(wait_until([&] { return client.spi.count(2) >= last - first + 1; }));
        EXPECT_TRUE(client.spi.numbers(2) == range(first, last));
        // Every login after the first asked for what had arrived by then,
        // never for "from now" again.
        const auto asked = front.asked();
        for (size_t i = 1; i < asked.size(); ++i) EXPECT_GE(asked[i].at(2), 0);
    }
    // While no trader runs, more is published; the next one resumes by its type.
    front.publish(2, 50);
    const unsigned int last = before + RETURNS + 50;
    {
        Client client(dir, front, type);
        ASSERT_TRUE(client.login());
        front.publish(2, 20);
        switch (type) {
        case TE_RESUME_FROM_SAVED:
            ASSERT_TRUE(wait_until([&] { return client.spi.count(2) >= 70; }));
            EXPECT_TRUE(client.spi.numbers(2) == range(before + RETURNS + 1, last + 20));
            break;
        case TE_RESUME_FROM_START:
            ASSERT_TRUE(wait_until([&] { return client.spi.count(2) >= last + 20; }));
            EXPECT_TRUE(client.spi.numbers(2) == range(1, last + 20));
            break;
        default:
            ASSERT_TRUE(wait_until([&] { return client.spi.count(2) >= 20; }));
            EXPECT_TRUE(client.spi.numbers(2) == range(last + 1, last + 20));
            break;
        }
        EXPECT_EQ(front.asked().back().at(2), type == TE_RESUME_FROM_SAVED ? static_cast<int>(before + RETURNS)
                                                : type == TE_RESUME_FROM_START ? 0 : -1);
    }
}

TEST(ResumeWire, FromSavedDeliversEveryReturnOnceAcrossDropsAndRestarts) { run_resume_type(TE_RESUME_FROM_SAVED); }
TEST(ResumeWire, FromStartDeliversEveryReturnOnceAcrossDropsAndAgainAfterARestart) {
    run_resume_type(TE_RESUME_FROM_START);
}
TEST(ResumeWire, FromNowSkipsThePastOnceThenResumesWhereItStood) { run_resume_type(TE_RESUME_FROM_NOW); }

// A reconnection in mid-stream with the private topic resumed from saved,
// the public from now and the user topic taken by ReqSubscribeTopic after
// the login: the next login carries all three where they stood.
TEST(ResumeWire, TheReloginCarriesEveryTopicOfTheConnectionBefore) {
    TempDir dir;
    TopicFront front;
    front.publish(2, 30);
    front.publish(3, 40);
    front.publish(5, 50);
    Client client(dir, front, TE_RESUME_FROM_SAVED, TE_RESUME_FROM_NOW);
    ASSERT_TRUE(client.login());
    ASSERT_EQ(front.asked().size(), 1u);
    EXPECT_EQ(front.asked()[0], (std::map<int, int>{{2, 0}, {3, -1}}));
    CTulmQelcDisseminationField user = {5, 10};
    ASSERT_EQ(client.api->ReqSubscribeTopic(&user, 2), 0);
    ASSERT_TRUE(wait_until([&] { return client.spi.count(2) == 30 && client.spi.count(5) == 40; }));
    front.publish(3, 5);
    front.publish(2, 5);
    ASSERT_TRUE(wait_until([&] { return client.spi.count(2) == 35 && client.spi.count(3) == 5; }))
        << client.spi.count(2) << " " << client.spi.count(3) << " " << client.spi.count(5) << " first public "
        << client.spi.numbers(3).front() << " last " << client.spi.numbers(3).back();
    front.drop();
    ASSERT_TRUE(client.login());
    ASSERT_EQ(front.asked().size(), 2u);
    EXPECT_EQ(front.asked()[1], (std::map<int, int>{{2, 35}, {3, 45}, {5, 50}}));
    EXPECT_EQ(front.login_days()[1], "20260105");
    front.publish(5, 1);
    ASSERT_TRUE(wait_until([&] { return client.spi.count(5) == 41; }));
    EXPECT_TRUE(client.spi.numbers(5) == range(11, 51));
    EXPECT_TRUE(client.spi.numbers(3) == range(41, 45));
    EXPECT_TRUE(client.spi.numbers(2) == range(1, 35));
}

// Yesterday's trade.con: the login carries yesterday's day and positions,
// the front answers with the new day's, the topic replays from its start,
// and the file then holds the new day.
TEST(ResumeWire, ANewTradingDayReplaysTheNewDaysTopicInFull) {
    TempDir dir;
    dir.write(full_file(20260104, 3, 500, 0, 0));
    TopicFront front;
    front.publish(2, 25);
    {
        Client client(dir, front, TE_RESUME_FROM_SAVED);
        EXPECT_STREQ(client.api->GetTradingDay(), "20260104");
        ASSERT_TRUE(client.login());
        EXPECT_EQ(front.login_days()[0], "20260104");
        EXPECT_EQ(front.asked()[0], (std::map<int, int>{{2, 500}}));
        ASSERT_TRUE(wait_until([&] { return client.spi.count(2) == 25; }));
        EXPECT_TRUE(client.spi.numbers(2) == range(1, 25));
        EXPECT_STREQ(client.api->GetTradingDay(), "20260105");
    }
    // The login reply gave the data centre (0) along with the day.
    EXPECT_EQ(dir.read(), "20260105,  0\n    2,        25\n");
}

// Callbacks run with no lock held: each return asks a query from inside
// OnRtnOrder, and every query reaches the front. A dropped connection
// reaches the application as 0x1001.
TEST(ResumeWire, ACallbackMaySendRequestsAndADropIsReportedAs0x1001) {
    TempDir dir;
    TopicFront front;
    front.limits.query_per_second = 0;
    front.limits.query_on_way = 0;
    Client client(dir, front, TE_RESUME_FROM_START);
    ASSERT_TRUE(client.login());
    client.spi.query_on_order.store(true);
    front.publish(2, 20);
    ASSERT_TRUE(wait_until([&] { return front.packets(16387).size() == 20; }));
    EXPECT_EQ(client.spi.get(client.spi.query_results), std::vector<int>(20, 0));
    client.spi.query_on_order.store(false);
    front.drop();
    ASSERT_TRUE(wait_until([&] { return client.spi.disconnects.load() == 1; }));
    EXPECT_EQ(client.spi.get(client.spi.reasons), std::vector<int>{0x1001});
}

// A heartbeat timeout of 4 seconds gives warnings after 2 seconds of
// silence: the front's thread is held for 3.5 seconds, so at least one
// warning comes, of 2 or 3 seconds, before any disconnection.
TEST(ResumeWire, HeartbeatWarningsFollowTheTimeoutInForce) {
    TempDir dir;
    TopicFront front;
    Client client(dir, front, TE_RESUME_NONE, TE_RESUME_NONE, 4);
    ASSERT_TRUE(wait_until([&] { return client.spi.connects.load() == 1; }));
    front.run([] { usleep(3500000); });
    ASSERT_TRUE(wait_until([&] { return !client.spi.get(client.spi.warnings).empty(); }));
    const std::vector<int> warnings = client.spi.get(client.spi.warnings);
    EXPECT_GE(warnings[0], 2);
    EXPECT_LE(warnings[0], 3);
    EXPECT_EQ(client.spi.get(client.spi.warned_before_disconnect)[0], 0);
}

}  // namespace
