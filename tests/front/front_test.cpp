// The front against a small trader made of the client-side sessions, over
// 127.0.0.1: every key form, authentication and login, orders that trade
// and are cancelled, rejects, queries in chains of packets, topic flows
// resumed from a position across a restart of the front, and each fault
// ending the way it is meant to.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "front/core.h"
#include "front/exchange.h"
#include "front/keys.h"
#include "front/records.h"
#include "tests/front/front_client.h"

using namespace fronttest;

namespace {

// Orders and trades of a private topic, in the order they came.
std::string returns(Client& c) {
    std::string out;
    for (const Got& g : c.all()) {
        if (g.subject != 2) continue;
        QelOrderField o;
        QelTradeField t;
        if (g.packet == 20482 && g.get(o))
            out += "O" + std::string(o.OrderLocalID) + ":" + o.OrderStatus + std::to_string(o.VolumeTraded) + " ";
        if (g.packet == 20481 && g.get(t))
            out += "T" + std::string(t.OrderLocalID) + ":" + std::to_string(t.Volume) + "@" +
                   std::to_string(int(Front::from_fixed(&QelTradeField::DESC, "Price", t.Price))) + " ";
    }
    return out;
}

bool logged_in(Client& c, const char* user, const char* password, int request = 1) {
    if (!c.wait_ready()) return false;
    c.login(user, password, request);
    return c.wait_for(4098, 1) && c.of(4098)[0].error() == 0 && c.wait_for(22785, 1);
}

}  // namespace

// Each form of the session key and each cipher: the key the client finds
// is the key the front enciphers with, or nothing after the key answer
// would be readable.
TEST(Front, EveryKeyFormCarriesTheLogin) {
    for (int form : {Front::KEY_PLAIN, Front::KEY_HASH, Front::KEY_SM2}) {
        for (int type = 1; type <= (form == Front::KEY_PLAIN ? 1 : 4); ++type) {
            SCOPED_TRACE(std::to_string(form) + "/" + std::to_string(type));
            Front::Config config = quiet_config();
            config.key_form = form;
            config.cipher_type = type;
            Front::Server front(config);
            ASSERT_TRUE(front.start()) << front.get_error();
            Client c(front.get_port());
            ASSERT_TRUE(logged_in(c, "trader1", "pass1"));
            EXPECT_EQ(c.key_form, form);
            QelRspUserLoginField login;
            ASSERT_TRUE(c.of(4098)[0].get(login));
            EXPECT_STREQ(login.UserID, "trader1");
            EXPECT_STREQ(login.ParticipantID, "P001");
            EXPECT_STREQ(login.TradingDay, "20260105");
            QelUserCommFluxControlField flux;
            EXPECT_TRUE(c.of(4098)[0].get(flux));
            QelQryInstrumentField q{};
            c.send(16399, 7, 1, q);
            ASSERT_TRUE(c.wait_for(16400, 1));
            EXPECT_EQ(c.of(16400)[0].request, 7u);
            EXPECT_TRUE(c.get_reasons().empty());
        }
    }
}

// The AuthCode proves itself enciphered with the front's number, a wrong
// one fails, and a wrong password or a refusing front answers with an error.
TEST(Front, AuthenticationAndLoginErrors) {
    Front::Config config = quiet_config();
    Front::Server front(config);
    ASSERT_TRUE(front.start());
    Client c(front.get_port());
    ASSERT_TRUE(c.wait_ready());
    QelProductAuthField auth{};
    strcpy(auth.AppID, "demo_app");
    ASSERT_TRUE(Front::make_auth_code("demo_code_16byte", c.crypt_value, reinterpret_cast<unsigned char*>(auth.AuthCode)));
    c.send(24746, 1, 0, auth);
    strcpy(auth.AuthCode, "wrong");
    c.send(24746, 2, 0, auth);
    ASSERT_TRUE(c.wait_for(24747, 2));
    EXPECT_EQ(c.of(24747)[0].error(), 0);
    EXPECT_EQ(c.of(24747)[1].error(), Front::ERROR_AUTHENTICATION);

    c.login("trader1", "nope", 3);
    c.login("ghost", "pass1", 4);
    ASSERT_TRUE(c.wait_for(4098, 2));
    EXPECT_EQ(c.of(4098)[0].error(), Front::ERROR_BAD_LOGIN);
    EXPECT_EQ(c.of(4098)[1].error(), Front::ERROR_BAD_LOGIN);
    QelUserCommFluxControlField flux;
    EXPECT_FALSE(c.of(4098)[0].get(flux));  // limits come with a good login only

    Front::Faults refuse{};
    refuse.refuse_login = true;
    front.set_faults(refuse);
    Client r(front.get_port());
    ASSERT_TRUE(r.wait_ready());
    r.login("trader1", "pass1", 5);
    ASSERT_TRUE(r.wait_for(4098, 1));
    EXPECT_EQ(r.of(4098)[0].error(), Front::ERROR_LOGIN_REFUSED);
}

