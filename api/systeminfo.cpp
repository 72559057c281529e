// Terminal information and the login token: what the library tells the
// exchange about the machine it runs on, made once at Init.
#include "api/tradeapi.h"

namespace Api {

int get_system_info(char* out) {
    out[0] = 0;
    return 0;
}

void get_api_info(char* out, int length, const char* user_id) {}

void trans_str(char* text, int length, int limit) {}

bool TradeApi::encrypt_user_api_info(QelUserapiAuthenticInfoField* out) { return false; }

}  // namespace Api
