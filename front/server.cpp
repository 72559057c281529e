#include "front/server.h"

#include <cstring>

#include "front/core.h"
#include "front/records.h"
#include "network/channel.h"
#include "network/xmppacket.h"
#include "record/gen/qelfield.h"

namespace Front {

Server::Server(const Config& config) : core(new Core(config)), running(false) { error[0] = '\0'; }

Server::~Server() {
    stop();
    delete core;
}

bool Server::start() {
    if (running) return true;
    error[0] = '\0';
    running = core->start(error, sizeof(error));
    return running;
}

void Server::stop() {
    if (!running) return;
    core->stop();
    running = false;
}

int Server::get_port() const { return core->get_port(); }
void Server::set_faults(const Faults& faults) { core->set_faults(faults); }
void Server::drop_connections() { core->drop_all(Network::REASON_PEER_CLOSED); }
int Server::get_connection_count() { return core->get_connection_count(); }

int Server::record_text(const char* record_name, const void* record, char* out, int size) {
    char name[80];
    snprintf(name, sizeof(name), "Qel%s", record_name);
    const Base::FieldDesc* desc = get_qel_field_desc(name);
    if (!desc || size < 1) return -1;
    // The public record holds doubles where the wire record holds scaled
    // integers; the text form is made from the latter.
    alignas(8) char internal[4096];
    memset(internal, 0, sizeof(internal));
    Network::XmpPacket::from_struct(desc, internal, record, desc->struct_size);
    return Front::record_text(desc, internal, out, size);
}

}  // namespace Front
