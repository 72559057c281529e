// The login steps of the trader, driven as its reactor thread drives them:
// the key request, every form of the crypt reply and its failures, the
// authentication and login packets byte by byte, and the replies' effect on
// the session state.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <cstring>
#include <string>
#include <vector>

#include "base/datetime.h"
#include "base/strings.h"
#include "cipher/aes.h"
#include "cipher/sm2.h"
#include "cipher/sm3.h"
#include "containers/map.h"
#include "tests/api/dispatch_helpers.h"
#include "tests/api/login_probe.h"
#include "tests/api/test_front.h"

using Api::LoginProbe;
using Api::TradeApiProbe;
using Api::ReplyPacket;
using Api::SentPacket;

namespace {

// Each reply as "<user or application>/<error>", with the request ids.
struct RecordingSpi : CTulmQelcTraderSpi {
    void note(std::vector<std::string>& list, const char* who, CTulmQelcRspInfoField* info, int request) {
        list.push_back(std::string(who) + "/" + std::to_string(info->ErrorID));
        if (&list != &logouts) requests.push_back(request);
    }
    void OnRspError(CTulmQelcRspInfoField* info, int request, bool) override {
        errors.push_back(info->ErrorID);
        requests.push_back(request);
    }
    void OnRspAuthenticate(CTulmQelcProductAuthField* auth, CTulmQelcRspInfoField* info, int request, bool) override {
        note(auths, auth->AppID, info, request);
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField* login, CTulmQelcRspInfoField* info, int request, bool) override {
        note(logins, login->UserID, info, request);
    }
    void OnRspUserLogout(CTulmQelcRspUserLogoutField* out, CTulmQelcRspInfoField* info, int request, bool) override {
        note(logouts, out->UserID, info, request);
    }
    std::vector<int> errors, requests;
    std::vector<std::string> auths, logins, logouts;
};

QelRspInfoField info_of(int error, const char* message = "") {
    QelRspInfoField info = {};
    info.ErrorID = error;
    Base::str_ncpy(80, info.ErrorMsg, message);
    return info;
}

QelUserapiInitAuthInfoField crypt_value_of(int value) {
    QelUserapiInitAuthInfoField record;
    record.InitEncryptInfo = value;
    return record;
}

QelUserapiSessionAuthInfoField key_text_of(const std::string& text) {
    QelUserapiSessionAuthInfoField record = {};
    Base::str_ncpy(300, record.EncryptUserApiInfo, text.c_str());
    return record;
}

std::string hex(const void* data, int length) {
    std::string out(static_cast<size_t>(2 * length), '0');
    Base::hex_from_bytes(&out[0], static_cast<const char*>(data), length, true);
    return out;
}

uint32_t le32(const unsigned char* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

// The front's side of the masked form: the mask both ends derive from the
// public-key text, and the text that carries key under it.
std::string masked_key_text(const char* auth_text, char type_letter, uint64_t key) {
    Cipher::Sm3 sm3;
    sm3.update(auth_text, 132);
    sm3.final();
    const unsigned char* d = sm3.digest();
    uint64_t mask = uint64_t(Base::Hash::calc(d, 16, le32(d + 16))) << 32 | Base::Hash::calc(d + 16, 16, le32(d));
    uint64_t hidden = key ^ mask;
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(hidden >> (8 * i));
    return std::string(1, type_letter) + hex(bytes, 8);
}

// The front's side of the enciphered form: plain enciphered to our public
// key with an SM2 of the same masking.
std::string sealed_key_text(const char* auth_text, char type_digit, const void* plain, int length) {
    std::string text(auth_text);
    std::string x = text.substr(2, 64), y = text.substr(68, 64);
    Cipher::Sm2 front(true);
    EXPECT_TRUE(front.set_public_key(x.c_str(), y.c_str()));
    front.gen_k();
    std::vector<unsigned char> cipher(static_cast<size_t>(length) + 97);
    int cipher_length = 0;
    EXPECT_TRUE(front.encode(cipher.data(), cipher_length, static_cast<const unsigned char*>(plain), length));
    return std::string(1, type_digit) + hex(cipher.data(), cipher_length);
}

class Login : public Api::LoginFixture {
protected:
    Login() { attach(); }

    // A key request, then the crypt reply with this key text.
    void exchange(const std::string& key_text, int crypt_value = 424242) {
        LoginProbe::key_request(api);
        crypt(ReplyPacket(24722, 0).add(info_of(0)).add(crypt_value_of(crypt_value)).add(key_text_of(key_text)));
    }

    void crypt(ReplyPacket& reply) { LoginProbe::crypt_reply(api, reply.commit(), &spi); }
    void authenticated(ReplyPacket& reply) { LoginProbe::authenticate_reply(api, reply.commit(), &spi); }
    void logged(ReplyPacket& reply) { LoginProbe::login_reply(api, reply.commit(), &spi); }
    void logged_out(ReplyPacket& reply) { LoginProbe::logout_reply(api, reply.commit(), &spi); }

    SentPacket last_sent() {
        std::vector<SentPacket> packets = LoginProbe::sent(api);
        EXPECT_FALSE(packets.empty());
        return packets.empty() ? SentPacket() : packets.back();
    }

    RecordingSpi spi;
};

TEST_F(Login, KeyRequestCarriesTheVersionAndAFreshPublicKeyEachTime) {
    LoginProbe::key_request(api);
    std::string first = LoginProbe::auth_text(api);
    LoginProbe::key_request(api);
    std::string second = LoginProbe::auth_text(api);
    std::vector<SentPacket> packets = LoginProbe::sent(api);
    ASSERT_EQ(packets.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        const SentPacket& packet = packets[i];
        EXPECT_EQ(packet.header.PacketId, 24721u);
        EXPECT_EQ(packet.header.RequestId, 0u);
        EXPECT_EQ(packet.header.Subject, 0);
        ASSERT_EQ(packet.ids, (std::vector<unsigned short>{32778, 32791}));
        QelUserapiInitAuthInfoField version;
        ASSERT_TRUE(packet.get(32778, &QelUserapiInitAuthInfoField::DESC, &version));
        EXPECT_EQ(version.InitEncryptInfo, 25081826);
        QelUserapiSessionAuthInfoField key;
        ASSERT_TRUE(packet.get(32791, &QelUserapiSessionAuthInfoField::DESC, &key));
        EXPECT_EQ(std::string(key.EncryptUserApiInfo), i == 0 ? first : second);
    }
    for (const std::string& text : {first, second}) {
        ASSERT_EQ(text.size(), 132u);
        EXPECT_EQ(text.substr(0, 2), "40");
        EXPECT_EQ(text.substr(66, 2), "40");
        EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    }
    EXPECT_NE(first, second);  // a new pair for every connection
}

TEST_F(Login, EachKeyFormSettlesTheCipherAndReadiness) {
    // "0": no cipher, the session is ready all the same.
    exchange("0", 77);
    EXPECT_TRUE(LoginProbe::crypt_ready(api));
    EXPECT_EQ(LoginProbe::crypt_value(api), 77);
    unsigned char type = 9;
    unsigned long key = 1;
    EXPECT_EQ(LoginProbe::read_key(api, "0", type, key), 0);

    // The masked form: letter minus 'A' is the cipher, the mask comes off.
    const uint64_t secret = 0x0123456789ABCDEFull;
    LoginProbe::key_request(api);
    std::string text = masked_key_text(LoginProbe::auth_text(api), 'D', secret);
    ASSERT_EQ(LoginProbe::read_key(api, text.c_str(), type, key), 1);
    EXPECT_EQ(type, 3);
    EXPECT_EQ(key, secret);
    // A key by hash belongs to the public key it was made for.
    LoginProbe::key_request(api);
    ASSERT_EQ(LoginProbe::read_key(api, text.c_str(), type, key), 1);
    EXPECT_NE(key, secret);

    // The enciphered form: digit minus '0' is the cipher, 8 bytes come back.
    LoginProbe::key_request(api);
    text = sealed_key_text(LoginProbe::auth_text(api), '4', &secret, 8);
    ASSERT_EQ(LoginProbe::read_key(api, text.c_str(), type, key), 1);
    EXPECT_EQ(type, 4);
    EXPECT_EQ(key, secret);
    // Lower-case digits read the same.
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    ASSERT_EQ(LoginProbe::read_key(api, text.c_str(), type, key), 1);
    EXPECT_EQ(key, secret);

    EXPECT_TRUE(spi.errors.empty());  // a good crypt reply tells the spi nothing
}

TEST_F(Login, UnusableKeyTextsAreRefused) {
    LoginProbe::key_request(api);
    const char* auth = LoginProbe::auth_text(api);
    const uint64_t secret = 42;
    unsigned char nine[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    std::string sealed = sealed_key_text(auth, '4', &secret, 8);
    std::string flipped = sealed;
    flipped[40] = flipped[40] == 'A' ? 'B' : 'A';
    std::string masked = masked_key_text(auth, 'D', secret);
    std::string bad_digit = masked;
    bad_digit[5] = 'G';
    const std::string texts[] = {
        "",                                   // nothing at all
        "5",                                  // one character that isn't "0"
        "A",                                  // a letter alone
        "/" + sealed.substr(1),               // below '0'
        sealed_key_text(auth, '4', nine, 9),  // a key of 9 bytes
        flipped,                              // a cipher text that doesn't verify
        sealed.substr(0, sealed.size() - 2),  // cut short
        bad_digit,                            // not hexadecimal
        "4" + std::string(298, 'F'),          // as long as the record allows
    };
    for (const std::string& text : texts) {
        unsigned char type = 0;
        unsigned long key = 0;
        EXPECT_EQ(LoginProbe::read_key(api, text.c_str(), type, key), -1) << "[" << text << "]";
    }
}

TEST_F(Login, MalformedCryptRepliesLeaveTheSessionUnready) {
    LoginProbe::key_request(api);
    // records in the wrong order
    crypt(ReplyPacket(24722, 0).add(crypt_value_of(1)).add(info_of(0)).add(key_text_of("0")));
    crypt(ReplyPacket(24722, 0).add(info_of(0)).add(crypt_value_of(1)));  // no key text
    crypt(ReplyPacket(24722, 0).add(info_of(0)).add(key_text_of("0")));  // no crypt value
    // a key text that gives no key
    crypt(ReplyPacket(24722, 0).add(info_of(0)).add(crypt_value_of(1)).add(key_text_of("7")));
    EXPECT_FALSE(LoginProbe::crypt_ready(api));
    EXPECT_TRUE(spi.errors.empty());
    // the front refuses
    crypt(ReplyPacket(24722, 17, 'L').add(info_of(1001, "no keys today")).add(crypt_value_of(1))
        .add(key_text_of("0")));
    EXPECT_FALSE(LoginProbe::crypt_ready(api));
    EXPECT_EQ(spi.errors, std::vector<int>{1001});
    EXPECT_EQ(spi.requests, std::vector<int>{17});
}

TEST_F(Login, AuthenticationSendsTheCryptValueUnderTheAuthCode) {
    LoginProbe::crypt_value(api) = -123456789;
    CTulmQelcProductAuthField auth = {};
    std::memset(auth.AppID, 'a', 40);  // 40 characters and no zero: cut there
    std::memcpy(auth.AuthCode, "0123456789abcdefXY", 17);
    LoginProbe::authenticate(api, &auth, 31);
    SentPacket packet = last_sent();
    EXPECT_EQ(packet.header.PacketId, 24746u);
    EXPECT_EQ(packet.header.RequestId, 31u);
    ASSERT_EQ(packet.ids, std::vector<unsigned short>{32790});
    QelProductAuthField sent;
    ASSERT_TRUE(packet.get(32790, &QelProductAuthField::DESC, &sent));
    EXPECT_EQ(std::string(sent.AppID), std::string(40, 'a'));
    EXPECT_EQ(sent.AuthCode[16], 0);
    Cipher::Aes aes(reinterpret_cast<const unsigned char*>("0123456789abcdef"), 16);
    unsigned char plain[16];
    int length = 0;
    ASSERT_TRUE(aes.decode_cbc(plain, length, reinterpret_cast<const unsigned char*>(sent.AuthCode), 16, true,
                               nullptr, 16));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(plain), static_cast<size_t>(length)), "-123456789");
    // The clear code never goes out.
    EXPECT_EQ(packet.values[0].find("0123456789abcdef"), std::string::npos);
}

TEST_F(Login, AuthenticationRepliesSetAndClearTheFlag) {
    TradeApiProbe::trade_flux(api).sent = 1;
    QelProductAuthField auth = {};
    Base::str_ncpy(40, auth.AppID, "client_app");
    authenticated(ReplyPacket(24747, 5).add(info_of(0)).add(auth));
    EXPECT_TRUE(LoginProbe::auth_ok(api));
    EXPECT_STREQ(LoginProbe::app_id(api), "client_app");
    EXPECT_EQ(TradeApiProbe::trade_flux(api).answered.load(), 1u);
    authenticated(ReplyPacket(24747, 6).add(info_of(77)));  // no record: dropped whole
    EXPECT_TRUE(LoginProbe::auth_ok(api));
    authenticated(ReplyPacket(24747, 7).add(info_of(77, "wrong code")).add(auth));
    EXPECT_FALSE(LoginProbe::auth_ok(api));
    EXPECT_STREQ(LoginProbe::app_id(api), "");
    // A reply beyond what was sent counts nothing.
    EXPECT_EQ(TradeApiProbe::trade_flux(api).answered.load(), 1u);
    EXPECT_EQ(spi.auths, (std::vector<std::string>{"client_app/0", "client_app/77"}));
    EXPECT_EQ(spi.requests, (std::vector<int>{5, 7}));
}

CTulmQelcReqUserLoginField login_request() {
    CTulmQelcReqUserLoginField login = {};
    Base::str_ncpy(8, login.TradingDay, "20250102");
    Base::str_ncpy(15, login.UserID, "trader01");
    Base::str_ncpy(10, login.ParticipantID, "PART01");
    std::memset(login.Password, 'p', 41);  // 41 characters and no zero
    Base::str_ncpy(40, login.UserProductInfo, "my_app");
    Base::str_ncpy(40, login.InterfaceProductInfo, "replaced");
    Base::str_ncpy(40, login.ProtocolInfo, "replaced too");
    login.DataCenterID = 3;
    return login;
}

TEST_F(Login, LoginCarriesTheCallersFieldsWhenNoTopicWaits) {
    CTulmQelcReqUserLoginField request = login_request();
    TradeApiProbe::resume_day(api)[0] = 0;
    long before = 0, after = 0;
    int ms = 0;
    Base::DateTime::get_now(before, ms);
    LoginProbe::login(api, &request, 12);
    Base::DateTime::get_now(after, ms);
    SentPacket packet = last_sent();
    EXPECT_EQ(packet.header.PacketId, 4097u);
    EXPECT_EQ(packet.header.RequestId, 12u);
    EXPECT_EQ(packet.header.Version, 4);
    // No flow, no position; no authentication, no terminal information.
    EXPECT_EQ(packet.ids, (std::vector<unsigned short>{10, 32776}));
    QelReqUserLoginField login;
    ASSERT_TRUE(packet.get(10, &QelReqUserLoginField::DESC, &login));
    EXPECT_STREQ(login.TradingDay, "20250102");
    EXPECT_EQ(login.DataCenterID, 3);
    EXPECT_STREQ(login.UserID, "trader01");
    EXPECT_STREQ(login.ParticipantID, "PART01");
    EXPECT_EQ(std::string(login.Password, 41), std::string(40, 'p') + '\0');
    EXPECT_STREQ(login.UserProductInfo, "my_app");
    EXPECT_STREQ(login.InterfaceProductInfo, "TULM QelTradeApi V2.00 202508.1826");
    EXPECT_EQ(std::string(login.ProtocolInfo, 7), std::string("QELC 4\0", 7));

    // Behind "QELC 4": 34 bytes from which the front recovers the second
    // and checks the user.
    const unsigned char* block = reinterpret_cast<const unsigned char*>(login.ProtocolInfo + 7);
    uint32_t hidden = uint32_t(block[7]) << 24 | uint32_t(block[8]) << 16 | uint32_t(block[9]) << 8 | block[10];
    uint32_t mix = uint32_t(block[5]) << 24 | uint32_t(block[6]) << 16 | uint32_t(block[32]) << 8 | block[33];
    long seconds = static_cast<long>(hidden ^ mix);
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, after);
    Cipher::Sm3 sm3;
    sm3.update(block, 7);
    std::string text = std::to_string(seconds) + " trader01";
    sm3.update(text.data(), static_cast<int>(text.size()));
    sm3.update(block + 27, 7);
    sm3.final();
    for (int i = 0; i < 16; ++i) EXPECT_EQ(block[11 + i], sm3.digest()[2 * i]) << i;
}

