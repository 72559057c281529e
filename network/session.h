// Sessions: what outlives a connection.
//
// Network::ClientSession links sessions into a chain: each has a parent,
// and connection events (on_created, on_connected, on_disconnected,
// on_connect_failed) travel up the chain to the top, which is the owner.
// The base versions only forward to the parent. Handlers in the chain call
// their parent first, then act.
//
// Network::ListenSession and Network::ServerSession are the accepting
// side's counterparts: a server session makes a client session for each
// accepted descriptor (create_client), and is told when one is made and
// when one goes (on_client_created, on_client_destroy).
//
// All on_* run on the reactor thread of the session.
#pragma once

#include "containers/list.h"

namespace Base {
class Reportable;
}

namespace Parallel {
class FdReactor;
class Handler;
}  // namespace Parallel

namespace Network {

class Channel;

class ClientSession {
public:
    ClientSession(Parallel::FdReactor* reactor, ClientSession* parent, Base::Reportable* reporter);
    virtual ~ClientSession();

    virtual void on_created();
    virtual void on_connected();
    virtual void on_disconnected(int reason);
    virtual void on_connect_failed(ClientSession* session);
    virtual Channel* get_channel();

    void set_session(ClientSession* parent) { session = parent; }
    ClientSession* get_session() const { return session; }
    ClientSession* get_top_session();
    void set_node(Parallel::Handler* owner, Base::List::Node* list_node) {
        handler = owner;
        node = list_node;
    }
    Base::List::Node* get_node() const { return node; }
    Parallel::Handler* get_handler() const { return handler; }
    Parallel::FdReactor* get_reactor() const { return reactor; }
    Base::Reportable* get_reporter() const { return reporter; }

    // Switches the cipher of the current channel, if there is one.
    void set_cipher(unsigned char type, unsigned long key);

protected:
    Parallel::FdReactor* reactor;
    ClientSession* session;
    Base::Reportable* reporter;
    Parallel::Handler* handler;
    Base::List::Node* node;

private:
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;
};

class ListenSession {
public:
    ListenSession(Parallel::FdReactor* reactor, ListenSession* parent, Base::Reportable* reporter)
        : reactor(reactor), session(parent), reporter(reporter) {}
    virtual ~ListenSession() {}
    virtual void on_accepted(int fd) {
        if (session) session->on_accepted(fd);
    }

protected:
    Parallel::FdReactor* reactor;
    ListenSession* session;
    Base::Reportable* reporter;
};

class ServerSession {
public:
    ServerSession(Parallel::FdReactor* reactor, ServerSession* parent, Base::Reportable* reporter)
        : reactor(reactor), session(parent), reporter(reporter) {}
    virtual ~ServerSession() {}

    // Makes a client for fd, tells this session, then the client.
    virtual void on_accepted(int fd);
    virtual ClientSession* create_client(int fd) {
        return session ? session->create_client(fd) : nullptr;
    }
    virtual void on_client_created(ClientSession* client) {
        if (session) session->on_client_created(client);
    }
    virtual void on_client_destroy(ClientSession* client) {
        if (session) session->on_client_destroy(client);
    }

    ServerSession* get_session() const { return session; }

protected:
    Parallel::FdReactor* reactor;
    ServerSession* session;
    Base::Reportable* reporter;

private:
    ServerSession(const ServerSession&) = delete;
    ServerSession& operator=(const ServerSession&) = delete;
};

}  // namespace Network
