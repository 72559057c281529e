#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <unistd.h>

#include "record/fielddesc.h"
#include "containers/map.h"
#include "record/gen/qelfield.h"

using Base::FieldDesc;

namespace {

struct Registered {
    unsigned short id;
    const char* name;
    int struct_size;
    int stream_size;
    int members;
};

struct Placed {
    const char* name;
    int places[2 * 45];
};

// The registered records: id, name, struct_size, stream_size, member count.
const Registered REGISTRY[] = {
    {0x00F6, "QelUserReportField", 32, 32, 3},
    {0x00F5, "QelQryUserReportField", 16, 16, 1},
    {0x0001, "QelDisseminationField", 8, 6, 2},
    {0x0003, "QelRspInfoField", 88, 85, 2},
    {0x0004, "QelCommPhaseField", 12, 11, 2},
    {0x0005, "QelExchangeTradingDayField", 18, 18, 2},
    {0x0006, "QelSettlementSessionField", 24, 22, 3},
    {0x0007, "QelCurrentTimeField", 24, 22, 3},
    {0x000A, "QelReqUserLoginField", 204, 204, 8},
    {0x000B, "QelRspUserLoginField", 144, 140, 10},
    {0x000C, "QelReqUserLogoutField", 27, 27, 2},
    {0x000D, "QelRspUserLogoutField", 27, 27, 2},
    {0x0011, "QelInputOrderField", 224, 210, 24},
    {0x0012, "QelOrderActionField", 168, 152, 13},
    {0x0013, "QelOTCOrderField", 272, 259, 29},
    {0x0014, "QelOrderSessionField", 12, 12, 3},
    {0x0021, "QelInputQuoteField", 224, 210, 18},
    {0x0022, "QelQuoteActionField", 144, 140, 11},
    {0x0023, "QelInputExecOrderField", 160, 153, 15},
    {0x0024, "QelExecOrderActionField", 144, 140, 11},
    {0x0025, "QelInputAbandonExecOrderField", 156, 151, 13},
    {0x0026, "QelAbandonExecOrderActionField", 144, 140, 11},
    {0x0031, "QelUserLogoutField", 27, 27, 2},
    {0x0032, "QelUserPasswordUpdateField", 109, 109, 4},
    {0x0041, "QelInputCombOrderField", 312, 290, 31},
    {0x0053, "QelForceUserExitField", 27, 27, 2},
    {0x0061, "QelAccountDepositField", 32, 30, 3},
    {0x3101, "QelRspPartAccountField", 128, 123, 15},
    {0x3102, "QelRspPartPositionField", 96, 91, 14},
    {0x3103, "QelRspClientPositionField", 176, 165, 23},
    {0x3104, "QelRspInstrumentField", 248, 234, 29},
    {0x3106, "QelInformationField", 520, 517, 5},
    {0x3108, "QelCreditLimitField", 128, 124, 15},
    {0x3109, "QelRspClientField", 200, 197, 9},
    {0x3201, "QelFlowMessageCancelField", 24, 23, 5},
    {0x310B, "QelRspExchangeRateField", 32, 25, 4},
    {0x1401, "QelParticipantField", 76, 76, 5},
    {0x1402, "QelUserField", 80, 77, 6},
    {0x1403, "QelClientField", 168, 165, 7},
    {0x1406, "QelUserSessionField", 188, 185, 11},
    {0x2101, "QelProductGroupField", 48, 48, 4},
    {0x2102, "QelProductField", 49, 49, 5},
    {0x2103, "QelInstrumentField", 160, 153, 17},
    {0x2104, "QelCombinationLegField", 84, 84, 7},
    {0x2401, "QelAccountInfoField", 232, 226, 29},
    {0x2402, "QelPartPositionField", 96, 91, 14},
    {0x2403, "QelClientPositionField", 176, 165, 23},
    {0x2404, "QelHedgeVolumeField", 96, 91, 10},
    {0x2407, "QelMarketDataField", 208, 199, 23},
    {0x2408, "QelDepthMarketDataField", 368, 319, 43},
    {0x2410, "QelMBLMarketDataField", 48, 44, 4},
    {0x2411, "QelAliasDefineField", 12, 10, 3},
    {0x2431, "QelMarketDataBaseField", 56, 54, 7},
    {0x2432, "QelMarketDataStaticField", 64, 64, 8},
    {0x2433, "QelMarketDataLastMatchField", 32, 28, 4},
    {0x2434, "QelMarketDataBestPriceField", 32, 24, 4},
    {0x2435, "QelMarketDataBid23Field", 32, 24, 4},
    {0x2436, "QelMarketDataAsk23Field", 32, 24, 4},
    {0x2437, "QelMarketDataBid45Field", 32, 24, 4},
    {0x2438, "QelMarketDataAsk45Field", 32, 24, 4},
    {0x2439, "QelMarketDataUpdateTimeField", 56, 53, 4},
    {0x2506, "QelQuoteField", 320, 305, 28},
    {0x2507, "QelTradeField", 224, 215, 24},
    {0x2508, "QelOrderField", 360, 341, 43},
    {0x2509, "QelExecOrderField", 244, 236, 25},
    {0x250A, "QelCombOrderField", 384, 359, 41},
    {0x250B, "QelAbandonExecOrderField", 240, 234, 23},
    {0x2510, "QelAdminOrderField", 80, 71, 6},
    {0x2511, "QelInputAdminOrderField", 80, 71, 6},
    {0x2607, "QelBulletinField", 848, 843, 11},
    {0x2701, "QelExchangeDataSyncStatusField", 19, 19, 3},
    {0x2702, "QelSGDataSyncStatusField", 28, 23, 4},
    {0x2703, "QelInstrumentStatusField", 68, 64, 7},
    {0x3202, "QelUserCommFluxControlField", 16, 16, 4},
    {0x8002, "QelLoopMeasureField", 32, 29, 5},
    {0x8003, "QelNodeMeasureField", 36, 33, 4},
    {0x8004, "QelMDProxyField", 48, 45, 9},
    {0x8005, "QelInputQuoteDemandField", 82, 82, 5},
    {0x8006, "QelQuoteDemandInfoField", 109, 109, 8},
    {0x8007, "QelQuoteDemandNotifyField", 62, 62, 4},
    {0x8008, "QelUserapiAuthenticInfoField", 301, 301, 1},
    {0x8009, "QelUserProductAuthenticInfoField", 301, 301, 1},
    {0x800A, "QelUserapiInitAuthInfoField", 4, 4, 1},
    {0x8010, "QelInputOptionSelfCloseField", 156, 149, 11},
    {0x8011, "QelOptionSelfCloseField", 240, 232, 21},
    {0x8012, "QelOptionSelfCloseActionField", 144, 140, 11},
    {0x8015, "QelUserSystemInfoField", 308, 305, 2},
    {0x8016, "QelProductAuthField", 58, 58, 2},
    {0x8017, "QelUserapiSessionAuthInfoField", 301, 301, 1},
    {0x3001, "QelQryOrderField", 111, 111, 8},
    {0x3002, "QelQryQuoteField", 93, 93, 6},
    {0x3003, "QelQryTradeField", 142, 142, 9},
    {0x3004, "QelQryMarketDataField", 40, 40, 2},
    {0x3006, "QelQryClientField", 44, 44, 4},
    {0x3007, "QelQryPartPositionField", 84, 84, 4},
    {0x3008, "QelQryClientPositionField", 107, 107, 7},
    {0x3009, "QelQryPartAccountField", 35, 35, 3},
    {0x300A, "QelQryInstrumentField", 58, 58, 4},
    {0x300B, "QelQryInstrumentStatusField", 62, 62, 2},
    {0x300C, "QelQrySGDataSyncStatusField", 9, 9, 1},
    {0x300D, "QelQryUserSessionField", 33, 33, 3},
    {0x300E, "QelQryUserField", 32, 32, 2},
    {0x300F, "QelQryBulletinField", 28, 26, 5},
    {0x3010, "QelQryParticipantField", 22, 22, 2},
    {0x3011, "QelQryHedgeVolumeField", 106, 106, 6},
    {0x3014, "QelQryMBLMarketDataField", 63, 63, 3},
    {0x3015, "QelQryCreditLimitField", 22, 22, 2},
    {0x3016, "QelQryExecOrderField", 111, 111, 8},
    {0x3017, "QelQryAbandonExecOrderField", 111, 111, 8},
    {0x3018, "QelQryCombOrderField", 62, 62, 5},
    {0x3105, "QelQryInformationField", 8, 8, 2},
    {0x310A, "QelQryExchangeRateField", 4, 4, 1},
    {0x8013, "QelQryOptionSelfCloseField", 111, 111, 8},
};

// Member places of the records that the trader exchanges: offset and stream
// offset of each member in order.
const Placed PLACES[] = {
    {"QelDisseminationField", {0, 0, 4, 2}},
    {"QelRspInfoField", {0, 0, 4, 4}},
    {"QelReqUserLoginField", {0, 0, 9, 9, 25, 25, 36, 36, 77, 77, 118, 118, 159, 159, 200, 200}},
    {"QelRspUserLoginField",
     {0, 0, 9, 9, 18, 18, 31, 31, 47, 47, 58, 58, 120, 119, 124, 123, 128, 127, 132, 131}},
    {"QelReqUserLogoutField", {0, 0, 16, 16}},
    {"QelRspUserLogoutField", {0, 0, 16, 16}},
    {"QelInputOrderField",
     {0, 0, 13, 13, 24, 24, 35, 35, 51, 51, 82, 82, 83, 83, 84, 84, 89, 89, 96, 94, 104, 102, 108, 106,
      109, 107, 118, 116, 120, 117, 124, 121, 128, 122, 136, 130, 137, 131, 152, 144, 156, 148, 180, 169,
      184, 173, 200, 189}},
    {"QelOrderActionField",
     {0, 0, 13, 13, 26, 26, 27, 27, 38, 38, 49, 49, 72, 65, 80, 73, 84, 77, 97, 90, 120, 111, 124, 115,
      140, 131}},
    {"QelInputQuoteField",
     {0, 0, 13, 13, 24, 24, 35, 35, 52, 51, 56, 55, 87, 86, 100, 99, 121, 120, 126, 125, 136, 130, 144,
      138, 149, 143, 160, 148, 168, 156, 172, 160, 188, 176, 209, 197}},
    {"QelQuoteActionField",
     {0, 0, 13, 13, 26, 26, 27, 27, 38, 38, 49, 49, 65, 65, 78, 78, 100, 99, 104, 103, 120, 119}},
    {"QelInputExecOrderField",
     {0, 0, 31, 31, 42, 42, 53, 53, 69, 69, 84, 82, 88, 86, 89, 87, 90, 88, 91, 89, 92, 90, 93, 91, 116,
      112, 120, 116, 136, 132}},
    {"QelExecOrderActionField",
     {0, 0, 13, 13, 26, 26, 27, 27, 38, 38, 49, 49, 65, 65, 78, 78, 100, 99, 104, 103, 120, 119}},
    {"QelInputAbandonExecOrderField",
     {0, 0, 31, 31, 42, 42, 53, 53, 69, 69, 84, 82, 88, 86, 89, 87, 90, 88, 91, 89, 112, 110, 116, 114,
      132, 130}},
    {"QelAbandonExecOrderActionField",
     {0, 0, 13, 13, 26, 26, 27, 27, 38, 38, 49, 49, 65, 65, 78, 78, 100, 99, 104, 103, 120, 119}},
    {"QelUserPasswordUpdateField", {0, 0, 16, 16, 27, 27, 68, 68}},
    {"QelRspPartAccountField",
     {0, 0, 9, 9, 20, 18, 24, 22, 32, 30, 40, 38, 48, 46, 56, 54, 64, 62, 72, 70, 80, 78, 88, 86, 104, 99,
      112, 107, 120, 115}},
    {"QelRspPartPositionField",
     {0, 0, 9, 9, 20, 18, 24, 22, 25, 23, 28, 24, 32, 28, 36, 32, 40, 36, 44, 40, 48, 44, 52, 48, 83, 79,
      94, 90}},
    {"QelRspClientPositionField",
     {0, 0, 9, 9, 20, 18, 24, 22, 25, 23, 28, 24, 32, 28, 36, 32, 40, 36, 44, 40, 48, 44, 52, 48, 56, 52,
      64, 56, 72, 64, 80, 72, 88, 80, 96, 88, 104, 96, 112, 104, 120, 112, 151, 143, 162, 154}},
    {"QelRspInstrumentField",
     {0, 0, 9, 9, 18, 18, 27, 27, 58, 58, 59, 59, 64, 60, 72, 68, 76, 69, 80, 73, 88, 81, 119, 112, 140,
      133, 144, 137, 148, 141, 152, 145, 156, 149, 165, 158, 174, 167, 183, 176, 192, 185, 208, 194, 216,
      202, 220, 206, 224, 210, 228, 214, 232, 218, 240, 226, 244, 230}},
    {"QelRspClientField", {0, 0, 11, 11, 92, 92, 108, 108, 129, 129, 130, 130, 132, 131, 136, 135, 147, 146}},
    {"QelFlowMessageCancelField", {0, 0, 2, 2, 12, 11, 16, 15, 20, 19}},
    {"QelRspExchangeRateField", {0, 0, 9, 9, 16, 13, 24, 17}},
    {"QelInstrumentField",
     {0, 0, 9, 9, 18, 18, 27, 27, 58, 58, 59, 59, 64, 60, 72, 68, 76, 69, 80, 73, 88, 81, 119, 112, 140,
      133, 144, 137, 148, 141, 152, 145, 156, 149}},
    {"QelHedgeVolumeField", {0, 0, 9, 9, 20, 18, 24, 22, 35, 33, 46, 44, 80, 75, 84, 79, 88, 83, 92, 87}},
    {"QelMarketDataField",
     {0, 0, 9, 9, 20, 18, 24, 22, 32, 30, 40, 38, 48, 46, 56, 54, 64, 62, 72, 70, 80, 78, 88, 82, 96, 90,
      104, 98, 112, 106, 120, 114, 128, 122, 136, 130, 144, 138, 152, 146, 164, 155, 168, 159, 199, 190}},
    {"QelQuoteField",
     {0, 0, 9, 9, 20, 18, 24, 22, 37, 35, 48, 46, 59, 57, 76, 73, 80, 77, 111, 108, 124, 121, 145, 142,
      150, 147, 160, 152, 168, 160, 173, 165, 184, 170, 192, 178, 201, 187, 210, 196, 219, 205, 232, 218,
      245, 231, 256, 242, 260, 246, 269, 255, 285, 271, 306, 292}},
    {"QelTradeField",
     {0, 0, 9, 9, 20, 18, 24, 22, 37, 35, 38, 36, 51, 49, 62, 60, 73, 71, 74, 72, 87, 85, 118, 116, 119,
      117, 120, 118, 128, 126, 132, 130, 141, 139, 142, 140, 143, 141, 159, 157, 172, 170, 183, 181, 204,
      202, 208, 206}},
    {"QelOrderField",
     {0, 0, 9, 9, 20, 18, 24, 22, 37, 35, 48, 46, 59, 57, 75, 73, 106, 104, 107, 105, 108, 106, 113, 111,
      120, 116, 128, 124, 132, 128, 133, 129, 142, 138, 144, 139, 148, 143, 152, 144, 160, 152, 161, 153,
      176, 166, 180, 170, 181, 171, 182, 172, 184, 173, 188, 177, 192, 181, 201, 190, 210, 199, 219, 208,
      228, 217, 237, 226, 246, 235, 264, 251, 268, 255, 272, 259, 283, 270, 304, 291, 308, 295, 317, 304,
      333, 320}},
    {"QelExecOrderField",
     {0, 0, 9, 9, 20, 18, 24, 22, 55, 53, 66, 64, 77, 75, 93, 91, 108, 104, 112, 108, 113, 109, 114, 110,
      115, 111, 116, 112, 117, 113, 138, 134, 151, 147, 160, 156, 169, 165, 178, 174, 179, 175, 192, 186,
      196, 190, 205, 199, 221, 215}},
    {"QelAbandonExecOrderField",
     {0, 0, 9, 9, 20, 18, 24, 22, 55, 53, 66, 64, 77, 75, 93, 91, 108, 104, 112, 108, 113, 109, 114, 110,
      115, 111, 136, 132, 140, 136, 153, 149, 162, 158, 171, 167, 180, 176, 181, 177, 192, 188, 201, 197,
      217, 213}},
    {"QelBulletinField",
     {0, 0, 12, 9, 16, 13, 20, 17, 23, 20, 24, 21, 33, 30, 114, 111, 135, 132, 636, 633, 837, 834}},
    {"QelInstrumentStatusField", {0, 0, 9, 9, 40, 40, 44, 41, 48, 45, 57, 54, 58, 55}},
    {"QelUserCommFluxControlField", {0, 0, 4, 4, 8, 8, 12, 12}},
    {"QelInputQuoteDemandField", {0, 0, 11, 11, 22, 22, 38, 38, 69, 69}},
    {"QelQuoteDemandInfoField", {0, 0, 9, 9, 20, 20, 31, 31, 47, 47, 78, 78, 91, 91, 100, 100}},
    {"QelQuoteDemandNotifyField", {0, 0, 31, 31, 40, 40, 49, 49}},
    {"QelUserapiAuthenticInfoField", {0, 0}},
    {"QelUserapiInitAuthInfoField", {0, 0}},
    {"QelInputOptionSelfCloseField",
     {0, 0, 31, 31, 42, 42, 53, 53, 69, 69, 84, 82, 88, 86, 89, 87, 112, 108, 116, 112, 132, 128}},
    {"QelOptionSelfCloseField",
     {0, 0, 9, 9, 20, 18, 24, 22, 55, 53, 66, 64, 77, 75, 93, 91, 108, 104, 112, 108, 113, 109, 136, 130,
      140, 134, 156, 150, 177, 171, 190, 184, 191, 185, 200, 194, 209, 203, 218, 212, 229, 223}},
    {"QelOptionSelfCloseActionField",
     {0, 0, 13, 13, 26, 26, 27, 27, 38, 38, 49, 49, 65, 65, 78, 78, 100, 99, 104, 103, 120, 119}},
    {"QelUserSystemInfoField", {0, 0, 304, 301}},
    {"QelProductAuthField", {0, 0, 41, 41}},
    {"QelUserapiSessionAuthInfoField", {0, 0}},
    {"QelQryOrderField", {0, 0, 11, 11, 22, 22, 35, 35, 66, 66, 77, 77, 93, 93, 102, 102}},
    {"QelQryQuoteField", {0, 0, 11, 11, 22, 22, 35, 35, 46, 46, 77, 77}},
    {"QelQryTradeField", {0, 0, 11, 11, 22, 22, 53, 53, 84, 84, 97, 97, 108, 108, 124, 124, 133, 133}},
    {"QelQryMarketDataField", {0, 0, 9, 9}},
    {"QelQryClientField", {0, 0, 11, 11, 22, 22, 33, 33}},
    {"QelQryPartPositionField", {0, 0, 11, 11, 22, 22, 53, 53}},
    {"QelQryClientPositionField", {0, 0, 11, 11, 22, 22, 33, 33, 44, 44, 75, 75, 106, 106}},
    {"QelQryPartAccountField", {0, 0, 11, 11, 22, 22}},
    {"QelQryInstrumentField", {0, 0, 9, 9, 18, 18, 27, 27}},
    {"QelQryInstrumentStatusField", {0, 0, 31, 31}},
    {"QelQryBulletinField", {0, 0, 9, 9, 20, 18, 24, 22, 27, 25}},
    {"QelQryHedgeVolumeField", {0, 0, 11, 11, 22, 22, 33, 33, 44, 44, 75, 75}},
    {"QelQryExecOrderField", {0, 0, 11, 11, 22, 22, 35, 35, 66, 66, 77, 77, 93, 93, 102, 102}},
    {"QelQryAbandonExecOrderField", {0, 0, 11, 11, 22, 22, 35, 35, 66, 66, 77, 77, 93, 93, 102, 102}},
    {"QelQryExchangeRateField", {0, 0}},
    {"QelQryOptionSelfCloseField", {0, 0, 11, 11, 22, 22, 35, 35, 66, 66, 77, 77, 93, 93, 102, 102}},
};

std::string temp_path(const char* leaf) {
    char dir[] = "/tmp/qelcatXXXXXX";
    std::string made = mkdtemp(dir);
    return made + "/" + leaf;
}

}  // namespace