TEST_F(Login, WaitingTopicsBringTheirPositionsAndTheirDay) {
    Base::str_ncpy(8, TradeApiProbe::resume_day(api), "20250101");
    TradeApiProbe::data_center_id(api) = 7;
    TradeApiProbe::make_topic_flow(api, 2, 1234);
    TradeApiProbe::make_topic_flow(api, 3, 55);
    TradeApiProbe::make_topic_flow(api, 5, 99);
    TradeApiProbe::resume(api, 2) = TE_RESUME_FROM_SAVED;
    TradeApiProbe::resume(api, 3) = TE_RESUME_FROM_NOW;
    TradeApiProbe::resume(api, 5) = TE_RESUME_FROM_START;
    TradeApiProbe::pending(api, 5) = false;  // taken by a subscription already
    CTulmQelcReqUserLoginField request = login_request();
    LoginProbe::login(api, &request, 1);
    SentPacket packet = last_sent();
    EXPECT_EQ(packet.ids, (std::vector<unsigned short>{10, 1, 1, 32776}));
    QelReqUserLoginField login;
    ASSERT_TRUE(packet.get(10, &QelReqUserLoginField::DESC, &login));
    EXPECT_STREQ(login.TradingDay, "20250101");
    EXPECT_EQ(login.DataCenterID, 7);
    QelDisseminationField first, second;
    ASSERT_TRUE(packet.get(1, &QelDisseminationField::DESC, &first, 0));
    ASSERT_TRUE(packet.get(1, &QelDisseminationField::DESC, &second, 1));
    EXPECT_EQ(first.SequenceSeries, 2);
    EXPECT_EQ(first.SequenceNo, 1234);
    EXPECT_EQ(second.SequenceSeries, 3);
    EXPECT_EQ(second.SequenceNo, -1);  // from now, not yet positioned

    // Nothing waiting: the caller's day stands.
    TradeApiProbe::pending(api, 2) = false;
    TradeApiProbe::pending(api, 3) = false;
    LoginProbe::login(api, &request, 2);
    packet = last_sent();
    EXPECT_EQ(packet.ids, (std::vector<unsigned short>{10, 32776}));
    ASSERT_TRUE(packet.get(10, &QelReqUserLoginField::DESC, &login));
    EXPECT_STREQ(login.TradingDay, "20250102");
    EXPECT_EQ(login.DataCenterID, 3);
}

