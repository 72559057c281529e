// Front::Config: everything the simulated front is told, with defaults that
// let it run with nothing given: 127.0.0.1:17001, two participants with two
// users each, three instruments, no cipher key, no data directory.
//
// One text form serves the file and the command line: a file holds lines
// "key = value" ('#' starts a comment), and a flag is "--key value". The
// same key may repeat for users and instruments; the first one given
// replaces the built-in table, later ones add to it.
//
//   user = UserID,ParticipantID,Password[,ClientID[,AppID,AuthCode]]
//   instrument = InstrumentID,ProductID,PriceTick,LowerLimit,UpperLimit[,MaxVolume]
//
// Front::Faults: what a connection does wrong on purpose, for tests of the
// trader's recovery. Faults given to the Config apply to every connection;
// a test may change them for the connections accepted from then on.
#pragma once

namespace Front {

enum KeyForm : int {
    KEY_PLAIN = 0,  // the channel stays in clear
    KEY_HASH = 1,   // key masked with a hash of the client's public key text
    KEY_SM2 = 2,    // key enciphered with the client's SM2 public key
};

struct Faults {
    int slice;          // outbound bytes go out in pieces of this size, one per millisecond; 0: whole
    int stall_ms;       // after the login reply, nothing goes out for this long
    int drop_after;     // the connection is closed after this many data frames out; 0: never
    int corrupt_at;     // this data frame out has a broken version byte; 0: none
    int oversize_at;    // this data frame out is replaced by one longer than any frame; 0: none
    int silent_after;   // after this many data frames out, nothing more goes out; 0: never
    bool refuse_login;  // every login is answered with an error
    int delay_ms;       // each request is handled this long after it came

    // True when outbound bytes must pass the front's own pump rather than
    // the channel's write path.
    bool raw() const {
        return slice > 0 || stall_ms > 0 || drop_after > 0 || corrupt_at > 0 || oversize_at > 0 ||
               silent_after > 0;
    }
};

struct User {
    char user_id[16];
    char participant_id[11];
    char password[41];
    char client_id[11];
    char app_id[41];     // empty: no authentication asked for
    char auth_code[17];
};

struct Instrument {
    char instrument_id[31];
    char product_id[9];
    double price_tick;
    double lower_limit;
    double upper_limit;
    int max_volume;
};

struct Config {
    static const int MAX_USERS = 64;
    static const int MAX_INSTRUMENTS = 64;

    char host[64];
    int port;
    char trading_day[9];      // YYYYMMDD; empty: today
    char data_dir[256];       // accounts, positions and topic flows; empty: kept in memory
    int key_form;             // KeyForm
    int cipher_type;          // 1 to 4 when key_form is not KEY_PLAIN
    int data_center_id;
    int max_trade_flux;       // the limits the login reply gives
    int max_trade_on_way;
    int max_query_flux;
    int max_query_on_way;
    double initial_balance;   // of a participant with no account in the file
    bool quiet;
    User users[MAX_USERS];
    int user_count;
    Instrument instruments[MAX_INSTRUMENTS];
    int instrument_count;
    Faults faults;

    Config();
    // Sets one key; false with a message in error for an unknown key or a bad value.
    bool set(const char* key, const char* value, char* error, int size);
    // Reads a file of "key = value" lines.
    bool load(const char* path, char* error, int size);
    // Flags; "--config file" loads a file in place. Returns 0, 1 for --help,
    // or -1 with a message in error.
    int parse_args(int argc, char** argv, char* error, int size);
    static const char* usage();

    const User* find_user(const char* user_id) const;
    const Instrument* find_instrument(const char* instrument_id) const;

private:
    bool users_given;
    bool instruments_given;
};

}  // namespace Front
