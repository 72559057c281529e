// Configuration, start and stop of the trader: Init against fronts that
// refuse, come up late, or are silent name servers; Release from an
// application thread and from the reactor thread; Join.
#include "api/tradeapi.h"
#include "parallel/fdreactor.h"
#include "tests/api/test_front.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using test_front::wait_until;

std::string temp_dir() { return test_front::temp_dir("tradeapi_"); }
using test_front::thread_count;

// Records the connection callbacks in order.
class Spy : public CTulmQelcTraderSpi {
public:
    void OnFrontConnected() override { add("connected"); }
    void OnFrontDisconnected(int reason) override { add("disconnected"); }
    void OnHeartBeatWarning(int seconds) override { add("warning"); }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    void add(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }

private:
    std::mutex mutex;
    std::vector<std::string> events;
};

// No warning comes before the first connection.
void expect_no_early_warning(Spy& spy) {
    for (const std::string& event : spy.get()) {
        if (event == "connected") return;
        EXPECT_NE(event, "warning");
    }
}

std::string address(int index) { return "tcp://127.0.0.1:" + std::to_string(17000 + index); }

TEST(TradeApi, HeartbeatTimeoutIsClampedTo4Through181) {
    Api::TradeApi api("./", nullptr);
    EXPECT_EQ(api.get_heartbeat_timeout(), 10u);
    const unsigned int cases[][2] = {{0, 4}, {3, 4}, {4, 4}, {60, 60}, {181, 181}, {182, 181}, {0xFFFFFFFFu, 181}};
    for (auto& c : cases) {
        EXPECT_EQ(api.SetHeartbeatTimeout(c[0]), 0);
        EXPECT_EQ(api.get_heartbeat_timeout(), c[1]) << "given " << c[0];
    }
}

// The table touched last wins; a full one refuses with -8 and keeps its entries.
TEST(TradeApi, AddressTables) {
    Api::TradeApi api("./", nullptr);
    // Address mode, name servers, fronts.
    auto state = [&] {
        return std::make_tuple(api.get_address_mode(), api.get_name_server_count(), api.get_front_count());
    };
    EXPECT_EQ(state(), std::make_tuple('1', 0, 0));
    ASSERT_EQ(api.RegisterNameServer("tcp://127.0.0.1:18001"), 0);
    EXPECT_EQ(state(), std::make_tuple('1', 1, 0));  // name servers leave the mode alone
    ASSERT_EQ(api.RegisterFront("tcp://127.0.0.1:17001"), 0);
    EXPECT_EQ(state(), std::make_tuple('0', 0, 1));
    for (int i = 0; i < 16; ++i) ASSERT_EQ(api.RegisterNameServer(address(i).c_str()), 0);
    EXPECT_EQ(api.RegisterNameServer(address(16).c_str()), -8);
    EXPECT_EQ(state(), std::make_tuple('0', 16, 0));
    EXPECT_STREQ(api.get_name_server(15), address(15).c_str());
    for (int i = 0; i < 64; ++i) ASSERT_EQ(api.RegisterFront(address(i).c_str()), 0) << i;
    EXPECT_EQ(api.RegisterFront(address(64).c_str()), -8);
    EXPECT_EQ(state(), std::make_tuple('0', 0, 64));
    EXPECT_STREQ(api.get_front(63), address(63).c_str());
}

TEST(TradeApi, AddressesAreCutTo63CharactersAndTheFlowPathTo255) {
    Api::TradeApi api("./", nullptr);
    std::string long_address = "tcp://" + std::string(70, 'a');
    ASSERT_EQ(api.RegisterFront(long_address.c_str()), 0);
    EXPECT_EQ(std::string(api.get_front(0)), long_address.substr(0, 63));
    std::string exact(63, 'b');
    ASSERT_EQ(api.RegisterNameServer(exact.c_str()), 0);
    EXPECT_EQ(std::string(api.get_name_server(0)), exact);
    std::string long_path(300, 'p');
    Api::TradeApi created(long_path.c_str(), nullptr);
    EXPECT_EQ(std::string(created.get_flow_path()), long_path.substr(0, 255));
}

TEST(TradeApi, ConfigurationIsRefusedAfterInit) {
    test_reactor::Running<Parallel::FdReactor> reactor;
    auto* api = new Api::TradeApi(temp_dir().c_str(), reactor.reactor.get());
    ASSERT_EQ(api->SubscribePrivateTopic(TE_RESUME_FROM_SAVED), 0);
    ASSERT_EQ(api->RegisterFront("tcp://127.0.0.1:17001"), 0);
    EXPECT_EQ(api->Release(), -9);
    ASSERT_EQ(api->Init(), 0);
    EXPECT_EQ(api->Init(), -5);
    EXPECT_EQ(api->RegisterFront("tcp://127.0.0.1:17002"), -10);
    EXPECT_EQ(api->RegisterNameServer("tcp://127.0.0.1:18001"), -10);
    EXPECT_EQ(api->SubscribePrivateTopic(TE_RESUME_FROM_NOW), -10);
    EXPECT_EQ(api->SubscribePublicTopic(TE_RESUME_FROM_NOW), -10);
    EXPECT_EQ(api->SubscribeUserTopic(TE_RESUME_FROM_NOW), -10);
    EXPECT_EQ(api->SetHeartbeatTimeout(30), -10);
    EXPECT_EQ(api->get_front_count(), 1);
    EXPECT_EQ(api->get_private_resume(), TE_RESUME_FROM_SAVED);
    EXPECT_EQ(api->get_public_resume(), TE_RESUME_NONE);
    EXPECT_EQ(api->get_heartbeat_timeout(), 10u);
    EXPECT_EQ(api->Release(), 0);
    EXPECT_EQ(api->Release(), -5);
    EXPECT_EQ(api->Join(), 0);
}

