// The trader interface of qeltradeapi: the one exported class an application
// creates (CTulmQelcTraderApi) and the callback class it derives from
// (CTulmQelcTraderSpi). This header and QelcTraderApiStruct.h are all an
// application needs to compile against the shared library.
//
// Life of a trader: CreateQelcTraderApi, RegisterSpi, RegisterFront or
// RegisterNameServer, Subscribe...Topic, Init; wait for OnFrontConnected,
// ReqAuthenticate, ReqUserLogin, then requests. Release stops it and Join
// waits for that and frees the object.
//
// Every int operation returns 0 when accepted or a negative code:
//   -1 not logged in            -2 too many requests on the way (10 s hold)
//   -3 too many in this second  -4 log file cannot be opened
//   -5 already done             -6 a required text is empty or blank
//   -7 authentication pending   -8 address table full
//   -9 Init not called          -10 too late: Init already called
//   -11 local id not increasing -12 no connection
//   -13 ParticipantID differs   -14 UserID differs
// A refused call logs nothing and calls nothing back.
#pragma once

#include "QelcTraderApiStruct.h"

#if defined(__GNUC__)
#define QELC_TRADER_API_EXPORT __attribute__((visibility("default")))
#else
#define QELC_TRADER_API_EXPORT
#endif

// How a topic flow resumes after Init.
enum TE_RESUME_TYPE {
    TE_RESUME_NONE = -1,        // not subscribed
    TE_RESUME_FROM_START = 0,   // from sequence 0
    TE_RESUME_FROM_SAVED = 1,   // from the position saved in trade.con
    TE_RESUME_FROM_NOW = 2      // only what is published from now on
};

