// Key exchange, authentication and login on the wire: the packets the
// reactor thread builds on control_flow, and the handling of their replies.
#include "api/tradeapi.h"

namespace Api {

bool is_null_string(char* text, int length) {
    text[length] = 0;
    for (int i = 0; text[i] != 0; ++i)
        if (text[i] != ' ') return false;
    return true;
}

void TradeApi::write_key_request() {}
void TradeApi::on_api_req_authenticate(CTulmQelcProductAuthField* field, int request) {}
void TradeApi::on_api_req_user_login(CTulmQelcReqUserLoginField* field, int request) {}
void TradeApi::on_rsp_qry_crypt_info(CTulmQelcTraderSpi* callback) {}
void TradeApi::on_rsp_authenticate(CTulmQelcTraderSpi* callback) {}
void TradeApi::on_rsp_user_login(CTulmQelcTraderSpi* callback) {}
void TradeApi::on_rsp_user_logout(CTulmQelcTraderSpi* callback) {}

}  // namespace Api