// Every record as compiled against the registry: id, name, sizes, member
// count, registration order, the layout rule and the key-free stream packing.
TEST(QelCatalogue, LayoutsMatchTheRegistry) {
    ASSERT_EQ(sizeof(REGISTRY) / sizeof(REGISTRY[0]), static_cast<size_t>(QEL_RECORD_COUNT));
    for (int i = 0; i < QEL_RECORD_COUNT; ++i) {
        const Registered& r = REGISTRY[i];
        const FieldDesc* desc = g_qel_record_coders[i].desc;
        SCOPED_TRACE(r.name);
        EXPECT_STREQ(desc->name, r.name);
        EXPECT_EQ(desc->id, r.id);
        EXPECT_EQ(desc->struct_size, r.struct_size);
        EXPECT_EQ(desc->stream_size, r.stream_size);
        EXPECT_EQ(desc->member_count, r.members);
        EXPECT_EQ(get_qel_field_desc(r.id), desc);
        EXPECT_EQ(get_qel_field_desc(r.name), desc);
        int end = 0, stream = 0, widest = 1;
        for (int k = 0; k < desc->member_count; ++k) {
            const FieldDesc::MemberDesc* m = desc->get_member_desc(k);
            int align = m->type == Base::DT_STRING || m->type == Base::DT_CHAR ? 1 : m->total_size;
            widest = align > widest ? align : widest;
            end = (end + align - 1) / align * align;
            EXPECT_EQ(m->offset, end) << m->name;
            EXPECT_EQ(m->stream_offset, stream) << m->name;
            EXPECT_EQ(m->element_size, m->total_size);
            EXPECT_EQ(m->count, 1);
            EXPECT_EQ(desc->get_member_index(m->name), k);
            end += m->total_size;
            stream += m->total_size;
        }
        EXPECT_EQ(stream, desc->stream_size);
        EXPECT_EQ((end + widest - 1) / widest * widest, desc->struct_size);
    }
    for (const Placed& p : PLACES) {
        const FieldDesc* desc = get_qel_field_desc(p.name);
        ASSERT_NE(desc, nullptr) << p.name;
        for (int k = 0; k < desc->member_count; ++k) {
            EXPECT_EQ(desc->get_member_desc(k)->offset, p.places[2 * k]) << p.name << " " << k;
            EXPECT_EQ(desc->get_member_desc(k)->stream_offset, p.places[2 * k + 1]) << p.name << " " << k;
        }
    }
    const FieldDesc* order = &QelInputOrderField::DESC;
    EXPECT_EQ(order->get_member_desc(order->get_member_index("LimitPrice"))->type, Base::DT_FLOAT64);
    EXPECT_TRUE(order->get_member_desc(0)->key);
    EXPECT_FALSE(order->get_member_desc(1)->key);
    EXPECT_STREQ(order->get_member_desc(0)->type_name, "OxaOrderSysIDType");
    EXPECT_EQ(QelRspPartAccountField::DESC.get_member_desc(3)->type, Base::DT_FIXEDPOINT3);
}

