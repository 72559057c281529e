// Front::Store: the accounts of participants and the positions of their
// clients, kept in one Json file between runs:
//
//   {"accounts":[{<QelRspPartAccountField members>}, ...],
//    "positions":[{<QelRspClientPositionField members>}, ...]}
//
// every member as the text form of its record. A trade moves the positions
// of both sides and the premium and margin of nothing else: the front is a
// simulator, not a clearing house. save() rewrites the file whole (into a
// temporary name, then renamed), so a crash leaves the old or the new one.
//
// Reactor thread only.
#pragma once

#include <vector>

#include "record/gen/qelfield.h"

namespace Front {

class Store {
public:
    // True when the file was read or doesn't exist; false when it can't be parsed.
    bool load(const char* path);
    bool save(const char* path) const;

    // Made on first use with the opening balance.
    QelRspPartAccountField* account(const char* participant_id, const char* trading_day,
                                    double balance);
    // Made on first use, empty.
    QelRspClientPositionField* position(const char* participant_id, const char* client_id,
                                        const char* instrument_id, char posi_direction,
                                        const char* trading_day);
    // A fill of volume at price for a buyer ('0') or seller ('1').
    void fill(const char* participant_id, const char* client_id, const char* instrument_id,
              char direction, int volume, long price, const char* trading_day);

    const std::vector<QelRspPartAccountField>& get_accounts() const { return accounts; }
    const std::vector<QelRspClientPositionField>& get_positions() const { return positions; }

private:
    std::vector<QelRspPartAccountField> accounts;
    std::vector<QelRspClientPositionField> positions;
};

}  // namespace Front
