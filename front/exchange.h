// Front::Exchange: what the front knows and does, apart from the network.
//
// It answers each request packet of a connection: the key exchange, the
// authentication, login and logout against the user table, every order-
// family request, the topic subscriptions and every query. Orders of all
// users meet in one price-time book per instrument: a limit order trades
// with the best opposite orders at their prices, oldest first, and rests
// with what is left; an immediate-or-cancel or market order cancels its
// rest, a fill-or-kill order trades whole or not at all. Rejects follow
// the rules of the configuration: an unknown instrument, a volume outside 1
// to the instrument's maximum, a price off its tick or outside its limits,
// a user or participant other than the logged-in one.
//
// Topics: returns go to the private flow of the participant (subject 2) and
// to the user flow of the user (subject 5); instrument states, bulletins and
// quote demands to the public flow (subject 3). Each flow is numbered from
// 1 in the trading day and, with a data directory, appended to a file and
// read back at the next start, so a trader resumes from any position across
// restarts of either side. A login asks for each topic from a position: -1
// is from now; a position beyond the flow's end, or of another trading day,
// gives the flow's end, or 0 for another day.
//
// Reactor thread only, but for the constructor, open() and close().
#pragma once

#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/random.h"
#include "front/config.h"
#include "front/store.h"
#include "network/qelcflow.h"
#include "record/gen/qelfield.h"

namespace Front {

class Connection;

// Error numbers the front answers with.
enum : int {
    ERROR_NOT_LOGGED_IN = 1,
    ERROR_BAD_LOGIN = 3,
    ERROR_ALREADY_LOGGED_IN = 4,
    ERROR_WRONG_USER = 5,
    ERROR_AUTHENTICATION = 6,
    ERROR_UNKNOWN_INSTRUMENT = 11,
    ERROR_BAD_VOLUME = 12,
    ERROR_OFF_TICK = 13,
    ERROR_OUT_OF_LIMITS = 14,
    ERROR_NOT_FOUND = 15,
    ERROR_ALREADY_DONE = 16,
    ERROR_UNSUPPORTED = 18,
    ERROR_WRONG_PASSWORD = 20,
    ERROR_LOGIN_REFUSED = 101,
};

class Exchange {
public:
    struct Topic {
        Network::QelcFlow* flow;
        Network::QelcFlow::Writer* writer;
        Base::DataFlow::Iterator* saver;  // behind the last record in the file
        FILE* file;
    };

    // The order family other than orders: what a request rests as, how its
    // answer and return are called, and the members that name it.
    struct Kind;

    explicit Exchange(const Config& config);
    ~Exchange();

    // Loads accounts and topic flows from the data directory, and fills a
    // new public flow. False when a file can't be read.
    bool open(char* error, int size);
    // Saves accounts and positions.
    void close();

    // One request frame (Xmp header first) from a connection.
    void handle(Connection* connection, const char* frame);
    // Once a second: saves what changed.
    void tick();

    const char* get_trading_day() const { return trading_day; }
    Topic* topic(int subject, const char* owner);
    Store& get_store() { return store; }
    unsigned long get_order_count() const { return orders.size(); }
    unsigned long get_trade_count() const { return trades.size(); }

private:
    struct Order {
        QelOrderField record;
        long price;
        int left;
        unsigned long sequence;
    };
    struct Level {
        std::deque<Order*> orders;
    };
    struct Book {
        std::map<long, Level> bids;  // best is the highest
        std::map<long, Level> asks;  // best is the lowest
        long last_price = 0;
        int volume = 0;
        long turnover = 0;
    };
    struct Entity {
        const Kind* kind;
        std::vector<char> record;
    };

    void on_crypt(Connection* c, const char* frame);
    void on_authenticate(Connection* c, unsigned int request, const char* frame);
    void on_login(Connection* c, unsigned int request, const char* frame);
    void on_logout(Connection* c, unsigned int request, const char* frame);
    void on_password(Connection* c, unsigned int request, const char* frame);
    void on_subscribe(Connection* c, unsigned int request, const char* frame);
    void on_order_insert(Connection* c, unsigned int request, const char* frame);
    void on_order_action(Connection* c, unsigned int request, const char* frame);
    void on_family(Connection* c, unsigned int request, unsigned int packet_id, const char* frame);
    void on_quote_demand(Connection* c, unsigned int request, const char* frame);
    void on_query(Connection* c, unsigned int request, unsigned int packet_id, const char* frame);

    // Sends a reply of packet id: an info with error, then record if given.
    void reply(Connection* c, unsigned short packet_id, unsigned int request, int error,
               const char* message, const Base::FieldDesc* desc, const void* record);
    void disseminate(Connection* c, const std::vector<QelDisseminationField>& topics);
    int position_of(Topic* topic, int asked, bool same_day);
    void publish(int subject, const char* owner, unsigned short packet_id,
                 const Base::FieldDesc* desc, const void* record);
    void to_owner(const QelOrderField& who, unsigned short packet_id, const Base::FieldDesc* desc,
                  const void* record);
    void save_topic(Topic* topic);

    int check_order(Connection* c, const QelInputOrderField& in, long& price);
    void match(Order* order, Book& book);
    void trade(Order* taker, Order* maker, int volume, Book& book);
    void order_return(const Order* order);
    void note_local_id(const char* user_id, const char* local_id);
    void stamp_time(char* time9);

    Config config;
    Base::Random random;
    char trading_day[9];
    Store store;
    bool store_dirty;
    char store_path[512];
    std::map<std::string, std::unique_ptr<Topic>> topics;  // "<subject>/<owner>"
    std::map<std::string, Book> books;
    std::vector<std::unique_ptr<Order>> orders;
    std::vector<QelTradeField> trades;
    std::vector<Entity> entities;
    std::vector<QelBulletinField> bulletins;
    std::map<std::string, std::string> passwords;  // by user
    std::map<std::string, std::string> max_local_ids;  // by user
    unsigned long next_order_id;
    unsigned long next_trade_id;
    unsigned long next_entity_id;
    unsigned long sequence;
};

}  // namespace Front
