// Test helpers for the trader's inbound side: frames built the way a front
// sends them, a spi that records every callback with a copy of its record,
// and TradeApiProbe, which reaches the reactor-thread state of a trader that
// has no reactor.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "api/tradeapi.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

namespace Api {

class TradeApiProbe {
public:
    static TradeApi::FluxValue& trade_flux(TradeApi& api) { return api.trade_flux; }
    static TradeApi::FluxValue& query_flux(TradeApi& api) { return api.query_flux; }
    static char* reply_buffer(TradeApi& api, int index) { return api.reply_buffers[index]; }
    static Network::QelcFlow*& topic_flow(TradeApi& api, int topic) { return *api.topic_flow(topic); }
    static bool& pending(TradeApi& api, int topic) { return *api.topic_pending(topic); }
    static TE_RESUME_TYPE& resume(TradeApi& api, int topic) { return *api.topic_resume(topic); }
    static char* trading_day(TradeApi& api) { return api.trading_day; }
    static char* resume_day(TradeApi& api) { return api.resume_day; }
    static int& data_center_id(TradeApi& api) { return api.data_center_id; }
    static FILE* resume_file(TradeApi& api) { return api.resume_file; }
    static void read_resume(TradeApi& api) { api.read_resume(); }
    static void save_resume(TradeApi& api) { api.save_resume(); }
    static unsigned long start_id(TradeApi& api, int topic) { return api.resume_start_id(topic); }
    static void disconnect(TradeApi& api, int reason) { api.on_disconnected(reason); }
    static bool logged_in(TradeApi& api) { return api.logged_in.load(); }
    static Parallel::FdReactor* reactor(TradeApi& api) { return api.reactor.load(); }
    static Network::QelcBondClientSession* session(TradeApi& api) { return api.session; }
    // Lets the next login go without its pacing second; on the thread that logs in.
    static void forget_last_login(TradeApi& api) {
        api.api_mutex.enter();
        api.last_login_time = 0;
        api.api_mutex.leave();
    }
    // A topic flow as Init builds it, positioned at start.
    static Network::QelcFlow* make_topic_flow(TradeApi& api, int topic, unsigned long start) {
        Network::QelcFlow*& flow = *api.topic_flow(topic);
        delete flow;
        flow = new Network::QelcFlow(static_cast<unsigned short>(topic), 0xa00000, 0xa00000, nullptr, &api, start,
                                     nullptr, false, false);
        return flow;
    }
    static void delete_topic_flows(TradeApi& api) {
        for (int topic : {2, 3, 5}) {
            delete *api.topic_flow(topic);
            *api.topic_flow(topic) = nullptr;
        }
    }
};

}  // namespace Api

namespace test {

// A frame as a channel stores it: Xmp header, Crp header, Qelc header, body.
class Frame {
public:
    Frame(unsigned int packet_id, unsigned int request, unsigned char chain, unsigned short subject = 1,
          unsigned long sequence = 0)
        : packet(packet_id, request, chain) {
        std::memset(bytes, 0, sizeof(bytes));
        packet.attach(bytes + Network::QelcPacket::FRAME_PREFIX_SIZE);
        packet.get_header().Chain = chain;
        packet.get_header().RequestId = request;
        packet.get_header().Subject = subject;
        packet.get_header().set_sequence(sequence);
    }
    // An internal-form record, coded into stream form.
    bool add(const Base::FieldDesc* desc, const void* record) { return packet.add_field(desc, record) != nullptr; }
    // Raw stream bytes under any id.
    bool add_raw(unsigned short id, const void* stream, unsigned short size) {
        char* out = packet.add_field(id, size);
        if (out == nullptr) return false;
        std::memcpy(out, stream, size);
        return true;
    }
    // Writes the headers; the frame's size.
    int finish() {
        const int length = packet.commit();
        Network::XmpPacket::Header xmp = {Network::XmpPacket::TYPE_DATA, 0,
                                          static_cast<unsigned short>(length + 2)};
        Network::XmpPacket::to_stream(&xmp, bytes);
        bytes[4] = 1;
        bytes[5] = 0;
        size = 6 + length;
        return size;
    }
    void feed(Api::TradeApi& api) {
        if (size == 0) finish();
        api.on_write(0, bytes, static_cast<unsigned short>(size));
    }