TEST(QelCatalogue, PacketsAndLookups) {
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(17)), get_qel_field_desc("QelInputOrderField"));
    EXPECT_EQ(get_qel_field_desc("QelNoSuchField"), nullptr);
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(0x7777)), nullptr);
    EXPECT_STREQ(get_qel_packet_name(0x1005), "ReqOrderInsert");
    EXPECT_EQ(get_qel_packet_id("ReqOrderInsert"), 0x1005);
    EXPECT_EQ(get_qel_packet_id("NoSuchPacket"), 0);
    EXPECT_EQ(get_qel_packet_name(0x0009), nullptr);
    EXPECT_STREQ(get_qel_packet_name(0x0001), "RspError");
    EXPECT_STREQ(get_qel_packet_name(0x60A7), "ErrRtnOptionSelfCloseAction");
    EXPECT_EQ(get_qel_packet_id("RtnQuoteDemandNotify"), 0x608E);
    EXPECT_EQ(get_qel_packet_id("ReqAuthenticate"), 0x60AA);
    EXPECT_EQ(get_qel_packet_id("RspQryUserReport"), 0xF002);
    EXPECT_EQ(g_all_qel_packet_map.get_count(), static_cast<unsigned int>(QEL_PACKET_COUNT));
    EXPECT_EQ(QEL_PACKET_COUNT, 142);
    EXPECT_EQ(g_all_qel_packet_name_map.get_count(), 142u);
    EXPECT_EQ(g_all_qel_field_map.get_count(), 113u);
    EXPECT_EQ(g_all_qel_name_map.get_count(), 113u);
    // Every packet id maps to a name that maps back to it.
    for (Base::Map::Iterator it(&g_all_qel_packet_map, nullptr, true); !it.is_end();) {
        const Base::Map::Node* node = static_cast<const Base::Map::Node*>(it.next());
        unsigned short id;
        memcpy(&id, node->key, 2);
        EXPECT_EQ(get_qel_packet_id(static_cast<const char*>(node->value)), id);
    }
}

