// The front's queries, its topic flows resumed from any position, also after
// a restart of the front on its data directory, and each fault of a
// connection ending with the reason the client's channel gives it.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "front/exchange.h"
#include "front/records.h"
#include "tests/front/front_client.h"
#include "tests/support/temp_dir.h"

using namespace fronttest;
using test_support::TempDir;

namespace {

bool log_in(Client& c, const char* user, const char* password, int private_from, int public_from,
            const char* day = "") {
    if (!c.wait_ready()) return false;
    c.clear();
    c.login(user, password, 1, private_from, public_from, -2, day);
    if (c.wait_for(4098, 1) && c.of(4098)[0].error() == 0 && c.wait_for(22785, 1)) return true;
    std::string seen;
    for (const Got& g : c.all()) seen += std::to_string(g.packet) + " ";
    for (int r : c.get_reasons()) seen += "reason " + std::to_string(r) + " ";
    ADD_FAILURE() << "no login; got " << seen << "connections " << c.connected.load();
    return false;
}

// Local ids of the RtnOrder packets on a private topic, with their sequence numbers.
std::string private_orders(Client& c) {
    std::string out;
    for (const Got& g : c.all()) {
        QelOrderField o;
        if (g.subject == 2 && g.packet == 20482 && g.get(o))
            out += std::to_string(g.sequence) + ":" + o.OrderLocalID + o.OrderStatus + " ";
    }
    return out;
}

}  // namespace

// Queries answer from the front's state; a long answer is a chain of
// packets whose last alone says 'L'.
TEST(FrontQueries, AnswerFromStateInChains) {
    Front::Config config = quiet_config();
    config.instrument_count = 0;
    char error[256];
    for (int i = 0; i < 60; ++i) {
        std::string line = "qe" + std::to_string(2700 + i) + ",qe,0.5,3000,5000";
        ASSERT_TRUE(config.set("instrument", line.c_str(), error, sizeof(error))) << error;
    }
    Front::Server front(config);
    ASSERT_TRUE(front.start());
    Client a(front.get_port()), b(front.get_port());
    ASSERT_TRUE(log_in(a, "trader1", "pass1", 0, 0));
    ASSERT_TRUE(log_in(b, "trader2", "pass2", 0, 0));
    QelQryInstrumentField qi{};
    a.send(16399, 5, 1, qi);
    ASSERT_TRUE(wait_until([&] {
        std::vector<Got> v = a.of(16400);
        return !v.empty() && v.back().chain == 'L';
    }));
    std::vector<Got> chain = a.of(16400);
    ASSERT_GT(chain.size(), 1u);
    int records = 0;
    for (size_t i = 0; i < chain.size(); ++i) {
        EXPECT_EQ(chain[i].chain, i + 1 == chain.size() ? 'L' : 'C');
        EXPECT_EQ(chain[i].request, 5u);
        for (const auto& rec : chain[i].records) records += rec.first == QelRspInstrumentField::DESC.id;
    }
    EXPECT_EQ(records, 60);

    a.send(4101, 6, 1, order("trader1", "1", '0', 4000, 5, "qe2700"));
    b.send(4101, 7, 1, order("trader2", "1", '1', 4000, 2, "qe2700"));
    ASSERT_TRUE(b.wait_for(20481, 1, 2));
    QelQryOrderField qo{};
    a.send(16387, 8, 1, qo);
    QelQryClientPositionField qp{};
    a.send(16397, 9, 1, qp);
    QelQryPartAccountField qa{};
    a.send(16385, 10, 1, qa);
    ASSERT_TRUE(a.wait_for(16388, 1) && a.wait_for(16398, 1) && a.wait_for(16386, 1));
    QelOrderField o;
    ASSERT_TRUE(a.of(16388)[0].get(o));
    EXPECT_FALSE(a.of(16388)[0].get(o, 1)) << "only the participant's own orders";
    EXPECT_EQ(o.VolumeTraded, 2);
    EXPECT_EQ(o.OrderStatus, '1');
    QelRspClientPositionField p;
    bool found = false;
    for (int i = 0; a.of(16398)[0].get(p, i); ++i)
        if (p.PosiDirection == '2') {
            EXPECT_EQ(p.Position, 2);
            EXPECT_STREQ(p.ClientID, "C001");
            found = true;
        }
    EXPECT_TRUE(found);
    QelRspPartAccountField acc;
    ASSERT_TRUE(a.of(16386)[0].get(acc));
    EXPECT_STREQ(acc.AccountID, "P001");

    // Before a login a query is answered with the error alone.
    Client c(front.get_port());
    ASSERT_TRUE(c.wait_ready());
    c.send(16387, 11, 1, qo);
    ASSERT_TRUE(c.wait_for(16388, 1));
    EXPECT_EQ(c.of(16388)[0].error(), Front::ERROR_NOT_LOGGED_IN);
    EXPECT_EQ(c.of(16388)[0].records.size(), 1u);
}

