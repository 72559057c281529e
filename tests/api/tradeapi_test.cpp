#include "api/tradeapi.h"
#include "parallel/fdreactor.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string address(int index) { return "tcp://127.0.0.1:" + std::to_string(17000 + index); }

TEST(TradeApi, VersionComesFromTheBanner) {
    int main_version = 0, build = 0;
    EXPECT_STREQ(CTulmQelcTraderApi::GetVersion(main_version, build), "TULM QelTradeApi V2.00 202508.1826");
    EXPECT_EQ(main_version, 202508);
    EXPECT_EQ(build, 1826);
}

TEST(TradeApi, HeartbeatTimeoutIsClampedTo4Through181) {
    Api::TradeApi api("./", nullptr);
    EXPECT_EQ(api.get_heartbeat_timeout(), 10u);
    const unsigned int cases[][2] = {{0, 4}, {3, 4}, {4, 4}, {60, 60}, {181, 181}, {182, 181}, {0xFFFFFFFFu, 181}};
    for (auto& c : cases) {
        EXPECT_EQ(api.SetHeartbeatTimeout(c[0]), 0);
        EXPECT_EQ(api.get_heartbeat_timeout(), c[1]) << "given " << c[0];
    }
}

TEST(TradeApi, TheTableTouchedLastWins) {
    Api::TradeApi api("./", nullptr);
    EXPECT_EQ(api.get_address_mode(), '1');
    ASSERT_EQ(api.RegisterNameServer("tcp://127.0.0.1:18001"), 0);
    EXPECT_EQ(api.get_address_mode(), '1');
    ASSERT_EQ(api.RegisterFront("tcp://127.0.0.1:17001"), 0);
    EXPECT_EQ(api.get_name_server_count(), 0);
    EXPECT_EQ(api.get_front_count(), 1);
    EXPECT_EQ(api.get_address_mode(), '0');
    ASSERT_EQ(api.RegisterNameServer("tcp://127.0.0.1:18002"), 0);
    EXPECT_EQ(api.get_front_count(), 0);
    EXPECT_EQ(api.get_name_server_count(), 1);
    EXPECT_STREQ(api.get_name_server(0), "tcp://127.0.0.1:18002");
    EXPECT_EQ(api.get_address_mode(), '0');  // name servers leave the mode alone
}

TEST(TradeApi, FullTablesRefuseWithMinus8AndKeepTheirEntries) {
    Api::TradeApi api("./", nullptr);
    for (int i = 0; i < 16; ++i) ASSERT_EQ(api.RegisterNameServer(address(i).c_str()), 0);
    EXPECT_EQ(api.RegisterNameServer(address(16).c_str()), -8);
    EXPECT_EQ(api.get_name_server_count(), 16);
    EXPECT_STREQ(api.get_name_server(15), address(15).c_str());

    for (int i = 0; i < 64; ++i) ASSERT_EQ(api.RegisterFront(address(i).c_str()), 0) << i;
    EXPECT_EQ(api.get_name_server_count(), 0);
    EXPECT_EQ(api.RegisterFront(address(64).c_str()), -8);
    EXPECT_EQ(api.get_front_count(), 64);
    EXPECT_STREQ(api.get_front(63), address(63).c_str());
    EXPECT_EQ(api.get_name_server_count(), 0);
}

TEST(TradeApi, AddressesAreCutTo63Characters) {
    Api::TradeApi api("./", nullptr);
    std::string long_address = "tcp://" + std::string(70, 'a');
    ASSERT_EQ(api.RegisterFront(long_address.c_str()), 0);
    EXPECT_EQ(std::string(api.get_front(0)), long_address.substr(0, 63));
    std::string exact(63, 'b');
    ASSERT_EQ(api.RegisterNameServer(exact.c_str()), 0);
    EXPECT_EQ(std::string(api.get_name_server(0)), exact);
}

