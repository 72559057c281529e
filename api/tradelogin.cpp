// Key exchange, authentication and login on the wire: the packets the
// reactor thread builds on control_flow, and the handling of their replies.
//
// On every connect the trader sends a fresh SM2 public key with its version
// (write_key_request). The front's crypt reply says whether and how the
// channel is enciphered: "0" for no cipher, a key hidden under a mask that
// both ends derive from the public-key text, or a key enciphered to our
// public key. Only after that reply may the queued authentication and login
// go out (crypt_ready, then event 1001). Everything here runs on the
// reactor thread; api_mutex is taken only around the members it guards
// and the request log.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "api/tradeapi.h"
#include "base/byteorder.h"
#include "base/strings.h"
#include "cipher/aes.h"
#include "cipher/sm3.h"
#include "containers/map.h"
#include "network/qelcsession.h"
#include "parallel/fdreactor.h"
#include "record/gen/qelfield.h"

namespace Api {

namespace {

const unsigned int PACKET_KEY_REQUEST = 24721;
const unsigned int PACKET_AUTHENTICATE = 24746;
const unsigned int PACKET_USER_LOGIN = 4097;

const unsigned short RECORD_RSP_INFO = 3;
const unsigned short RECORD_RSP_USER_LOGIN = 11;
const unsigned short RECORD_RSP_USER_LOGOUT = 13;
const unsigned short RECORD_FLUX_CONTROL = 12802;
const unsigned short RECORD_INIT_AUTH_INFO = 32778;
const unsigned short RECORD_PRODUCT_AUTH = 32790;
const unsigned short RECORD_SESSION_AUTH_INFO = 32791;

const int REASON_BAD_CRYPT_REPLY = -24;
const int REASON_NO_LIMITS = -25;

const int PROTOCOL_INFO_LENGTH = 40;
const int KEY_TEXT_HASHED = 132;  // bytes of our public-key text under the mask's hash

uint32_t load_le32(const unsigned char* bytes) {
    return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

uint64_t load_le64(const unsigned char* bytes) {
    return uint64_t(load_le32(bytes)) | uint64_t(load_le32(bytes + 4)) << 32;
}

// A limit below 0 from the front means no limit, as 0 does.
uint32_t limit_of(int value) { return value < 0 ? 0u : static_cast<uint32_t>(value); }

bool is_last(const Network::QelcPacket& packet) {
    return packet.get_header().Chain == Network::QelcPacket::CHAIN_LAST;
}

int request_of(const Network::QelcPacket& packet) { return static_cast<int>(packet.get_header().RequestId); }

}  // namespace

bool is_null_string(char* text, int length) {
    text[length] = 0;
    for (int i = 0; text[i] != 0; ++i)
        if (text[i] != ' ') return false;
    return true;
}

void TradeApi::write_key_request() {
    Network::QelcPacket* out = control_writer->alloc_packet(PACKET_KEY_REQUEST, 0);
    out->get_header().RequestId = 0;

    int main_version = 0, build = 0;
    CTulmQelcTraderApi::GetVersion(main_version, build);
    QelUserapiInitAuthInfoField version;
    version.InitEncryptInfo = main_version % 10000 * 10000 + build;
    out->add_field(&QelUserapiInitAuthInfoField::DESC, &version, QelUserapiInitAuthInfoField::to_stream);

    // A new pair for every connection; the text is the length and the
    // digits of X, then of Y, each length as two upper-case hex digits.
    session_keys.gen_keys();
    char x[129], y[129];
    session_keys.get_public_key(x, y);
    QelUserapiSessionAuthInfoField key;
    std::memset(&key, 0, sizeof(key));
    Base::str_print(sizeof(key.EncryptUserApiInfo), key.EncryptUserApiInfo, "%02X%s%02X%s",
                    static_cast<unsigned int>(std::strlen(x)), x, static_cast<unsigned int>(std::strlen(y)), y);
    std::memcpy(session_auth_text, key.EncryptUserApiInfo, sizeof(session_auth_text));
    out->add_field(&QelUserapiSessionAuthInfoField::DESC, &key, QelUserapiSessionAuthInfoField::to_stream);
    control_writer->commit_packet(true);
}

int TradeApi::read_session_key(const char* text, const char* auth_text, Cipher::Sm2& keys,
                               unsigned char& type, unsigned long& key) {
    if (std::strcmp(text, "0") == 0) return 0;
    int length = static_cast<int>(std::strlen(text));
    char first = text[0];
    int bytes = (length - 1) / 2;
    if (length > 1 && first > '@' && bytes == 8) {
        // Key under a mask: each half of the SM3 digest of our public-key
        // text is hashed with a seed taken from the other half.
        Cipher::Sm3 sm3;
        sm3.update(auth_text, KEY_TEXT_HASHED);
        sm3.final();
        const unsigned char* digest = sm3.digest();
        uint32_t high = Base::Hash::calc(digest, 16, load_le32(digest + 16));
        uint32_t low = Base::Hash::calc(digest + 16, 16, load_le32(digest));
        unsigned char masked[8];
        if (Base::hex_to_bytes(text + 1, reinterpret_cast<char*>(masked), 8) == nullptr) return -1;
        type = static_cast<unsigned char>(first - 'A');
        key = load_le64(masked) ^ (uint64_t(high) << 32 | low);
        return 1;
    }
    if (length < 1 || first < '0') return -1;
    // Key enciphered to our public key: exactly 8 bytes must come back.
    unsigned char cipher[301];
    std::memset(cipher, 0, sizeof(cipher));
    if (bytes > 0 && Base::hex_to_bytes(text + 1, reinterpret_cast<char*>(cipher), bytes) == nullptr) return -1;
    int plain = 0;
    if (!keys.decode(nullptr, plain, cipher, bytes) || plain != 8) return -1;
    uint64_t value = 0;
    if (!keys.decode(reinterpret_cast<unsigned char*>(&value), plain, cipher, bytes)) return -1;
    type = static_cast<unsigned char>(first - '0');
    key = value;
    return 1;
}

void TradeApi::on_rsp_qry_crypt_info(CTulmQelcTraderSpi* callback) {
    auto* info = static_cast<QelRspInfoField*>(take_record(RECORD_RSP_INFO, &QelRspInfoField::DESC, 0));
    if (info == nullptr) {
        session->close(REASON_BAD_CRYPT_REPLY);
        return;
    }
    if (info->ErrorID != 0) {
        if (callback != nullptr)
            callback->OnRspError(reinterpret_cast<CTulmQelcRspInfoField*>(info), request_of(packet), is_last(packet));
        session->close(REASON_BAD_CRYPT_REPLY);
        return;
    }
    auto* version = static_cast<QelUserapiInitAuthInfoField*>(
        take_record(RECORD_INIT_AUTH_INFO, &QelUserapiInitAuthInfoField::DESC, 1));
    if (version == nullptr) {
        session->close(REASON_BAD_CRYPT_REPLY);
        return;
    }
    init_crypt_value = version->InitEncryptInfo;
    auto* key_text = static_cast<QelUserapiSessionAuthInfoField*>(
        take_record(RECORD_SESSION_AUTH_INFO, &QelUserapiSessionAuthInfoField::DESC, 2));
    if (key_text == nullptr) {
        session->close(REASON_BAD_CRYPT_REPLY);
        return;
    }
    unsigned char type = 0;
    unsigned long key = 0;
    int found = read_session_key(key_text->EncryptUserApiInfo, session_auth_text, session_keys, type, key);
    if (found < 0) {
        session->close(REASON_BAD_CRYPT_REPLY);
        return;
    }
    if (found > 0) session->set_cipher(type, key);
    // Release: a drain that sees the flag also sees init_crypt_value.
    crypt_ready.store(true, std::memory_order_release);
    reactor.load(std::memory_order_acquire)->add_event(WAKE_EVENT, nullptr, nullptr, this, false);
}

void TradeApi::on_api_req_authenticate(CTulmQelcProductAuthField* field, int request) {
    Network::QelcPacket* out = control_writer->alloc_packet(PACKET_AUTHENTICATE, 0);
    out->get_header().RequestId = static_cast<unsigned int>(request);
    QelProductAuthField auth;
    std::memset(&auth, 0, sizeof(auth));
    Base::str_ncpy(40, auth.AppID, field->AppID);
    Base::str_ncpy(16, auth.AuthCode, field->AuthCode);

    // The crypt value as text, enciphered with the AuthCode as AES key; the
    // AuthCode itself never goes on the wire unless that fails.
    char text[16];
    int text_length = std::snprintf(text, sizeof(text), "%d", init_crypt_value);
    unsigned char cipher[24];
    std::memset(cipher, 0, sizeof(cipher));
    int cipher_length = 0;
    Cipher::Aes aes(reinterpret_cast<const unsigned char*>(auth.AuthCode), 16);
    if (aes.encode_cbc(cipher, cipher_length, reinterpret_cast<const unsigned char*>(text), text_length, true,
                       nullptr, 16)) {
        std::memcpy(auth.AuthCode, cipher, 16);
        auth.AuthCode[16] = 0;
    }
    out->add_field(&QelProductAuthField::DESC, &auth, QelProductAuthField::to_stream);

    std::memset(auth.AuthCode, 0, sizeof(auth.AuthCode));
    api_mutex.enter();
    write_log(request_log, "ReqAuthenticate", &auth, &QelProductAuthField::DESC, 0, log_scratch[0]);
    api_mutex.leave();
    control_writer->commit_packet(true);
}

void TradeApi::add_topic_position(Network::QelcPacket* out, short topic, bool pending, Base::DataFlow* flow,
                                  TE_RESUME_TYPE resume) {
    if (!pending || flow == nullptr) return;
    QelDisseminationField position;
    position.SequenceSeries = topic;
    // From now: the front picks the start until it has positioned the flow,
    // which turns the resume type into 1.
    position.SequenceNo = resume == TE_RESUME_FROM_NOW ? -1 : static_cast<int>(flow->get_count());
    out->add_field(&QelDisseminationField::DESC, &position, QelDisseminationField::to_stream);
}

void TradeApi::on_api_req_user_login(CTulmQelcReqUserLoginField* field, int request) {
    Network::QelcPacket* out = control_writer->alloc_packet(PACKET_USER_LOGIN, 0);
    out->get_header().RequestId = static_cast<unsigned int>(request);
    QelReqUserLoginField login;
    std::memset(&login, 0, sizeof(login));
    Base::str_ncpy(8, login.TradingDay, field->TradingDay);
    Base::str_ncpy(15, login.UserID, field->UserID);
    Base::str_ncpy(10, login.ParticipantID, field->ParticipantID);
    Base::str_ncpy(40, login.Password, field->Password);
    Base::str_ncpy(40, login.UserProductInfo, field->UserProductInfo);
    Base::str_ncpy(40, login.InterfaceProductInfo, field->InterfaceProductInfo);
    Base::str_ncpy(40, login.ProtocolInfo, field->ProtocolInfo);
    login.DataCenterID = field->DataCenterID;

    // ReqSubscribeTopic changes the pending flags on other threads: one
    // reading decides both the day and the positions sent.
    api_mutex.enter();
    bool private_waits = private_pending && private_flow != nullptr;
    bool public_waits = public_pending && public_flow != nullptr;
    bool user_waits = user_pending && user_flow != nullptr;
    api_mutex.leave();
    if (private_waits || public_waits || user_waits) {
        // Positions travel with the day they belong to.
        Base::str_ncpy(8, login.TradingDay, resume_day);
        login.DataCenterID = data_center_id;
    }

    int main_version = 0, build = 0;
    Base::str_ncpy(40, login.InterfaceProductInfo, CTulmQelcTraderApi::GetVersion(main_version, build));
    // "QELC <version>", and behind its zero the block of get_api_info.
    std::memset(login.ProtocolInfo, 0, sizeof(login.ProtocolInfo));
    int used = std::snprintf(login.ProtocolInfo, sizeof(login.ProtocolInfo), "QELC %d", out->get_header().Version);
    get_api_info(login.ProtocolInfo + used + 1, PROTOCOL_INFO_LENGTH - used, login.UserID);
    out->add_field(&QelReqUserLoginField::DESC, &login, QelReqUserLoginField::to_stream);

    std::memset(login.Password, 0, sizeof(login.Password));
    api_mutex.enter();
    write_log(request_log, "ReqUserLogin", &login, &QelReqUserLoginField::DESC, 0, log_scratch[0]);
    api_mutex.leave();

    // The lines above are written before these records: the positions, the
    // token and the terminal information never reach the log.
    add_topic_position(out, 2, private_waits, private_flow, private_resume);
    add_topic_position(out, 3, public_waits, public_flow, public_resume);
    add_topic_position(out, 5, user_waits, user_flow, user_resume);

    QelUserapiAuthenticInfoField token;
    std::memset(&token, 0, sizeof(token));
    if (encrypt_user_api_info(&token))
        out->add_field(&QelUserapiAuthenticInfoField::DESC, &token, QelUserapiAuthenticInfoField::to_stream);

    if (auth_ok.load(std::memory_order_acquire)) {
        QelUserSystemInfoField terminal;
        std::memset(&terminal, 0, sizeof(terminal));
        char app[256];
        std::memset(app, 0, sizeof(app));
        Base::str_ncpy(40, app, app_id);
        trans_str(app, static_cast<int>(std::strlen(app)), 255);
        Base::str_print(sizeof(terminal.LocalSystemInnerInfo), terminal.LocalSystemInnerInfo, "%s@%s@0@%s",
                        login.ParticipantID, system_info, app);
        out->add_field(&QelUserSystemInfoField::DESC, &terminal, QelUserSystemInfoField::to_stream);
    }
    control_writer->commit_packet(true);
}

void TradeApi::on_rsp_authenticate(CTulmQelcTraderSpi* callback) {
    auto* info = static_cast<QelRspInfoField*>(take_record(RECORD_RSP_INFO, &QelRspInfoField::DESC, 0));
    if (info == nullptr) return;
    auto* auth = static_cast<QelProductAuthField*>(take_record(RECORD_PRODUCT_AUTH, &QelProductAuthField::DESC, 1));
    if (auth == nullptr) return;
    if (info->ErrorID != 0) {
        auth_ok.store(false, std::memory_order_release);
        std::memset(app_id, 0, sizeof(app_id));
    } else {
        Base::str_ncpy(40, app_id, auth->AppID);
        auth_ok.store(true, std::memory_order_release);
    }
    count_answer(&trade_flux);
    if (callback != nullptr)
        callback->OnRspAuthenticate(reinterpret_cast<CTulmQelcProductAuthField*>(auth),
                                    reinterpret_cast<CTulmQelcRspInfoField*>(info), request_of(packet),
                                    is_last(packet));
    // An AuthCode that a front echoes stays out of the log.
    std::memset(auth->AuthCode, 0, sizeof(auth->AuthCode));
    write_log(response_log, info, "OnRspAuthenticate", auth, &QelProductAuthField::DESC,
              QelProductAuthField::DESC.struct_size, log_scratch[1]);
}

void TradeApi::on_rsp_user_login(CTulmQelcTraderSpi* callback) {
    auto* info = static_cast<QelRspInfoField*>(take_record(RECORD_RSP_INFO, &QelRspInfoField::DESC, 0));
    if (info == nullptr) return;
    if (info->ErrorID == 0) {
        auto* limits = static_cast<QelUserCommFluxControlField*>(
            take_record(RECORD_FLUX_CONTROL, &QelUserCommFluxControlField::DESC, 2));
        if (limits == nullptr) {
            session->close(REASON_NO_LIMITS);
            return;
        }
        api_mutex.enter();
        trade_flux.max_per_second = limit_of(limits->MaxTradeCommFlux);
        trade_flux.max_on_way = limit_of(limits->MaxTradeOnWayCommFlux);
        query_flux.max_per_second = limit_of(limits->MaxQueryCommFlux);
        query_flux.max_on_way = limit_of(limits->MaxQueryOnWayCommFlux);
        api_mutex.leave();
    }
    auto* login = static_cast<QelRspUserLoginField*>(
        take_record(RECORD_RSP_USER_LOGIN, &QelRspUserLoginField::DESC, 1));
    if (login == nullptr) return;
    if (info->ErrorID == 0) {
        api_mutex.enter();
        Base::str_ncpy(8, trading_day, login->TradingDay);
        Base::str_ncpy(12, max_order_local_id, login->MaxOrderLocalID);
        data_center_id = login->DataCenterID;
        Base::str_ncpy(10, participant_id, login->ParticipantID);
        Base::str_ncpy(15, user_id, login->UserID);
        api_mutex.leave();
        // Release: a request that sees logged_in also sees the limits and ids.
        logged_in.store(true, std::memory_order_release);
    }
    count_answer(&trade_flux);
    if (callback != nullptr)
        callback->OnRspUserLogin(reinterpret_cast<CTulmQelcRspUserLoginField*>(login),
                                 reinterpret_cast<CTulmQelcRspInfoField*>(info), request_of(packet), is_last(packet));
    write_log(response_log, info, "OnRspUserLogin", login, &QelRspUserLoginField::DESC,
              QelRspUserLoginField::DESC.struct_size, log_scratch[1]);
}

void TradeApi::on_rsp_user_logout(CTulmQelcTraderSpi* callback) {
    auto* info = static_cast<QelRspInfoField*>(take_record(RECORD_RSP_INFO, &QelRspInfoField::DESC, 0));
    if (info == nullptr) return;
    auto* logout = static_cast<QelRspUserLogoutField*>(
        take_record(RECORD_RSP_USER_LOGOUT, &QelRspUserLogoutField::DESC, 1));
    if (logout == nullptr) return;
    if (info->ErrorID == 0) {
        logged_in.store(false, std::memory_order_release);
        api_mutex.enter();
        std::memset(participant_id, 0, sizeof(participant_id));
        std::memset(user_id, 0, sizeof(user_id));
        api_mutex.leave();
    }
    count_answer(&trade_flux);
    if (callback != nullptr)
        callback->OnRspUserLogout(reinterpret_cast<CTulmQelcRspUserLogoutField*>(logout),
                                  reinterpret_cast<CTulmQelcRspInfoField*>(info), request_of(packet),
                                  is_last(packet));
    write_log(response_log, info, "OnRspUserLogout", logout, &QelRspUserLogoutField::DESC,
              QelRspUserLogoutField::DESC.struct_size, log_scratch[1]);
}

}  // namespace Api
