// Connection events, the one-second tick, trade.con and the resume of the
// topic flows.
#include "api/tradeapi.h"

namespace Api {

void TradeApi::on_connected() {}
void TradeApi::on_disconnected(int reason) {}
bool TradeApi::on_timer(int id) { return true; }
void TradeApi::read_resume() {}
unsigned long TradeApi::resume_start_id(int topic) const { return 0; }
void TradeApi::save_resume() {}
void TradeApi::on_intl_rtn_dissemination() {}

}  // namespace Api