TEST_F(Login, AnAuthenticatedLoginCarriesTheTerminalInformation) {
    QelProductAuthField auth = {};
    Base::str_ncpy(40, auth.AppID, "desk@3");
    ReplyPacket reply(24747, 5);
    reply.add(info_of(0)).add(auth);
    LoginProbe::authenticate_reply(api, reply.commit(), &spi);
    ASSERT_TRUE(LoginProbe::auth_ok(api));
    Base::str_ncpy(300, LoginProbe::system_info(api), "0@2@2025-01-02 09:30:00@10.0.0.5@@0a0b0c0d0e0f@@host@6.1.0@@@");
    CTulmQelcReqUserLoginField request = login_request();
    LoginProbe::login(api, &request, 3);
    SentPacket packet = last_sent();
    EXPECT_EQ(packet.ids, (std::vector<unsigned short>{10, 32776, 32789}));
    QelUserSystemInfoField terminal;
    ASSERT_TRUE(packet.get(32789, &QelUserSystemInfoField::DESC, &terminal));
    EXPECT_STREQ(terminal.LocalSystemInnerInfo,
                 "PART01@0@2@2025-01-02 09:30:00@10.0.0.5@@0a0b0c0d0e0f@@host@6.1.0@@@@0@desk&at3");
    EXPECT_EQ(terminal.hasAuthed, 0);
    EXPECT_STREQ(LoginProbe::app_id(api), "desk@3");  // escaped in a copy only
}

