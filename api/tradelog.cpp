// The request and response logs: one text line per request sent and per
// reply or return received, for people to read.
//
// A line: "<time>,<name>," then "<ErrorID>,<ErrorMsg>," when an info is
// given, then the record as Name="value" pairs, then a newline; every line
// is flushed. The time is 20YYMMDDhhmmssmmm in local time.
//
// Each file has one writer at a time: the request log is written and
// swapped under api_mutex, the response log on the reactor thread, where
// OpenResponseLog has it swapped by an event once the reactor runs. A write
// error (a full disk, a file removed under the trader) is not noticed and
// never stops trading.
#include <cstdio>

#include "api/tradeapi.h"
#include "base/measure.h"
#include "network/xmppacket.h"
#include "parallel/fdreactor.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

namespace Api {

int TradeApi::OpenRequestLog(const char* path) {
    api_mutex.enter();
    // Closed first: a failed reopen leaves the log off, never pointing at
    // the old file.
    if (request_log != nullptr) std::fclose(request_log);
    request_log = std::fopen(path, "a+b");
    int result = request_log != nullptr ? 0 : -4;
    api_mutex.leave();
    return result;
}

int TradeApi::OpenResponseLog(const char* path) {
    FILE* file = std::fopen(path, "a+b");
    Parallel::FdReactor* running = reactor.load(std::memory_order_acquire);
    if (released.load(std::memory_order_acquire)) {
        // The reactor may be stopping or gone: nothing could swap the file.
        if (file != nullptr) std::fclose(file);
        return -4;
    }
    if (running == nullptr) {
        // Before Init no thread writes response lines.
        swap_response_log(file);
    } else {
        // The reactor thread writes the response lines, so it swaps the file
        // between two of them; the sign returns once it has.
        Base::Sign done(0);
        running->add_event(RESPONSE_LOG_EVENT, file, &done, this, false);
        done.join();
    }
    return file != nullptr ? 0 : -4;
}

void TradeApi::swap_response_log(FILE* file) {
    if (response_log != nullptr) std::fclose(response_log);
    response_log = file;
}

// 20YYMMDDhhmmssmmm: the tick reading YYMMDDhhmmss + 7 digits cut to
// milliseconds, with the century in front.
static unsigned long long log_time() {
    return Base::Measure::get_time(Base::Measure::get_local_clock()) / 10000 + 20000000000000000ULL;
}

static void write_record(FILE* file, const void* record, const Base::FieldDesc* desc, int size, char* scratch) {
    if (record == nullptr || desc == nullptr) return;
    const void* data = record;
    if (size != 0) {
        // Struct form (doubles) to the internal form the text writer takes.
        if (desc->struct_size > TradeApi::FIELD_BUFFER_SIZE) return;
        Network::XmpPacket::from_struct(desc, scratch, record, size);
        data = scratch;
    }
    desc->write_field(data, true, file, false, true, nullptr);
}

void write_log(FILE* file, const QelRspInfoField* info, const char* name, const void* record,
               const Base::FieldDesc* desc, int size, char* scratch) {
    if (file == nullptr) return;
    std::fprintf(file, "%llu,%s,", log_time(), name);
    if (info != nullptr) std::fprintf(file, "%d,%s,", info->ErrorID, info->ErrorMsg);
    write_record(file, record, desc, size, scratch);
    std::fputc('\n', file);
    std::fflush(file);
}

void write_log(FILE* file, const char* name, const void* record, const Base::FieldDesc* desc,
               int size, char* scratch) {
    write_log(file, nullptr, name, record, desc, size, scratch);
}

}  // namespace Api
