// The request gate (rate window and on-way hold), the in-process queue of
// authentication and login requests, and the login pacing.
#include "api/tradeapi.h"

namespace Api {

int control_flux(TradeApi::FluxValue* flux) { return 0; }

int TradeApi::ReqAuthenticate(CTulmQelcProductAuthField* field, int request) {
    return reactor.load() == nullptr ? -9 : -12;
}

int TradeApi::ReqUserLogin(CTulmQelcReqUserLoginField* field, int request) {
    return reactor.load() == nullptr ? -9 : -12;
}

int TradeApi::queue_request(unsigned short packet_id, int request, const void* field, int size,
                            bool authenticate) {
    return -12;
}

void TradeApi::drain_queue() {}

}  // namespace Api
