// The Oxa catalogue against its registry and packet table, its twins in the
// Qel catalogue, its dump, and its generated struct coders against the
// generic ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>
#include <unistd.h>

#include "record/fieldcatalog.h"
#include "record/fieldcoder.h"
#include "record/fielddesc.h"
#include "record/fieldswap.h"
#include "containers/map.h"
#include "record/gen/oxafield.h"
#include "record/gen/qelfield.h"

using namespace Base;

namespace {

struct Registered {
    const char* name;
    int id;
    int size;
};

struct Packet {
    unsigned short id;
    const char* name;
};

// The registry: every record in registration order with its id and size.
const Registered REGISTRY[] = {
    {"OxaCompSeqNoField", 255, 4}, {"OxaFrontSessionRefField", 254, 12}, {"OxaMaxLocalIDField", 253, 29},
    {"OxaBasePriceLimitField", 252, 56}, {"OxaOrderActionField", 251, 176}, {"OxaQuoteActionField", 250, 144},
    {"OxaExecOrderActionField", 249, 144}, {"OxaAbandonExecOrderActionField", 248, 144}, {"OxaOrderExtraField", 247, 40},
    {"OxaUserReportField", 246, 32}, {"OxaQryUserReportField", 245, 16}, {"OxaDbmtGeneralTableField", 244, 1180},
    {"OxaDbmtRspInfoField", 243, 92}, {"OxaQrySqlField", 242, 4001}, {"OxaOTCOrderExtraField", 239, 27},
    {"OxaPmmCombCommodityMarginField", 238, 216}, {"OxaPmmCombCommodityGrpMarginField", 237, 128}, {"OxaUserLoginField", 1, 320},
    {"OxaRspInfoField", 3, 88}, {"OxaCommPhaseField", 4, 12}, {"OxaExchangeTradingDayField", 5, 18},
    {"OxaSettlementSessionField", 6, 24}, {"OxaCurrentTimeField", 7, 24}, {"OxaDataCenterDescField", 8, 8},
    {"OxaInputOrderField", 17, 224}, {"OxaInputOrderActionField", 18, 168}, {"OxaOTCOrderField", 19, 280},
    {"OxaInputQuoteField", 33, 224}, {"OxaInputQuoteActionField", 34, 144}, {"OxaInputExecOrderField", 35, 160},
    {"OxaInputExecOrderActionField", 36, 144}, {"OxaInputAbandonExecOrderField", 37, 156}, {"OxaInputAbandonExecOrderActionField", 38, 144},
    {"OxaUserLogoutField", 49, 27}, {"OxaUserPasswordUpdateField", 50, 109}, {"OxaLoginInfoField", 51, 508},
    {"OxaInputCombOrderField", 65, 312}, {"OxaForceUserExitField", 83, 27}, {"OxaQryOrderField", 12289, 111},
    {"OxaQryQuoteField", 12290, 93}, {"OxaQryTradeField", 12291, 142}, {"OxaQryMarketDataField", 12292, 40},
    {"OxaQryClientField", 12294, 44}, {"OxaQryPartPositionField", 12295, 84}, {"OxaQryClientPositionField", 12296, 107},
    {"OxaQryPartAccountField", 12297, 35}, {"OxaQryInstrumentField", 12298, 58}, {"OxaQryInstrumentStatusField", 12299, 62},
    {"OxaQrySGDataSyncStatusField", 12300, 9}, {"OxaQryUserSessionField", 12301, 33}, {"OxaQryUserField", 12302, 32},
    {"OxaQryBulletinField", 12303, 28}, {"OxaQryParticipantField", 12304, 22}, {"OxaQryHedgeVolumeField", 12305, 106},
    {"OxaQryMBLMarketDataField", 12308, 63}, {"OxaQryCombOrderField", 12312, 62}, {"OxaQryExecOrderField", 12310, 111},
    {"OxaQryAbandonExecOrderField", 12311, 111}, {"OxaRspPartAccountField", 12545, 128}, {"OxaRspPartPositionField", 12546, 96},
    {"OxaRspClientPositionField", 12547, 176}, {"OxaRspInstrumentField", 12548, 248}, {"OxaQryInformationField", 12549, 8},
    {"OxaInformationField", 12550, 520}, {"OxaQryCreditLimitField", 12552, 22}, {"OxaCreditLimitField", 12554, 128},
    {"OxaRspClientField", 12555, 180}, {"OxaExchangeField", 4353, 40}, {"OxaSettlementGroupField", 4354, 43},
    {"OxaMarketField", 4609, 30}, {"OxaMarketProductField", 4610, 18}, {"OxaMarketProductGroupField", 4611, 18},
    {"OxaMarketDataTopicField", 4612, 92}, {"OxaPartTopicSubscribeField", 4613, 16}, {"OxaParticipantField", 5121, 88},
    {"OxaUserField", 5122, 80}, {"OxaClientField", 5123, 168}, {"OxaPartClientField", 5124, 22},
    {"OxaUserIPField", 5125, 48}, {"OxaUserSessionField", 5126, 188}, {"OxaMdPubStatusField", 5127, 11},
    {"OxaClearingTradingPartField", 5128, 22}, {"OxaUserFunctionRightField", 5129, 41}, {"OxaAccountField", 5130, 37},
    {"OxaUserCommFluxField", 5131, 20}, {"OxaProductGroupField", 8449, 48}, {"OxaProductField", 8450, 49},
    {"OxaInstrumentField", 8451, 160}, {"OxaCombinationLegField", 8452, 84}, {"OxaPartRoleAccountField", 8453, 52},
    {"OxaPartProductRoleField", 8705, 30}, {"OxaPartProductRightField", 8706, 30}, {"OxaPartInstrumentRightField", 8707, 52},
    {"OxaClientProductRightField", 8708, 30}, {"OxaClientInstrumentRightField", 8709, 52}, {"OxaPartClientProductRightField", 8710, 41},
    {"OxaPartClientInstrumentRightField", 8711, 63}, {"OxaPartClientHedgeDirectRightField", 8712, 74}, {"OxaCurrProductPropertyField", 8961, 48},
    {"OxaCurrInstrumentPropertyField", 8963, 144}, {"OxaCurrPriceBandingField", 8964, 72}, {"OxaCurrMarginRateField", 8965, 56},
    {"OxaCurrMarginRateDetailField", 8966, 80}, {"OxaCurrPartPosiLimitField", 8967, 56}, {"OxaCurrPartPosiLimitDetailField", 8968, 96},
    {"OxaCurrClientPosiLimitField", 8969, 45}, {"OxaCurrClientPosiLimitDetailField", 8970, 80}, {"OxaCurrSpecialPosiLimitField", 8971, 56},
    {"OxaCurrSpecialPosiLimitDetailField", 8972, 96}, {"OxaCurrHedgeRuleField", 8973, 60}, {"OxaCurrTradingSegmentAttrField", 8974, 84},
    {"OxaCurrFuseField", 8975, 96}, {"OxaTradingAccountField", 9217, 120}, {"OxaPartPositionField", 9218, 96},
    {"OxaClientPositionField", 9219, 176}, {"OxaHedgeVolumeField", 9220, 96}, {"OxaRemainOrderField", 9221, 368},
    {"OxaMarketDataField", 9223, 208}, {"OxaIndexDataField", 9224, 128}, {"OxaDepthMarketDataField", 9225, 368},
    {"OxaMBLMarketDataField", 9232, 48}, {"OxaAliasDefineField", 9233, 12}, {"OxaMarketDataBaseField", 9265, 56},
    {"OxaMarketDataStaticField", 9266, 64}, {"OxaMarketDataLastMatchField", 9267, 32}, {"OxaMarketDataBestPriceField", 9268, 32},
    {"OxaMarketDataBid23Field", 9269, 32}, {"OxaMarketDataAsk23Field", 9270, 32}, {"OxaMarketDataBid45Field", 9271, 32},
    {"OxaMarketDataAsk45Field", 9272, 32}, {"OxaMarketDataUpdateTimeField", 9273, 56}, {"OxaBaseReserveAccountField", 9274, 56},
    {"OxaIcmiDefineField", 9275, 624}, {"OxaIcmiCompositionField", 9276, 96}, {"OxaIcmiWeightField", 9277, 64},
    {"OxaIcmiStandardConstField", 9278, 48}, {"OxaExchangeRateField", 9279, 32}, {"OxaQryExchangeRateField", 9280, 4},
    {"OxaRspExchangeRateField", 9281, 32}, {"OxaBizParameterField", 9282, 151}, {"OxaDbmtAccountDepositField", 10240, 40},
    {"OxaDbmtClientField", 10241, 176}, {"OxaDbmtPartClientField", 10242, 32}, {"OxaDbmtCurrPartPosiLimitDetailField", 10243, 104},
    {"OxaDbmtCurrClientPosiLimitDetailField", 10244, 88}, {"OxaDbmtCurrSpecialPosiLimitDetailField", 10245, 104}, {"OxaDbmtHedgeDetailField", 10246, 132},
    {"OxaDbmtUserField", 10247, 88}, {"OxaDbmtPartProductRightField", 10248, 40}, {"OxaDbmtClientProductRightField", 10249, 40},
    {"OxaDbmtPartInstrumentRightField", 10250, 60}, {"OxaDbmtClientInstrumentRightField", 10251, 60}, {"OxaDbmtPartClientProductRightField", 10258, 52},
    {"OxaDbmtPartClientInstrumentRightField", 10259, 72}, {"OxaDbmtCurrMarginRateDetailField", 10252, 88}, {"OxaDbmtMarketDataField", 10253, 216},
    {"OxaDbmtUserIPField", 10254, 56}, {"OxaDbmtCurrPriceBandingField", 10255, 80}, {"OxaDbmtUpdateAllInstrumentStatusField", 10256, 20},
    {"OxaDbmtClockDeltaField", 10260, 16}, {"OxaDbmtCurrHedgeField", 10261, 128}, {"OxaDbmtCurrTradingSegmentAttrField", 10262, 92},
    {"OxaDbmtPartClientHedgeDirectRightField", 10263, 84}, {"OxaQuoteField", 9478, 336}, {"OxaTradeField", 9479, 224},
    {"OxaOrderField", 9480, 368}, {"OxaExecOrderField", 9481, 244}, {"OxaCombOrderField", 9482, 384},
    {"OxaAbandonExecOrderField", 9483, 240}, {"OxaAdminOrderField", 9488, 80}, {"OxaInputAdminOrderField", 9489, 80},
    {"OxaBulletinField", 9735, 848}, {"OxaExchangeDataSyncStatusField", 9985, 19}, {"OxaSGDataSyncStatusField", 9986, 28},
    {"OxaInstrumentStatusField", 9987, 68}, {"OxaInstrumentStatusDetailField", 9988, 88}, {"OxaFrontStatusField", 9989, 32},
    {"OxaExchangeStatusField", 9992, 19}, {"OxaSettlementGroupStatusField", 9993, 44}, {"OxaUniPressureField", 10000, 84},
    {"OxaDepthMarketDataDetailField", 10001, 376}, {"OxaCurrInstrumentOptionField", 10002, 112}, {"OxaIndexDataDetailField", 10004, 144},
    {"OxaCurrentTimeSnapShotField", 10005, 32}, {"OxaUserMeasureField", 10006, 24}, {"OxaLoopMeasureField", 10007, 32},
    {"OxaNodeMeasureField", 10008, 36}, {"OxaCurrReferenceInstrumentField", 10009, 96}, {"OxaPartClientProductGrpMarginField", 10010, 120},
    {"OxaProductMarginDeductRateField", 10011, 72}, {"OxaTopicDepthMarketDataDetailField", 10012, 376}, {"OxaPartClientProductMarketMakerField", 10013, 40},
    {"OxaUserPartProductMarketMakerField", 10014, 48}, {"OxaInputQuoteDemandField", 10015, 82}, {"OxaQuoteDemandInfoField", 10016, 109},
    {"OxaQuoteDemandNotifyField", 10017, 62}, {"OxaQuoteDemandInfoDetailField", 10018, 128}, {"OxaInstrumentMdStatusField", 10021, 40},
    {"OxaCurrClientOpenPosiLimitField", 10034, 68}, {"OxaClientOpenPositionField", 10035, 72}, {"OxaCurrClientOpenPosiLimitDetailField", 10036, 60},
    {"OxaClientProductOrderFluxField", 10039, 40}, {"OxaClientProductOrderFluxDetailField", 10040, 40}, {"OxaMortgageDepositResultField", 10041, 48},
    {"OxaDbmtMortgageDepositField", 10042, 64}, {"OxaUserProductAuthenticInfoField", 10043, 301}, {"OxaUserConnectFrontTypeField", 10044, 1},
    {"OxaUserProductKeyField", 10045, 1059}, {"OxaMDSnapShotField", 10046, 224}, {"OxaHedgeVolumeLimitField", 10047, 104},
    {"OxaCurrPartOptPosiLimitDetailField", 10048, 80}, {"OxaCurrClientOptPosiLimitDetailField", 10049, 64}, {"OxaCurrSpecOptPosiLimitDetailField", 10050, 80},
    {"OxaDbmtCurrPartOptPosiLimitDetailField", 10051, 88}, {"OxaDbmtCurrClientOptPosiLimitDetailField", 10052, 72}, {"OxaDbmtCurrSpecOptPosiLimitDetailField", 10053, 88},
    {"OxaInputOptionSelfCloseField", 10064, 156}, {"OxaOptionSelfCloseField", 10065, 240}, {"OxaOptionSelfCloseActionField", 10066, 144},
    {"OxaQryOptionSelfCloseField", 10067, 111}, {"OxaMktMakerSpreadField", 10069, 72}, {"OxaUserSystemInfoField", 10070, 308},
    {"OxaProductAuthField", 10071, 58}, {"OxaDbOTCOrderField", 0, 176}, {"OxaDbmtDbOTCOrderField", 10072, 184},
    {"OxaTbCommandResultField", 10073, 920}, {"OxaPmmCombCommodityField", 10080, 58}, {"OxaPmmCombCommodityGrpField", 10081, 80},
    {"OxaPmmPartClientCategoryField", 10082, 32}, {"OxaPmmParamField", 10083, 80}, {"OxaCurrSpecClientMarginCalcIDField", 10084, 67},
    {"OxaSpreadLegField", 10085, 76},
};

// Every packet in registration order.
const Packet PACKETS[] = {
    {0x0009, "Nop"}, {0x0001, "RspError"}, {0x1001, "ReqUserLogin"}, {0x1002, "RspUserLogin"},
    {0x1003, "ReqUserLogout"}, {0x1004, "RspUserLogout"}, {0x1005, "ReqOrderInsert"}, {0x1006, "RspOrderInsert"},
    {0x1007, "ReqOrderAction"}, {0x1008, "RspOrderAction"}, {0x1009, "ReqQuoteInsert"}, {0x100A, "RspQuoteInsert"},
    {0x100B, "ReqQuoteAction"}, {0x100C, "RspQuoteAction"}, {0x100D, "ReqOTCOrderInsert"}, {0x100E, "RspOTCOrderInsert"},
    {0x100F, "ReqUserPasswordUpdate"}, {0x1010, "RspUserPasswordUpdate"}, {0x1011, "ReqExecOrderInsert"}, {0x1012, "RspExecOrderInsert"},
    {0x1013, "ReqExecOrderAction"}, {0x1014, "RspExecOrderAction"}, {0x1015, "ReqAdminOrderInsert"}, {0x1016, "RspAdminOrderInsert"},
    {0x1017, "ReqCombOrderInsert"}, {0x1018, "RspCombOrderInsert"}, {0x1019, "ReqAbandonExecOrderInsert"}, {0x101A, "RspAbandonExecOrderInsert"},
    {0x101B, "ReqAbandonExecOrderAction"}, {0x101C, "RspAbandonExecOrderAction"}, {0x2005, "ReqBulletin"}, {0x2006, "RspBulletin"},
    {0x2007, "ReqInstrumentStatusUpdate"}, {0x2008, "RspInstrumentStatusUpdate"}, {0x200B, "ReqForceUserExit"}, {0x200C, "RspForceUserExit"},
    {0x200D, "ReqForceUserLogout"}, {0x200E, "RspForceUserLogout"}, {0x2013, "ReqExchangeDataSyncStatusUpdate"}, {0x2014, "RspExchangeDataSyncStatusUpdate"},
    {0x2015, "ReqSGDataSyncStatusUpdate"}, {0x2016, "RspSGDataSyncStatusUpdate"}, {0x2801, "ReqExchangeDataSync"}, {0x2802, "RspExchangeDataSync"},
    {0x2803, "ReqSgDataSync"}, {0x2804, "RspSgDataSync"}, {0x2805, "ReqInformation"}, {0x2806, "RspInformation"},
    {0x9001, "ReqFrontStatus"}, {0x9002, "RspFrontStatus"}, {0x7416, "ReqQuoteDemand"}, {0x7417, "RspQuoteDemand"},
    {0x7425, "ReqOptionSelfCloseUpdate"}, {0x7426, "RspOptionSelfCloseUpdate"}, {0x7427, "ReqOptionSelfCloseAction"}, {0x7428, "RspOptionSelfCloseAction"},
    {0x7431, "ReqAuthenticate"}, {0x7432, "RspAuthenticate"}, {0xF006, "RspDbmt"}, {0xF007, "ReqUserReport"},
    {0xF008, "RspUserReport"}, {0x4001, "ReqQryPartAccount"}, {0x4002, "RspQryPartAccount"}, {0x4003, "ReqQryOrder"},
    {0x4004, "RspQryOrder"}, {0x4005, "ReqQryQuote"}, {0x4006, "RspQryQuote"}, {0x4007, "ReqQryTrade"},
    {0x4008, "RspQryTrade"}, {0x4009, "ReqQryClient"}, {0x400A, "RspQryClient"}, {0x400B, "ReqQryPartPosition"},
    {0x400C, "RspQryPartPosition"}, {0x400D, "ReqQryClientPosition"}, {0x400E, "RspQryClientPosition"}, {0x400F, "ReqQryInstrument"},
    {0x4010, "RspQryInstrument"}, {0x4011, "ReqQryInstrumentStatus"}, {0x4012, "RspQryInstrumentStatus"}, {0x4013, "ReqQrySGDataSyncStatus"},
    {0x4014, "RspQrySGDataSyncStatus"}, {0x4015, "ReqQryHedgeVolume"}, {0x4016, "RspQryHedgeVolume"}, {0x4017, "ReqQryCombOrder"},
    {0x4018, "RspQryCombOrder"}, {0x4020, "ReqQryExecOrder"}, {0x4021, "RspQryExecOrder"}, {0x4022, "ReqQryAbandonExecOrder"},
    {0x4023, "RspQryAbandonExecOrder"}, {0x4024, "ReqQryOptionSelfClose"}, {0x4025, "RspQryOptionSelfClose"}, {0x4101, "ReqQryMarketData"},
    {0x4102, "RspQryMarketData"}, {0x4103, "ReqQryBulletin"}, {0x4104, "RspQryBulletin"}, {0x43D1, "ReqQryUserSession"},
    {0x43D2, "RspQryUserSession"}, {0x43D3, "ReqQryUser"}, {0x43D4, "RspQryUser"}, {0x43D5, "ReqQryParticipant"},
    {0x43D6, "RspQryParticipant"}, {0x43E1, "ReqQryMBLMarketData"}, {0x43E2, "RspQryMBLMarketData"}, {0x43E3, "ReqQryInformation"},
    {0x43E4, "RspQryInformation"}, {0x4801, "ReqQryExchangeStatus"}, {0x4802, "RspQryExchangeStatus"}, {0x4803, "ReqQryExchangeDataSyncStatus"},
    {0x4804, "RspQryExchangeDataSyncStatus"}, {0x4811, "ReqQrySettlementGroupStatus"}, {0x4812, "RspQrySettlementGroupStatus"}, {0x4813, "ReqQryCreditLimit"},
    {0x4814, "RspQryCreditLimit"}, {0x4815, "ReqQryExchangeRate"}, {0x4816, "RspQryExchangeRate"}, {0xF001, "ReqQryUserReport"},
    {0xF002, "RspQryUserReport"}, {0xF009, "ReqQrySql"}, {0xF00A, "RspQrySql"}, {0x3001, "DbAccountDeposit"},
    {0x3002, "DbUpdateAllInstrumentStatus"}, {0x3003, "DbClockDelta"}, {0x3021, "DbInsClient"}, {0x3022, "DbUpdClient"},
    {0x3024, "DbInsPartClient"}, {0x3025, "DbDelPartClient"}, {0x3026, "DbMortgageDeposit"}, {0x3031, "DbInsCurrPartPosiLimitDetail"},
    {0x3032, "DbUpdCurrPartPosiLimitDetail"}, {0x3033, "DbDelCurrPartPosiLimitDetail"}, {0x3041, "DbInsCurrClientPosiLimitDetail"}, {0x3042, "DbUpdCurrClientPosiLimitDetail"},
    {0x3043, "DbDelCurrClientPosiLimitDetail"}, {0x3051, "DbInsCurrSpecialPosiLimitDetail"}, {0x3052, "DbUpdCurrSpecialPosiLimitDetail"}, {0x3053, "DbDelCurrSpecialPosiLimitDetail"},
    {0x3061, "DbInsHedgeDetail"}, {0x3062, "DbUpdCurrHedge"}, {0x3071, "DbInsUser"}, {0x3072, "DbUpdUser"},
    {0x3081, "DbInsPartProductRight"}, {0x3082, "DbUpdPartProductRight"}, {0x3083, "DbDelPartProductRight"}, {0x3084, "DbInsClientProductRight"},
    {0x3085, "DbUpdClientProductRight"}, {0x3086, "DbDelClientProductRight"}, {0x3091, "DbInsPartInstrumentRight"}, {0x3092, "DbUpdPartInstrumentRight"},
    {0x3093, "DbDelPartInstrumentRight"}, {0x3094, "DbInsClientInstrumentRight"}, {0x3095, "DbUpdClientInstrumentRight"}, {0x3096, "DbDelClientInstrumentRight"},
    {0x30F1, "DbInsPartClientProductRight"}, {0x30F2, "DbUpdPartClientProductRight"}, {0x30F3, "DbDelPartClientProductRight"}, {0x30F4, "DbInsPartClientInstrumentRight"},
    {0x30F5, "DbUpdPartClientInstrumentRight"}, {0x30F6, "DbDelPartClientInstrumentRight"}, {0x30F7, "DbInsPartClientHedgeDirectRight"}, {0x30F8, "DbUpdPartClientHedgeDirectRight"},
    {0x30F9, "DbDelPartClientHedgeDirectRight"}, {0x30A1, "DbInsCurrMarginRateDetail"}, {0x30A2, "DbUpdCurrMarginRateDetail"}, {0x30A3, "DbDelCurrMarginRateDetail"},
    {0x30B1, "DbUpdMarketData"}, {0x30C1, "DbInsUserIP"}, {0x30C3, "DbDelUserIP"}, {0x30D1, "DbInsCurrPriceBanding"},
    {0x30D2, "DbUpdCurrPriceBanding"}, {0x30D3, "DbDelCurrPriceBanding"}, {0x30D4, "DbInsCurrTradingSegmentAttr"}, {0x30D5, "DbUpdCurrTradingSegmentAttr"},
    {0x30D6, "DbDelCurrTradingSegmentAttr"}, {0x30E1, "DbInsCurrPartOptPosiLimitDetail"}, {0x30E2, "DbUpdCurrPartOptPosiLimitDetail"}, {0x30E3, "DbDelCurrPartOptPosiLimitDetail"},
    {0x30E4, "DbInsCurrClientOptPosiLimitDetail"}, {0x30E5, "DbUpdCurrClientOptPosiLimitDetail"}, {0x30E6, "DbDelCurrClientOptPosiLimitDetail"}, {0x30E7, "DbInsCurrSpecOptPosiLimitDetail"},
    {0x30E8, "DbUpdCurrSpecOptPosiLimitDetail"}, {0x30E9, "DbDelCurrSpecOptPosiLimitDetail"}, {0x3101, "DbInsDbOTCOrder"}, {0xF003, "DbInsGeneralTable"},
    {0xF004, "DbDelGeneralTable"}, {0xF005, "DbUpdGeneralTable"}, {0xF00B, "DbClrGeneralTable"}, {0x5001, "NtfTimeSync"},
    {0x5002, "NtfCommPhaseChange"}, {0x5003, "NtfDataCenterDesc"}, {0x5101, "NtfInsInstrument"}, {0x5102, "NtfDelInstrument"},
    {0x5103, "NtfInsCombinationLeg"}, {0x5104, "NtfDelCombinationLeg"}, {0x510A, "NtfAliasDefine"}, {0x5201, "NtfOrder"},
    {0x5202, "NtfTrade"}, {0x5203, "NtfQuote"}, {0x5204, "NtfExecOrder"}, {0x5205, "NtfCombOrder"},
    {0x5206, "NtfAbandonExecOrder"}, {0x5211, "NtfInstrumentStatusUpdate"}, {0x5313, "NtfDelUserSession"}, {0x5801, "NtfBulletin"},
    {0x5802, "NtfMarketData"}, {0x5803, "NtfDepthMarketData"}, {0x5A01, "NtfAdminOrder"}, {0x5A02, "NtfTbCommandResult"},
    {0x7429, "NtfOptionSelfClose"}, {0x7418, "NtfQuoteDemandNotify"}, {0x6001, "ExchangeDataSyncStart"}, {0x6002, "ExchangeDataSyncEnd"},
    {0x7001, "SettlementGroupDataSyncStart"}, {0x7002, "SettlementGroupDataSyncEnd"}, {0x7411, "LoopMeasureData"}, {0x7414, "LastLoopMeasureData"},
    {0x6101, "InitExchange"}, {0x6102, "InitSettlementGroup"}, {0x6201, "InitMarket"}, {0x6202, "InitMarketProduct"},
    {0x6203, "InitMarketProductGroup"}, {0x6204, "InitMarketDataTopic"}, {0x6205, "InitPartTopicSubscribe"}, {0x6401, "InitParticipant"},
    {0x6402, "InitUser"}, {0x6403, "InitClient"}, {0x6404, "InitPartClient"}, {0x6405, "InitUserIP"},
    {0x6406, "InitMdPubStatus"}, {0x6407, "InitAliasDefine"}, {0x6408, "InitClearingTradingPart"}, {0x6409, "InitUserFunctionRight"},
    {0x640A, "InitAccount"}, {0x640B, "InitUserCommFlux"}, {0x640C, "InitIcmiDefine"}, {0x640D, "InitIcmiComposition"},
    {0x640E, "InitIcmiWeight"}, {0x640F, "InitIcmiStandardConst"}, {0x6410, "InitUserMeasure"}, {0x7103, "InitInstrument"},
    {0x7104, "InitCombinationLeg"}, {0x7105, "InitPartRoleAccount"}, {0x7201, "InitPartProductRole"}, {0x7202, "InitPartProductRight"},
    {0x7203, "InitPartInstrumentRight"}, {0x7204, "InitClientProductRight"}, {0x7205, "InitClientInstrumentRight"}, {0x7206, "InitPartClientProductRight"},
    {0x7207, "InitPartClientInstrumentRight"}, {0x7208, "InitPartClientHedgeDirectRight"}, {0x7301, "InitCurrProductProperty"}, {0x7303, "InitCurrInstrumentProperty"},
    {0x7304, "InitCurrPriceBanding"}, {0x7305, "InitCurrMarginRate"}, {0x7306, "InitCurrMarginRateDetail"}, {0x7307, "InitCurrPartPosiLimit"},
    {0x7308, "InitCurrPartPosiLimitDetail"}, {0x7309, "InitCurrClientPosiLimit"}, {0x730A, "InitCurrClientPosiLimitDetail"}, {0x730B, "InitCurrSpecialPosiLimit"},
    {0x730C, "InitCurrSpecialPosiLimitDetail"}, {0x730D, "InitCurrHedgeRule"}, {0x730E, "InitCurrTradingSegmentAttr"}, {0x730F, "InitCurrFuse"},
    {0x7401, "InitTradingAccount"}, {0x7402, "InitPartPosition"}, {0x7403, "InitClientPosition"}, {0x7404, "InitHedgeVolume"},
    {0x7405, "InitRemainOrder"}, {0x7407, "InitMarketData"}, {0x740A, "InitBaseReserveAccount"}, {0x740B, "InitCurrInstrumentOption"},
    {0x740C, "InitIndexData"}, {0x740E, "InitExchangeRate"}, {0x740F, "InitBizParameter"}, {0x7412, "InitCurrReferenceInstrument"},
    {0x7413, "InitProductMarginDeductRate"}, {0x7415, "InitPartClientProductMarketMaker"}, {0x741B, "InitCurrClientOpenPosiLimit"}, {0x741C, "InitClientProductOrderFlux"},
    {0x741D, "InitUserProductKey"}, {0x7420, "InitCurrPartOptPosiLimitDetail"}, {0x7421, "InitCurrClientOptPosiLimitDetail"}, {0x7422, "InitCurrSpecOptPosiLimitDetail"},
    {0x7430, "InitMktMakerSpread"}, {0x7433, "InitProductAuth"}, {0x7434, "InitPmmCombCommodity"}, {0x7435, "InitPmmCombCommodityGrp"},
    {0x7436, "InitPmmPartClientCategory"}, {0x7437, "InitPmmParam"}, {0x7438, "InitCurrSpecClientMarginCalcID"}, {0x7439, "InitSpreadLeg"},
};

// Names behind the prefix that both families use for records that differ.
const char* const DIFFERING[] = {
    "OrderActionField", "OTCOrderField", "QuoteActionField", "ExecOrderActionField",
    "AbandonExecOrderActionField", "CreditLimitField", "RspClientField", "RspExchangeRateField",
    "ParticipantField", "DepthMarketDataField", "QuoteField", "TradeField",
    "OrderField", "LoopMeasureField", "NodeMeasureField", "InputQuoteDemandField",
    "QuoteDemandInfoField", "QuoteDemandNotifyField", "UserProductAuthenticInfoField", "InputOptionSelfCloseField",
    "OptionSelfCloseField", "OptionSelfCloseActionField", "UserSystemInfoField", "ProductAuthField",
    "QryCreditLimitField", "QryExchangeRateField", "QryOptionSelfCloseField",
};

const FieldCatalog OXA = {&g_all_oxa_name_map, &g_all_oxa_field_map, &g_all_oxa_packet_map,
                          &g_all_oxa_packet_name_map};

// The Qel records by name, from their static descriptions, whatever the Qel
// maps hold at the time.
std::map<std::string, const FieldDesc*> qel_by_name() {
    std::map<std::string, const FieldDesc*> all;
    for (const QelRecordCoder& coder : g_qel_record_coders) all[coder.desc->name] = coder.desc;
    return all;
}

bool differs(const char* base) {
    for (const char* d : DIFFERING)
        if (std::strcmp(d, base) == 0) return true;
    return false;
}

// Puts the static descriptions and the packet table back into the maps
// after a test loaded a dump into them.
void restore_catalogue() {
    OXA.name_map->clear();
    OXA.field_map->clear();
    OXA.packet_map->clear();
    OXA.packet_name_map->clear();
    for (const OxaRecordCoder& coder : g_oxa_record_coders) register_catalog_field(OXA, coder.desc);
    for (const Packet& p : PACKETS) register_catalog_packet(OXA, p.id, p.name);
}

std::string temp_dir() {
    char dir[] = "/tmp/oxacatXXXXXX";
    return mkdtemp(dir);
}

// A record image whose every byte is distinct-ish, with FIXEDPOINT members set
// to a value (internal form) or its double (struct form), including nulls.
std::vector<unsigned char> sample(const FieldDesc* desc, bool doubles, int seed) {
    std::vector<unsigned char> bytes(desc->struct_size);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(seed + i * 7);
    for (int i = 0; i < desc->member_count; ++i) {
        const FieldDesc::MemberDesc* m = desc->get_member_desc(i);
        if (!is_fixed_point(m->type)) continue;
        long value = (i % 4 == 3) ? FIXED_POINT_NULL : (seed + i) * 100003L * (i % 2 ? -1 : 1);
        if (doubles) store_host<double>(&bytes[m->offset], fixed_to_double(value, m->type - DT_FIXEDPOINT0));
        else store_host<long>(&bytes[m->offset], value);
    }
    return bytes;
}

}  // namespace

