// Orders, actions, quotes, exercises, self-close, quote demands, password
// changes, queries, topic subscription and logout: the direct requests, each
// written straight into request_flow on the caller's thread under the gate.
//
// The operations differ only in what a RequestForm says: packet, record,
// gate, the required texts and the local id that must ascend. One path,
// send_request, does the rest for all of them.
#include <cstddef>
#include <cstring>

#include "api/tradeapi.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

namespace Api {

static const int ID_LENGTH = 12;  // a local or system id: 12 characters and a zero

struct RequestForm {
    const char* name;  // of the operation, for the request log
    unsigned short packet_id;
    const Base::FieldDesc* desc;
    Network::QelcPacket::ToStreamCoder coder;
    bool query;              // query_flux, else trade_flux
    short required;          // offset of a text that mustn't be null, -1 none
    short alternative;       // offset of a text that may stand in for it, -1 none
    short local_id;          // offset of the id that must ascend, -1 none
    bool rule_if_present;    // the ascending rule only for an id that isn't null
    bool clears_passwords;   // zero the passwords in request_field after the commit
};

// Offset of a member that holds an id of ID_LENGTH characters.
template <typename T, size_t N>
constexpr short id_at(size_t offset, char (T::*)[N]) {
    static_assert(N == ID_LENGTH + 1, "an id member holds 12 characters and a zero");
    return static_cast<short>(offset);
}
#define ID(T, member) id_at(offsetof(T, member), &T::member)

// The public record and the Qel record have one layout: the copy takes the
// Qel record's member table as the public record's.
#define SAME_LAYOUT(Public, Qel) \
    static_assert(sizeof(Public) == sizeof(Qel) && alignof(Public) == alignof(Qel), #Public)

#define ORDER_FORM(op, Public, Qel, packet, required, alternative, local_id, if_present)                 \
    SAME_LAYOUT(Public, Qel);                                                                            \
    static const RequestForm op##_FORM = {#op,     packet,      &Qel::DESC, Qel::to_stream, \
                                                    false,   required,    alternative, local_id,      \
                                                    if_present, false};                                \
    int TradeApi::op(Public* field, int request) { return send_request(op##_FORM, field, request); }

#define QUERY_FORM(op, Public, Qel, packet, query)                                                       \
    SAME_LAYOUT(Public, Qel);                                                                            \
    static const RequestForm op##_FORM = {#op, packet, &Qel::DESC, Qel::to_stream, query,   \
                                                    -1,  -1,     -1,         false,          false};  \
    int TradeApi::op(Public* field, int request) { return send_request(op##_FORM, field, request); }

// Inserts: the local id is required and must ascend.
#define INSERT(op, T, Qel, packet, id) ORDER_FORM(op, T, Qel, packet, ID(T, id), -1, ID(T, id), false)
// Actions: the system id or the local id is required; a given action id must ascend.
#define ACTION(op, T, Qel, packet, sys_id, local_id) \
    ORDER_FORM(op, T, Qel, packet, ID(T, local_id), ID(T, sys_id), ID(T, ActionLocalID), true)

INSERT(ReqOrderInsert, CTulmQelcInputOrderField, QelInputOrderField, 4101, OrderLocalID)
ACTION(ReqOrderAction, CTulmQelcOrderActionField, QelOrderActionField, 4103, OrderSysID, OrderLocalID)
INSERT(ReqQuoteInsert, CTulmQelcInputQuoteField, QelInputQuoteField, 4105, QuoteLocalID)
ACTION(ReqQuoteAction, CTulmQelcQuoteActionField, QelQuoteActionField, 4107, QuoteSysID, QuoteLocalID)
INSERT(ReqExecOrderInsert, CTulmQelcInputExecOrderField, QelInputExecOrderField, 4113, ExecOrderLocalID)
ACTION(ReqExecOrderAction, CTulmQelcExecOrderActionField, QelExecOrderActionField, 4115, ExecOrderSysID,
       ExecOrderLocalID)
INSERT(ReqAbandonExecOrderInsert, CTulmQelcInputAbandonExecOrderField, QelInputAbandonExecOrderField, 4121,
       AbandonExecOrderLocalID)
ACTION(ReqAbandonExecOrderAction, CTulmQelcAbandonExecOrderActionField, QelAbandonExecOrderActionField, 4123,
       AbandonExecOrderSysID, AbandonExecOrderLocalID)
INSERT(ReqOptionSelfCloseUpdate, CTulmQelcInputOptionSelfCloseField, QelInputOptionSelfCloseField, 24737,
       OptionSelfCloseLocalID)
ACTION(ReqOptionSelfCloseAction, CTulmQelcOptionSelfCloseActionField, QelOptionSelfCloseActionField, 24741,
       OptionSelfCloseSysID, OptionSelfCloseLocalID)
// A quote demand needs its id but leaves max_order_local_id alone.
ORDER_FORM(ReqQuoteDemand, CTulmQelcInputQuoteDemandField, QelInputQuoteDemandField, 4125,
           ID(CTulmQelcInputQuoteDemandField, QuoteDemandLocalID), -1, -1, false)
ORDER_FORM(ReqUserLogout, CTulmQelcReqUserLogoutField, QelReqUserLogoutField, 4099, -1, -1, -1, false)

QUERY_FORM(ReqQryPartAccount, CTulmQelcQryPartAccountField, QelQryPartAccountField, 16385, true)
QUERY_FORM(ReqQryOrder, CTulmQelcQryOrderField, QelQryOrderField, 16387, true)
QUERY_FORM(ReqQryQuote, CTulmQelcQryQuoteField, QelQryQuoteField, 16389, true)
QUERY_FORM(ReqQryTrade, CTulmQelcQryTradeField, QelQryTradeField, 16391, true)
QUERY_FORM(ReqQryClient, CTulmQelcQryClientField, QelQryClientField, 16393, true)
QUERY_FORM(ReqQryPartPosition, CTulmQelcQryPartPositionField, QelQryPartPositionField, 16395, true)
QUERY_FORM(ReqQryClientPosition, CTulmQelcQryClientPositionField, QelQryClientPositionField, 16397, true)
QUERY_FORM(ReqQryInstrument, CTulmQelcQryInstrumentField, QelQryInstrumentField, 16399, true)
QUERY_FORM(ReqQryInstrumentStatus, CTulmQelcQryInstrumentStatusField, QelQryInstrumentStatusField, 16401, true)
QUERY_FORM(ReqQryHedgeVolume, CTulmQelcQryHedgeVolumeField, QelQryHedgeVolumeField, 16405, true)
QUERY_FORM(ReqQryExecOrder, CTulmQelcQryExecOrderField, QelQryExecOrderField, 16416, true)
QUERY_FORM(ReqQryAbandonExecOrder, CTulmQelcQryAbandonExecOrderField, QelQryAbandonExecOrderField, 16418, true)
QUERY_FORM(ReqQryMarketData, CTulmQelcQryMarketDataField, QelQryMarketDataField, 16641, true)
QUERY_FORM(ReqQryBulletin, CTulmQelcQryBulletinField, QelQryBulletinField, 16643, true)
QUERY_FORM(ReqQryTopic, CTulmQelcDisseminationField, QelDisseminationField, 16897, true)
QUERY_FORM(ReqQryExchangeRate, CTulmQelcQryExchangeRateField, QelQryExchangeRateField, 24713, true)
QUERY_FORM(ReqQryOptionSelfClose, CTulmQelcQryOptionSelfCloseField, QelQryOptionSelfCloseField, 24744, true)

SAME_LAYOUT(CTulmQelcUserPasswordUpdateField, QelUserPasswordUpdateField);
static const RequestForm PASSWORD_FORM = {
    "ReqUserPasswordUpdate", 4111, &QelUserPasswordUpdateField::DESC, QelUserPasswordUpdateField::to_stream,
    false, -1, -1, -1, false, true};
static const RequestForm SUBSCRIBE_FORM = {
    "ReqSubscribeTopic", 7937, &QelDisseminationField::DESC, QelDisseminationField::to_stream,
    false, -1, -1, -1, false, false};

// The copy rule: a text takes at most its width - 1 characters, up to its
// first zero, and zeros up to its end, whatever the caller left behind it;
// everything else goes bit by bit. Padding isn't touched.
static void copy_record(const Base::FieldDesc* desc, const char* from, char* to) {
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc& member = desc->members[i];
        const char* source = from + member.offset;
        char* target = to + member.offset;
        if (member.type == Base::DT_STRING) {
            size_t length = strnlen(source, static_cast<size_t>(member.total_size - 1));
            std::memcpy(target, source, length);
            std::memset(target + length, 0, static_cast<size_t>(member.total_size) - length);
        } else {
            std::memcpy(target, source, static_cast<size_t>(member.total_size));
        }
    }
}

// The checks that need no lock, then the rest under api_mutex.
int TradeApi::send_request(const RequestForm& form, void* field, int request) {
    if (!logged_in.load(std::memory_order_acquire)) return -1;
    char* record = static_cast<char*>(field);
    if (form.required >= 0) {
        bool empty = is_null_string(record + form.required, ID_LENGTH);
        if (form.alternative >= 0) empty = is_null_string(record + form.alternative, ID_LENGTH) && empty;
        if (empty) return -6;
    }
    api_mutex.enter();
    int result = write_request(form, field, request);
    api_mutex.leave();
    return result;
}

// The local id must be greater, byte by byte, than every id before it on
// this connection; a refusal leaves max_order_local_id as it was.
int TradeApi::check_local_id(const RequestForm& form, char* field) {
    char* id = field + form.local_id;
    if (form.rule_if_present && is_null_string(id, ID_LENGTH)) return 0;
    if (std::strncmp(max_order_local_id, id, ID_LENGTH) >= 0) return -11;
    std::strncpy(max_order_local_id, id, ID_LENGTH);
    max_order_local_id[ID_LENGTH] = 0;
    return 0;
}

// Under api_mutex: the gate, the count, the packet and the log line. The
// gate comes before the id rule, so a refused id may have opened a rate
// window but counts nothing.
int TradeApi::write_request(const RequestForm& form, const void* field, int request) {
    if (!logged_in.load(std::memory_order_relaxed)) return -1;
    FluxValue* flux = form.query ? &query_flux : &trade_flux;
    int result = control_flux(flux);
    if (result < 0) return result;
    if (form.local_id >= 0) {
        result = check_local_id(form, static_cast<char*>(const_cast<void*>(field)));
        if (result < 0) return result;
    }
    ++flux->sent;
    Network::QelcPacket* packet = request_writer->alloc_packet(form.packet_id, Network::QelcPacket::DEFAULT_VERSION);
    packet->get_header().RequestId = static_cast<unsigned int>(request);
    copy_record(form.desc, static_cast<const char*>(field), request_field);
    packet->add_field(form.desc, request_field, form.coder);
    request_writer->commit_packet(true);
    if (form.clears_passwords) {
        QelUserPasswordUpdateField* update = reinterpret_cast<QelUserPasswordUpdateField*>(request_field);
        std::memset(update->OldPassword, 0, sizeof(update->OldPassword));
        std::memset(update->NewPassword, 0, sizeof(update->NewPassword));
    }
    if (request_log) write_log(request_log, form.name, request_field, form.desc, 0, log_scratch[0]);
    return 0;
}

// Only the logged-in participant and user may change a password. The ids
// are compared under the lock, as the login reply writes them under it.
int TradeApi::ReqUserPasswordUpdate(CTulmQelcUserPasswordUpdateField* field, int request) {
    if (!logged_in.load(std::memory_order_acquire)) return -1;
    field->ParticipantID[sizeof(field->ParticipantID) - 1] = 0;
    field->UserID[sizeof(field->UserID) - 1] = 0;
    api_mutex.enter();
    int result;
    if (!logged_in.load(std::memory_order_relaxed))
        result = -1;
    else if (std::strncmp(field->ParticipantID, participant_id, sizeof(field->ParticipantID) - 1) != 0)
        result = -13;
    else if (std::strncmp(field->UserID, user_id, sizeof(field->UserID) - 1) != 0)
        result = -14;
    else
        result = write_request(PASSWORD_FORM, field, request);
    api_mutex.leave();
    return result;
}

// Clears the topic's pending flag first, in its own turn of the lock: a
// call that the gate then refuses has cleared it all the same.
int TradeApi::ReqSubscribeTopic(CTulmQelcDisseminationField* field, int request) {
    if (!logged_in.load(std::memory_order_acquire)) return -1;
    api_mutex.enter();
    switch (field->SequenceSeries) {
    case 2: private_pending = false; break;
    case 3: public_pending = false; break;
    case 5: user_pending = false; break;
    default: break;
    }
    api_mutex.leave();
    return send_request(SUBSCRIBE_FORM, field, request);
}

}  // namespace Api