QelRspUserLoginField login_reply_record(const char* day, const char* user) {
    QelRspUserLoginField record = {};
    Base::str_ncpy(8, record.TradingDay, day);
    Base::str_ncpy(12, record.MaxOrderLocalID, "000000000042");
    Base::str_ncpy(15, record.UserID, user);
    Base::str_ncpy(10, record.ParticipantID, "PART01");
    record.DataCenterID = 9;
    return record;
}

QelUserCommFluxControlField limits_of(int a, int b, int c, int d) {
    QelUserCommFluxControlField limits;
    limits.MaxTradeCommFlux = a;
    limits.MaxTradeOnWayCommFlux = b;
    limits.MaxQueryCommFlux = c;
    limits.MaxQueryOnWayCommFlux = d;
    return limits;
}

TEST_F(Login, LoginRefusedThenAccepted) {
    Base::str_ncpy(8, TradeApiProbe::resume_day(api), "20250101");
    TradeApiProbe::trade_flux(api).sent = 3;
    // refused: the state stays
    logged(ReplyPacket(4098, 1).add(info_of(60, "bad password")).add(login_reply_record("20250106", "trader01")));
    EXPECT_FALSE(TradeApiProbe::logged_in(api));
    EXPECT_STREQ(TradeApiProbe::trading_day(api), "");
    EXPECT_STREQ(LoginProbe::max_order_local_id(api), "");
    EXPECT_EQ(TradeApiProbe::data_center_id(api), 0);
    logged(ReplyPacket(4098, 2).add(info_of(60)));  // refused without the record: no call at all
    // accepted but without limits: dropped
    logged(ReplyPacket(4098, 3).add(info_of(0)).add(login_reply_record("20250106", "trader01")));
    EXPECT_FALSE(TradeApiProbe::logged_in(api));
    EXPECT_EQ(spi.logins, std::vector<std::string>{"trader01/60"});
    logged(ReplyPacket(4098, 4).add(info_of(0)).add(limits_of(10, -5, 0, 200))
        .add(login_reply_record("20250106", "trader01")));
    EXPECT_TRUE(TradeApiProbe::logged_in(api));
    EXPECT_STREQ(TradeApiProbe::trading_day(api), "20250106");
    EXPECT_STREQ(LoginProbe::max_order_local_id(api), "000000000042");
    EXPECT_EQ(TradeApiProbe::data_center_id(api), 9);
    EXPECT_STREQ(LoginProbe::participant_id(api), "PART01");
    EXPECT_STREQ(LoginProbe::user_id(api), "trader01");
    EXPECT_STREQ(TradeApiProbe::resume_day(api), "20250101");  // the day of the positions stays
    EXPECT_EQ(TradeApiProbe::trade_flux(api).max_per_second, 10u);
    EXPECT_EQ(TradeApiProbe::trade_flux(api).max_on_way, 0u);
    EXPECT_EQ(TradeApiProbe::query_flux(api).max_per_second, 0u);
    EXPECT_EQ(TradeApiProbe::query_flux(api).max_on_way, 200u);
    EXPECT_EQ(spi.logins, (std::vector<std::string>{"trader01/60", "trader01/0"}));
    EXPECT_EQ(spi.requests, (std::vector<int>{1, 4}));
    EXPECT_EQ(TradeApiProbe::trade_flux(api).answered.load(), 2u);

    // A refused logout changes nothing; a good one ends the login.
    QelRspUserLogoutField logout = {};
    Base::str_ncpy(15, logout.UserID, "trader01");
    logged_out(ReplyPacket(4100, 5).add(info_of(8)).add(logout));
    EXPECT_TRUE(TradeApiProbe::logged_in(api));
    logged_out(ReplyPacket(4100, 6).add(info_of(0)).add(logout));
    EXPECT_FALSE(TradeApiProbe::logged_in(api));
    EXPECT_STREQ(LoginProbe::participant_id(api), "");
    EXPECT_STREQ(LoginProbe::user_id(api), "");
    EXPECT_STREQ(TradeApiProbe::trading_day(api), "20250106");
    EXPECT_EQ(spi.logouts, (std::vector<std::string>{"trader01/8", "trader01/0"}));
    EXPECT_EQ(TradeApiProbe::trade_flux(api).answered.load(), 3u);  // never past sent
}