// Every record against the registry: id, name, size, order of registration,
// both lookups; twins carry their Qel record's members, the rest none.
TEST(OxaCatalogue, RecordsMatchTheRegistry) {
    const size_t count = sizeof(REGISTRY) / sizeof(REGISTRY[0]);
    ASSERT_EQ(count, 232u);
    ASSERT_EQ(OXA_RECORD_COUNT, 232);
    ASSERT_EQ(sizeof(DIFFERING) / sizeof(DIFFERING[0]), 27u);
    EXPECT_EQ(g_all_oxa_name_map.get_count(), 232u);
    EXPECT_EQ(g_all_oxa_field_map.get_count(), 232u);
    std::map<std::string, const FieldDesc*> qel = qel_by_name();
    int twins = 0, common = 0, memberless = 0;
    for (size_t i = 0; i < count; ++i) {
        const Registered& r = REGISTRY[i];
        const FieldDesc* desc = g_oxa_record_coders[i].desc;
        ASSERT_STREQ(desc->name, r.name) << "registration order at " << i;
        EXPECT_EQ(desc->id, r.id) << r.name;
        EXPECT_EQ(desc->struct_size, r.size) << r.name;
        EXPECT_EQ(get_oxa_field_desc(r.name), desc) << r.name;
        EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(r.id)), desc) << r.name;

        const char* base = r.name + 3;
        auto twin = qel.find(std::string("Qel") + base);
        if (twin != qel.end()) ++common;
        if (twin != qel.end() && !differs(base)) {
            ++twins;
            EXPECT_TRUE(FieldDesc::is_same(desc, twin->second)) << r.name;
            EXPECT_EQ(desc->id, twin->second->id) << r.name;
            EXPECT_EQ(desc->struct_size, twin->second->struct_size) << r.name;
            EXPECT_EQ(desc->stream_size, twin->second->stream_size) << r.name;
            EXPECT_GT(desc->member_count, 0) << r.name;
        } else {
            ++memberless;
            EXPECT_EQ(desc->member_count, 0) << r.name;
            EXPECT_EQ(desc->stream_size, 0) << r.name;
        }
    }
    EXPECT_EQ(common, 99);
    EXPECT_EQ(twins, 72);
    EXPECT_EQ(memberless, 160);

    const FieldDesc* input_order = get_oxa_field_desc(static_cast<unsigned short>(17));
    ASSERT_NE(input_order, nullptr);
    EXPECT_STREQ(input_order->name, "OxaInputOrderField");
    EXPECT_TRUE(FieldDesc::is_same(input_order, &QelInputOrderField::DESC));

    // The same name behind the prefix is not the same record.
    const FieldDesc* action = get_oxa_field_desc("OxaOrderActionField");
    ASSERT_NE(action, nullptr);
    EXPECT_EQ(action->id, 251);
    EXPECT_EQ(action->struct_size, 176);
    EXPECT_EQ(QelOrderActionField::DESC.id, 18);
    EXPECT_EQ(QelOrderActionField::DESC.struct_size, 168);
    EXPECT_STREQ(get_oxa_field_desc(static_cast<unsigned short>(18))->name, "OxaInputOrderActionField");
    EXPECT_EQ(sizeof(OxaOrderActionField), 176u);
    // Id 0 is a record of its own.
    EXPECT_STREQ(get_oxa_field_desc(static_cast<unsigned short>(0))->name, "OxaDbOTCOrderField");

    EXPECT_EQ(get_oxa_field_desc("OxaNoSuchField"), nullptr);
    EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(0x7777)), nullptr);
    EXPECT_EQ(get_oxa_field_desc("QelInputOrderField"), nullptr);
    EXPECT_EQ(get_oxa_field_desc(static_cast<const char*>(nullptr)), nullptr);
}

