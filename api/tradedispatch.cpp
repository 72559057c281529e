// on_write: every inbound frame of the reply and topic flows, decoded into
// reply_buffers and handed to the library's own bookkeeping and to the
// application's callbacks, on the reactor thread.
//
// The packet id alone picks the handling, by a binary search over a sorted
// constant table; the flow a frame came in on plays no part. Each row names
// the form of the packet, the description of its record, a small adapter
// that calls the right CTulmQelcTraderSpi member, and the name of the log
// line. Nothing here trusts the frame: the header's lengths are cut to what
// was stored, and a missing, foreign or short record only ends the packet.
#include "api/tradeapi.h"

#include <cstring>

#include "base/datatype.h"
#include "network/xmppacket.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

namespace Api {

namespace {

// How a packet is taken apart.
enum Form : unsigned char {
    FORM_RSP_ERROR,      // RspInfo alone
    FORM_REPLY,          // RspInfo, then one record; counted on trade_flux
    FORM_PASSWORD,       // a reply whose passwords are emptied after the callback
    FORM_ERROR_RETURN,   // RspInfo, then one record; not counted
    FORM_RETURN,         // one record
    FORM_RETURN_MANY,    // any number of records of one id
    FORM_QUERY,          // RspInfo and records in any number; counted on query_flux
    FORM_CRYPT,          // handled by the key exchange
    FORM_AUTHENTICATE,   // handled by the authentication
    FORM_LOGIN,          // handled by the login
    FORM_LOGOUT,         // handled by the logout
    FORM_DISSEMINATION,  // positions of the topic flows
};

// One signature for every callback: forms without an info, a request or a
// last flag simply don't pass them on.
typedef void (*SpiCall)(CTulmQelcTraderSpi* spi, void* record, void* info, int request, bool last);

template <typename R, void (CTulmQelcTraderSpi::*F)(R*, CTulmQelcRspInfoField*, int, bool)>
void call_reply(CTulmQelcTraderSpi* spi, void* record, void* info, int request, bool last) {
    (spi->*F)(static_cast<R*>(record), static_cast<CTulmQelcRspInfoField*>(info), request, last);
}

template <typename R, void (CTulmQelcTraderSpi::*F)(R*, CTulmQelcRspInfoField*)>
void call_error_return(CTulmQelcTraderSpi* spi, void* record, void* info, int, bool) {
    (spi->*F)(static_cast<R*>(record), static_cast<CTulmQelcRspInfoField*>(info));
}

template <typename R, void (CTulmQelcTraderSpi::*F)(R*)>
void call_return(CTulmQelcTraderSpi* spi, void* record, void*, int, bool) {
    (spi->*F)(static_cast<R*>(record));
}

void call_rsp_error(CTulmQelcTraderSpi* spi, void*, void* info, int request, bool last) {
    spi->OnRspError(static_cast<CTulmQelcRspInfoField*>(info), request, last);
}

}  // namespace

struct TradeApi::DispatchEntry {
    unsigned int packet_id;
    Form form;
    const Base::FieldDesc* desc;  // the record the form expects
    Network::QelcPacket::FromStreamCoder coder;  // its generated decoder
    SpiCall call;                 // null for the library's own packets
    const char* name;             // log name, the callback's name
};

namespace {

// Rows by form: the packet id, the record's name without its family prefix
// and "Field", and the callback's name without its form prefix.
#define QEL_REPLY(id, record, op)                                                         \
    { id, FORM_REPLY, &Qel##record##Field::DESC, &Qel##record##Field::from_stream,        \
      &call_reply<CTulmQelc##record##Field, &CTulmQelcTraderSpi::OnRsp##op>, "OnRsp" #op }
#define QEL_QUERY(id, record, op)                                                            \
    { id, FORM_QUERY, &Qel##record##Field::DESC, &Qel##record##Field::from_stream,           \
      &call_reply<CTulmQelc##record##Field, &CTulmQelcTraderSpi::OnRspQry##op>, "OnRspQry" #op }
#define QEL_ERROR_RETURN(id, record, op)                                                      \
    { id, FORM_ERROR_RETURN, &Qel##record##Field::DESC, &Qel##record##Field::from_stream,     \
      &call_error_return<CTulmQelc##record##Field, &CTulmQelcTraderSpi::OnErrRtn##op>,        \
      "OnErrRtn" #op }
#define QEL_RETURN(id, record, op)                                                          \
    { id, FORM_RETURN, &Qel##record##Field::DESC, &Qel##record##Field::from_stream,         \
      &call_return<CTulmQelc##record##Field, &CTulmQelcTraderSpi::OnRtn##op>, "OnRtn" #op }

constexpr TradeApi::DispatchEntry g_dispatch_table[] = {
    {1, FORM_RSP_ERROR, &QelRspInfoField::DESC, &QelRspInfoField::from_stream, &call_rsp_error, "OnRspError"},
    {4098, FORM_LOGIN, &QelRspUserLoginField::DESC, &QelRspUserLoginField::from_stream, nullptr, "OnRspUserLogin"},
    {4100, FORM_LOGOUT, &QelRspUserLogoutField::DESC, &QelRspUserLogoutField::from_stream, nullptr, "OnRspUserLogout"},
    QEL_REPLY(4102, InputOrder, OrderInsert),
    QEL_REPLY(4104, OrderAction, OrderAction),
    QEL_REPLY(4106, InputQuote, QuoteInsert),
    QEL_REPLY(4108, QuoteAction, QuoteAction),
    {4112, FORM_PASSWORD, &QelUserPasswordUpdateField::DESC, &QelUserPasswordUpdateField::from_stream,
     &call_reply<CTulmQelcUserPasswordUpdateField, &CTulmQelcTraderSpi::OnRspUserPasswordUpdate>,
     "OnRspUserPasswordUpdate"},
    QEL_REPLY(4114, InputExecOrder, ExecOrderInsert),
    QEL_REPLY(4116, ExecOrderAction, ExecOrderAction),
    QEL_REPLY(4122, InputAbandonExecOrder, AbandonExecOrderInsert),
    QEL_REPLY(4124, AbandonExecOrderAction, AbandonExecOrderAction),
    QEL_REPLY(4126, QuoteDemandInfo, QuoteDemand),
    QEL_REPLY(7938, Dissemination, SubscribeTopic),
    QEL_QUERY(16386, RspPartAccount, PartAccount),
    QEL_QUERY(16388, Order, Order),
    QEL_QUERY(16390, Quote, Quote),
    QEL_QUERY(16392, Trade, Trade),
    QEL_QUERY(16394, RspClient, Client),
    QEL_QUERY(16396, RspPartPosition, PartPosition),
    QEL_QUERY(16398, RspClientPosition, ClientPosition),
    QEL_QUERY(16400, RspInstrument, Instrument),
    QEL_QUERY(16402, InstrumentStatus, InstrumentStatus),
    QEL_QUERY(16406, HedgeVolume, HedgeVolume),
    QEL_QUERY(16417, ExecOrder, ExecOrder),
    QEL_QUERY(16419, AbandonExecOrder, AbandonExecOrder),
    QEL_QUERY(16642, MarketData, MarketData),
    QEL_QUERY(16644, Bulletin, Bulletin),
    QEL_QUERY(16898, Dissemination, Topic),
    QEL_RETURN(20481, Trade, Trade),
    QEL_RETURN(20482, Order, Order),
    QEL_RETURN(20483, ExecOrder, ExecOrder),
    QEL_RETURN(20484, Quote, Quote),
    QEL_RETURN(20486, AbandonExecOrder, AbandonExecOrder),
    QEL_RETURN(20497, InstrumentStatus, InstrumentStatus),
    QEL_RETURN(20737, Instrument, InsInstrument),
    {20993, FORM_RETURN_MANY, &QelFlowMessageCancelField::DESC, &QelFlowMessageCancelField::from_stream,
     &call_return<CTulmQelcFlowMessageCancelField, &CTulmQelcTraderSpi::OnRtnFlowMessageCancel>,
     "OnRtnFlowMessageCancel"},
    QEL_RETURN(22529, Bulletin, Bulletin),
    {22785, FORM_DISSEMINATION, &QelDisseminationField::DESC, &QelDisseminationField::from_stream, nullptr, "IntlRtnDissemination"},
    QEL_ERROR_RETURN(24705, InputOrder, OrderInsert),
    QEL_ERROR_RETURN(24706, OrderAction, OrderAction),
    QEL_ERROR_RETURN(24707, InputQuote, QuoteInsert),
    QEL_ERROR_RETURN(24708, QuoteAction, QuoteAction),
    QEL_ERROR_RETURN(24709, InputExecOrder, ExecOrderInsert),
    QEL_ERROR_RETURN(24710, ExecOrderAction, ExecOrderAction),
    QEL_QUERY(24714, RspExchangeRate, ExchangeRate),
    QEL_ERROR_RETURN(24716, InputAbandonExecOrder, AbandonExecOrderInsert),
    QEL_ERROR_RETURN(24717, AbandonExecOrderAction, AbandonExecOrderAction),
    QEL_RETURN(24718, QuoteDemandNotify, QuoteDemandNotify),
    {24722, FORM_CRYPT, &QelRspInfoField::DESC, &QelRspInfoField::from_stream, nullptr, "OnRspQryCryptInfo"},
    QEL_REPLY(24738, InputOptionSelfClose, OptionSelfCloseUpdate),
    QEL_ERROR_RETURN(24739, InputOptionSelfClose, OptionSelfCloseUpdate),
    QEL_RETURN(24740, OptionSelfClose, OptionSelfCloseUpdate),
    QEL_REPLY(24742, OptionSelfCloseAction, OptionSelfCloseAction),
    QEL_ERROR_RETURN(24743, OptionSelfCloseAction, OptionSelfCloseAction),
    QEL_QUERY(24745, OptionSelfClose, OptionSelfClose),
    {24747, FORM_AUTHENTICATE, &QelProductAuthField::DESC, &QelProductAuthField::from_stream, nullptr, "OnRspAuthenticate"},
};

#undef QEL_REPLY
#undef QEL_QUERY
#undef QEL_ERROR_RETURN
#undef QEL_RETURN

constexpr int DISPATCH_COUNT = sizeof(g_dispatch_table) / sizeof(g_dispatch_table[0]);

constexpr bool is_sorted_table() {
    for (int i = 1; i < DISPATCH_COUNT; ++i)
        if (g_dispatch_table[i - 1].packet_id >= g_dispatch_table[i].packet_id) return false;
    return true;
}
static_assert(DISPATCH_COUNT == 57, "one row for each inbound packet");
static_assert(is_sorted_table(), "the binary search needs rows in ascending packet id");

const TradeApi::DispatchEntry* find_entry(unsigned int packet_id) {
    int low = 0;
    int high = DISPATCH_COUNT;
    while (low < high) {
        const int middle = (low + high) / 2;
        if (g_dispatch_table[middle].packet_id < packet_id)
            low = middle + 1;
        else
            high = middle;
    }
    if (low < DISPATCH_COUNT && g_dispatch_table[low].packet_id == packet_id) return &g_dispatch_table[low];
    return nullptr;
}

inline bool is_topic(unsigned short subject) { return subject != 0 && subject != 1 && subject != 4; }

}  // namespace

void TradeApi::on_write(unsigned long id, const void* data, unsigned short size) {
    if (!open_frame(data, size)) return;
    // One load for the whole frame: a Release on another thread between two
    // callbacks of one packet doesn't split the packet's handling.
    CTulmQelcTraderSpi* callback = spi.load(std::memory_order_acquire);
    const Network::QelcPacket::Header& header = packet.get_header();
    if (callback && is_topic(header.Subject))
        callback->OnPackageStart(header.Subject, static_cast<int>(header.SequenceLow));
    const DispatchEntry* entry = find_entry(header.PacketId);
    if (entry) dispatch(entry, callback);
    if (callback && is_topic(header.Subject))
        callback->OnPackageEnd(header.Subject, static_cast<int>(header.SequenceLow));
}

// The Qelc header sits behind the Xmp header and its extension. A frame too
// short for both headers is dropped; a BodyLength that claims more than the
// frame holds is cut to what is there, so the iterator never reads past the
// stored record.
bool TradeApi::open_frame(const void* data, unsigned short size) {
    const unsigned char* frame = static_cast<const unsigned char*>(data);
    if (frame == nullptr || size < Network::XmpPacket::HEADER_SIZE) return false;
    const int offset = frame[1] + Network::QelcPacket::FRAME_PREFIX_SIZE;
    if (offset + Network::QelcPacket::HEADER_SIZE > size) return false;
    Network::QelcPacket::Header& header = packet.get_header();
    Network::QelcPacket::from_stream(&header, reinterpret_cast<const char*>(frame + offset));
    const int room = size - offset - Network::QelcPacket::HEADER_SIZE;
    if (header.BodyLength > room) header.BodyLength = static_cast<unsigned short>(room);
    packet_iterator.attach(&header, frame + offset + Network::QelcPacket::HEADER_SIZE);
    return true;
}

void TradeApi::dispatch(const DispatchEntry* entry, CTulmQelcTraderSpi* callback) {
    switch (entry->form) {
    case FORM_RSP_ERROR: dispatch_rsp_error(entry, callback); break;
    case FORM_REPLY:
    case FORM_PASSWORD:
    case FORM_ERROR_RETURN: dispatch_reply(entry, callback); break;
    case FORM_RETURN: dispatch_return(entry, callback); break;
    case FORM_RETURN_MANY: dispatch_return_many(entry, callback); break;
    case FORM_QUERY: dispatch_query(entry, callback); break;
    case FORM_CRYPT: on_rsp_qry_crypt_info(callback); break;
    case FORM_AUTHENTICATE: on_rsp_authenticate(callback); break;
    case FORM_LOGIN: on_rsp_user_login(callback); break;
    case FORM_LOGOUT: on_rsp_user_logout(callback); break;
    case FORM_DISSEMINATION: on_intl_rtn_dissemination(); break;
    }
}

void TradeApi::dispatch_rsp_error(const DispatchEntry* entry, CTulmQelcTraderSpi* callback) {
    void* info = take_entry_record(entry, 0);
    if (info == nullptr) return;
    const Network::QelcPacket::Header& header = packet.get_header();
    count_answer(header.Subject == 4 ? &query_flux : &trade_flux);
    if (callback) entry->call(callback, nullptr, info, header.RequestId, header.Chain == 'L');
    if (response_log)
        write_log(response_log, entry->name, info, entry->desc, entry->desc->struct_size, log_scratch[1]);
}

// Reply and error return: RspInfo, then the record; a further record of the
// packet is not looked at.
void TradeApi::dispatch_reply(const DispatchEntry* entry, CTulmQelcTraderSpi* callback) {
    if (packet_iterator.next() != QelRspInfoField::DESC.id) return;
    void* info = decode_record(&QelRspInfoField::DESC, &QelRspInfoField::from_stream, 0);
    void* record = take_entry_record(entry, 1);
    if (record == nullptr) return;
    const Network::QelcPacket::Header& header = packet.get_header();
    if (entry->form != FORM_ERROR_RETURN) count_answer(&trade_flux);
    if (callback) entry->call(callback, record, info, header.RequestId, header.Chain == 'L');
    if (entry->form == FORM_PASSWORD) {
        // The passwords live no longer than the callback: not in the log,
        // not in the buffer.
        CTulmQelcUserPasswordUpdateField* update = static_cast<CTulmQelcUserPasswordUpdateField*>(record);
        std::memset(update->OldPassword, 0, sizeof(update->OldPassword));
        std::memset(update->NewPassword, 0, sizeof(update->NewPassword));
    }
    if (response_log)
        write_log(response_log, static_cast<QelRspInfoField*>(info), entry->name, record, entry->desc,
                  entry->desc->struct_size, log_scratch[1]);
}

void TradeApi::dispatch_return(const DispatchEntry* entry, CTulmQelcTraderSpi* callback) {
    void* record = take_entry_record(entry, 1);
    if (record == nullptr) return;
    if (callback) entry->call(callback, record, nullptr, 0, false);
    if (response_log)
        write_log(response_log, entry->name, record, entry->desc, entry->desc->struct_size, log_scratch[1]);
}

// Records of one id until the body ends or another id turns up; each is
// dead once its callback and log line are done, so the three buffers are
// taken in turn however many records come.
void TradeApi::dispatch_return_many(const DispatchEntry* entry, CTulmQelcTraderSpi* callback) {
    const int length = packet.get_header().BodyLength;
    for (int taken = 0; packet_iterator.get_position() < length; ++taken) {
        void* record = take_entry_record(entry, taken % 3);
        if (record == nullptr) return;
        if (callback) entry->call(callback, record, nullptr, 0, false);
        if (response_log)
            write_log(response_log, entry->name, record, entry->desc, entry->desc->struct_size,
                      log_scratch[1]);
    }
}

// A query answer may span many packets, each with any number of records.
// The RspInfo of a packet goes with its first record only; IsLast is true
// for the record that ends the last packet; a packet with no record still
// calls back once, with a null record.
void TradeApi::dispatch_query(const DispatchEntry* entry, CTulmQelcTraderSpi* callback) {
    const Network::QelcPacket::Header& header = packet.get_header();
    const bool last_packet = header.Chain == 'L';
    if (last_packet) count_answer(&query_flux);
    void* record = nullptr;
    void* info = nullptr;
    while (packet_iterator.get_position() < header.BodyLength) {
        const unsigned short id = packet_iterator.next();
        if (id == Network::QelcPacket::END) break;
        if (id == QelRspInfoField::DESC.id) {
            info = decode_record(&QelRspInfoField::DESC, &QelRspInfoField::from_stream, 0);
            if (record == nullptr) continue;
        } else if (id == entry->desc->id) {
            record = decode_record(entry->desc, entry->coder, 1);
        } else if (record == nullptr) {
            continue;
        }
        const bool last = last_packet && packet_iterator.get_position() >= header.BodyLength;
        if (callback) entry->call(callback, record, info, header.RequestId, last);
        if (response_log)
            write_log(response_log, static_cast<QelRspInfoField*>(info), entry->name, record, entry->desc,
                      entry->desc->struct_size, log_scratch[1]);
        info = nullptr;
    }
    if (record != nullptr) return;
    if (callback) entry->call(callback, nullptr, info, header.RequestId, last_packet);
    if (response_log)
        write_log(response_log, static_cast<QelRspInfoField*>(info), entry->name, nullptr, entry->desc,
                  entry->desc->struct_size, log_scratch[1]);
}

// answered is written only here, on the reactor thread; sent is written by
// application threads under api_mutex, so it is read under the same lock.
// A reply that would take answered past sent (unrequested, or for a request
// of an earlier connection) counts nothing, so sent - answered never wraps.
void TradeApi::count_answer(FluxValue* flux) {
    api_mutex.enter();
    const uint32_t answered = flux->answered.load(std::memory_order_relaxed);
    if (flux->sent - answered != 0 && flux->sent - answered < 0x80000000u)
        flux->answered.store(answered + 1, std::memory_order_relaxed);
    api_mutex.leave();
}

void* TradeApi::take_record(unsigned short id, const Base::FieldDesc* desc, int buffer) {
    if (packet_iterator.next() != id) return nullptr;
    return decode_record(desc, nullptr, buffer);
}

void* TradeApi::take_entry_record(const DispatchEntry* entry, int buffer) {
    if (packet_iterator.next() != entry->desc->id) return nullptr;
    return decode_record(entry->desc, entry->coder, buffer);
}

// The generated coder when there is one (it decodes without walking the
// description), else the description's generic coder.
void* TradeApi::decode_record(const Base::FieldDesc* desc, Network::QelcPacket::FromStreamCoder coder, int buffer) {
    char* out = reply_buffers[buffer];
    if (coder)
        packet_iterator.get_field(out, coder, true);
    else
        packet_iterator.get_field(out, desc, true);
    // The wire promises no zero behind a text: end each one in its last byte.
    for (int i = 0; i < desc->member_count; ++i) {
        const Base::FieldDesc::MemberDesc* member = desc->get_member_desc(i);
        if (member->type == Base::DT_STRING) out[member->offset + member->total_size - 1] = 0;
    }
    return out;
}

}  // namespace Api
