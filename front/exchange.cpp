#include "front/exchange.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "base/datetime.h"
#include "base/measure.h"
#include "front/connection.h"
#include "front/keys.h"
#include "front/records.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"

namespace Front {

namespace {

const unsigned int TOPIC_BLOCK = 0x400000;

// Packet ids of the requests and their answers.
enum : unsigned short {
    PK_RSP_ERROR = 1,
    PK_LOGIN = 4097, PK_RSP_LOGIN = 4098,
    PK_LOGOUT = 4099, PK_RSP_LOGOUT = 4100,
    PK_ORDER_INSERT = 4101, PK_RSP_ORDER_INSERT = 4102,
    PK_ORDER_ACTION = 4103, PK_RSP_ORDER_ACTION = 4104,
    PK_PASSWORD = 4111, PK_RSP_PASSWORD = 4112,
    PK_QUOTE_DEMAND = 4125, PK_RSP_QUOTE_DEMAND = 4126,
    PK_SUBSCRIBE = 7937, PK_RSP_SUBSCRIBE = 7938,
    PK_RTN_TRADE = 20481, PK_RTN_ORDER = 20482,
    PK_RTN_INSTRUMENT_STATUS = 20497, PK_RTN_INS_INSTRUMENT = 20737,
    PK_RTN_BULLETIN = 22529, PK_DISSEMINATION = 22785,
    PK_QUOTE_DEMAND_NOTIFY = 24718,
    PK_CRYPT = 24721, PK_RSP_CRYPT = 24722,
    PK_AUTHENTICATE = 24746, PK_RSP_AUTHENTICATE = 24747,
};

enum : int { TOPIC_PRIVATE = 2, TOPIC_PUBLIC = 3, TOPIC_USER = 5 };

struct Packet {
    Network::QelcPacket::Header header;
    const char* body;
};

Packet read_packet(const char* frame) {
    Packet p;
    int ext = static_cast<unsigned char>(frame[1]);
    Network::QelcPacket::from_stream(&p.header, frame + Network::QelcPacket::FRAME_PREFIX_SIZE + ext);
    p.body = frame + Network::QelcPacket::FRAME_PREFIX_SIZE + ext + Network::QelcPacket::HEADER_SIZE;
    return p;
}

// The first record of desc's id in the packet, decoded into record.
bool find_record(const char* frame, const Base::FieldDesc* desc, void* record) {
    Packet p = read_packet(frame);
    Network::QelcPacket::Iterator it(&p.header, p.body);
    memset(record, 0, desc->struct_size);
    for (unsigned short id = it.next(); id != Network::QelcPacket::END; id = it.next())
        if (id == desc->id) {
            it.get_field(record, desc, false);
            return true;
        }
    return false;
}

template <class R>
bool find_record(const char* frame, R& record) {
    return find_record(frame, &R::DESC, &record);
}

char* named(const Base::FieldDesc* desc, void* record, const char* member) {
    int i = desc->get_member_index(member);
    return i < 0 ? nullptr : static_cast<char*>(desc->get_member(record, i));
}

void set_named(const Base::FieldDesc* desc, void* record, const char* member, const char* text) {
    int i = desc->get_member_index(member);
    if (i < 0) return;
    const Base::FieldDesc::MemberDesc* m = desc->get_member_desc(i);
    char* p = static_cast<char*>(desc->get_member(record, i));
    if (m->type == Base::DT_STRING) put_text(p, m->total_size, text);
    else if (m->type == Base::DT_CHAR) *p = text[0];
}

const char* text_of(const Base::FieldDesc* desc, const void* record, const char* member) {
    char* p = named(desc, const_cast<void*>(record), member);
    return p ? p : "";
}

bool empty(const char* text) {
    for (; *text; ++text)
        if (*text != ' ') return false;
    return true;
}

std::string key_of(int subject, const char* owner) { return std::to_string(subject) + "/" + owner; }

}  // namespace

struct Exchange::Kind {
    unsigned short request;
    const Base::FieldDesc* in;
    unsigned short response;
    unsigned short rtn;
    const Base::FieldDesc* rest;
    const char* sys_id;
    const char* local_id;
    bool action;
};

static const Exchange::Kind g_kinds[] = {
    {4105, &QelInputQuoteField::DESC, 4106, 20484, &QelQuoteField::DESC, "QuoteSysID", "QuoteLocalID", false},
    {4107, &QelQuoteActionField::DESC, 4108, 20484, &QelQuoteField::DESC, "QuoteSysID", "QuoteLocalID", true},
    {4113, &QelInputExecOrderField::DESC, 4114, 20483, &QelExecOrderField::DESC, "ExecOrderSysID", "ExecOrderLocalID", false},
    {4115, &QelExecOrderActionField::DESC, 4116, 20483, &QelExecOrderField::DESC, "ExecOrderSysID", "ExecOrderLocalID", true},
    {4121, &QelInputAbandonExecOrderField::DESC, 4122, 20486, &QelAbandonExecOrderField::DESC, "AbandonExecOrderSysID", "AbandonExecOrderLocalID", false},
    {4123, &QelAbandonExecOrderActionField::DESC, 4124, 20486, &QelAbandonExecOrderField::DESC, "AbandonExecOrderSysID", "AbandonExecOrderLocalID", true},
    {24737, &QelInputOptionSelfCloseField::DESC, 24738, 24740, &QelOptionSelfCloseField::DESC, "OptionSelfCloseSysID", "OptionSelfCloseLocalID", false},
    {24741, &QelOptionSelfCloseActionField::DESC, 24742, 24740, &QelOptionSelfCloseField::DESC, "OptionSelfCloseSysID", "OptionSelfCloseLocalID", true},
};

namespace {

const Exchange::Kind* find_kind(unsigned int packet_id) {
    for (const Exchange::Kind& k : g_kinds)
        if (k.request == packet_id) return &k;
    return nullptr;
}

}  // namespace

Exchange::Exchange(const Config& c)
    : config(c), random(static_cast<unsigned int>(Base::Measure::get_clock()) ^ 0x2545f491u), store_dirty(false), next_order_id(1), next_trade_id(1), next_entity_id(1), sequence(0) {
    if (config.trading_day[0]) {
        put_text(trading_day, config.trading_day);
    } else {
        time_t now = time(nullptr);
        struct tm local;
        localtime_r(&now, &local);
        strftime(trading_day, sizeof(trading_day), "%Y%m%d", &local);
    }
    store_path[0] = '\0';
    if (config.data_dir[0]) snprintf(store_path, sizeof(store_path), "%s/accounts.json", config.data_dir);
    for (int i = 0; i < config.user_count; ++i)
        passwords[config.users[i].user_id] = config.users[i].password;
}

Exchange::~Exchange() {
    for (auto& entry : topics) {
        Topic* t = entry.second.get();
        if (t->file) fclose(t->file);
        delete t->saver;
        delete t->writer;
        delete t->flow;
    }
}

bool Exchange::open(char* error, int size) {
    if (config.data_dir[0]) {
        mkdir(config.data_dir, 0755);
        if (!store.load(store_path)) {
            snprintf(error, size_t(size), "can't read %s", store_path);
            return false;
        }
    }
    for (int i = 0; i < config.user_count; ++i) {
        topic(TOPIC_PRIVATE, config.users[i].participant_id);
        topic(TOPIC_USER, config.users[i].user_id);
        store.account(config.users[i].participant_id, trading_day, config.initial_balance);
    }
    // Order numbers go on from what the flows of the day hold.
    next_order_id = 1 + topic(TOPIC_PUBLIC, "")->flow->get_count();
    for (auto& entry : topics) next_order_id += entry.second->flow->get_count();
    next_trade_id = next_entity_id = next_order_id;
    Topic* pub = topic(TOPIC_PUBLIC, "");
    if (pub->flow->get_count() == 0) {
        for (int i = 0; i < config.instrument_count; ++i) {
            const Instrument& ins = config.instruments[i];
            QelInstrumentStatusField status;
            memset(&status, 0, sizeof(status));
            put_text(status.SettlementGroupID, "SG01");
            put_text(status.InstrumentID, ins.instrument_id);
            status.InstrumentStatus = '2';  // continuous trading
            status.TradingSegmentSN = 1;
            put_text(status.EnterTime, "09:00:00");
            status.EnterReason = '1';
            put_text(status.EnterDate, trading_day);
            publish(TOPIC_PUBLIC, "", PK_RTN_INSTRUMENT_STATUS, &QelInstrumentStatusField::DESC, &status);
        }
        QelBulletinField b;
        memset(&b, 0, sizeof(b));
        put_text(b.TradingDay, trading_day);
        b.BulletinID = 1;
        b.SequenceNo = 1;
        put_text(b.NewsType, "01");
        b.NewsUrgency = '1';
        stamp_time(b.SendTime);
        put_text(b.Abstract, "qelfront open");
        put_text(b.ComeFrom, "qelfront");
        put_text(b.Content, "A simulated front: orders trade by price and time between users.");
        put_text(b.MarketID, "QEL");
        bulletins.push_back(b);
        publish(TOPIC_PUBLIC, "", PK_RTN_BULLETIN, &QelBulletinField::DESC, &b);
    }
    store_dirty = true;
    tick();
    return true;
}

void Exchange::close() { tick(); }

void Exchange::tick() {
    if (!store_dirty || !store_path[0]) return;
    if (store.save(store_path)) store_dirty = false;
}

Exchange::Topic* Exchange::topic(int subject, const char* owner) {
    std::string key = key_of(subject, owner);
    auto found = topics.find(key);
    if (found != topics.end()) return found->second.get();
    std::unique_ptr<Topic> t(new Topic());
    t->flow = new Network::QelcFlow(static_cast<unsigned short>(subject), TOPIC_BLOCK, TOPIC_BLOCK,
                                    nullptr, nullptr, 0, nullptr, false, false);
    t->writer = new Network::QelcFlow::Writer(t->flow, false);
    t->file = nullptr;
    if (config.data_dir[0]) {
        char path[512];
        snprintf(path, sizeof(path), "%s/%s_%d_%s.flow", config.data_dir, trading_day, subject,
                 owner[0] ? owner : "all");
        long good = 0;
        if (FILE* in = fopen(path, "rb")) {
            char frame[8200];
            while (fread(frame, 1, 4, in) == 4) {
                size_t length = static_cast<unsigned char>(frame[2]) << 8 | static_cast<unsigned char>(frame[3]);
                if (frame[0] != 2 || length < 22 || length + 4 > sizeof(frame) ||
                    fread(frame + 4, 1, length, in) != length)
                    break;
                t->writer->add_packet(reinterpret_cast<const Network::XmpPacket::Header*>(frame), false, false);
                good += long(length + 4);
            }
            fclose(in);
            // A frame cut off by a crash goes, so that appends follow whole frames.
            if (truncate(path, good) != 0) good = 0;
        }
        t->file = fopen(path, "ab");
    }
    t->saver = new Base::DataFlow::Iterator(t->flow, nullptr, nullptr, nullptr);
    t->saver->seek(t->flow->get_count());
    Topic* raw = t.get();
    topics[key] = std::move(t);
    return raw;
}

void Exchange::save_topic(Topic* t) {
    while (const Base::DataFlow::Item* item = t->saver->next())
        if (t->file) fwrite(item->data, 1, item->length, t->file);
    if (t->file) fflush(t->file);
}

void Exchange::publish(int subject, const char* owner, unsigned short packet_id,
                       const Base::FieldDesc* desc, const void* record) {
    Topic* t = topic(subject, owner);
    Reply r(t->writer, packet_id, 0);
    r.add(desc, record, nullptr);
    r.finish();
    save_topic(t);
}

void Exchange::to_owner(const QelOrderField& who, unsigned short packet_id,
                        const Base::FieldDesc* desc, const void* record) {
    publish(TOPIC_PRIVATE, who.ParticipantID, packet_id, desc, record);
    publish(TOPIC_USER, who.UserID, packet_id, desc, record);
}

void Exchange::stamp_time(char* time9) {
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(time9, 9, "%H:%M:%S", &local);
}

void Exchange::reply(Connection* c, unsigned short packet_id, unsigned int request, int error,
                     const char* message, const Base::FieldDesc* desc, const void* record) {
    QelRspInfoField info;
    memset(&info, 0, sizeof(info));
    info.ErrorID = error;
    put_text(info.ErrorMsg, message ? message : (error ? "error" : "success"));
    Reply r(c->replies(), packet_id, request);
    r.add(info);
    if (desc && record) r.add(desc, record, nullptr);
    r.finish();
}

void Exchange::handle(Connection* c, const char* frame) {
    Packet p = read_packet(frame);
    unsigned int id = p.header.PacketId;
    unsigned int request = p.header.RequestId;
    switch (id) {
    case PK_CRYPT: on_crypt(c, frame); return;
    case PK_AUTHENTICATE: on_authenticate(c, request, frame); return;
    case PK_LOGIN: on_login(c, request, frame); return;
    case PK_LOGOUT: on_logout(c, request, frame); return;
    case PK_PASSWORD: on_password(c, request, frame); return;
    case PK_SUBSCRIBE: on_subscribe(c, request, frame); return;
    case PK_ORDER_INSERT: on_order_insert(c, request, frame); return;
    case PK_ORDER_ACTION: on_order_action(c, request, frame); return;
    case PK_QUOTE_DEMAND: on_quote_demand(c, request, frame); return;
    default: break;
    }
    if (find_kind(id)) {
        on_family(c, request, id, frame);
        return;
    }
    if ((id >= 16385 && id <= 16897) || id == 24713 || id == 24744) {
        on_query(c, request, id, frame);
        return;
    }
    QelRspInfoField info;
    memset(&info, 0, sizeof(info));
    info.ErrorID = ERROR_UNSUPPORTED;
    put_text(info.ErrorMsg, "unknown request");
    Reply r(c->replies(), PK_RSP_ERROR, request);
    r.add(info);
    r.finish();
}

// ---- key exchange, authentication, login -----------------------------------

void Exchange::on_crypt(Connection* c, const char* frame) {
    QelUserapiSessionAuthInfoField client;
    find_record(frame, client);
    client.EncryptUserApiInfo[300] = '\0';
    memcpy(c->key_text, client.EncryptUserApiInfo, sizeof(c->key_text));
    c->crypt_value = int(random.next() & 0x7fffffff);
    unsigned long key = static_cast<unsigned long>(random.next()) << 33 ^ random.next() << 2 ^ random.next();
    int form = c->get_faults().raw() ? KEY_PLAIN : config.key_form;
    unsigned char type = static_cast<unsigned char>(config.cipher_type);
    QelUserapiSessionAuthInfoField answer;
    QelRspInfoField info;
    memset(&info, 0, sizeof(info));
    put_text(info.ErrorMsg, "success");
    if (!make_key_text(form, type, key, client.EncryptUserApiInfo, answer.EncryptUserApiInfo,
                       sizeof(answer.EncryptUserApiInfo))) {
        info.ErrorID = ERROR_AUTHENTICATION;
        put_text(info.ErrorMsg, "unreadable public key");
        form = KEY_PLAIN;
    }
    QelUserapiInitAuthInfoField init;
    init.InitEncryptInfo = c->crypt_value;
    Reply r(c->replies(), PK_RSP_CRYPT, 0);
    r.add(info);
    r.add(init);
    r.add(answer);
    r.finish();
    if (form != KEY_PLAIN) c->start_cipher(type, key);
}

void Exchange::on_authenticate(Connection* c, unsigned int request, const char* frame) {
    QelProductAuthField auth;
    find_record(frame, auth);
    bool ok = false;
    for (int i = 0; i < config.user_count && !ok; ++i) {
        const User& u = config.users[i];
        ok = u.app_id[0] && !strncmp(u.app_id, auth.AppID, sizeof(u.app_id)) &&
             check_auth_code(auth.AuthCode, u.auth_code, c->crypt_value);
    }
    c->authenticated = ok;
    memset(auth.AuthCode, 0, sizeof(auth.AuthCode));
    reply(c, PK_RSP_AUTHENTICATE, request, ok ? 0 : ERROR_AUTHENTICATION,
          ok ? "success" : "wrong AppID or AuthCode", &QelProductAuthField::DESC, &auth);
}

void Exchange::note_local_id(const char* user_id, const char* local_id) {
    if (!local_id || empty(local_id)) return;
    std::string& max = max_local_ids[user_id];
    if (strncmp(max.c_str(), local_id, 12) < 0) max.assign(local_id, strnlen(local_id, 12));
}

int Exchange::position_of(Topic* t, int asked, bool same_day) {
    unsigned long count = t->flow->get_count();
    if (asked < 0) return int(count);
    if (!same_day) return 0;
    return static_cast<unsigned long>(asked) > count ? int(count) : asked;
}

void Exchange::disseminate(Connection* c, const std::vector<QelDisseminationField>& list) {
    if (list.empty()) return;
    Reply r(c->replies(), PK_DISSEMINATION, 0);
    for (const QelDisseminationField& d : list) r.add(d);
    r.finish();
    for (const QelDisseminationField& d : list) {
        const char* owner = d.SequenceSeries == TOPIC_PRIVATE ? c->user->participant_id
                            : d.SequenceSeries == TOPIC_USER  ? c->user->user_id
                                                              : "";
        c->publish_topic(topic(d.SequenceSeries, owner)->flow, static_cast<unsigned long>(d.SequenceNo));
    }
}

void Exchange::on_login(Connection* c, unsigned int request, const char* frame) {
    QelReqUserLoginField in;
    find_record(frame, in);
    QelRspUserLoginField out;
    memset(&out, 0, sizeof(out));
    put_text(out.TradingDay, trading_day);
    stamp_time(out.LoginTime);
    put_text(out.UserID, in.UserID);
    put_text(out.ParticipantID, in.ParticipantID);
    put_text(out.TradingSystemName, "qelfront");
    out.DataCenterID = config.data_center_id;
    put_text(out.ActionDay, trading_day);
    const User* user = config.find_user(in.UserID);
    int error = 0;
    const char* message = "success";
    if (c->get_faults().refuse_login) {
        error = ERROR_LOGIN_REFUSED;
        message = "login refused by the front";
    } else if (c->logged_in) {
        error = ERROR_ALREADY_LOGGED_IN;
        message = "already logged in";
    } else if (!user || passwords[user->user_id] != std::string(in.Password, strnlen(in.Password, 40))) {
        error = ERROR_BAD_LOGIN;
        message = "wrong user or password";
    } else if (in.ParticipantID[0] && strcmp(in.ParticipantID, user->participant_id) != 0) {
        error = ERROR_WRONG_USER;
        message = "user not of this participant";
    }
    if (error) {
        Reply r(c->replies(), PK_RSP_LOGIN, request);
        QelRspInfoField info;
        memset(&info, 0, sizeof(info));
        info.ErrorID = error;
        put_text(info.ErrorMsg, message);
        r.add(info);
        r.add(out);
        r.finish();
        return;
    }
    c->user = user;
    c->logged_in = true;
    put_text(out.ParticipantID, user->participant_id);
    put_text(out.MaxOrderLocalID, max_local_ids[user->user_id].c_str());
    out.PrivateFlowSize = int(topic(TOPIC_PRIVATE, user->participant_id)->flow->get_count());
    out.UserFlowSize = int(topic(TOPIC_USER, user->user_id)->flow->get_count());
    QelRspInfoField info;
    memset(&info, 0, sizeof(info));
    put_text(info.ErrorMsg, "success");
    QelUserCommFluxControlField flux;
    flux.MaxTradeCommFlux = config.max_trade_flux;
    flux.MaxTradeOnWayCommFlux = config.max_trade_on_way;
    flux.MaxQueryCommFlux = config.max_query_flux;
    flux.MaxQueryOnWayCommFlux = config.max_query_on_way;
    Reply r(c->replies(), PK_RSP_LOGIN, request);
    r.add(info);
    r.add(flux);
    r.add(out);
    r.finish();

    // The topics, each from the position the login names.
    bool same_day = in.TradingDay[0] == '\0' || !strcmp(in.TradingDay, trading_day);
    std::vector<QelDisseminationField> list;
    Packet p = read_packet(frame);
    Network::QelcPacket::Iterator it(&p.header, p.body);
    for (unsigned short id = it.next(); id != Network::QelcPacket::END; id = it.next()) {
        if (id != QelDisseminationField::DESC.id) continue;
        QelDisseminationField d;
        it.get_field(&d, &QelDisseminationField::from_stream, false);
        if (d.SequenceSeries != TOPIC_PRIVATE && d.SequenceSeries != TOPIC_PUBLIC &&
            d.SequenceSeries != TOPIC_USER)
            continue;
        const char* owner = d.SequenceSeries == TOPIC_PRIVATE ? user->participant_id
                            : d.SequenceSeries == TOPIC_USER  ? user->user_id
                                                              : "";
        d.SequenceNo = position_of(topic(d.SequenceSeries, owner), d.SequenceNo, same_day);
        list.push_back(d);
    }
    disseminate(c, list);
    c->begin_stall();
}

void Exchange::on_logout(Connection* c, unsigned int request, const char* frame) {
    QelReqUserLogoutField in;
    find_record(frame, in);
    QelRspUserLogoutField out;
    memset(&out, 0, sizeof(out));
    put_text(out.UserID, in.UserID);
    put_text(out.ParticipantID, in.ParticipantID);
    if (!c->logged_in) {
        reply(c, PK_RSP_LOGOUT, request, ERROR_NOT_LOGGED_IN, "not logged in", &QelRspUserLogoutField::DESC, &out);
        return;
    }
    c->logged_in = false;
    reply(c, PK_RSP_LOGOUT, request, 0, "success", &QelRspUserLogoutField::DESC, &out);
}

void Exchange::on_password(Connection* c, unsigned int request, const char* frame) {
    QelUserPasswordUpdateField in;
    find_record(frame, in);
    int error = 0;
    const char* message = "success";
    if (!c->logged_in) {
        error = ERROR_NOT_LOGGED_IN;
        message = "not logged in";
    } else if (strcmp(in.UserID, c->user->user_id) != 0) {
        error = ERROR_WRONG_USER;
        message = "not the logged-in user";
    } else if (passwords[c->user->user_id] != std::string(in.OldPassword, strnlen(in.OldPassword, 40))) {
        error = ERROR_WRONG_PASSWORD;
        message = "wrong old password";
    } else {
        passwords[c->user->user_id].assign(in.NewPassword, strnlen(in.NewPassword, 40));
    }
    memset(in.OldPassword, 0, sizeof(in.OldPassword));
    memset(in.NewPassword, 0, sizeof(in.NewPassword));
    reply(c, PK_RSP_PASSWORD, request, error, message, &QelUserPasswordUpdateField::DESC, &in);
}

void Exchange::on_subscribe(Connection* c, unsigned int request, const char* frame) {
    QelDisseminationField d;
    find_record(frame, d);
    if (!c->logged_in) {
        reply(c, PK_RSP_SUBSCRIBE, request, ERROR_NOT_LOGGED_IN, "not logged in", &QelDisseminationField::DESC, &d);
        return;
    }
    if (d.SequenceSeries != TOPIC_PRIVATE && d.SequenceSeries != TOPIC_PUBLIC && d.SequenceSeries != TOPIC_USER) {
        reply(c, PK_RSP_SUBSCRIBE, request, ERROR_NOT_FOUND, "no such topic", &QelDisseminationField::DESC, &d);
        return;
    }
    const char* owner = d.SequenceSeries == TOPIC_PRIVATE ? c->user->participant_id
                        : d.SequenceSeries == TOPIC_USER  ? c->user->user_id
                                                          : "";
    d.SequenceNo = position_of(topic(d.SequenceSeries, owner), d.SequenceNo, true);
    reply(c, PK_RSP_SUBSCRIBE, request, 0, "success", &QelDisseminationField::DESC, &d);
    disseminate(c, std::vector<QelDisseminationField>{d});
}

// ---- orders -----------------------------------------------------------------

int Exchange::check_order(Connection* c, const QelInputOrderField& in, long& price) {
    if (!c->logged_in) return ERROR_NOT_LOGGED_IN;
    if (strcmp(in.UserID, c->user->user_id) != 0 || (in.ParticipantID[0] && strcmp(in.ParticipantID, c->user->participant_id) != 0))
        return ERROR_WRONG_USER;
    const Instrument* ins = config.find_instrument(in.InstrumentID);
    if (!ins) return ERROR_UNKNOWN_INSTRUMENT;
    if (in.VolumeTotalOriginal <= 0 || in.VolumeTotalOriginal > ins->max_volume) return ERROR_BAD_VOLUME;
    if (in.OrderPriceType == '1') {  // any price
        price = in.Direction == '0' ? to_fixed(&QelOrderField::DESC, "LimitPrice", ins->upper_limit)
                                    : to_fixed(&QelOrderField::DESC, "LimitPrice", ins->lower_limit);
        return 0;
    }
    if (in.LimitPrice < ins->lower_limit - 1e-9 || in.LimitPrice > ins->upper_limit + 1e-9) return ERROR_OUT_OF_LIMITS;
    double ticks = in.LimitPrice / ins->price_tick;
    long whole = long(ticks + 0.5);
    if (ticks - double(whole) > 1e-6 || double(whole) - ticks > 1e-6) return ERROR_OFF_TICK;
    price = to_fixed(&QelOrderField::DESC, "LimitPrice", in.LimitPrice);
    return 0;
}

static const char* error_text(int error) {
    switch (error) {
    case ERROR_NOT_LOGGED_IN: return "not logged in";
    case ERROR_WRONG_USER: return "not the logged-in user";
    case ERROR_UNKNOWN_INSTRUMENT: return "unknown instrument";
    case ERROR_BAD_VOLUME: return "volume out of range";
    case ERROR_OFF_TICK: return "price off the tick";
    case ERROR_OUT_OF_LIMITS: return "price out of limits";
    case ERROR_NOT_FOUND: return "not found";
    case ERROR_ALREADY_DONE: return "already done";
    case ERROR_UNSUPPORTED: return "unsupported";
    default: return "error";
    }
}

void Exchange::order_return(const Order* o) { to_owner(o->record, PK_RTN_ORDER, &QelOrderField::DESC, &o->record); }

void Exchange::on_order_insert(Connection* c, unsigned int request, const char* frame) {
    QelInputOrderField in;
    find_record(frame, in);
    long price = 0;
    int error = check_order(c, in, price);
    if (c->logged_in) note_local_id(c->user->user_id, in.OrderLocalID);
    if (error) {
        reply(c, PK_RSP_ORDER_INSERT, request, error, error_text(error), &QelInputOrderField::DESC, &in);
        return;
    }
    std::unique_ptr<Order> o(new Order());
    QelOrderField& r = o->record;
    memset(&r, 0, sizeof(r));
    copy_by_name(&QelOrderField::DESC, &r, &QelInputOrderField::DESC, &in);
    snprintf(in.OrderSysID, sizeof(in.OrderSysID), "%lu", next_order_id++);
    put_text(r.OrderSysID, in.OrderSysID);
    put_text(r.TradingDay, trading_day);
    put_text(r.SettlementGroupID, "SG01");
    r.SettlementID = 1;
    put_text(r.ParticipantID, c->user->participant_id);
    if (!r.ClientID[0]) put_text(r.ClientID, c->user->client_id);
    r.LimitPrice = price;
    r.OrderSource = '0';
    r.OrderStatus = '3';  // no trade, queueing
    r.OrderType = '0';
    r.VolumeTotal = in.VolumeTotalOriginal;
    put_text(r.InsertDate, trading_day);
    stamp_time(r.InsertTime);
    put_text(r.UpdateTime, r.InsertTime);
    put_text(r.ActiveUserID, c->user->user_id);
    r.Priority = 1;
    o->sequence = ++sequence;
    r.TimeSortID = static_cast<unsigned int>(o->sequence);
    put_text(r.ClearingPartID, c->user->participant_id);
    put_text(r.ActionDay, trading_day);
    o->price = price;
    o->left = in.VolumeTotalOriginal;
    reply(c, PK_RSP_ORDER_INSERT, request, 0, "success", &QelInputOrderField::DESC, &in);
    Order* order = o.get();
    orders.push_back(std::move(o));
    Book& book = books[r.InstrumentID];
    order_return(order);
    match(order, book);
}

void Exchange::match(Order* o, Book& book) {
    const bool buy = o->record.Direction == '0';
    const bool immediate = o->record.TimeCondition == '1' || o->record.OrderPriceType == '1';
    std::map<long, Level>& opposite = buy ? book.asks : book.bids;
    // Fill or kill: the whole volume must be there at acceptable prices.
    if (o->record.VolumeCondition == '3') {
        int there = 0;
        if (buy) {
            for (auto it = opposite.begin(); it != opposite.end() && it->first <= o->price; ++it)
                for (Order* m : it->second.orders) there += m->left;
        } else {
            for (auto it = opposite.rbegin(); it != opposite.rend() && it->first >= o->price; ++it)
                for (Order* m : it->second.orders) there += m->left;
        }
        if (there < o->left) {
            o->record.OrderStatus = '5';
            stamp_time(o->record.CancelTime);
            o->left = 0;
            order_return(o);
            return;
        }
    }
    while (o->left > 0 && !opposite.empty()) {
        auto level = buy ? opposite.begin() : std::prev(opposite.end());
        if (buy ? level->first > o->price : level->first < o->price) break;
        Order* m = level->second.orders.front();
        if (!strcmp(m->record.ParticipantID, o->record.ParticipantID) && !strcmp(m->record.ClientID, o->record.ClientID)) {
            // No trade with oneself: the resting order goes.
            level->second.orders.pop_front();
            m->record.OrderStatus = '5';
            stamp_time(m->record.CancelTime);
            m->left = 0;
            order_return(m);
        } else {
            int volume = o->left < m->left ? o->left : m->left;
            trade(o, m, volume, book);
            if (m->left == 0) level->second.orders.pop_front();
        }
        if (level->second.orders.empty()) opposite.erase(level);
    }
    if (o->left > 0 && immediate) {
        o->record.OrderStatus = '5';
        stamp_time(o->record.CancelTime);
        o->left = 0;
        order_return(o);
    } else if (o->left > 0) {
        (buy ? book.bids : book.asks)[o->price].orders.push_back(o);
    }
}

void Exchange::trade(Order* taker, Order* maker, int volume, Book& book) {
    char id[13];
    snprintf(id, sizeof(id), "%lu", next_trade_id++);
    char now[9];
    stamp_time(now);
    for (Order* o : {taker, maker}) {
        o->left -= volume;
        o->record.VolumeTraded += volume;
        o->record.VolumeTotal = o->left;
        o->record.OrderStatus = o->left == 0 ? '0' : '1';
        put_text(o->record.UpdateTime, now);
        QelTradeField t;
        memset(&t, 0, sizeof(t));
        copy_by_name(&QelTradeField::DESC, &t, &QelOrderField::DESC, &o->record);
        put_text(t.TradeID, id);
        t.TradingRole = '1';
        put_text(t.AccountID, o->record.ParticipantID);
        t.OffsetFlag = o->record.CombOffsetFlag[0];
        t.HedgeFlag = o->record.CombHedgeFlag[0];
        t.Price = maker->price;
        t.Volume = volume;
        put_text(t.TradeTime, now);
        t.TradeType = '0';
        t.PriceSource = '0';
        trades.push_back(t);
        store.fill(o->record.ParticipantID, o->record.ClientID, o->record.InstrumentID,
                   o->record.Direction, volume, maker->price, trading_day);
        to_owner(o->record, PK_RTN_TRADE, &QelTradeField::DESC, &t);
        order_return(o);
    }
    book.last_price = maker->price;
    book.volume += volume;
    book.turnover += maker->price / 100 * volume;
    store_dirty = true;
}

void Exchange::on_order_action(Connection* c, unsigned int request, const char* frame) {
    QelOrderActionField in;
    find_record(frame, in);
    int error = 0;
    Order* found = nullptr;
    if (!c->logged_in) {
        error = ERROR_NOT_LOGGED_IN;
    } else {
        note_local_id(c->user->user_id, in.ActionLocalID);
        for (auto& o : orders) {
            const QelOrderField& r = o->record;
            if (strcmp(r.ParticipantID, c->user->participant_id) != 0) continue;
            if (!empty(in.OrderSysID) ? !strcmp(r.OrderSysID, in.OrderSysID)
                                      : (!strcmp(r.OrderLocalID, in.OrderLocalID) && !strcmp(r.UserID, in.UserID))) {
                found = o.get();
                break;
            }
        }
        if (!found) error = ERROR_NOT_FOUND;
        else if (in.ActionFlag != '0') error = ERROR_UNSUPPORTED;
        else if (found->left == 0) error = ERROR_ALREADY_DONE;
    }
    if (found) put_text(in.OrderSysID, found->record.OrderSysID);
    if (error) {
        reply(c, PK_RSP_ORDER_ACTION, request, error, error_text(error), &QelOrderActionField::DESC, &in);
        return;
    }
    reply(c, PK_RSP_ORDER_ACTION, request, 0, "success", &QelOrderActionField::DESC, &in);
    Book& book = books[found->record.InstrumentID];
    std::map<long, Level>& side = found->record.Direction == '0' ? book.bids : book.asks;
    auto level = side.find(found->price);
    if (level != side.end()) {
        std::deque<Order*>& q = level->second.orders;
        for (auto it = q.begin(); it != q.end(); ++it)
            if (*it == found) {
                q.erase(it);
                break;
            }
        if (q.empty()) side.erase(level);
    }
    found->left = 0;
    found->record.OrderStatus = '5';
    stamp_time(found->record.CancelTime);
    put_text(found->record.UpdateTime, found->record.CancelTime);
    order_return(found);
}

// ---- the rest of the order family -------------------------------------------

void Exchange::on_family(Connection* c, unsigned int request, unsigned int packet_id, const char* frame) {
    const Kind* k = find_kind(packet_id);
    alignas(8) char in[4096];
    find_record(frame, k->in, in);
    if (!c->logged_in) {
        reply(c, k->response, request, ERROR_NOT_LOGGED_IN, "not logged in", k->in, in);
        return;
    }
    if (strcmp(text_of(k->in, in, "UserID"), c->user->user_id) != 0) {
        reply(c, k->response, request, ERROR_WRONG_USER, "not the logged-in user", k->in, in);
        return;
    }
    note_local_id(c->user->user_id, text_of(k->in, in, k->action ? "ActionLocalID" : k->local_id));
    if (!k->action) {
        const char* instrument = text_of(k->in, in, "InstrumentID");
        if (!config.find_instrument(instrument)) {
            reply(c, k->response, request, ERROR_UNKNOWN_INSTRUMENT, "unknown instrument", k->in, in);
            return;
        }
        char id[13];
        snprintf(id, sizeof(id), "%lu", next_entity_id++);
        set_named(k->in, in, k->sys_id, id);
        Entity e{k, std::vector<char>(size_t(k->rest->struct_size), '\0')};
        void* rest = e.record.data();
        copy_by_name(k->rest, rest, k->in, in);
        set_named(k->rest, rest, "TradingDay", trading_day);
        set_named(k->rest, rest, "SettlementGroupID", "SG01");
        set_named(k->rest, rest, "ParticipantID", c->user->participant_id);
        set_named(k->rest, rest, "ClearingPartID", c->user->participant_id);
        set_named(k->rest, rest, "InsertDate", trading_day);
        set_named(k->rest, rest, "ActionDay", trading_day);
        char now[9];
        stamp_time(now);
        set_named(k->rest, rest, "InsertTime", now);
        entities.push_back(std::move(e));
        reply(c, k->response, request, 0, "success", k->in, in);
        publish(TOPIC_PRIVATE, c->user->participant_id, k->rtn, k->rest, entities.back().record.data());
        publish(TOPIC_USER, c->user->user_id, k->rtn, k->rest, entities.back().record.data());
        return;
    }
    const char* sys_id = text_of(k->in, in, k->sys_id);
    const char* local_id = text_of(k->in, in, k->local_id);
    Entity* found = nullptr;
    for (Entity& e : entities) {
        if (e.kind->rest != k->rest) continue;
        const void* r = e.record.data();
        if (strcmp(text_of(k->rest, r, "ParticipantID"), c->user->participant_id) != 0) continue;
        if (!empty(sys_id) ? !strcmp(text_of(k->rest, r, k->sys_id), sys_id)
                           : !strcmp(text_of(k->rest, r, k->local_id), local_id)) {
            found = &e;
            break;
        }
    }
    if (!found) {
        reply(c, k->response, request, ERROR_NOT_FOUND, "not found", k->in, in);
        return;
    }
    void* rest = found->record.data();
    if (text_of(k->rest, rest, "CancelTime")[0]) {
        reply(c, k->response, request, ERROR_ALREADY_DONE, "already cancelled", k->in, in);
        return;
    }
    set_named(k->in, in, k->sys_id, text_of(k->rest, rest, k->sys_id));
    char now[9];
    stamp_time(now);
    set_named(k->rest, rest, "CancelTime", now);
    reply(c, k->response, request, 0, "success", k->in, in);
    publish(TOPIC_PRIVATE, c->user->participant_id, k->rtn, k->rest, rest);
    publish(TOPIC_USER, c->user->user_id, k->rtn, k->rest, rest);
}

void Exchange::on_quote_demand(Connection* c, unsigned int request, const char* frame) {
    QelInputQuoteDemandField in;
    find_record(frame, in);
    QelQuoteDemandInfoField info;
    memset(&info, 0, sizeof(info));
    copy_by_name(&QelQuoteDemandInfoField::DESC, &info, &QelInputQuoteDemandField::DESC, &in);
    put_text(info.TradingDay, trading_day);
    stamp_time(info.DemandTime);
    put_text(info.ActionDay, trading_day);
    int error = !c->logged_in ? ERROR_NOT_LOGGED_IN
                : !config.find_instrument(in.InstrumentID) ? ERROR_UNKNOWN_INSTRUMENT
                                                            : 0;
    reply(c, PK_RSP_QUOTE_DEMAND, request, error, error ? error_text(error) : "success",
          &QelQuoteDemandInfoField::DESC, &info);
    if (error) return;
    QelQuoteDemandNotifyField notify;
    memset(&notify, 0, sizeof(notify));
    put_text(notify.InstrumentID, in.InstrumentID);
    put_text(notify.DemandDay, trading_day);
    put_text(notify.DemandTime, info.DemandTime);
    snprintf(notify.QuoteDemandID, sizeof(notify.QuoteDemandID), "%lu", next_entity_id++);
    publish(TOPIC_PUBLIC, "", PK_QUOTE_DEMAND_NOTIFY, &QelQuoteDemandNotifyField::DESC, &notify);
}

// ---- queries ----------------------------------------------------------------

void Exchange::on_query(Connection* c, unsigned int request, unsigned int packet_id, const char* frame) {
    unsigned short answer = static_cast<unsigned short>(packet_id + 1);
    QelRspInfoField info;
    memset(&info, 0, sizeof(info));
    if (!c->logged_in) {
        info.ErrorID = ERROR_NOT_LOGGED_IN;
        put_text(info.ErrorMsg, "not logged in");
        Reply r(c->replies(), answer, request);
        r.add(info);
        r.finish();
        return;
    }
    put_text(info.ErrorMsg, "success");
    const char* part = c->user->participant_id;
    Reply r(c->replies(), answer, request);
    r.add(info);
    alignas(8) char q[4096];
    memset(q, 0, sizeof(q));
    Packet p = read_packet(frame);
    {
        Network::QelcPacket::Iterator it(&p.header, p.body);
        unsigned short id = it.next();
        if (id != Network::QelcPacket::END) {
            if (const Base::FieldDesc* d = get_qel_field_desc(id)) it.get_field(q, d, false);
        }
    }
    auto wanted_instrument = [&](const Base::FieldDesc* d, const char* instrument) {
        const char* want = text_of(d, q, "InstrumentID");
        if (want[0] && strcmp(want, instrument) != 0) return false;
        const char* start = text_of(d, q, "InstIDStart");
        const char* end = text_of(d, q, "InstIDEnd");
        if (start[0] && strcmp(instrument, start) < 0) return false;
        if (end[0] && strcmp(instrument, end) > 0) return false;
        return true;
    };
    switch (packet_id) {
    case 16385: {  // part account
        r.add(*store.account(part, trading_day, config.initial_balance));
        break;
    }
    case 16387: {  // orders
        const Base::FieldDesc* d = &QelQryOrderField::DESC;
        for (auto& o : orders) {
            const QelOrderField& rec = o->record;
            if (strcmp(rec.ParticipantID, part) != 0 || !wanted_instrument(d, rec.InstrumentID)) continue;
            const char* sys = text_of(d, q, "OrderSysID");
            if (sys[0] && strcmp(sys, rec.OrderSysID) != 0) continue;
            r.add(rec);
        }
        break;
    }
    case 16391: {  // trades
        const Base::FieldDesc* d = &QelQryTradeField::DESC;
        for (const QelTradeField& t : trades) {
            if (strcmp(t.ParticipantID, part) != 0 || !wanted_instrument(d, t.InstrumentID)) continue;
            r.add(t);
        }
        break;
    }
    case 16393: {  // clients
        std::vector<std::string> seen;
        for (int i = 0; i < config.user_count; ++i) {
            const User& u = config.users[i];
            if (strcmp(u.participant_id, part) != 0) continue;
            bool again = false;
            for (const std::string& s : seen) again = again || s == u.client_id;
            if (again) continue;
            seen.push_back(u.client_id);
            QelRspClientField client;
            memset(&client, 0, sizeof(client));
            put_text(client.ClientID, u.client_id);
            put_text(client.ClientName, u.user_id);
            client.TradingRole = '1';
            client.ClientType = '1';
            client.IsActive = 1;
            put_text(client.ParticipantID, part);
            r.add(client);
        }
        break;
    }
    case 16395: {  // participant positions, summed over clients
        std::vector<QelRspPartPositionField> sums;
        for (const QelRspClientPositionField& pos : store.get_positions()) {
            if (strcmp(pos.ParticipantID, part) != 0 || !wanted_instrument(&QelQryPartPositionField::DESC, pos.InstrumentID)) continue;
            QelRspPartPositionField* sum = nullptr;
            for (QelRspPartPositionField& s : sums)
                if (!strcmp(s.InstrumentID, pos.InstrumentID) && s.PosiDirection == pos.PosiDirection) sum = &s;
            if (!sum) {
                QelRspPartPositionField s;
                memset(&s, 0, sizeof(s));
                copy_by_name(&QelRspPartPositionField::DESC, &s, &QelRspClientPositionField::DESC, &pos);
                s.Position = 0;
                s.YdPosition = 0;
                s.TradingRole = '1';
                sums.push_back(s);
                sum = &sums.back();
            }
            sum->Position += pos.Position;
            sum->YdPosition += pos.YdPosition;
        }
        for (const QelRspPartPositionField& s : sums) r.add(s);
        break;
    }
    case 16397: {  // client positions
        const Base::FieldDesc* d = &QelQryClientPositionField::DESC;
        for (const QelRspClientPositionField& pos : store.get_positions()) {
            if (strcmp(pos.ParticipantID, part) != 0 || !wanted_instrument(d, pos.InstrumentID)) continue;
            const char* start = text_of(d, q, "ClientIDStart");
            if (start[0] && strcmp(pos.ClientID, start) < 0) continue;
            r.add(pos);
        }
        break;
    }
    case 16399:    // instruments
    case 16401:    // instrument states
    case 16641: {  // market data
        const Base::FieldDesc* d = get_qel_field_desc(p.header.PacketId == 16399   ? "QelQryInstrumentField"
                                                      : p.header.PacketId == 16401 ? "QelQryInstrumentStatusField"
                                                                                   : "QelQryMarketDataField");
        for (int i = 0; i < config.instrument_count; ++i) {
            const Instrument& ins = config.instruments[i];
            if (d && !wanted_instrument(d, ins.instrument_id)) continue;
            if (packet_id == 16399) {
                QelRspInstrumentField f;
                memset(&f, 0, sizeof(f));
                const Base::FieldDesc* fd = &QelRspInstrumentField::DESC;
                put_text(f.SettlementGroupID, "SG01");
                put_text(f.ProductID, ins.product_id);
                put_text(f.ProductGroupID, ins.product_id);
                f.ProductClass = strchr(ins.instrument_id, '-') ? '2' : '1';
                f.PositionType = '2';
                f.VolumeMultiple = 10;
                f.UnderlyingMultiple = to_fixed(fd, "UnderlyingMultiple", 1);
                f.StrikePrice = to_fixed(fd, "StrikePrice", 0);
                put_text(f.InstrumentID, ins.instrument_id);
                put_text(f.InstrumentName, ins.instrument_id);
                f.IsTrading = 1;
                put_text(f.CreateDate, trading_day);
                put_text(f.OpenDate, trading_day);
                f.BasisPrice = to_fixed(fd, "BasisPrice", (ins.lower_limit + ins.upper_limit) / 2);
                f.MaxLimitOrderVolume = ins.max_volume;
                f.MinLimitOrderVolume = 1;
                f.MaxMarketOrderVolume = ins.max_volume;
                f.MinMarketOrderVolume = 1;
                f.PriceTick = to_fixed(fd, "PriceTick", ins.price_tick);
                put_text(f.CurrencyID, "CNY");
                r.add(f);
            } else if (packet_id == 16401) {
                QelInstrumentStatusField s;
                memset(&s, 0, sizeof(s));
                put_text(s.SettlementGroupID, "SG01");
                put_text(s.InstrumentID, ins.instrument_id);
                s.InstrumentStatus = '2';
                s.TradingSegmentSN = 1;
                put_text(s.EnterTime, "09:00:00");
                s.EnterReason = '1';
                put_text(s.EnterDate, trading_day);
                r.add(s);
            } else {
                const Book& book = books[ins.instrument_id];
                QelMarketDataField m;
                memset(&m, 0, sizeof(m));
                const Base::FieldDesc* md = &QelMarketDataField::DESC;
                put_text(m.TradingDay, trading_day);
                put_text(m.SettlementGroupID, "SG01");
                m.SettlementID = 1;
                double last = from_fixed(&QelOrderField::DESC, "LimitPrice", book.last_price);
                m.LastPrice = to_fixed(md, "LastPrice", last);
                for (long* v : {&m.PreSettlementPrice, &m.PreClosePrice, &m.PreOpenInterest, &m.OpenPrice,
                                &m.HighestPrice, &m.LowestPrice, &m.OpenInterest, &m.ClosePrice,
                                &m.SettlementPrice, &m.PreDelta, &m.CurrDelta})
                    *v = Base::FIXED_POINT_NULL;
                m.Volume = book.volume;
                m.Turnover = to_fixed(md, "Turnover", 0);
                m.UpperLimitPrice = to_fixed(md, "UpperLimitPrice", ins.upper_limit);
                m.LowerLimitPrice = to_fixed(md, "LowerLimitPrice", ins.lower_limit);
                stamp_time(m.UpdateTime);
                put_text(m.InstrumentID, ins.instrument_id);
                put_text(m.ActionDay, trading_day);
                r.add(m);
            }
        }
        break;
    }
    case 16643: {  // bulletins
        for (const QelBulletinField& b : bulletins) r.add(b);
        break;
    }
    case 16897: {  // topics
        QelDisseminationField want;
        memcpy(&want, q, sizeof(want));
        for (int subject : {TOPIC_PRIVATE, TOPIC_PUBLIC, TOPIC_USER}) {
            if (want.SequenceSeries && want.SequenceSeries != subject) continue;
            const char* owner = subject == TOPIC_PRIVATE ? part : subject == TOPIC_USER ? c->user->user_id : "";
            QelDisseminationField d;
            d.SequenceSeries = static_cast<short>(subject);
            d.SequenceNo = int(topic(subject, owner)->flow->get_count());
            r.add(d);
        }
        break;
    }
    case 24713: {  // exchange rates
        QelRspExchangeRateField rate;
        memset(&rate, 0, sizeof(rate));
        put_text(rate.TradingDay, trading_day);
        put_text(rate.CurrencyID, "USD");
        rate.RateUnit = 1;
        rate.RatePrice = 7.1;
        r.add(rate);
        break;
    }
    case 16389:    // quotes
    case 16416:    // exec orders
    case 16418:    // abandoned exec orders
    case 24744: {  // self-close settings
        const Base::FieldDesc* rest = packet_id == 16389   ? &QelQuoteField::DESC
                                      : packet_id == 16416 ? &QelExecOrderField::DESC
                                      : packet_id == 16418 ? &QelAbandonExecOrderField::DESC
                                                           : &QelOptionSelfCloseField::DESC;
        for (const Entity& e : entities)
            if (e.kind->rest == rest && !strcmp(text_of(rest, e.record.data(), "ParticipantID"), part))
                r.add(rest, e.record.data(), nullptr);
        break;
    }
    default:  // hedge volumes and the like: nothing to show
        break;
    }
    r.finish();
}

}  // namespace Front