TEST(OxaCatalogue, PacketsRoundTrip) {
    const size_t count = sizeof(PACKETS) / sizeof(PACKETS[0]);
    ASSERT_EQ(count, 292u);
    ASSERT_EQ(OXA_PACKET_COUNT, 292);
    EXPECT_EQ(g_all_oxa_packet_map.get_count(), 292u);
    EXPECT_EQ(g_all_oxa_packet_name_map.get_count(), 292u);
    for (const Packet& p : PACKETS) {
        const char* name = get_oxa_packet_name(p.id);
        ASSERT_NE(name, nullptr) << p.name;
        EXPECT_STREQ(name, p.name);
        EXPECT_EQ(get_oxa_packet_id(p.name), p.id) << p.name;
    }
    EXPECT_STREQ(get_oxa_packet_name(0x0009), "Nop");
    EXPECT_EQ(get_qel_packet_name(0x0009), nullptr);
    EXPECT_EQ(get_qel_packet_id("Nop"), 0);
    EXPECT_STREQ(get_oxa_packet_name(0x7439), "InitSpreadLeg");
    EXPECT_EQ(get_oxa_packet_name(0x0000), nullptr);
    EXPECT_EQ(get_oxa_packet_id("NoSuchPacket"), 0);
    EXPECT_EQ(get_oxa_packet_id(nullptr), 0);
}

