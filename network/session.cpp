#include "network/session.h"

#include <unistd.h>

#include "network/channel.h"

namespace Network {

ClientSession::ClientSession(Parallel::FdReactor* r, ClientSession* parent, Base::Reportable* rep)
    : reactor(r), session(parent), reporter(rep), handler(nullptr), node(nullptr) {}

ClientSession::~ClientSession() {}

void ClientSession::on_created() {
    if (session) session->on_created();
}

void ClientSession::on_connected() {
    if (session) session->on_connected();
}

void ClientSession::on_disconnected(int reason) {
    if (session) session->on_disconnected(reason);
}

void ClientSession::on_connect_failed(ClientSession* failed) {
    if (session) session->on_connect_failed(failed);
}

Channel* ClientSession::get_channel() { return nullptr; }

ClientSession* ClientSession::get_top_session() {
    ClientSession* top = this;
    while (top->session) top = top->session;
    return top;
}

void ClientSession::set_cipher(unsigned char type, unsigned long key) {
    if (Channel* channel = get_channel()) channel->set_cipher(type, key);
}

void ServerSession::on_accepted(int fd) {
    ClientSession* client = create_client(fd);
    if (!client) {
        ::close(fd);
        return;
    }
    on_client_created(client);
    client->on_created();
}

}  // namespace Network