TEST_F(Login, ANullSpiStillLogsIn) {
    ReplyPacket reply(4098, 4);
    reply.add(info_of(0)).add(limits_of(1, 2, 3, 4)).add(login_reply_record("20250106", "u"));
    LoginProbe::login_reply(api, reply.commit(), nullptr);
    EXPECT_TRUE(TradeApiProbe::logged_in(api));
}

// ---- through the wire: the trader started by Init against a test front ----

// A front that answers the key request with a chosen key form and then
// enciphers the connection as that form says, and that checks the
// authentication's cipher text against its crypt value.
class KeyFront : public test_front::Front {
public:
    enum Form { CLEAR, MASKED, SEALED, REFUSED, GARBLED };
    static const int CRYPT_VALUE = 86420;

    explicit KeyFront(Form form) : form(form) { answer_keys = false; }
    ~KeyFront() { stop(); }

    std::atomic<int> key_requests{0};
    std::atomic<int> ciphered{0};  // connections switched to a cipher

protected:
    void on_frame(Link* link, const char* data, unsigned short size) override {
        Front::on_frame(link, data, size);
        if (link != links.back().get()) return;
        Network::QelcPacket::Header header;
        Network::QelcPacket::from_stream(&header, data + 6);
        if (header.PacketId == test_front::KEY_REQUEST) answer_key(link, header, data + 26);
        if (header.PacketId == 24746) answer_authenticate(header, data + 26);
    }

private:
    void answer_key(Link* link, const Network::QelcPacket::Header& header, const char* body) {
        key_requests.fetch_add(1);
        Network::QelcPacket::Iterator records(&header, body);
        QelUserapiSessionAuthInfoField client_key = {};
        while (records.next() != Network::QelcPacket::END)
            if (records.get_field_id() == 32791) records.get_field(&client_key, &QelUserapiSessionAuthInfoField::DESC, false);
        client_key.EncryptUserApiInfo[300] = 0;
        const uint64_t key = 0x1122334455667788ull + static_cast<uint64_t>(key_requests.load());
        unsigned char type = 0;
        std::string text = "0";
        if (form == MASKED) {
            type = 3;
            text = masked_key_text(client_key.EncryptUserApiInfo, 'D', key);
        } else if (form == SEALED) {
            type = 4;
            text = sealed_key_text(client_key.EncryptUserApiInfo, '4', &key, 8);
        } else if (form == GARBLED) {
            text = "4ABCDEF";
        }
        QelRspInfoField info = info_of(form == REFUSED ? 9 : 0, form == REFUSED ? "keys refused" : "");
        QelUserapiInitAuthInfoField value = crypt_value_of(CRYPT_VALUE);
        QelUserapiSessionAuthInfoField reply = key_text_of(text);
        write_packet(1, test_front::KEY_REPLY, header.RequestId,
                     {{&QelRspInfoField::DESC, &info, QelRspInfoField::to_stream},
                      {&QelUserapiInitAuthInfoField::DESC, &value, QelUserapiInitAuthInfoField::to_stream},
                      {&QelUserapiSessionAuthInfoField::DESC, &reply, QelUserapiSessionAuthInfoField::to_stream}},
                     'L');
        if (type == 0) return;
        // The reply goes out in clear; all that follows is enciphered.
        link->client->flush();
        link->client->set_cipher(type, key);
        ciphered.fetch_add(1);
    }

