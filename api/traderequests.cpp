// Orders, actions, quotes, exercises, self-close, quote demands, password
// changes, queries, topic subscription and logout: the direct requests, each
// written straight into request_flow on the caller's thread under the gate.
#include "api/tradeapi.h"

namespace Api {

int TradeApi::ReqUserLogout(CTulmQelcReqUserLogoutField* field, int request) { return -1; }
int TradeApi::ReqOrderInsert(CTulmQelcInputOrderField* field, int request) { return -1; }
int TradeApi::ReqOrderAction(CTulmQelcOrderActionField* field, int request) { return -1; }
int TradeApi::ReqQuoteInsert(CTulmQelcInputQuoteField* field, int request) { return -1; }
int TradeApi::ReqQuoteAction(CTulmQelcQuoteActionField* field, int request) { return -1; }
int TradeApi::ReqUserPasswordUpdate(CTulmQelcUserPasswordUpdateField* field, int request) { return -1; }
int TradeApi::ReqExecOrderInsert(CTulmQelcInputExecOrderField* field, int request) { return -1; }
int TradeApi::ReqExecOrderAction(CTulmQelcExecOrderActionField* field, int request) { return -1; }
int TradeApi::ReqAbandonExecOrderInsert(CTulmQelcInputAbandonExecOrderField* field, int request) { return -1; }
int TradeApi::ReqAbandonExecOrderAction(CTulmQelcAbandonExecOrderActionField* field, int request) { return -1; }
int TradeApi::ReqQuoteDemand(CTulmQelcInputQuoteDemandField* field, int request) { return -1; }
int TradeApi::ReqSubscribeTopic(CTulmQelcDisseminationField* field, int request) { return -1; }
int TradeApi::ReqQryPartAccount(CTulmQelcQryPartAccountField* field, int request) { return -1; }
int TradeApi::ReqQryOrder(CTulmQelcQryOrderField* field, int request) { return -1; }
int TradeApi::ReqQryQuote(CTulmQelcQryQuoteField* field, int request) { return -1; }
int TradeApi::ReqQryTrade(CTulmQelcQryTradeField* field, int request) { return -1; }
int TradeApi::ReqQryClient(CTulmQelcQryClientField* field, int request) { return -1; }
int TradeApi::ReqQryPartPosition(CTulmQelcQryPartPositionField* field, int request) { return -1; }
int TradeApi::ReqQryClientPosition(CTulmQelcQryClientPositionField* field, int request) { return -1; }
int TradeApi::ReqQryInstrument(CTulmQelcQryInstrumentField* field, int request) { return -1; }
int TradeApi::ReqQryInstrumentStatus(CTulmQelcQryInstrumentStatusField* field, int request) { return -1; }
int TradeApi::ReqQryHedgeVolume(CTulmQelcQryHedgeVolumeField* field, int request) { return -1; }
int TradeApi::ReqQryExecOrder(CTulmQelcQryExecOrderField* field, int request) { return -1; }
int TradeApi::ReqQryAbandonExecOrder(CTulmQelcQryAbandonExecOrderField* field, int request) { return -1; }
int TradeApi::ReqQryMarketData(CTulmQelcQryMarketDataField* field, int request) { return -1; }
int TradeApi::ReqQryBulletin(CTulmQelcQryBulletinField* field, int request) { return -1; }
int TradeApi::ReqQryTopic(CTulmQelcDisseminationField* field, int request) { return -1; }
int TradeApi::ReqQryExchangeRate(CTulmQelcQryExchangeRateField* field, int request) { return -1; }
int TradeApi::ReqOptionSelfCloseUpdate(CTulmQelcInputOptionSelfCloseField* field, int request) { return -1; }
int TradeApi::ReqOptionSelfCloseAction(CTulmQelcOptionSelfCloseActionField* field, int request) { return -1; }
int TradeApi::ReqQryOptionSelfClose(CTulmQelcQryOptionSelfCloseField* field, int request) { return -1; }

}  // namespace Api
