// Heartbeat warnings follow the heartbeat timeout in force on the
// connection: the one the front announces, once it has come in, and not the
// trader's own setting.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "api/tradeapi.h"
#include "tests/api/dispatch_helpers.h"
#include "tests/api/test_front.h"

namespace {

using Api::TradeApi;
using Api::TradeApiProbe;
using test_front::wait_until;

// A front that can announce a heartbeat timeout on its latest connection.
class AnnouncingFront : public test_front::Front {
public:
    ~AnnouncingFront() { stop(); }
    unsigned int timeout() {
        unsigned int seconds = 0;
        run([&] { seconds = links.empty() ? 0 : links.back()->client->get_heartbeat_timeout(); });
        return seconds;
    }
    void announce(unsigned int seconds) {
        run([&] { links.back()->client->set_heartbeat_timeout(seconds); });
    }
};

class WarningSpi : public CTulmQelcTraderSpi {
public:
    std::atomic<int> connects{0}, disconnects{0};
    void OnFrontConnected() override { connects.fetch_add(1); }
    void OnFrontDisconnected(int) override { disconnects.fetch_add(1); }
    void OnHeartBeatWarning(int seconds) override {
        std::lock_guard<std::mutex> lock(mutex);
        warnings.push_back({seconds, disconnects.load()});
    }
    struct Warning {
        int seconds, disconnects_before;
    };
    std::vector<Warning> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return warnings;
    }

private:
    std::mutex mutex;
    std::vector<Warning> warnings;
};

// A trader with its own heartbeat setting on a front that announces
// another one once the two ends agree on the trader's. Returns when the
// trader's session has taken the front's value over.
class Trader {
public:
    Trader(AnnouncingFront& front, unsigned int own, unsigned int announced)
        : dir(test_front::temp_dir("heartbeat_")),
          api(static_cast<TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(dir.c_str()))) {
        api->RegisterSpi(&spi);
        api->SetHeartbeatTimeout(own);
        api->RegisterFront(front.address().c_str());
        api->Init();
        // The front first takes over the trader's announcement, so that its
        // own one comes last and is the one in force.
        EXPECT_TRUE(wait_until([&] { return spi.connects.load() == 1 && front.timeout() == own; }));
        front.announce(announced);
        EXPECT_TRUE(wait_until([&] { return session_timeout() == announced; }));
    }
    ~Trader() {
        api->Release();
        api->Join();
    }
    // The timeout of the trader's session and of its channel, once equal.
    unsigned int session_timeout() {
        unsigned int seconds = 0;
        test_reactor::run_on(*TradeApiProbe::reactor(*api), [&] {
            Network::QelcClientSession* current = TradeApiProbe::session(*api)->get_current();
            if (current->get_heartbeat_timeout() == current->get_client_channel()->get_heartbeat_timeout())
                seconds = current->get_heartbeat_timeout();
        });
        return seconds;
    }

    std::string dir;
    TradeApi* api;
    WarningSpi spi;
};

// The trader's own 10 seconds would warn only after 5 seconds of silence;
// the front announces 4, so 3.5 seconds of silence give a warning of 2 or
// 3 seconds, and no disconnection.
TEST(HeartbeatWarning, FollowsAShorterTimeoutTheFrontAnnounces) {
    AnnouncingFront front;
    Trader trader(front, 10, 4);
    front.run([] { usleep(3500000); });
    ASSERT_TRUE(wait_until([&] { return !trader.spi.get().empty(); }, 5000));
    const WarningSpi::Warning first = trader.spi.get()[0];
    EXPECT_GE(first.seconds, 2);
    EXPECT_LE(first.seconds, 3);
    EXPECT_EQ(first.disconnects_before, 0);
}

// The trader's own 4 seconds would warn after 2 seconds of silence; the
// front announces 16, which puts the warning at 8 seconds and spaces the
// front's heartbeats 5 seconds apart: silences of up to 5 seconds give none.
TEST(HeartbeatWarning, FollowsALongerTimeoutTheFrontAnnounces) {
    AnnouncingFront front;
    Trader trader(front, 4, 16);
    usleep(6000000);  // at least one whole gap between the front's heartbeats
    EXPECT_TRUE(trader.spi.get().empty());
    EXPECT_EQ(trader.spi.disconnects.load(), 0);
}

}  // namespace