    void answer_authenticate(const Network::QelcPacket::Header& header, const char* body) {
        Network::QelcPacket::Iterator records(&header, body);
        QelProductAuthField auth = {};
        if (records.next() == 32790) records.get_field(&auth, &QelProductAuthField::DESC, false);
        // The code this front knows for the application.
        Cipher::Aes aes(reinterpret_cast<const unsigned char*>("code-of-the-app\0"), 16);
        unsigned char plain[16];
        int length = 0;
        bool good = aes.decode_cbc(plain, length, reinterpret_cast<const unsigned char*>(auth.AuthCode), 16, true,
                                   nullptr, 16) &&
                    std::string(reinterpret_cast<char*>(plain), static_cast<size_t>(length)) ==
                        std::to_string(CRYPT_VALUE);
        QelRspInfoField info = info_of(good ? 0 : 63, good ? "" : "bad code");
        write_packet(1, 24747, header.RequestId,
                     {{&QelRspInfoField::DESC, &info, QelRspInfoField::to_stream},
                      {&QelProductAuthField::DESC, &auth, QelProductAuthField::to_stream}},
                     'L');
    }

    Form form;
};

class WireSpi : public CTulmQelcTraderSpi {
public:
    void OnFrontConnected() override { connected.fetch_add(1); }
    void OnFrontDisconnected(int reason) override {
        std::lock_guard<std::mutex> lock(mutex);
        disconnects.push_back(reason);
    }
    void OnRspError(CTulmQelcRspInfoField* info, int, bool) override {
        std::lock_guard<std::mutex> lock(mutex);
        errors.push_back(info->ErrorID);
    }
    void OnRspAuthenticate(CTulmQelcProductAuthField*, CTulmQelcRspInfoField* info, int, bool) override {
        (info->ErrorID == 0 ? auth_good : auth_bad).fetch_add(1);
    }
    void OnRspUserLogin(CTulmQelcRspUserLoginField*, CTulmQelcRspInfoField* info, int, bool) override {
        if (info->ErrorID == 0) logins.fetch_add(1);
    }
    std::vector<int> get_disconnects() {
        std::lock_guard<std::mutex> lock(mutex);
        return disconnects;
    }
    std::vector<int> get_errors() {
        std::lock_guard<std::mutex> lock(mutex);
        return errors;
    }
    std::atomic<int> connected{0}, auth_good{0}, auth_bad{0}, logins{0};

private:
    std::mutex mutex;
    std::vector<int> disconnects, errors;
};

