#include "front/config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/strings.h"

namespace Front {

namespace {

void put_user(User& u, const char* user, const char* part, const char* password, const char* client,
              const char* app, const char* code) {
    memset(&u, 0, sizeof(u));
    Base::str_ncpy(sizeof(u.user_id) - 1, u.user_id, user);
    Base::str_ncpy(sizeof(u.participant_id) - 1, u.participant_id, part);
    Base::str_ncpy(sizeof(u.password) - 1, u.password, password);
    Base::str_ncpy(sizeof(u.client_id) - 1, u.client_id, client);
    Base::str_ncpy(sizeof(u.app_id) - 1, u.app_id, app);
    Base::str_ncpy(sizeof(u.auth_code) - 1, u.auth_code, code);
}

void put_instrument(Instrument& i, const char* id, const char* product, double tick, double low,
                    double high, int max_volume) {
    memset(&i, 0, sizeof(i));
    Base::str_ncpy(sizeof(i.instrument_id) - 1, i.instrument_id, id);
    Base::str_ncpy(sizeof(i.product_id) - 1, i.product_id, product);
    i.price_tick = tick;
    i.lower_limit = low;
    i.upper_limit = high;
    i.max_volume = max_volume;
}

// Splits text at commas into at most n trimmed parts; returns the count.
int split(char* text, char** parts, int n) {
    int count = 0;
    char* p = text;
    while (count < n) {
        char* comma = strchr(p, ',');
        if (comma) *comma = '\0';
        while (*p == ' ' || *p == '\t') ++p;
        char* end = p + strlen(p);
        while (end > p && (end[-1] == ' ' || end[-1] == '\t')) *--end = '\0';
        parts[count++] = p;
        if (!comma) break;
        p = comma + 1;
    }
    return count;
}

bool to_int(const char* text, int& out) {
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (!*text || *end) return false;
    out = int(v);
    return true;
}

bool to_double(const char* text, double& out) {
    char* end = nullptr;
    double v = strtod(text, &end);
    if (!*text || *end) return false;
    out = v;
    return true;
}

bool fail(char* error, int size, const char* what, const char* key, const char* value) {
    snprintf(error, size_t(size), "%s: %s = %s", what, key, value);
    return false;
}

}  // namespace

Config::Config() {
    memset(this, 0, sizeof(*this));
    Base::str_ncpy(sizeof(host) - 1, host, "127.0.0.1");
    port = 17001;
    key_form = KEY_HASH;
    cipher_type = 3;
    data_center_id = 1;
    max_trade_flux = 200;
    max_trade_on_way = 100;
    max_query_flux = 50;
    max_query_on_way = 10;
    initial_balance = 10000000.0;
    put_user(users[0], "trader1", "P001", "pass1", "C001", "demo_app", "demo_code_16byte");
    put_user(users[1], "trader2", "P002", "pass2", "C002", "demo_app", "demo_code_16byte");
    put_user(users[2], "trader3", "P001", "pass3", "C003", "", "");
    put_user(users[3], "trader4", "P002", "pass4", "C004", "", "");
    user_count = 4;
    put_instrument(instruments[0], "qe2612", "qe", 0.5, 3000.0, 5000.0, 1000);
    put_instrument(instruments[1], "qe2703", "qe", 0.5, 3000.0, 5000.0, 1000);
    put_instrument(instruments[2], "qe2612-C-4000", "qe_o", 0.1, 0.1, 1000.0, 500);
    instrument_count = 3;
}

bool Config::set(const char* key, const char* value, char* error, int size) {
    char text[512];
    Base::str_ncpy(sizeof(text) - 1, text, value);
    int n = 0;
    if (!strcmp(key, "host")) {
        Base::str_ncpy(sizeof(host) - 1, host, value);
    } else if (!strcmp(key, "port")) {
        if (!to_int(value, port) || port < 0 || port > 65535) return fail(error, size, "bad port", key, value);
    } else if (!strcmp(key, "trading_day")) {
        if (strlen(value) != 8 || !Base::is_digit(value)) return fail(error, size, "bad day", key, value);
        Base::str_ncpy(sizeof(trading_day) - 1, trading_day, value);
    } else if (!strcmp(key, "data_dir")) {
        Base::str_ncpy(sizeof(data_dir) - 1, data_dir, value);
    } else if (!strcmp(key, "key")) {
        if (!strcmp(value, "plain")) key_form = KEY_PLAIN;
        else if (!strcmp(value, "hash")) key_form = KEY_HASH;
        else if (!strcmp(value, "sm2")) key_form = KEY_SM2;
        else return fail(error, size, "key is plain, hash or sm2", key, value);
    } else if (!strcmp(key, "cipher")) {
        if (!to_int(value, cipher_type) || cipher_type < 1 || cipher_type > 4)
            return fail(error, size, "cipher is 1 to 4", key, value);
    } else if (!strcmp(key, "data_center")) {
        if (!to_int(value, data_center_id)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "trade_flux")) {
        if (!to_int(value, max_trade_flux)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "trade_on_way")) {
        if (!to_int(value, max_trade_on_way)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "query_flux")) {
        if (!to_int(value, max_query_flux)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "query_on_way")) {
        if (!to_int(value, max_query_on_way)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "balance")) {
        if (!to_double(value, initial_balance)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "quiet")) {
        quiet = strcmp(value, "0") != 0 && strcmp(value, "false") != 0;
    } else if (!strcmp(key, "user")) {
        char* p[6] = {};
        n = split(text, p, 6);
        if (n < 3 || n == 5 || !*p[0] || !*p[1]) return fail(error, size, "user is UserID,ParticipantID,Password[,ClientID[,AppID,AuthCode]]", key, value);
        if (!users_given) user_count = 0;
        users_given = true;
        if (user_count == MAX_USERS) return fail(error, size, "too many users", key, value);
        put_user(users[user_count++], p[0], p[1], p[2], n > 3 ? p[3] : p[1], n > 4 ? p[4] : "",
                 n > 5 ? p[5] : "");
    } else if (!strcmp(key, "instrument")) {
        char* p[6] = {};
        n = split(text, p, 6);
        double tick = 0, low = 0, high = 0;
        int max_volume = 1000;
        if (n < 5 || !*p[0] || !to_double(p[2], tick) || tick <= 0 || !to_double(p[3], low) ||
            !to_double(p[4], high) || low > high || (n > 5 && !to_int(p[5], max_volume)))
            return fail(error, size, "instrument is ID,ProductID,PriceTick,LowerLimit,UpperLimit[,MaxVolume]", key, value);
        if (!instruments_given) instrument_count = 0;
        instruments_given = true;
        if (instrument_count == MAX_INSTRUMENTS) return fail(error, size, "too many instruments", key, value);
        put_instrument(instruments[instrument_count++], p[0], p[1], tick, low, high, max_volume);
    } else if (!strcmp(key, "slice")) {
        if (!to_int(value, faults.slice)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "stall")) {
        if (!to_int(value, faults.stall_ms)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "drop_after")) {
        if (!to_int(value, faults.drop_after)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "corrupt_at")) {
        if (!to_int(value, faults.corrupt_at)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "oversize_at")) {
        if (!to_int(value, faults.oversize_at)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "silent_after")) {
        if (!to_int(value, faults.silent_after)) return fail(error, size, "bad number", key, value);
    } else if (!strcmp(key, "refuse_login")) {
        faults.refuse_login = strcmp(value, "0") != 0 && strcmp(value, "false") != 0;
    } else if (!strcmp(key, "delay")) {
        if (!to_int(value, faults.delay_ms)) return fail(error, size, "bad number", key, value);
    } else {
        return fail(error, size, "unknown key", key, value);
    }
    return true;
}

bool Config::load(const char* path, char* error, int size) {
    FILE* file = fopen(path, "r");
    if (!file) {
        snprintf(error, size_t(size), "can't open %s", path);
        return false;
    }
    char line[1024];
    int number = 0;
    bool ok = true;
    while (ok && fgets(line, sizeof(line), file)) {
        ++number;
        if (char* hash = strchr(line, '#')) *hash = '\0';
        char* end = line + strlen(line);
        while (end > line && (end[-1] == '\n' || end[-1] == '\r' || end[-1] == ' ' || end[-1] == '\t')) *--end = '\0';
        char* key = line;
        while (*key == ' ' || *key == '\t') ++key;
        if (!*key) continue;
        char* equal = strchr(key, '=');
        if (!equal) {
            snprintf(error, size_t(size), "%s:%d: no '='", path, number);
            ok = false;
            break;
        }
        char* value = equal + 1;
        *equal = '\0';
        for (char* k = equal; k > key && (k[-1] == ' ' || k[-1] == '\t');) *--k = '\0';
        while (*value == ' ' || *value == '\t') ++value;
        ok = set(key, value, error, size);
    }
    fclose(file);
    return ok;
}

int Config::parse_args(int argc, char** argv, char* error, int size) {
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (!strcmp(arg, "--help") || !strcmp(arg, "-h")) return 1;
        if (strncmp(arg, "--", 2) != 0 || i + 1 >= argc) {
            snprintf(error, size_t(size), "expected --key value at %s", arg);
            return -1;
        }
        const char* value = argv[++i];
        if (!strcmp(arg + 2, "config")) {
            if (!load(value, error, size)) return -1;
        } else if (!set(arg + 2, value, error, size)) {
            return -1;
        }
    }
    return 0;
}

