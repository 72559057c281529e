// Demo application: creates a trader, configures it the way a member's
// application would, and prints what each call answered.
//
// Usage: demo [-f front] [-d flow_dir]
#include <cstdio>
#include <cstring>

#include "QelcTraderApi.h"

namespace {

class DemoSpi : public CTulmQelcTraderSpi {
public:
    void OnFrontConnected() override { std::printf("front connected\n"); }
    void OnFrontDisconnected(int reason) override { std::printf("front disconnected: %d\n", reason); }
};

const char* option(int argc, char** argv, const char* name, const char* fallback) {
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
    return fallback;
}

void report(const char* call, int result) { std::printf("%-40s -> %d\n", call, result); }

}  // namespace

int main(int argc, char** argv) {
    const char* front = option(argc, argv, "-f", "tcp://127.0.0.1:17001");
    const char* flow_dir = option(argc, argv, "-d", "/tmp/");

    int main_version = 0, build = 0;
    const char* banner = CTulmQelcTraderApi::GetVersion(main_version, build);
    std::printf("banner:  %s\n", banner);
    std::printf("version: %d build %d\n", main_version, build);

    CTulmQelcTraderApi* api = CTulmQelcTraderApi::CreateQelcTraderApi(flow_dir);
    DemoSpi spi;
    api->RegisterSpi(&spi);
    report("RegisterNameServer(tcp://127.0.0.1:18001)", api->RegisterNameServer("tcp://127.0.0.1:18001"));
    report("RegisterFront(front)", api->RegisterFront(front));
    report("SubscribePrivateTopic(RESUME_FROM_SAVED)", api->SubscribePrivateTopic(TE_RESUME_FROM_SAVED));
    report("SubscribePublicTopic(RESUME_FROM_NOW)", api->SubscribePublicTopic(TE_RESUME_FROM_NOW));
    report("SubscribeUserTopic(RESUME_FROM_START)", api->SubscribeUserTopic(TE_RESUME_FROM_START));
    report("SetHeartbeatTimeout(3)", api->SetHeartbeatTimeout(3));
    report("ReqOrderInsert before login", api->ReqOrderInsert(nullptr, 1));
    report("Release before Init", api->Release());
    std::printf("trading day: \"%s\"\n", api->GetTradingDay());
    return 0;
}