std::string wire_dir() { return test_front::temp_dir("login_"); }
std::string read_text(const std::string& path) { return test_front::read_file(path); }

// Connects, authenticates (with code) and logs in over a front of form;
// true when the login reply came back good.
bool log_in_over(KeyFront& front, WireSpi& spi, Api::TradeApi* api, const char* code) {
    if (!test_front::wait_until([&] { return spi.connected.load() > 0; })) return false;
    CTulmQelcProductAuthField auth = {};
    Base::str_ncpy(40, auth.AppID, "wire_app");
    Base::str_ncpy(16, auth.AuthCode, code);
    if (api->ReqAuthenticate(&auth, 1) != 0) return false;
    if (!test_front::wait_until([&] { return spi.auth_good.load() + spi.auth_bad.load() > 0; })) return false;
    if (spi.auth_bad.load() > 0) return false;
    CTulmQelcReqUserLoginField login = {};
    Base::str_ncpy(15, login.UserID, "U1");
    Base::str_ncpy(10, login.ParticipantID, "P1");
    Base::str_ncpy(40, login.Password, "wire-secret");
    Base::str_ncpy(40, login.UserProductInfo, "wire tests");
    if (api->ReqUserLogin(&login, 2) != 0) return false;
    return test_front::wait_until([&] { return spi.logins.load() > 0; });
}

