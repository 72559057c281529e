// The exported statics of CTulmQelcTraderApi.
#include "api/QelcTraderApi.h"

#include <cstdlib>
#include <cstring>

#include "api/tradeapi.h"

namespace {

const char BANNER[] = "TULM QelTradeApi V2.00 202508.1826";
const char MAIN_VERSION[] = "202508";
const char BUILD_MAJOR[] = "18";

}  // namespace

CTulmQelcTraderApi* CTulmQelcTraderApi::CreateQelcTraderApi(const char* flow_path) {
    return new Api::TradeApi(flow_path, nullptr);
}

// The numbers are computed from the texts at each call, so the banner is the
// one source of the version.
const char* CTulmQelcTraderApi::GetVersion(int& main, int& build) {
    main = std::atoi(MAIN_VERSION);
    size_t length = std::strlen(BANNER);
    build = 100 * std::atoi(BUILD_MAJOR) + std::atoi(BANNER + length - 2);
    return BANNER;
}