// A login names the position of each topic: from there on every packet
// comes once and in order; -1 is from now; another trading day restarts at 0.
// With a data directory the flows outlive the front.
TEST(FrontTopics, ResumeFromAnyPositionAcrossRestarts) {
    TempDir dir;
    Front::Config config = quiet_config();
    strcpy(config.data_dir, dir.path.c_str());
    unsigned long public_count = 0;
    {
        Front::Server front(config);
        ASSERT_TRUE(front.start());
        Client a(front.get_port());
        ASSERT_TRUE(log_in(a, "trader1", "pass1", 0, 0));
        for (int i = 1; i <= 5; ++i) a.send(4101, unsigned(i), 1, order("trader1", std::to_string(i).c_str(), '0', 4000, 1));
        ASSERT_TRUE(a.wait_for(20482, 5, 2));
        EXPECT_EQ(private_orders(a), "1:13 2:23 3:33 4:43 5:53 ");
        ASSERT_TRUE(wait_until([&] { return a.topic_count(3) > 0; }));
        public_count = a.topic_count(3);
    }
    Front::Server front(config);
    ASSERT_TRUE(front.start());
    {
        Client b(front.get_port());
        ASSERT_TRUE(log_in(b, "trader1", "pass1", 2, -1));
        ASSERT_TRUE(b.wait_for(20482, 3, 2));
        EXPECT_EQ(private_orders(b), "3:33 4:43 5:53 ");
        QelDisseminationField d;
        ASSERT_TRUE(b.of(22785)[0].get(d, 1));
        EXPECT_EQ(d.SequenceSeries, 3);
        EXPECT_EQ(unsigned(d.SequenceNo), public_count) << "-1 is the end of the flow";

        // Numbers go on from the flow's end after the restart.
        b.send(4101, 9, 1, order("trader1", "6", '0', 4000, 1));
        ASSERT_TRUE(b.wait_for(20482, 4, 2));
        EXPECT_EQ(private_orders(b), "3:33 4:43 5:53 6:63 ");
        QelOrderField o;
        ASSERT_TRUE(b.of(20482, 2).back().get(o));
        EXPECT_STRNE(o.OrderSysID, "1");
    }
    Client c(front.get_port());
    ASSERT_TRUE(log_in(c, "trader1", "pass1", 99, 0));
    QelDisseminationField d;
    ASSERT_TRUE(c.of(22785)[0].get(d));
    EXPECT_EQ(d.SequenceNo, 6) << "beyond the end gives the end";
    Client e(front.get_port());
    ASSERT_TRUE(log_in(e, "trader1", "pass1", 3, 0, "20260102"));
    ASSERT_TRUE(e.of(22785)[0].get(d));
    EXPECT_EQ(d.SequenceNo, 0) << "another day's position";
    ASSERT_TRUE(e.wait_for(20482, 6, 2));
}

namespace {

// Runs a faulty front and a client that logs in and orders until the
// connection ends; returns the reasons the client saw.
std::vector<int> ends_with(const Front::Faults& faults, unsigned int heartbeat = 0) {
    Front::Config config = quiet_config();
    config.faults = faults;
    Front::Server front(config);
    EXPECT_TRUE(front.start());
    Client c(front.get_port(), heartbeat);
    EXPECT_TRUE(c.wait_ready());
    c.login("trader1", "pass1", 1);
    // Orders until the fault strikes: it comes at a frame count.
    for (int i = 1; i <= 1000 && c.get_reasons().empty(); ++i) {
        c.send(4101, unsigned(i), 1, order("trader1", std::to_string(100 + i).c_str(), '0', 4000, 1));
        usleep(10000);
    }
    wait_until([&] { return !c.get_reasons().empty(); });
    return c.get_reasons();
}

}  // namespace

TEST(FrontFaults, EachEndsWithItsReason) {
    Front::Faults f{};
    f.corrupt_at = 3;
    EXPECT_EQ(ends_with(f).at(0), Network::REASON_READ_FAILED);
    f = Front::Faults{};
    f.oversize_at = 3;
    EXPECT_EQ(ends_with(f).at(0), Network::REASON_LENGTH);
    f = Front::Faults{};
    f.drop_after = 4;
    // A close with requests still unread resets the connection, so the
    // client reads an error rather than the end; both mean the front went.
    int dropped = ends_with(f).at(0);
    EXPECT_TRUE(dropped == Network::REASON_PEER_CLOSED || dropped == Network::REASON_READ_FAILED) << dropped;
    f = Front::Faults{};
    f.silent_after = 3;
    EXPECT_EQ(ends_with(f, 4).at(0), Network::REASON_SILENT);
}