// Two participants trade by price and time: partial fills at the resting
// price, oldest first, a cancel of the rest, rejects by rule, and each
// participant's private topic telling only its own side, once and in order.
TEST(Front, OrdersTradeByPriceAndTime) {
    Front::Config config = quiet_config();
    Front::Server front(config);
    ASSERT_TRUE(front.start());
    Client seller(front.get_port()), buyer(front.get_port());
    ASSERT_TRUE(logged_in(seller, "trader2", "pass2"));
    ASSERT_TRUE(logged_in(buyer, "trader1", "pass1"));

    seller.send(4101, 10, 1, order("trader2", "1", '1', 4001.0, 2));
    seller.send(4101, 11, 1, order("trader2", "2", '1', 4000.0, 3));
    seller.send(4101, 12, 1, order("trader2", "3", '1', 4000.0, 4));
    ASSERT_TRUE(seller.wait_for(4102, 3));
    buyer.send(4101, 20, 1, order("trader1", "1", '0', 4001.0, 6));
    ASSERT_TRUE(buyer.wait_for(4102, 1));
    ASSERT_TRUE(buyer.wait_for(20481, 2, 2));
    // 3 from order 2, then 3 of 4 from order 3 (same price, later); 4001 waits.
    EXPECT_EQ(returns(buyer), "O1:30 T1:3@4000 O1:13 T1:3@4000 O1:06 ");
    ASSERT_TRUE(seller.wait_for(20481, 2, 2));
    EXPECT_EQ(returns(seller), "O1:30 O2:30 O3:30 T2:3@4000 O2:03 T3:3@4000 O3:13 ");

    QelOrderActionField cancel{};
    strcpy(cancel.UserID, "trader2");
    strcpy(cancel.OrderLocalID, "3");
    strcpy(cancel.ActionLocalID, "4");
    cancel.ActionFlag = '0';
    seller.send(4103, 13, 1, cancel);
    seller.send(4103, 14, 1, cancel);  // the second finds it done
    ASSERT_TRUE(seller.wait_for(4104, 2));
    EXPECT_EQ(seller.of(4104)[0].error(), 0);
    EXPECT_EQ(seller.of(4104)[1].error(), Front::ERROR_ALREADY_DONE);
    ASSERT_TRUE(wait_until([&] {
        std::string r = returns(seller);
        return r.size() >= 6 && r.compare(r.size() - 6, 6, "O3:53 ") == 0;
    }));

    seller.send(4101, 15, 1, order("trader2", "5", '1', 4000.3, 1));            // off the tick
    seller.send(4101, 16, 1, order("trader2", "6", '1', 6000.0, 1));            // above the limit
    seller.send(4101, 17, 1, order("trader2", "7", '1', 4000.0, 1, "nope"));    // unknown
    seller.send(4101, 18, 1, order("trader2", "8", '1', 4000.0, 0));            // no volume
    seller.send(4101, 19, 1, order("trader1", "9", '1', 4000.0, 1));            // someone else
    ASSERT_TRUE(seller.wait_for(4102, 8));
    std::vector<Got> rsp = seller.of(4102);
    EXPECT_EQ(rsp[3].error(), Front::ERROR_OFF_TICK);
    EXPECT_EQ(rsp[4].error(), Front::ERROR_OUT_OF_LIMITS);
    EXPECT_EQ(rsp[5].error(), Front::ERROR_UNKNOWN_INSTRUMENT);
    EXPECT_EQ(rsp[6].error(), Front::ERROR_BAD_VOLUME);
    EXPECT_EQ(rsp[7].error(), Front::ERROR_WRONG_USER);

    // Sequence numbers of a private topic run without a gap from 1.
    unsigned long expected = 1;
    for (const Got& g : seller.all())
        if (g.subject == 2) {
            EXPECT_EQ(g.sequence, expected++);
        }
}