// The generated struct coders of every record do byte for byte what the
// generic coders do, for every source length; records without members leave
// the destination alone.
TEST(OxaCatalogue, StructCodersMatchTheGenericOnes) {
    int converted = 0;
    for (const OxaRecordCoder& coder : g_oxa_record_coders) {
        const FieldDesc* desc = coder.desc;
        const int size = desc->struct_size;
        const std::vector<unsigned char> internal = sample(desc, false, 11), doubles = sample(desc, true, 11);
        for (int len = -1; len <= size + 1; ++len) {
            std::vector<unsigned char> made(size, 0xAB), want(size, 0xAB);
            EXPECT_EQ(coder.to_struct(internal.data(), made.data(), len),
                      FieldCoder::to_struct(desc, internal.data(), want.data(), len));
            ASSERT_EQ(made, want) << desc->name << " to_struct len " << len;
            std::fill(made.begin(), made.end(), 0xCD);
            std::fill(want.begin(), want.end(), 0xCD);
            EXPECT_EQ(coder.from_struct(made.data(), doubles.data(), len),
                      FieldCoder::from_struct(desc, want.data(), doubles.data(), len));
            ASSERT_EQ(made, want) << desc->name << " from_struct len " << len;
        }
        if (desc->member_count == 0) {
            std::vector<unsigned char> dst(size, 0xEE);
            EXPECT_EQ(coder.to_struct(internal.data(), dst.data(), size), 0);
            EXPECT_EQ(coder.from_struct(dst.data(), doubles.data(), size), 0);
            EXPECT_EQ(dst, std::vector<unsigned char>(size, 0xEE)) << desc->name;
            continue;
        }
        // A full round trip gives every member back, nulls included (padding
        // isn't a member and isn't copied).
        std::vector<unsigned char> there(size), back(size);
        EXPECT_EQ(coder.to_struct(internal.data(), there.data(), size), desc->member_count);
        EXPECT_EQ(coder.from_struct(back.data(), there.data(), size), desc->member_count);
        for (int i = 0; i < desc->member_count; ++i) {
            const FieldDesc::MemberDesc* m = desc->get_member_desc(i);
            EXPECT_EQ(std::memcmp(&back[m->offset], &internal[m->offset], m->total_size), 0)
                << desc->name << "." << m->name;
        }
        ++converted;
    }
    EXPECT_EQ(converted, 72);

    // A twin with money members, checked by value.
    OxaRspPartAccountField account;
    std::memset(&account, 0, sizeof(account));
    std::strcpy(account.AccountID, "A01");
    account.Deposit = 12345;
    account.Withdraw = FIXED_POINT_NULL;
    unsigned char out[sizeof(account)];
    ASSERT_EQ(OxaRspPartAccountField::to_struct(&account, out, sizeof(account)),
              OxaRspPartAccountField::DESC.member_count);
    EXPECT_EQ(load_host<double>(out + offsetof(OxaRspPartAccountField, Deposit)), 12.345);
    EXPECT_EQ(load_host<double>(out + offsetof(OxaRspPartAccountField, Withdraw)), DBL_MAX);
    EXPECT_STREQ(reinterpret_cast<const char*>(out + offsetof(OxaRspPartAccountField, AccountID)), "A01");
}