// Callbacks, all run on the library's one network thread. Override what you
// need; every default does nothing. A record passed in lives only for the
// duration of the call. A callback may call any Req operation.
class QELC_TRADER_API_EXPORT CTulmQelcTraderSpi {
public:
    virtual void OnFrontConnected() {}
    virtual void OnFrontDisconnected(int /*reason*/) {}
    virtual void OnHeartBeatWarning(int /*seconds*/) {}
    virtual void OnPackageStart(int /*topic*/, int /*sequence*/) {}
    virtual void OnPackageEnd(int /*topic*/, int /*sequence*/) {}
    virtual void OnRspError(CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspUserLogin(CTulmQelcRspUserLoginField* /*login*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspUserLogout(CTulmQelcRspUserLogoutField* /*logout*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspOrderInsert(CTulmQelcInputOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspOrderAction(CTulmQelcOrderActionField* /*action*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQuoteInsert(CTulmQelcInputQuoteField* /*quote*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQuoteAction(CTulmQelcQuoteActionField* /*action*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspUserPasswordUpdate(CTulmQelcUserPasswordUpdateField* /*update*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspExecOrderInsert(CTulmQelcInputExecOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspExecOrderAction(CTulmQelcExecOrderActionField* /*action*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspAbandonExecOrderInsert(CTulmQelcInputAbandonExecOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspAbandonExecOrderAction(CTulmQelcAbandonExecOrderActionField* /*action*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQuoteDemand(CTulmQelcQuoteDemandInfoField* /*demand*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspSubscribeTopic(CTulmQelcDisseminationField* /*topic*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryPartAccount(CTulmQelcRspPartAccountField* /*account*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryOrder(CTulmQelcOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryQuote(CTulmQelcQuoteField* /*quote*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryTrade(CTulmQelcTradeField* /*trade*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryClient(CTulmQelcRspClientField* /*client*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryPartPosition(CTulmQelcRspPartPositionField* /*position*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryClientPosition(CTulmQelcRspClientPositionField* /*position*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryInstrument(CTulmQelcRspInstrumentField* /*instrument*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryInstrumentStatus(CTulmQelcInstrumentStatusField* /*status*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryHedgeVolume(CTulmQelcHedgeVolumeField* /*volume*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryExecOrder(CTulmQelcExecOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryAbandonExecOrder(CTulmQelcAbandonExecOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryMarketData(CTulmQelcMarketDataField* /*data*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryBulletin(CTulmQelcBulletinField* /*bulletin*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspQryTopic(CTulmQelcDisseminationField* /*topic*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRtnTrade(CTulmQelcTradeField* /*trade*/) {}
    virtual void OnRtnOrder(CTulmQelcOrderField* /*order*/) {}
    virtual void OnRtnExecOrder(CTulmQelcExecOrderField* /*order*/) {}
    virtual void OnRtnQuote(CTulmQelcQuoteField* /*quote*/) {}
    virtual void OnRtnAbandonExecOrder(CTulmQelcAbandonExecOrderField* /*order*/) {}
    virtual void OnRtnInstrumentStatus(CTulmQelcInstrumentStatusField* /*status*/) {}
    virtual void OnRtnInsInstrument(CTulmQelcInstrumentField* /*instrument*/) {}
    virtual void OnRtnFlowMessageCancel(CTulmQelcFlowMessageCancelField* /*cancel*/) {}
    virtual void OnRtnBulletin(CTulmQelcBulletinField* /*bulletin*/) {}
    virtual void OnErrRtnOrderInsert(CTulmQelcInputOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnOrderAction(CTulmQelcOrderActionField* /*action*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnQuoteInsert(CTulmQelcInputQuoteField* /*quote*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnQuoteAction(CTulmQelcQuoteActionField* /*action*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnExecOrderInsert(CTulmQelcInputExecOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnExecOrderAction(CTulmQelcExecOrderActionField* /*action*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnAbandonExecOrderInsert(CTulmQelcInputAbandonExecOrderField* /*order*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnErrRtnAbandonExecOrderAction(CTulmQelcAbandonExecOrderActionField* /*action*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnRtnQuoteDemandNotify(CTulmQelcQuoteDemandNotifyField* /*notify*/) {}
    virtual void OnRspQryExchangeRate(CTulmQelcRspExchangeRateField* /*rate*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspOptionSelfCloseUpdate(CTulmQelcInputOptionSelfCloseField* /*update*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnErrRtnOptionSelfCloseUpdate(CTulmQelcInputOptionSelfCloseField* /*update*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnRtnOptionSelfCloseUpdate(CTulmQelcOptionSelfCloseField* /*self_close*/) {}
    virtual void OnRspOptionSelfCloseAction(CTulmQelcOptionSelfCloseActionField* /*action*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnErrRtnOptionSelfCloseAction(CTulmQelcOptionSelfCloseActionField* /*action*/, CTulmQelcRspInfoField* /*info*/) {}
    virtual void OnRspQryOptionSelfClose(CTulmQelcOptionSelfCloseField* /*self_close*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    virtual void OnRspAuthenticate(CTulmQelcProductAuthField* /*auth*/, CTulmQelcRspInfoField* /*info*/, int /*request*/, bool /*last*/) {}
    // Behind the last slot so the slots above keep their order.
    virtual ~CTulmQelcTraderSpi() {}
};

// The trader. One implementation lives inside the library; the object is
// created by CreateQelcTraderApi and freed by Join.
class QELC_TRADER_API_EXPORT CTulmQelcTraderApi {
public:
    // flow_path: directory of trade.con (at most 255 characters).
    static CTulmQelcTraderApi* CreateQelcTraderApi(const char* flow_path);
    // Returns the banner "TULM QelTradeApi V2.00 202508.1826"; main receives
    // 202508 and build 1826.
    static const char* GetVersion(int& main, int& build);

    virtual int Release() = 0;
    virtual int Init() = 0;
    virtual int Join() = 0;
    virtual const char* GetTradingDay() = 0;
    virtual int RegisterFront(const char* address) = 0;
    virtual int RegisterNameServer(const char* address) = 0;
    virtual void RegisterSpi(CTulmQelcTraderSpi* spi) = 0;
    virtual int SubscribePrivateTopic(TE_RESUME_TYPE type) = 0;
    virtual int SubscribePublicTopic(TE_RESUME_TYPE type) = 0;
    virtual int SubscribeUserTopic(TE_RESUME_TYPE type) = 0;
    virtual int SetHeartbeatTimeout(unsigned int seconds) = 0;
    virtual int OpenRequestLog(const char* file_name) = 0;
    virtual int OpenResponseLog(const char* file_name) = 0;
    virtual int ReqUserLogin(CTulmQelcReqUserLoginField* login, int request) = 0;
    virtual int ReqUserLogout(CTulmQelcReqUserLogoutField* logout, int request) = 0;
    virtual int ReqOrderInsert(CTulmQelcInputOrderField* order, int request) = 0;
    virtual int ReqOrderAction(CTulmQelcOrderActionField* action, int request) = 0;
    virtual int ReqQuoteInsert(CTulmQelcInputQuoteField* quote, int request) = 0;
    virtual int ReqQuoteAction(CTulmQelcQuoteActionField* action, int request) = 0;
    virtual int ReqUserPasswordUpdate(CTulmQelcUserPasswordUpdateField* update, int request) = 0;
    virtual int ReqExecOrderInsert(CTulmQelcInputExecOrderField* order, int request) = 0;
    virtual int ReqExecOrderAction(CTulmQelcExecOrderActionField* action, int request) = 0;
    virtual int ReqAbandonExecOrderInsert(CTulmQelcInputAbandonExecOrderField* order, int request) = 0;
    virtual int ReqAbandonExecOrderAction(CTulmQelcAbandonExecOrderActionField* action, int request) = 0;
    virtual int ReqQuoteDemand(CTulmQelcInputQuoteDemandField* demand, int request) = 0;
    virtual int ReqSubscribeTopic(CTulmQelcDisseminationField* topic, int request) = 0;
    virtual int ReqQryPartAccount(CTulmQelcQryPartAccountField* query, int request) = 0;
    virtual int ReqQryOrder(CTulmQelcQryOrderField* query, int request) = 0;
    virtual int ReqQryQuote(CTulmQelcQryQuoteField* query, int request) = 0;
    virtual int ReqQryTrade(CTulmQelcQryTradeField* query, int request) = 0;
    virtual int ReqQryClient(CTulmQelcQryClientField* query, int request) = 0;
    virtual int ReqQryPartPosition(CTulmQelcQryPartPositionField* query, int request) = 0;
    virtual int ReqQryClientPosition(CTulmQelcQryClientPositionField* query, int request) = 0;
    virtual int ReqQryInstrument(CTulmQelcQryInstrumentField* query, int request) = 0;
    virtual int ReqQryInstrumentStatus(CTulmQelcQryInstrumentStatusField* query, int request) = 0;
    virtual int ReqQryHedgeVolume(CTulmQelcQryHedgeVolumeField* query, int request) = 0;
    virtual int ReqQryExecOrder(CTulmQelcQryExecOrderField* query, int request) = 0;
    virtual int ReqQryAbandonExecOrder(CTulmQelcQryAbandonExecOrderField* query, int request) = 0;
    virtual int ReqQryMarketData(CTulmQelcQryMarketDataField* query, int request) = 0;
    virtual int ReqQryBulletin(CTulmQelcQryBulletinField* query, int request) = 0;
    virtual int ReqQryTopic(CTulmQelcDisseminationField* topic, int request) = 0;
    virtual int ReqQryExchangeRate(CTulmQelcQryExchangeRateField* query, int request) = 0;
    virtual int ReqOptionSelfCloseUpdate(CTulmQelcInputOptionSelfCloseField* update, int request) = 0;
    virtual int ReqOptionSelfCloseAction(CTulmQelcOptionSelfCloseActionField* action, int request) = 0;
    virtual int ReqQryOptionSelfClose(CTulmQelcQryOptionSelfCloseField* query, int request) = 0;
    virtual int ReqAuthenticate(CTulmQelcProductAuthField* auth, int request) = 0;

protected:
    // Objects are freed by Join, never deleted by the application.
    ~CTulmQelcTraderApi() {}
};
