// The public records that cross the library boundary. Each CTulmQelc...Field
// has exactly the layout of the library's wire record of the same name in
// struct form: fixed-point members are doubles, text members are char arrays
// whose width includes the terminator.
//
// Placeholder: the generated catalogue replaces these declarations with the
// full record definitions.
#pragma once

struct CTulmQelcAbandonExecOrderActionField;
struct CTulmQelcAbandonExecOrderField;
struct CTulmQelcBulletinField;
struct CTulmQelcDisseminationField;
struct CTulmQelcExecOrderActionField;
struct CTulmQelcExecOrderField;
struct CTulmQelcFlowMessageCancelField;
struct CTulmQelcHedgeVolumeField;
struct CTulmQelcInputAbandonExecOrderField;
struct CTulmQelcInputExecOrderField;
struct CTulmQelcInputOptionSelfCloseField;
struct CTulmQelcInputOrderField;
struct CTulmQelcInputQuoteDemandField;
struct CTulmQelcInputQuoteField;
struct CTulmQelcInstrumentField;
struct CTulmQelcInstrumentStatusField;
struct CTulmQelcMarketDataField;
struct CTulmQelcOptionSelfCloseActionField;
struct CTulmQelcOptionSelfCloseField;
struct CTulmQelcOrderActionField;
struct CTulmQelcOrderField;
struct CTulmQelcProductAuthField;
struct CTulmQelcQryAbandonExecOrderField;
struct CTulmQelcQryBulletinField;
struct CTulmQelcQryClientField;
struct CTulmQelcQryClientPositionField;
struct CTulmQelcQryExchangeRateField;
struct CTulmQelcQryExecOrderField;
struct CTulmQelcQryHedgeVolumeField;
struct CTulmQelcQryInstrumentField;
struct CTulmQelcQryInstrumentStatusField;
struct CTulmQelcQryMarketDataField;
struct CTulmQelcQryOptionSelfCloseField;
struct CTulmQelcQryOrderField;
struct CTulmQelcQryPartAccountField;
struct CTulmQelcQryPartPositionField;
struct CTulmQelcQryQuoteField;
struct CTulmQelcQryTradeField;
struct CTulmQelcQuoteActionField;
struct CTulmQelcQuoteDemandInfoField;
struct CTulmQelcQuoteDemandNotifyField;
struct CTulmQelcQuoteField;
struct CTulmQelcReqUserLoginField;
struct CTulmQelcReqUserLogoutField;
struct CTulmQelcRspClientField;
struct CTulmQelcRspClientPositionField;
struct CTulmQelcRspExchangeRateField;
struct CTulmQelcRspInfoField;
struct CTulmQelcRspInstrumentField;
struct CTulmQelcRspPartAccountField;
struct CTulmQelcRspPartPositionField;
struct CTulmQelcRspUserLoginField;
struct CTulmQelcRspUserLogoutField;
struct CTulmQelcTradeField;
struct CTulmQelcUserPasswordUpdateField;
