// The rest of the order family on the front (quotes and their cancel,
// exercises, quote demands, password changes), and the configuration read
// from a file and from flags.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "front/exchange.h"
#include "tests/front/front_client.h"

using namespace fronttest;

TEST(FrontFamily, QuotesExercisesDemandsAndPasswords) {
    Front::Server front(quiet_config());
    ASSERT_TRUE(front.start());
    Client c(front.get_port());
    ASSERT_TRUE(c.wait_ready());
    c.login("trader1", "pass1", 1);
    ASSERT_TRUE(c.wait_for(22785, 1));

    QelInputQuoteField quote{};
    strcpy(quote.UserID, "trader1");
    strcpy(quote.InstrumentID, "qe2612-C-4000");
    strcpy(quote.QuoteLocalID, "10");
    quote.Volume = 5;
    quote.BidPrice = 10.0;
    quote.AskPrice = 10.5;
    c.send(4105, 2, 1, quote);
    ASSERT_TRUE(c.wait_for(20484, 1, 2));
    QelQuoteField rtn;
    ASSERT_TRUE(c.of(20484, 2)[0].get(rtn));
    EXPECT_STREQ(rtn.QuoteLocalID, "10");
    EXPECT_STREQ(rtn.ParticipantID, "P001");
    EXPECT_EQ(rtn.CancelTime[0], '\0');

    QelQuoteActionField cancel{};
    strcpy(cancel.UserID, "trader1");
    strcpy(cancel.QuoteSysID, rtn.QuoteSysID);
    cancel.ActionFlag = '0';
    c.send(4107, 3, 1, cancel);
    c.send(4107, 4, 1, cancel);
    ASSERT_TRUE(c.wait_for(4108, 2));
    EXPECT_EQ(c.of(4108)[0].error(), 0);
    EXPECT_EQ(c.of(4108)[1].error(), Front::ERROR_ALREADY_DONE);
    ASSERT_TRUE(c.wait_for(20484, 2, 2));
    ASSERT_TRUE(c.of(20484, 2)[1].get(rtn));
    EXPECT_NE(rtn.CancelTime[0], '\0');

    QelInputExecOrderField exec{};
    strcpy(exec.UserID, "trader1");
    strcpy(exec.InstrumentID, "qe2612-C-4000");
    strcpy(exec.ExecOrderLocalID, "11");
    exec.Volume = 1;
    c.send(4113, 5, 1, exec);
    strcpy(exec.InstrumentID, "none");
    c.send(4113, 6, 1, exec);
    ASSERT_TRUE(c.wait_for(4114, 2) && c.wait_for(20483, 1, 2));
    EXPECT_EQ(c.of(4114)[0].error(), 0);
    EXPECT_EQ(c.of(4114)[1].error(), Front::ERROR_UNKNOWN_INSTRUMENT);

    QelInputQuoteDemandField demand{};
    strcpy(demand.UserID, "trader1");
    strcpy(demand.InstrumentID, "qe2612-C-4000");
    strcpy(demand.QuoteDemandLocalID, "12");
    c.send(4125, 7, 1, demand);
    ASSERT_TRUE(c.wait_for(4126, 1) && c.wait_for(24718, 1, 3));
    QelQuoteDemandNotifyField notify;
    ASSERT_TRUE(c.of(24718, 3)[0].get(notify));
    EXPECT_STREQ(notify.InstrumentID, "qe2612-C-4000");

    QelUserPasswordUpdateField password{};
    strcpy(password.UserID, "trader1");
    strcpy(password.OldPassword, "wrong");
    strcpy(password.NewPassword, "new1");
    c.send(4111, 8, 1, password);
    strcpy(password.OldPassword, "pass1");
    c.send(4111, 9, 1, password);
    ASSERT_TRUE(c.wait_for(4112, 2));
    EXPECT_EQ(c.of(4112)[0].error(), Front::ERROR_WRONG_PASSWORD);
    EXPECT_EQ(c.of(4112)[1].error(), 0);
    QelUserPasswordUpdateField echoed;
    ASSERT_TRUE(c.of(4112)[1].get(echoed));
    EXPECT_EQ(echoed.NewPassword[0], '\0') << "passwords never travel back";

    Client d(front.get_port());
    ASSERT_TRUE(d.wait_ready());
    d.login("trader1", "pass1", 1);
    d.login("trader1", "new1", 2);
    ASSERT_TRUE(d.wait_for(4098, 2));
    EXPECT_EQ(d.of(4098)[0].error(), Front::ERROR_BAD_LOGIN);
    EXPECT_EQ(d.of(4098)[1].error(), 0);
    QelRspUserLoginField login;
    ASSERT_TRUE(d.of(4098)[1].get(login));
    EXPECT_STREQ(login.MaxOrderLocalID, "11") << "the highest local id the user sent today; a demand's isn't one";
}

TEST(FrontConfig, FileAndFlags) {
    // The file's port is overridden by the flag after it.
    const std::string path = std::string(QEL_SOURCE_DIR) + "/tests/front/data/front.conf";
    Front::Config c;
    char error[256] = {};
    const char* argv[] = {"qelfront", "--config", path.c_str(), "--port", "0", "--slice", "9", "--refuse_login", "1"};
    ASSERT_EQ(c.parse_args(9, const_cast<char**>(argv), error, sizeof(error)), 0) << error;
    EXPECT_EQ(c.port, 0);
    EXPECT_EQ(c.key_form, Front::KEY_SM2);
    EXPECT_EQ(c.user_count, 2);
    ASSERT_TRUE(c.find_user("alice"));
    EXPECT_STREQ(c.find_user("alice")->auth_code, "code");
    EXPECT_STREQ(c.find_user("bob")->client_id, "PB");
    EXPECT_EQ(c.instrument_count, 1);
    EXPECT_EQ(c.find_instrument("x1")->max_volume, 7);
    EXPECT_EQ(c.faults.slice, 9);
    EXPECT_TRUE(c.faults.refuse_login);

    const char* bad[] = {"qelfront", "--cipher", "7"};
    EXPECT_EQ(c.parse_args(3, const_cast<char**>(bad), error, sizeof(error)), -1);
    EXPECT_NE(std::string(error).find("cipher"), std::string::npos);
    const char* help[] = {"qelfront", "--help"};
    EXPECT_EQ(c.parse_args(2, const_cast<char**>(help), error, sizeof(error)), 1);
    EXPECT_TRUE(c.set("user", (std::string(40, 'u') + ",P,p").c_str(), error, sizeof(error)));
    EXPECT_EQ(strlen(c.users[c.user_count - 1].user_id), 15u) << "cut to the record's width";
}
