#include "front/store.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "containers/vector.h"
#include "front/records.h"
#include "text/json.h"

namespace Front {

namespace {

template <class R>
void read_list(const Base::Json::Object* root, const char* name, std::vector<R>& out) {
    const Base::Json::Property* property = root->get_property(name);
    if (!property || property->get_value()->type != Base::Json::VALUE_ARRAY) return;
    const Base::Vector* array = property->get_value()->array;
    for (unsigned int i = 0; i < array->get_count(); ++i) {
        const Base::Json::Value* value = static_cast<const Base::Json::Value*>(array->get(i));
        if (value->type != Base::Json::VALUE_OBJECT) continue;
        R record;
        memset(&record, 0, sizeof(record));
        R::DESC.from_json(value->object, &record);
        out.push_back(record);
    }
}

template <class R>
void write_list(FILE* file, const char* name, const std::vector<R>& list) {
    char buffer[8192];
    char escaped[16384];
    fprintf(file, "\"%s\":[", name);
    for (size_t i = 0; i < list.size(); ++i) {
        fputs(i ? ",\n" : "\n", file);
        R::DESC.to_json(file, &list[i], buffer, escaped, false);
    }
    fputs("]", file);
}

}  // namespace

bool Store::load(const char* path) {
    if (access(path, F_OK) != 0) return true;
    Base::Json::Object* root = Base::Json::parse_file(path);
    if (!root) return false;
    accounts.clear();
    positions.clear();
    read_list(root, "accounts", accounts);
    read_list(root, "positions", positions);
    delete root;
    return true;
}

bool Store::save(const char* path) const {
    char temporary[512];
    snprintf(temporary, sizeof(temporary), "%s.new", path);
    FILE* file = fopen(temporary, "w");
    if (!file) return false;
    fputs("{", file);
    write_list(file, "accounts", accounts);
    fputs(",\n", file);
    write_list(file, "positions", positions);
    fputs("}\n", file);
    bool ok = fflush(file) == 0;
    ok = fclose(file) == 0 && ok;
    return ok && rename(temporary, path) == 0;
}

QelRspPartAccountField* Store::account(const char* participant_id, const char* trading_day,
                                       double balance) {
    for (QelRspPartAccountField& a : accounts)
        if (!strcmp(a.AccountID, participant_id)) return &a;
    QelRspPartAccountField a;
    memset(&a, 0, sizeof(a));
    put_text(a.TradingDay, trading_day);
    put_text(a.SettlementGroupID, "SG01");
    put_text(a.AccountID, participant_id);
    const Base::FieldDesc* d = &QelRspPartAccountField::DESC;
    a.PreBalance = to_fixed(d, "PreBalance", balance);
    a.Balance = to_fixed(d, "Balance", balance);
    a.Available = to_fixed(d, "Available", balance);
    accounts.push_back(a);
    return &accounts.back();
}

QelRspClientPositionField* Store::position(const char* participant_id, const char* client_id,
                                           const char* instrument_id, char posi_direction,
                                           const char* trading_day) {
    for (QelRspClientPositionField& p : positions)
        if (!strcmp(p.ParticipantID, participant_id) && !strcmp(p.ClientID, client_id) &&
            !strcmp(p.InstrumentID, instrument_id) && p.PosiDirection == posi_direction)
            return &p;
    QelRspClientPositionField p;
    memset(&p, 0, sizeof(p));
    put_text(p.TradingDay, trading_day);
    put_text(p.SettlementGroupID, "SG01");
    p.HedgeFlag = '1';
    p.PosiDirection = posi_direction;
    put_text(p.InstrumentID, instrument_id);
    put_text(p.ParticipantID, participant_id);
    put_text(p.ClientID, client_id);
    positions.push_back(p);
    return &positions.back();
}

void Store::fill(const char* participant_id, const char* client_id, const char* instrument_id,
                 char direction, int volume, long price, const char* trading_day) {
    // Net positions: a buy first covers a short, the rest opens a long.
    const char own = direction == '0' ? '2' : '3';      // long, short
    const char other = direction == '0' ? '3' : '2';
    QelRspClientPositionField* opposite =
        position(participant_id, client_id, instrument_id, other, trading_day);
    int covered = opposite->Position < volume ? opposite->Position : volume;
    opposite->Position -= covered;
    QelRspClientPositionField* mine =
        position(participant_id, client_id, instrument_id, own, trading_day);
    mine->Position += volume - covered;
    if (direction == '0')
        mine->BuyTradeVolume += volume;
    else
        mine->SellTradeVolume += volume;
    const Base::FieldDesc* d = &QelRspClientPositionField::DESC;
    double cost = from_fixed(d, "PositionCost", mine->PositionCost) +
                  from_fixed(&QelTradeField::DESC, "Price", price) * (volume - covered);
    mine->PositionCost = to_fixed(d, "PositionCost", cost);
}

}  // namespace Front