TEST(TradeApi, ConfigurationIsRefusedAfterInit) {
    Parallel::FdReactor reactor(nullptr);
    Api::TradeApi api("./", &reactor);
    ASSERT_EQ(api.SubscribePrivateTopic(TE_RESUME_FROM_SAVED), 0);
    ASSERT_EQ(api.RegisterFront("tcp://127.0.0.1:17001"), 0);
    EXPECT_EQ(api.Release(), -9);
    ASSERT_EQ(api.Init(), 0);
    EXPECT_EQ(api.Init(), -5);
    EXPECT_EQ(api.RegisterFront("tcp://127.0.0.1:17002"), -10);
    EXPECT_EQ(api.RegisterNameServer("tcp://127.0.0.1:18001"), -10);
    EXPECT_EQ(api.SubscribePrivateTopic(TE_RESUME_FROM_NOW), -10);
    EXPECT_EQ(api.SubscribePublicTopic(TE_RESUME_FROM_NOW), -10);
    EXPECT_EQ(api.SubscribeUserTopic(TE_RESUME_FROM_NOW), -10);
    EXPECT_EQ(api.SetHeartbeatTimeout(30), -10);
    EXPECT_EQ(api.get_front_count(), 1);
    EXPECT_EQ(api.get_private_resume(), TE_RESUME_FROM_SAVED);
    EXPECT_EQ(api.get_public_resume(), TE_RESUME_NONE);
    EXPECT_EQ(api.get_heartbeat_timeout(), 10u);
}

TEST(TradeApi, RequestsBeforeLoginAndBeforeInit) {
    Api::TradeApi api("./", nullptr);
    EXPECT_EQ(api.ReqOrderInsert(nullptr, 1), -1);
    EXPECT_EQ(api.ReqQryInstrument(nullptr, 2), -1);
    EXPECT_EQ(api.ReqUserLogout(nullptr, 3), -1);
    EXPECT_EQ(api.ReqAuthenticate(nullptr, 4), -9);
    EXPECT_EQ(api.ReqUserLogin(nullptr, 5), -9);
    EXPECT_STREQ(api.GetTradingDay(), "");
}

TEST(TradeApi, LogsAppendAndABadPathTurnsTheLogOff) {
    Api::TradeApi api("./", nullptr);
    std::string path = ::testing::TempDir() + "qel_request_log.txt";
    std::remove(path.c_str());
    FILE* seed = std::fopen(path.c_str(), "wb");
    std::fputs("kept\n", seed);
    std::fclose(seed);
    EXPECT_EQ(api.OpenRequestLog(path.c_str()), 0);
    EXPECT_EQ(api.OpenRequestLog("/nonexistent-dir/log.txt"), -4);
    EXPECT_EQ(api.OpenResponseLog("/nonexistent-dir/log.txt"), -4);
    char line[16] = {};
    FILE* check = std::fopen(path.c_str(), "rb");
    ASSERT_NE(check, nullptr);
    ASSERT_NE(std::fgets(line, sizeof(line), check), nullptr);
    std::fclose(check);
    EXPECT_STREQ(line, "kept\n");
    std::remove(path.c_str());
}

TEST(TradeApi, FactoryCopiesTheFlowPathAndJoinFreesAfterRelease) {
    std::string long_path(300, 'p');
    CTulmQelcTraderApi* created = CTulmQelcTraderApi::CreateQelcTraderApi(long_path.c_str());
    auto* api = static_cast<Api::TradeApi*>(created);
    EXPECT_EQ(std::string(api->get_flow_path()), long_path.substr(0, 255));
    EXPECT_FALSE(api->is_started());
    delete api;

    Parallel::FdReactor reactor(nullptr);
    auto* started = new Api::TradeApi("./", &reactor);
    ASSERT_EQ(started->Init(), 0);
    ASSERT_EQ(started->Release(), 0);
    EXPECT_EQ(started->Join(), 0);  // frees the object; ASan reports a leak otherwise
}

}  // namespace
