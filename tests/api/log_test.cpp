// The request and response logs: whole lines of each form, files that
// can't be opened, fill up or vanish, and secrets that never reach a line.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "base/strings.h"
#include "tests/api/dispatch_helpers.h"
#include "tests/api/login_probe.h"
#include "tests/api/test_front.h"

using Api::LoginProbe;
using Api::TradeApiProbe;
using Api::ReplyPacket;

namespace {

struct TempDir {
    std::string file(const char* name) const { return path + name; }
    std::string path = test_front::temp_dir("log_");
};

// True when line starts with 20YYMMDDhhmmssmmm and a comma.
bool has_time(const std::string& line) {
    int month = 0, day = 0, hour = 0, minute = 0, second = 0;
    return line.compare(0, 2, "20") == 0 && line.find_first_not_of("0123456789") == 17 && line[17] == ',' &&
           std::sscanf(line.c_str() + 4, "%2d%2d%2d%2d%2d", &month, &day, &hour, &minute, &second) == 5 &&
           month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour < 24 && minute < 60 && second < 61;
}

// Each line of text with its leading time checked and cut off.
std::vector<std::string> lines_without_time(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        EXPECT_TRUE(has_time(line)) << line;
        lines.push_back(line.size() > 18 ? line.substr(18) : line);
    }
    return lines;
}

TEST(TradeLog, LinesOfEachFormAreWhole) {
    TempDir dir;
    FILE* file = std::fopen(dir.file("kept.log").c_str(), "a+b");
    ASSERT_NE(file, nullptr);
    char scratch[Api::TradeApi::FIELD_BUFFER_SIZE];

    // A request in the internal form as sent; a reply with an error in the struct
    // form a callback sees; a return; a query answer with nothing but its info.
    QelReqUserLoginField login = {};
    Base::str_ncpy(8, login.TradingDay, "20250102");
    Base::str_ncpy(15, login.UserID, "trader\"01");
    Base::str_ncpy(40, login.UserProductInfo, "my app");
    login.DataCenterID = 3;
    Api::write_log(file, "ReqUserLogin", &login, &QelReqUserLoginField::DESC, 0, scratch);

    QelRspInfoField info = {};
    info.ErrorID = 31;
    Base::str_ncpy(80, info.ErrorMsg, "no such account");
    CTulmQelcRspPartAccountField account = {};
    Base::str_ncpy(8, account.TradingDay, "20250102");
    Base::str_ncpy(8, account.SettlementGroupID, "SG1");
    account.SettlementID = 7;
    account.PreBalance = 1000.5;
    account.CurrMargin = DBL_MAX;  // null
    account.Balance = -0.25;
    Base::str_ncpy(12, account.AccountID, "ACC9");
    Api::write_log(file, &info, "OnRspQryPartAccount", &account, &QelRspPartAccountField::DESC,
                   sizeof(account), scratch);

    CTulmQelcInstrumentStatusField status = {};
    Base::str_ncpy(30, status.InstrumentID, "IO2501-C-4000");
    status.InstrumentStatus = '2';
    status.TradingSegmentSN = 4;
    Api::write_log(file, "OnRtnInstrumentStatus", &status, &QelInstrumentStatusField::DESC, sizeof(status),
                   scratch);
    info.ErrorID = 0;
    info.ErrorMsg[0] = 0;
    Api::write_log(file, &info, "OnRspQryOrder", nullptr, &QelOrderField::DESC, sizeof(CTulmQelcOrderField),
                   scratch);
    std::fclose(file);

    EXPECT_EQ(lines_without_time(test_front::read_file(dir.file("kept.log"))), (std::vector<std::string>{
        "ReqUserLogin,TradingDay=\"20250102\" UserID=\"trader\"\"01\" ParticipantID=\"\" Password=\"\" "
        "UserProductInfo=\"my app\" InterfaceProductInfo=\"\" ProtocolInfo=\"\" DataCenterID=\"3\"",
        "OnRspQryPartAccount,31,no such account,TradingDay=\"20250102\" SettlementGroupID=\"SG1\" "
        "SettlementID=\"7\" PreBalance=\"1000.500\" CurrMargin=\"\" CloseProfit=\"0.000\" Premium=\"0.000\" "
        "Deposit=\"0.000\" Withdraw=\"0.000\" Balance=\"-0.250\" Available=\"0.000\" AccountID=\"ACC9\" "
        "FrozenMargin=\"0.000\" FrozenPremium=\"0.000\" BaseReserve=\"0.000\"",
        "OnRtnInstrumentStatus,SettlementGroupID=\"\" InstrumentID=\"IO2501-C-4000\" InstrumentStatus=\"2\" "
        "TradingSegmentSN=\"4\" EnterTime=\"\" EnterReason=\"\" EnterDate=\"\"",
        "OnRspQryOrder,0,,"}));
}