const char* Config::usage() {
    return "qelfront: a simulated exchange front for the trader library\n"
           "usage: qelfront [--key value ...]\n"
           "  --config FILE          read \"key = value\" lines (same keys as the flags)\n"
           "  --host H --port P      where to listen (127.0.0.1 17001)\n"
           "  --trading_day YYYYMMDD the day of the flows (today)\n"
           "  --data_dir DIR         keep accounts, positions and topic flows here (memory only)\n"
           "  --key plain|hash|sm2   form of the session key (hash; plain: no cipher)\n"
           "  --cipher 1..4          channel cipher with a key: 1 xor, 2 DES, 3 AES, 4 SM4 (3)\n"
           "  --data_center N        data center id in the login reply (1)\n"
           "  --trade_flux N --trade_on_way N --query_flux N --query_on_way N\n"
           "                         request limits the login reply gives (200 100 50 10)\n"
           "  --balance X            opening balance of a new account (10000000)\n"
           "  --user U,P,PW[,C[,APP,CODE]]  a user (replaces the built-in table; repeatable)\n"
           "  --instrument ID,PRODUCT,TICK,LOW,HIGH[,MAXVOL]  an instrument (repeatable)\n"
           "  --quiet 1              no line per connection\n"
           "faults, for every connection:\n"
           "  --slice N              send in pieces of N bytes, one per millisecond\n"
           "  --stall MS             send nothing for MS after the login reply\n"
           "  --drop_after N         close after N data frames\n"
           "  --corrupt_at N         break the version byte of data frame N\n"
           "  --oversize_at N        send a frame longer than any frame instead of data frame N\n"
           "  --silent_after N       send nothing, heartbeats neither, after N data frames\n"
           "  --refuse_login 1       answer every login with an error\n"
           "  --delay MS             handle each request MS after it came\n"
           "built-in users: trader1/pass1 (P001, app demo_app, code demo_code_16byte),\n"
           "  trader2/pass2 (P002, same app), trader3/pass3 (P001), trader4/pass4 (P002)\n"
           "built-in instruments: qe2612, qe2703 (tick 0.5, 3000 to 5000), qe2612-C-4000\n";
}

const User* Config::find_user(const char* user_id) const {
    for (int i = 0; i < user_count; ++i)
        if (!strcmp(users[i].user_id, user_id)) return &users[i];
    return nullptr;
}

const Instrument* Config::find_instrument(const char* instrument_id) const {
    for (int i = 0; i < instrument_count; ++i)
        if (!strcmp(instruments[i].instrument_id, instrument_id)) return &instruments[i];
    return nullptr;
}

}  // namespace Front