// A double that no scaled 64-bit integer holds comes in as the null value,
// not through an undefined conversion.
TEST(OxaCatalogue, OutOfRangeDoublesBecomeNull) {
    OxaRspPartAccountField record;
    unsigned char src[sizeof(record)] = {};
    const double wild[] = {1e300, -1e300, 9.3e15, -9.3e15, HUGE_VAL, -HUGE_VAL, std::nan("")};
    for (double value : wild) {
        store_host<double>(src + offsetof(OxaRspPartAccountField, Deposit), value);
        ASSERT_EQ(OxaRspPartAccountField::from_struct(&record, src, sizeof(src)),
                  OxaRspPartAccountField::DESC.member_count);
        EXPECT_EQ(record.Deposit, FIXED_POINT_NULL) << value;
    }
    store_host<double>(src + offsetof(OxaRspPartAccountField, Deposit), -0.3);
    OxaRspPartAccountField::from_struct(&record, src, sizeof(src));
    EXPECT_EQ(record.Deposit, -300);
    store_host<double>(src + offsetof(OxaRspPartAccountField, Deposit), 9.2e15);
    OxaRspPartAccountField::from_struct(&record, src, sizeof(src));
    EXPECT_EQ(record.Deposit, 9200000000000000000L);
}

// Saved and loaded, the catalogue gives the same descriptions, those
// without members included, and the same packets.
TEST(OxaCatalogue, DumpSavedAndLoaded) {
    const std::string dir = temp_dir();
    const std::string path = dir + "/oxa.dump";
    ASSERT_EQ(save_oxa_field(path.c_str()), 1);
    ASSERT_EQ(load_oxa_field(path.c_str()), 1);
    std::set<const FieldDesc*> loaded;
    for (const OxaRecordCoder& coder : g_oxa_record_coders) {
        const FieldDesc* statik = coder.desc;
        const FieldDesc* desc = get_oxa_field_desc(statik->name);
        ASSERT_NE(desc, nullptr) << statik->name;
        EXPECT_NE(desc, statik);
        EXPECT_EQ(get_oxa_field_desc(statik->id), desc) << statik->name;
        EXPECT_TRUE(FieldDesc::is_same(desc, statik)) << statik->name;
        EXPECT_EQ(desc->id, statik->id);
        EXPECT_EQ(desc->struct_size, statik->struct_size);
        EXPECT_EQ(desc->stream_size, statik->stream_size);
        EXPECT_EQ(desc->member_count, statik->member_count);
        loaded.insert(desc);
    }
    EXPECT_EQ(loaded.size(), 232u);
    for (const Packet& p : PACKETS) {
        EXPECT_STREQ(get_oxa_packet_name(p.id), p.name);
        EXPECT_EQ(get_oxa_packet_id(p.name), p.id);
    }
    // A loaded member-less description serves the generic coders as a no-op.
    const FieldDesc* action = get_oxa_field_desc("OxaOrderActionField");
    std::vector<unsigned char> src(action->struct_size, 1), dst(action->struct_size, 2);
    EXPECT_EQ(FieldCoder::from_struct(action, dst.data(), src.data(), action->struct_size), 0);
    EXPECT_EQ(dst, std::vector<unsigned char>(action->struct_size, 2));

    // A missing file fails and leaves every lookup empty.
    EXPECT_EQ(load_oxa_field((dir + "/missing").c_str()), 0);
    EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(17)), nullptr);
    EXPECT_EQ(get_oxa_packet_name(0x0009), nullptr);

    restore_catalogue();
    EXPECT_EQ(get_oxa_field_desc(static_cast<unsigned short>(17)), &OxaInputOrderField::DESC);
    EXPECT_EQ(g_all_oxa_packet_map.get_count(), 292u);
    unlink(path.c_str());
    rmdir(dir.c_str());
}