// The response log swaps at once only while the trader has no reactor:
// each test opens the logs, then attaches.
class LoggedLogin : public Api::LoginFixture {
protected:
    // An authentication and a login with secrets, and their good replies.
    void log_in(const char* secret) {
        CTulmQelcProductAuthField auth = {};
        Base::str_ncpy(40, auth.AppID, "desk_app");
        Base::str_ncpy(16, auth.AuthCode, secret);
        LoginProbe::authenticate(api, &auth, 1);
        QelProductAuthField echoed = {};
        Base::str_ncpy(40, echoed.AppID, "desk_app");
        Base::str_ncpy(16, echoed.AuthCode, secret);
        QelRspInfoField info = {};
        LoginProbe::authenticate_reply(api, ReplyPacket(24747, 1).add(info).add(echoed).commit(), nullptr);

        CTulmQelcReqUserLoginField login = {};
        Base::str_ncpy(15, login.UserID, "trader01");
        Base::str_ncpy(10, login.ParticipantID, "PART01");
        Base::str_ncpy(40, login.Password, secret);
        Base::str_ncpy(40, login.UserProductInfo, "my_app");
        LoginProbe::login(api, &login, 2);
        QelUserCommFluxControlField limits = {1, 2, 3, 4};
        QelRspUserLoginField reply_record = {};
        Base::str_ncpy(8, reply_record.TradingDay, "20250106");
        Base::str_ncpy(15, reply_record.UserID, "trader01");
        LoginProbe::login_reply(api, ReplyPacket(4098, 2).add(info).add(limits).add(reply_record).commit(), nullptr);
    }

    TempDir dir;
};

TEST_F(LoggedLogin, NoSecretReachesALog) {
    ASSERT_EQ(api.OpenRequestLog(dir.file("request.log").c_str()), 0);
    ASSERT_EQ(api.OpenResponseLog(dir.file("response.log").c_str()), 0);
    attach();
    log_in("SECRET-16-CHARS!");
    std::string requests = test_front::read_file(dir.file("request.log"));
    std::string responses = test_front::read_file(dir.file("response.log"));
    EXPECT_EQ(requests.find("SECRET"), std::string::npos) << requests;
    EXPECT_EQ(responses.find("SECRET"), std::string::npos) << responses;
    EXPECT_EQ(lines_without_time(requests), (std::vector<std::string>{
        "ReqAuthenticate,AppID=\"desk_app\" AuthCode=\"\"",
        "ReqUserLogin,TradingDay=\"\" UserID=\"trader01\" ParticipantID=\"PART01\" Password=\"\" "
        "UserProductInfo=\"my_app\" InterfaceProductInfo=\"TULM QelTradeApi V2.00 202508.1826\" "
        "ProtocolInfo=\"QELC 4\" DataCenterID=\"0\""}));
    std::vector<std::string> lines = lines_without_time(responses);
    if (lines.size() > 1) lines[1].resize(59);  // the login reply's start
    EXPECT_EQ(lines, (std::vector<std::string>{"OnRspAuthenticate,0,,AppID=\"desk_app\" AuthCode=\"\"",
                                               "OnRspUserLogin,0,,TradingDay=\"20250106\" LoginTime=\"\" MaxOrd"}));
    // The password did reach the wire, where it belongs.
    std::vector<Api::SentPacket> sent = LoginProbe::sent(api);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[1].values[0].find("SECRET-16-CHARS!"), std::string::npos);
}

TEST_F(LoggedLogin, LogsThatCantBeOpenedAreOffAndTradingGoesOn) {
    ASSERT_EQ(api.OpenRequestLog(dir.file("kept.log").c_str()), 0);
    EXPECT_EQ(api.OpenRequestLog("/nonexistent/qel/request.log"), -4);
    EXPECT_EQ(LoginProbe::request_log(api), nullptr);  // the earlier file is closed, the log off
    EXPECT_EQ(api.OpenResponseLog("/nonexistent/qel/response.log"), -4);
    EXPECT_EQ(LoginProbe::response_log(api), nullptr);
    attach();
    log_in("pw");
    EXPECT_TRUE(TradeApiProbe::logged_in(api));
    EXPECT_EQ(LoginProbe::sent(api).size(), 2u);

    // Reopening adds to a file, never truncates it.
    ASSERT_EQ(api.OpenRequestLog(dir.file("kept.log").c_str()), 0);
    log_in("pw");
    ASSERT_EQ(api.OpenRequestLog(dir.file("kept.log").c_str()), 0);
    log_in("pw");
    EXPECT_EQ(lines_without_time(test_front::read_file(dir.file("kept.log"))).size(), 4u);
}

TEST_F(LoggedLogin, AFullDiskOrARemovedFileDoesNotStopTrading) {
    ASSERT_EQ(api.OpenRequestLog("/dev/full"), 0);
    ASSERT_EQ(api.OpenResponseLog(dir.file("gone.log").c_str()), 0);
    attach();
    log_in("pw");
    EXPECT_TRUE(TradeApiProbe::logged_in(api));
    ASSERT_EQ(std::remove(dir.file("gone.log").c_str()), 0);
    log_in("pw");
    ASSERT_EQ(api.OpenRequestLog(dir.file("gone.log").c_str()), 0);
    log_in("pw");
    ASSERT_EQ(std::remove(dir.file("gone.log").c_str()), 0);
    log_in("pw");
    EXPECT_TRUE(TradeApiProbe::logged_in(api));
    EXPECT_EQ(LoginProbe::sent(api).size(), 8u);
}

}  // namespace