// Descriptions and maps are read-only after start: threads share them freely.
TEST(QelCatalogue, ConcurrentReaders) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            unsigned char record[1024], wire[1024], back[1024];
            for (int round = 0; round < 200; ++round) {
                const QelRecordCoder& coder = g_qel_record_coders[(round * 7 + t) % QEL_RECORD_COUNT];
                const FieldDesc* desc = coder.desc;
                if (get_qel_field_desc(desc->id) != desc || get_qel_field_desc(desc->name) != desc) ++failures[t];
                if (get_qel_packet_id(get_qel_packet_name(0x1005)) != 0x1005) ++failures[t];
                memset(record, round & 0x3F, desc->struct_size);
                coder.to_stream(record, wire, desc->struct_size);
                coder.from_stream(back, wire, desc->stream_size, true);
                if (desc->hash_key(record) != desc->hash_key(record)) ++failures[t];
                if (desc->get_member_index(desc->get_member_desc(0)->name) != 0) ++failures[t];
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (int f : failures) EXPECT_EQ(f, 0);
}

// Runs last in this suite: a load replaces the process-wide maps, so the test
// saves them, loads them back and checks that the lookups are as before.
TEST(QelCatalogue, DumpSavedAndLoaded) {
    std::string path = temp_path("qel.dump");
    ASSERT_EQ(save_qel_field(path.c_str()), 1);
    ASSERT_EQ(load_qel_field(path.c_str()), 1);
    std::set<const FieldDesc*> loaded;
    for (const QelRecordCoder& coder : g_qel_record_coders) {
        const FieldDesc* statik = coder.desc;
        const FieldDesc* by_id = get_qel_field_desc(statik->id);
        ASSERT_NE(by_id, nullptr) << statik->name;
        EXPECT_NE(by_id, statik);  // a fresh description from the file
        EXPECT_EQ(get_qel_field_desc(statik->name), by_id);
        EXPECT_TRUE(FieldDesc::is_same(by_id, statik)) << statik->name;
        EXPECT_EQ(by_id->id, statik->id);
        EXPECT_STREQ(by_id->name, statik->name);
        EXPECT_EQ(by_id->struct_size, statik->struct_size);
        EXPECT_EQ(by_id->stream_size, statik->stream_size);
        EXPECT_EQ(by_id->get_member_index(statik->get_member_desc(statik->member_count - 1)->name),
                  statik->member_count - 1);
        loaded.insert(by_id);
    }
    EXPECT_EQ(loaded.size(), 113u);
    EXPECT_STREQ(get_qel_packet_name(0x1005), "ReqOrderInsert");
    EXPECT_EQ(get_qel_packet_id("RspQryExchangeRate"), 0x608A);
    EXPECT_EQ(g_all_qel_packet_map.get_count(), 142u);

    // A second save of the loaded catalogue is the same file.
    std::string again = path + ".2";
    ASSERT_EQ(save_qel_field(again.c_str()), 1);
    auto read = [](const std::string& p) {
        std::string data;
        FILE* f = fopen(p.c_str(), "rb");
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0) data.append(buf, n);
        fclose(f);
        return data;
    };
    std::string first = read(path), second = read(again);
    EXPECT_EQ(first.size(), second.size());
    unsigned int records;
    memcpy(&records, first.data(), 4);
    EXPECT_EQ(records, 113u);

    // A truncated file fails, and a missing file fails with every lookup empty.
    std::string cut = path + ".cut";
    FILE* f = fopen(cut.c_str(), "wb");
    fwrite(first.data(), 1, first.size() / 2, f);
    fclose(f);
    EXPECT_EQ(load_qel_field(cut.c_str()), 0);
    EXPECT_EQ(load_qel_field((path + ".missing").c_str()), 0);
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(17)), nullptr);
    EXPECT_EQ(get_qel_field_desc("QelInputOrderField"), nullptr);
    EXPECT_EQ(get_qel_packet_name(0x1005), nullptr);
    EXPECT_EQ(get_qel_packet_id("ReqOrderInsert"), 0);

    // Restore the catalogue for whatever runs after.
    ASSERT_EQ(load_qel_field(path.c_str()), 1);
    EXPECT_EQ(get_qel_field_desc(static_cast<unsigned short>(17))->struct_size, 224);
    for (const char* p : {path.c_str(), again.c_str(), cut.c_str()}) unlink(p);
    rmdir(path.substr(0, path.rfind('/')).c_str());
}