// Release refuses before Init and sets no sign: Join must not wait for it.
TEST(TradeApi, JoinFreesATraderThatNeverStarted) {
    auto* api = new Api::TradeApi(temp_dir().c_str(), nullptr);
    EXPECT_EQ(api->Release(), -9);
    EXPECT_EQ(api->Join(), 0);
}

// Two Inits at once: one starts the trader, the other gets -5; nothing built twice.
TEST(TradeApi, RacingInitsStartTheTraderOnce) {
    auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
    int results[2] = {1, 1};
    std::thread first([&] { results[0] = api->Init(); });
    std::thread second([&] { results[1] = api->Init(); });
    first.join();
    second.join();
    EXPECT_EQ(results[0] + results[1], -5);
    EXPECT_EQ(api->Release(), 0);
    EXPECT_EQ(api->Join(), 0);
}

TEST(TradeApiStart, NoAddressNeverConnectsAndASecondInitChangesNothing) {
    int threads = thread_count();
    auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
    Spy spy;
    api->RegisterSpi(&spy);
    EXPECT_EQ(api->Init(), 0);
    EXPECT_TRUE(api->is_started());
    EXPECT_EQ(api->Init(), -5);
    EXPECT_EQ(thread_count(), threads + 1);
    EXPECT_EQ(api->ReqOrderInsert(nullptr, 1), -1);
    EXPECT_EQ(api->Release(), 0);
    EXPECT_EQ(thread_count(), threads);  // the reactor's thread is gone when Release returns
    EXPECT_EQ(api->Release(), -5);
    EXPECT_EQ(api->Join(), 0);
    EXPECT_TRUE(spy.get().empty());
}

// Every front refuses at first; one comes up on its port later, and the
// trader finds it by itself. Entries without a port are skipped, and a
// host name resolves.
TEST(TradeApiStart, RefusingFrontsThenOneComesUp) {
    test_front::RefusingPort refusing, late;
    auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
    Spy spy;
    api->RegisterSpi(&spy);
    ASSERT_EQ(api->RegisterFront(refusing.address().c_str()), 0);
    ASSERT_EQ(api->RegisterFront("tcp://127.0.0.1"), 0);
    ASSERT_EQ(api->RegisterFront(("tcp://localhost:" + std::to_string(late.port)).c_str()), 0);
    ASSERT_EQ(api->Init(), 0);
    Base::Measure::sleep(300);
    late.release();
    {
        test_front::Front front(late.port);
        ASSERT_TRUE(front.is_open());
        EXPECT_TRUE(wait_until([&] { return front.connections() > 0; }));
        EXPECT_EQ(api->Release(), 0);
    }
    expect_no_early_warning(spy);
    EXPECT_EQ(api->Join(), 0);
}

TEST(TradeApiStart, SilentNameServerAndRefusingFrontsDoNoHarm) {
    test_front::SilentServer silent;
    test_front::RefusingPort refusing[3];
    for (bool name_server : {true, false}) {
        SCOPED_TRACE(name_server ? "silent name server" : "refusing fronts");
        auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
        Spy spy;
        api->RegisterSpi(&spy);
        if (name_server) {
            ASSERT_EQ(api->RegisterNameServer(silent.address().c_str()), 0);
        } else {
            for (const test_front::RefusingPort& port : refusing) ASSERT_EQ(api->RegisterFront(port.address().c_str()), 0);
        }
        ASSERT_EQ(api->Init(), 0);
        Base::Measure::sleep(1500);
        EXPECT_EQ(api->Release(), 0);
        EXPECT_EQ(api->Join(), 0);
        expect_no_early_warning(spy);
        for (const std::string& event : spy.get()) EXPECT_NE(event, "connected");
    }
}

// Release on the reactor thread, as from inside a callback: it returns at
// once and the teardown follows; Join there answers -5, and on an
// application thread it waits for the teardown and frees the object.
TEST(TradeApiStart, ReleaseOnTheReactorThreadAndJoinOnAnother) {
    test_reactor::Running<Parallel::FdReactor> reactor;
    test_front::Front front;
    auto* api = new Api::TradeApi(temp_dir().c_str(), reactor.reactor.get());
    ASSERT_EQ(api->RegisterFront(front.address().c_str()), 0);
    ASSERT_EQ(api->Init(), 0);
    ASSERT_TRUE(wait_until([&] { return front.connections() > 0; }));
    int released = 1, joined = 1;
    test_reactor::run_on(*reactor, [&] {
        released = api->Release();
        joined = api->Join();
    });
    EXPECT_EQ(released, 0);
    EXPECT_EQ(joined, -5);
    EXPECT_EQ(api->Join(), 0);
}

// The own reactor: Release from a thread other than the caller of Init,
// while connected, stops and joins the reactor's thread before it returns.
TEST(TradeApiStart, ReleaseFromAnotherThreadWhileConnected) {
    test_front::Front front;
    int threads = thread_count();
    auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(temp_dir().c_str()));
    ASSERT_EQ(api->RegisterFront(front.address().c_str()), 0);
    ASSERT_EQ(api->Init(), 0);
    ASSERT_TRUE(wait_until([&] { return front.connections() > 0; }));
    int result = 1;
    std::thread other([&] { result = api->Release(); });
    other.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(thread_count(), threads);
    EXPECT_EQ(api->Join(), 0);
}

}  // namespace