    char bytes[Network::XmpPacket::MAX_PACKAGE_SIZE + 64];
    int size = 0;
    Network::QelcPacket packet;
};

struct Call {
    std::string name;
    bool has_record = false;
    bool has_info = false;
    int error_id = 0;
    int request = 0;
    bool last = false;
    std::string record;  // copy of copy_size bytes
    int topic = 0;
    int sequence = 0;
};

#define QEL_SPI_REPLY(op, type)                                                     \
    void op(type* record, CTulmQelcRspInfoField* info, int request, bool last) override { \
        note(#op, record, info, request, last);                                     \
    }
#define QEL_SPI_ERROR_RETURN(op, type) \
    void op(type* record, CTulmQelcRspInfoField* info) override { note(#op, record, info, 0, false); }
#define QEL_SPI_RETURN(op, type) \
    void op(type* record) override { note(#op, record, nullptr, 0, false); }

class RecordingSpi : public CTulmQelcTraderSpi {
public:
    std::vector<Call> calls;
    int copy_size = 0;

    void note(const char* name, const void* record, const CTulmQelcRspInfoField* info, int request, bool last) {
        calls.push_back({name, record != nullptr, info != nullptr, info ? info->ErrorID : 0, request, last,
                         record && copy_size ? std::string(static_cast<const char*>(record), copy_size) : ""});
    }
    void mark(const char* name, int topic, int sequence) {
        calls.push_back({name, false, false, 0, 0, false, "", topic, sequence});
    }

    void OnPackageStart(int topic, int sequence) override { mark("OnPackageStart", topic, sequence); }
    void OnPackageEnd(int topic, int sequence) override { mark("OnPackageEnd", topic, sequence); }
    void OnFrontConnected() override { mark("OnFrontConnected", 0, 0); }
    void OnFrontDisconnected(int reason) override { mark("OnFrontDisconnected", reason, 0); }
    void OnHeartBeatWarning(int seconds) override { mark("OnHeartBeatWarning", seconds, 0); }
    void OnRspError(CTulmQelcRspInfoField* info, int request, bool last) override {
        note("OnRspError", nullptr, info, request, last);
    }

    QEL_SPI_REPLY(OnRspUserLogin, CTulmQelcRspUserLoginField)
    QEL_SPI_REPLY(OnRspUserLogout, CTulmQelcRspUserLogoutField)
    QEL_SPI_REPLY(OnRspOrderInsert, CTulmQelcInputOrderField)
    QEL_SPI_REPLY(OnRspOrderAction, CTulmQelcOrderActionField)
    QEL_SPI_REPLY(OnRspQuoteInsert, CTulmQelcInputQuoteField)
    QEL_SPI_REPLY(OnRspQuoteAction, CTulmQelcQuoteActionField)
    QEL_SPI_REPLY(OnRspUserPasswordUpdate, CTulmQelcUserPasswordUpdateField)
    QEL_SPI_REPLY(OnRspExecOrderInsert, CTulmQelcInputExecOrderField)
    QEL_SPI_REPLY(OnRspExecOrderAction, CTulmQelcExecOrderActionField)
    QEL_SPI_REPLY(OnRspAbandonExecOrderInsert, CTulmQelcInputAbandonExecOrderField)
    QEL_SPI_REPLY(OnRspAbandonExecOrderAction, CTulmQelcAbandonExecOrderActionField)
    QEL_SPI_REPLY(OnRspQuoteDemand, CTulmQelcQuoteDemandInfoField)
    QEL_SPI_REPLY(OnRspSubscribeTopic, CTulmQelcDisseminationField)
    QEL_SPI_REPLY(OnRspQryPartAccount, CTulmQelcRspPartAccountField)
    QEL_SPI_REPLY(OnRspQryOrder, CTulmQelcOrderField)
    QEL_SPI_REPLY(OnRspQryQuote, CTulmQelcQuoteField)
    QEL_SPI_REPLY(OnRspQryTrade, CTulmQelcTradeField)
    QEL_SPI_REPLY(OnRspQryClient, CTulmQelcRspClientField)
    QEL_SPI_REPLY(OnRspQryPartPosition, CTulmQelcRspPartPositionField)
    QEL_SPI_REPLY(OnRspQryClientPosition, CTulmQelcRspClientPositionField)
    QEL_SPI_REPLY(OnRspQryInstrument, CTulmQelcRspInstrumentField)
    QEL_SPI_REPLY(OnRspQryInstrumentStatus, CTulmQelcInstrumentStatusField)
    QEL_SPI_REPLY(OnRspQryHedgeVolume, CTulmQelcHedgeVolumeField)
    QEL_SPI_REPLY(OnRspQryExecOrder, CTulmQelcExecOrderField)
    QEL_SPI_REPLY(OnRspQryAbandonExecOrder, CTulmQelcAbandonExecOrderField)
    QEL_SPI_REPLY(OnRspQryMarketData, CTulmQelcMarketDataField)
    QEL_SPI_REPLY(OnRspQryBulletin, CTulmQelcBulletinField)
    QEL_SPI_REPLY(OnRspQryTopic, CTulmQelcDisseminationField)
    QEL_SPI_RETURN(OnRtnTrade, CTulmQelcTradeField)
    QEL_SPI_RETURN(OnRtnOrder, CTulmQelcOrderField)
    QEL_SPI_RETURN(OnRtnExecOrder, CTulmQelcExecOrderField)
    QEL_SPI_RETURN(OnRtnQuote, CTulmQelcQuoteField)
    QEL_SPI_RETURN(OnRtnAbandonExecOrder, CTulmQelcAbandonExecOrderField)
    QEL_SPI_RETURN(OnRtnInstrumentStatus, CTulmQelcInstrumentStatusField)
    QEL_SPI_RETURN(OnRtnInsInstrument, CTulmQelcInstrumentField)
    QEL_SPI_RETURN(OnRtnFlowMessageCancel, CTulmQelcFlowMessageCancelField)
    QEL_SPI_RETURN(OnRtnBulletin, CTulmQelcBulletinField)
    QEL_SPI_ERROR_RETURN(OnErrRtnOrderInsert, CTulmQelcInputOrderField)
    QEL_SPI_ERROR_RETURN(OnErrRtnOrderAction, CTulmQelcOrderActionField)
    QEL_SPI_ERROR_RETURN(OnErrRtnQuoteInsert, CTulmQelcInputQuoteField)
    QEL_SPI_ERROR_RETURN(OnErrRtnQuoteAction, CTulmQelcQuoteActionField)
    QEL_SPI_ERROR_RETURN(OnErrRtnExecOrderInsert, CTulmQelcInputExecOrderField)
    QEL_SPI_ERROR_RETURN(OnErrRtnExecOrderAction, CTulmQelcExecOrderActionField)
    QEL_SPI_ERROR_RETURN(OnErrRtnAbandonExecOrderInsert, CTulmQelcInputAbandonExecOrderField)
    QEL_SPI_ERROR_RETURN(OnErrRtnAbandonExecOrderAction, CTulmQelcAbandonExecOrderActionField)
    QEL_SPI_RETURN(OnRtnQuoteDemandNotify, CTulmQelcQuoteDemandNotifyField)
    QEL_SPI_REPLY(OnRspQryExchangeRate, CTulmQelcRspExchangeRateField)
    QEL_SPI_REPLY(OnRspOptionSelfCloseUpdate, CTulmQelcInputOptionSelfCloseField)
    QEL_SPI_ERROR_RETURN(OnErrRtnOptionSelfCloseUpdate, CTulmQelcInputOptionSelfCloseField)
    QEL_SPI_RETURN(OnRtnOptionSelfCloseUpdate, CTulmQelcOptionSelfCloseField)
    QEL_SPI_REPLY(OnRspOptionSelfCloseAction, CTulmQelcOptionSelfCloseActionField)
    QEL_SPI_ERROR_RETURN(OnErrRtnOptionSelfCloseAction, CTulmQelcOptionSelfCloseActionField)
    QEL_SPI_REPLY(OnRspQryOptionSelfClose, CTulmQelcOptionSelfCloseField)
    QEL_SPI_REPLY(OnRspAuthenticate, CTulmQelcProductAuthField)
};

#undef QEL_SPI_REPLY
#undef QEL_SPI_ERROR_RETURN
#undef QEL_SPI_RETURN

// Every member of an internal-form record set to a value of its type that
// differs from member to member (seed varies them between records).
inline void fill_record(const Base::FieldDesc* desc, void* record, int seed) {
    std::memset(record, 0, desc->struct_size);
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* member = desc->get_member_desc(i);
        char* at = static_cast<char*>(record) + member->offset;
        char text[64];
        switch (member->type) {
        case Base::DT_STRING:
            std::snprintf(text, sizeof(text), "s%d_%d", i, seed);
            if (static_cast<int>(std::strlen(text)) >= member->total_size) text[member->total_size - 1] = 0;
            break;
        case Base::DT_CHAR: text[0] = static_cast<char>('A' + (i + seed) % 26); text[1] = 0; break;
        case Base::DT_BOOL: std::snprintf(text, sizeof(text), "1"); break;
        default:
            if (Base::is_fixed_point(member->type))
                std::snprintf(text, sizeof(text), "%d.5", (i + seed) % 90 + 1);
            else
                std::snprintf(text, sizeof(text), "%d", (i + seed) % 90 + 1);
        }
        Base::FieldDesc::fill_member(member->type, at, text, member->total_size);
    }
}

// The struct form the callback must see for an internal record.
inline std::string struct_form(const Base::FieldDesc* desc, const void* record) {
    std::string out(desc->struct_size, '\0');
    Network::XmpPacket::to_struct(desc, record, &out[0], desc->struct_size);
    return out;
}

// The members of two struct-form records that differ ("" when none do);
// padding between members is not compared.
inline std::string differing_members(const Base::FieldDesc* desc, const std::string& a, const std::string& b) {
    if (a.size() < desc->struct_size || b.size() < desc->struct_size) return "size";
    std::string out;
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* member = desc->get_member_desc(i);
        if (a.compare(member->offset, member->total_size, b, member->offset, member->total_size) != 0)
            out += std::string(member->name) + " ";
    }
    return out;
}

inline QelRspInfoField make_info(int error_id, const char* message) {
    QelRspInfoField info = {};
    info.ErrorID = error_id;
    std::snprintf(info.ErrorMsg, sizeof(info.ErrorMsg), "%s", message);
    return info;
}

}  // namespace test