TEST(LoginWire, EachKeyFormCarriesTheLoginUnderItsCipher) {
    for (KeyFront::Form form : {KeyFront::CLEAR, KeyFront::MASKED, KeyFront::SEALED}) {
        SCOPED_TRACE(form);
        KeyFront front(form);
        WireSpi spi;
        std::string dir = wire_dir();
        auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(dir.c_str()));
        api->RegisterSpi(&spi);
        ASSERT_EQ(api->RegisterFront(front.address().c_str()), 0);
        ASSERT_EQ(api->Init(), 0);
        // Swapped in by the reactor thread while the trader runs.
        ASSERT_EQ(api->OpenResponseLog((dir + "response.log").c_str()), 0);
        EXPECT_TRUE(log_in_over(front, spi, api, "code-of-the-app"));
        EXPECT_EQ(front.ciphered.load(), form == KeyFront::CLEAR ? 0 : 1);
        EXPECT_EQ(front.connections(), 1);  // nothing garbled, nothing closed

        // What arrived, deciphered by the front: the login with the topics'
        // day, the token and, authenticated, the terminal information.
        std::vector<test_front::Frame> logins = front.packets(test_front::LOGIN_REQUEST);
        ASSERT_EQ(logins.size(), 1u);
        Network::QelcPacket::Iterator records(&logins[0].header, logins[0].bytes.data() + 26);
        std::vector<unsigned short> ids;
        QelReqUserLoginField login = {};
        for (unsigned short id = records.next(); id != Network::QelcPacket::END; id = records.next()) {
            ids.push_back(id);
            if (id == 10) records.get_field(&login, &QelReqUserLoginField::DESC, false);
        }
        EXPECT_EQ(ids, (std::vector<unsigned short>{10, 32776, 32789}));
        EXPECT_STREQ(login.UserID, "U1");
        EXPECT_STREQ(login.Password, "wire-secret");
        EXPECT_EQ(std::string(login.ProtocolInfo, 7), std::string("QELC 4\0", 7));
        EXPECT_TRUE(spi.get_disconnects().empty());
        std::string log = read_text(dir + "response.log");
        EXPECT_NE(log.find(",OnRspAuthenticate,0,,AppID=\"wire_app\" AuthCode=\"\"\n"), std::string::npos) << log;
        EXPECT_NE(log.find(",OnRspUserLogin,0,,TradingDay=\"20260105\""), std::string::npos) << log;
        EXPECT_EQ(log.find("secret"), std::string::npos);
        EXPECT_EQ(api->Release(), 0);
        EXPECT_EQ(api->Join(), 0);
    }
}

TEST(LoginWire, AWrongAuthCodeIsRefusedAndLoginWaitsForIt) {
    KeyFront front(KeyFront::MASKED);
    WireSpi spi;
    auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(wire_dir().c_str()));
    api->RegisterSpi(&spi);
    ASSERT_EQ(api->RegisterFront(front.address().c_str()), 0);
    ASSERT_EQ(api->Init(), 0);
    EXPECT_FALSE(log_in_over(front, spi, api, "not-the-code"));
    EXPECT_EQ(spi.auth_bad.load(), 1);
    CTulmQelcReqUserLoginField login = {};
    Base::str_ncpy(40, login.UserProductInfo, "wire tests");
    EXPECT_EQ(api->ReqUserLogin(&login, 3), -7);  // authentication asked for and failed
    EXPECT_EQ(api->Release(), 0);
    // No reactor thread is left to swap a response log: refused, not hung.
    std::string path = wire_dir() + "late.log";
    EXPECT_EQ(api->OpenResponseLog(path.c_str()), -4);
    EXPECT_EQ(api->Join(), 0);
}

TEST(LoginWire, BadCryptRepliesCloseTheConnectionAndKeysAreExchangedAnew) {
    for (KeyFront::Form form : {KeyFront::REFUSED, KeyFront::GARBLED}) {
        SCOPED_TRACE(form);
        KeyFront front(form);
        WireSpi spi;
        auto* api = static_cast<Api::TradeApi*>(CTulmQelcTraderApi::CreateQelcTraderApi(wire_dir().c_str()));
        api->RegisterSpi(&spi);
        ASSERT_EQ(api->RegisterFront(front.address().c_str()), 0);
        ASSERT_EQ(api->Init(), 0);
        // Each connection asks for keys afresh and is closed on the reply.
        ASSERT_TRUE(test_front::wait_until([&] { return spi.get_disconnects().size() >= 2; }));
        EXPECT_GE(front.key_requests.load(), 2);
        for (int reason : spi.get_disconnects()) EXPECT_EQ(reason, 0x2003);
        std::vector<int> errors = spi.get_errors();
        if (form == KeyFront::REFUSED) {
            ASSERT_GE(errors.size(), 2u);
            EXPECT_EQ(errors[0], 9);
        } else {
            EXPECT_TRUE(errors.empty());
        }
        EXPECT_EQ(spi.logins.load(), 0);
        EXPECT_EQ(api->Release(), 0);
        EXPECT_EQ(api->Join(), 0);
    }
}

}  // namespace
