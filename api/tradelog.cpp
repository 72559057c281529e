// The request and response logs: one text line per request sent and per
// reply or return received.
#include "api/tradeapi.h"

namespace Api {

// Closes the log first: a failed reopen leaves the log off, never pointing
// at the old file.
static int open_log(FILE*& log, const char* path) {
    if (log != nullptr) {
        std::fclose(log);
        log = nullptr;
    }
    log = std::fopen(path, "a+b");
    return log != nullptr ? 0 : -4;
}

int TradeApi::OpenRequestLog(const char* path) { return open_log(request_log, path); }
int TradeApi::OpenResponseLog(const char* path) { return open_log(response_log, path); }

void TradeApi::swap_response_log(FILE* file) {}

void write_log(FILE* file, const QelRspInfoField* info, const char* name, const void* record,
               const Base::FieldDesc* desc, int size, char* scratch) {}

void write_log(FILE* file, const char* name, const void* record, const Base::FieldDesc* desc,
               int size, char* scratch) {}

}  // namespace Api
